#include "Plot.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "Output.h"

namespace {

// The picture, in its own units.
constexpr double kPictureWidth = 960;
constexpr double kHead = 60;
constexpr double kPanel = 280;
constexpr double kFoot = 90;
constexpr double kLeft = 90;
constexpr double kRight = 30;
constexpr double kPanelHead = 56;  // title and legend

std::string Number(double number) {
  return Fixed(number, 1);
}

std::string Escaped(const std::string& text) {
  std::string escaped;
  for (const char character : text) {
    switch (character) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      default:
        // XML has no other control characters.
        escaped += static_cast<unsigned char>(character) < ' ' ? ' ' : character;
    }
  }
  return escaped;
}

std::string Text(double x, double y, const std::string& text, const std::string& attributes) {
  return "<text x=\"" + Number(x) + "\" y=\"" + Number(y) + "\" " + attributes + '>' + Escaped(text) + "</text>\n";
}

std::string Line(double x1, double y1, double x2, double y2, const std::string& attributes) {
  return "<line x1=\"" + Number(x1) + "\" y1=\"" + Number(y1) + "\" x2=\"" + Number(x2) + "\" y2=\"" + Number(y2) +
         "\" " + attributes + "/>\n";
}

/// "100", "10 k", "1 M": of powers of ten.
std::string Short(int exponent) {
  static constexpr const char* kUnits[] = {"", " k", " M", " G"};
  const int group = std::clamp(exponent / 3, 0, 3);
  return exponent < 0 ? Fixed(std::pow(10, exponent), -exponent)
                      : Fixed(std::pow(10, exponent - 3 * group), 0) + kUnits[group];
}

/// A panel's drawing, between heights @p top and @p bottom.
class PanelDrawing {
 public:
  PanelDrawing(const plot::Panel& panel, std::size_t places, double top)
      : m_panel(panel), m_places(places), m_top(top + kPanelHead), m_bottom(top + kPanel - 20) {
    double least = 0;
    double most = 0;
    for (const plot::Series& series : panel.series) {
      for (const double value : series.values) {
        if (value > 0) {
          least = least == 0 ? value : std::min(least, value);
          most = std::max(most, value);
        }
      }
    }
    m_low = least == 0 ? 0 : static_cast<int>(std::floor(std::log10(least)));
    m_high = std::max(m_low + 1, most == 0 ? 1 : static_cast<int>(std::ceil(std::log10(most))));
  }

  std::string Draw() const {
    std::string svg = Text(kLeft, m_top - 34, m_panel.title + " (" + m_panel.unit + ')', "class=\"title\"");
    for (int exponent = m_low; exponent <= m_high; ++exponent) {
      const double y = Y(std::pow(10, exponent));
      svg += Line(kLeft, y, kPictureWidth - kRight, y, "class=\"grid\"");
      svg += Text(kLeft - 8, y + 4, Short(exponent), "text-anchor=\"end\"");
    }
    double legend = kLeft;
    for (const plot::Series& series : m_panel.series) {
      svg += Draw(series);
      const std::string dash = series.isDashed ? " stroke-dasharray=\"6 4\"" : "";
      svg += Line(legend, m_top - 16, legend + 24, m_top - 16,
                  "stroke=\"" + series.colour + "\" stroke-width=\"2\"" + dash);
      svg += Text(legend + 30, m_top - 12, series.name, "");
      legend += 54 + 7.5 * static_cast<double>(series.name.size());
    }
    return svg;
  }

  static double X(std::size_t place, std::size_t places) {
    return kLeft + (kPictureWidth - kLeft - kRight) * (static_cast<double>(place) + 0.5) / static_cast<double>(places);
  }

 private:
  double Y(double value) const {
    return m_bottom - (std::log10(value) - m_low) / (m_high - m_low) * (m_bottom - m_top);
  }

