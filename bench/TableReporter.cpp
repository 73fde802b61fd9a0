#include "TableReporter.h"

#include <cstddef>
#include <cstdio>
#include <ostream>
#include <string>
#include <utility>

#include "Contest.h"

namespace {

struct Scale {
  double size;
  const char* name;
};

// Largest first.
constexpr Scale kTimes[] = {{1, "s"}, {1e-3, "ms"}, {1e-6, "us"}, {1e-9, "ns"}};
constexpr Scale kSizes[] = {{1024.0 * 1024.0, "MiB"}, {1024, "KiB"}, {1, "B"}};

/// @p value on the largest scale that leaves a digit before the point.
template <std::size_t count>
std::string Format(double value, const Scale (&scales)[count]) {
  std::size_t i = 0;
  while (i + 1 < count && value < scales[i].size) {
    ++i;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", value / scales[i].size, scales[i].name);
  return text;
}

std::string Format(double value, Unit unit) {
  switch (unit) {
    case Unit::kSecond:
      return Format(value, kTimes);
    case Unit::kByte:
      return Format(value, kSizes);
    case Unit::kInstruction:
      break;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%.0f", value);
  return text;
}

std::string FormatRatio(double ratio) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f", ratio);
  return text;
}

std::string FormatLimit(Measure measure, Unit unit, double limit) {
  switch (measure) {
    case Measure::kDifference:
      return '+' + Format(limit, unit);
    case Measure::kTime:
      return Format(limit, unit);
    case Measure::kDeviation:
      return "+-" + FormatRatio(limit);
    case Measure::kNothing:
      return "-";
    case Measure::kRatio:
      break;
  }
  return FormatRatio(limit);
}

std::string FormatRow(const std::string& name, const std::string& bare, const std::string& boardkit,
                      const std::string& ratio, const std::string& limit, const std::string& verdict) {
  char text[160];
  std::snprintf(text, sizeof text, "%-29s | %10s | %10s | %6s | %8s | %s\n", name.c_str(), bare.c_str(),
                boardkit.c_str(), ratio.c_str(), limit.c_str(), verdict.c_str());
  return text;
}

}  // namespace

TableReporter::TableReporter(std::string contender, bool judge) : m_contender(std::move(contender)), m_judge(judge) {}

bool TableReporter::ReportContext(const Context& /*context*/) {
  GetOutputStream() << FormatRow("case", "bare", m_contender, "ratio", "limit", "verdict")
                    << "------------------------------|------------|------------|--------|----------|---------\n"
                    << std::flush;
  return true;
}

void TableReporter::ReportRuns(const std::vector<Run>& runs) {
  for (const Run& run : runs) {
    if (run.run_type != Run::RT_Aggregate) {
      PrintRow(run);
    }
  }
}

bool TableReporter::IsLimitExceeded() const {
  return m_limitExceeded;
}

bool TableReporter::HasFailed() const {
  return m_failed;
}

void TableReporter::PrintRow(const Run& run) {
  const std::string& name = run.run_name.function_name;
  const auto number = [&run](const char* counter) { return run.counters.at(counter).value; };

  // A case that failed left no numbers.
  if (run.counters.count("ratio") == 0) {
    m_failed = true;
    GetOutputStream() << FormatRow(name, "", "", "", "", "FAILED") << std::flush;
    return;
  }

  const auto measure = static_cast<Measure>(number("measure"));
  const auto unit = static_cast<Unit>(number("unit"));
  const bool hasVerdict = (m_judge || unit == Unit::kInstruction) && measure != Measure::kNothing;
  const bool exceeded = hasVerdict && number("judged") > number("limit");
  m_limitExceeded = m_limitExceeded || exceeded;
  const char* const verdict = !hasVerdict ? "-" : exceeded ? "EXCEEDED" : "ok";
  GetOutputStream() << FormatRow(name, Format(number("bare"), unit), Format(number("boardkit"), unit),
                                 FormatRatio(number("ratio")), FormatLimit(measure, unit, number("limit")), verdict)
                    << std::flush;
}
