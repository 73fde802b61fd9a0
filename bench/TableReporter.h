#ifndef BOARDKIT_BENCH_TABLEREPORTER_H
#define BOARDKIT_BENCH_TABLEREPORTER_H

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

/// Prints one line a case, as soon as the case is finished, and remembers what the verdicts add up to.
class TableReporter : public benchmark::BenchmarkReporter {
 public:
  /// @param contender what is compared with the bare code.
  /// @param judge false: only what is the same each time, instructions, gets a verdict and can exceed its limit.
  TableReporter(std::string contender, bool judge);

  bool ReportContext(const Context& context) override;
  void ReportRuns(const std::vector<Run>& runs) override;

  bool IsLimitExceeded() const;
  bool HasFailed() const;

 private:
  void PrintRow(const Run& run);

  std::string m_contender;
  bool m_judge;
  bool m_limitExceeded = false;
  bool m_failed = false;
};

#endif