  std::string Draw(const plot::Series& series) const {
    std::string points;
    std::string marks;
    std::string lines;
    const std::string style = "fill=\"none\" stroke=\"" + series.colour + "\" stroke-width=\"2\"" +
                              (series.isDashed ? " stroke-dasharray=\"6 4\"" : "");
    const auto end = [&] {
      if (!points.empty()) {
        lines += "<polyline points=\"" + points + "\" " + style + "/>\n";
        points.clear();
      }
    };
    for (std::size_t i = 0; i < series.values.size(); ++i) {
      if (series.values[i] <= 0) {
        end();
        continue;
      }
      const std::string x = Number(X(i, m_places));
      const std::string y = Number(Y(series.values[i]));
      points += (points.empty() ? "" : " ") + x + ',' + y;
      if (!series.isDashed) {
        marks += "<circle cx=\"" + x + "\" cy=\"" + y + "\" r=\"3.5\" fill=\"" + series.colour + "\"/>\n";
      }
    }
    end();
    return lines + marks;
  }

  const plot::Panel& m_panel;
  std::size_t m_places;
  double m_top;
  double m_bottom;
  int m_low = 0;  // powers of ten
  int m_high = 1;
};

}  // namespace

namespace plot {

std::vector<std::string> Histogram(const std::vector<double>& values, const std::string& unit) {
  constexpr std::size_t kRows = 8;
  constexpr std::size_t kLongest = 40;
  std::vector<std::string> rows;
  if (values.empty()) {
    return rows;
  }
  const auto [least, most] = std::minmax_element(values.begin(), values.end());
  const double step = std::max(1.0, std::ceil((*most - *least) / kRows));
  std::vector<std::size_t> counts(kRows);
  for (const double value : values) {
    ++counts[std::min(kRows - 1, static_cast<std::size_t>((value - *least) / step))];
  }
  const std::size_t highest = *std::max_element(counts.begin(), counts.end());
  while (!counts.empty() && counts.back() == 0) {
    counts.pop_back();
  }
  for (std::size_t i = 0; i < counts.size(); ++i) {
    const double from = *least + step * static_cast<double>(i);
    std::string range = Fixed(from, 0) + " to " + Fixed(from + step, 0) + ' ' + unit;
    range.insert(0, range.size() < 22 ? 22 - range.size() : 0, ' ');
    const std::size_t length = (counts[i] * kLongest + highest - 1) / highest;
    rows.push_back(range + "  " + std::string(length, '#') + (length == 0 ? "" : " ") + std::to_string(counts[i]));
  }
  return rows;
}

std::string Svg(const std::string& title, const std::string& axis, const std::vector<std::string>& labels,
                const std::vector<Panel>& panels) {
  const double height = kHead + kPanel * static_cast<double>(panels.size()) + kFoot;
  const std::string size = "0 0 " + Number(kPictureWidth) + ' ' + Number(height);
  std::string svg =
      "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"" + size +
      "\" font-family=\"sans-serif\" font-size=\"13\" role=\"img\">\n<title>" + Escaped(title) +
      "</title>\n<style>text{fill:#222}.title{font-size:15px;font-weight:bold}.grid{stroke:#ddd}</style>\n"
      "<rect width=\"100%\" height=\"100%\" fill=\"#fff\"/>\n" +
      Text(kLeft, 36, title, "font-size=\"20\" font-weight=\"bold\"");
  for (std::size_t i = 0; i < panels.size(); ++i) {
    svg += PanelDrawing(panels[i], labels.size(), kHead + kPanel * static_cast<double>(i)).Draw();
  }
  const double below = height - kFoot;
  for (std::size_t i = 0; i < labels.size(); ++i) {
    const double x = PanelDrawing::X(i, labels.size());
    const std::string turn = "text-anchor=\"end\" transform=\"rotate(-40 " + Number(x) + ' ' + Number(below) + ")\"";
    svg += Text(x + 4, below + 4, labels[i], turn);
  }
  return svg + Text((kLeft + kPictureWidth - kRight) / 2, height - 14, axis, "text-anchor=\"middle\"") + "</svg>\n";
}

}  // namespace plot
