#ifndef BOARDKIT_CTL_PLOT_H
#define BOARDKIT_CTL_PLOT_H

#include <string>
#include <vector>

/// Pictures of measurements, as text and as SVG.
namespace plot {

/// A histogram in lines: "  120 to 140 us  ########  23".
std::vector<std::string> Histogram(const std::vector<double>& values, const std::string& unit);

/// A value above each place of the axis; negative values are gaps.
struct Series {
  std::string name;
  std::string colour;
  std::vector<double> values;
  bool isDashed = false;
};

/// One drawing below the others: its vertical axis is logarithmic.
struct Panel {
  std::string title;
  std::string unit;
  std::vector<Series> series;
};

/// A picture of panels with a common axis, whose places are @p labels.
std::string Svg(const std::string& title, const std::string& axis, const std::vector<std::string>& labels,
                const std::vector<Panel>& panels);

}  // namespace plot

#endif
