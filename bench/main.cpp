#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string_view>

#include "Benches.h"
#include "Contest.h"
#include "TableReporter.h"

namespace {

constexpr int kExitExceeded = 1;
constexpr int kExitFailed = 2;

constexpr std::string_view kSmokeOption = "--smoke";

int Run(int argc, char** argv) {
  if (argc == 3 && std::string_view(argv[1]) == kPeakMemoryOption) {
    return PrintPeakMemory(argv[2]);
  }

  char** const end = std::remove(argv + 1, argv + argc, kSmokeOption);
  const Effort effort = end == argv + argc ? Effort::Verdict : Effort::Smoke;
  argc = static_cast<int>(end - argv);
  *end = nullptr;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return kExitFailed;
  }

  RegisterSystemCallsBench(effort);
  RegisterFileBench(effort);
  RegisterWatchDogBench(effort);
  RegisterSerialPortBench(effort);
  RegisterLinuxutilsBench(effort);
  RegisterOpSystemBench(effort);
  RegisterIpNetBench(effort);

  TableReporter reporter(effort == Effort::Verdict);
  if (benchmark::RunSpecifiedBenchmarks(&reporter) == 0 || reporter.HasFailed()) {
    return kExitFailed;
  }
  return reporter.IsLimitExceeded() ? kExitExceeded : EXIT_SUCCESS;
}

}  // namespace

/// The status is 0 if all limits are kept, 1 if one is exceeded, 2 if something could not be measured. `--smoke` runs
/// everything for a moment, without verdicts; all other options are Google Benchmark's.
int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << argv[0] << ": " << error.what() << '\n';
    return kExitFailed;
  }
}
