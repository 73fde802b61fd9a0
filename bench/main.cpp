#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string_view>

#include "Benches.h"
#include "Contest.h"
#include "TableReporter.h"

namespace {

constexpr int kExitExceeded = 1;
constexpr int kExitFailed = 2;

/// Takes @p option out of the arguments.
/// @returns whether it was there.
bool Take(std::string_view option, int& argc, char** argv) {
  char** const end = std::remove(argv + 1, argv + argc, option);
  const bool wasThere = end != argv + argc;
  argc = static_cast<int>(end - argv);
  *end = nullptr;
  return wasThere;
}

int Run(int argc, char** argv) {
  if (argc == 3 && std::string_view(argv[1]) == kPeakMemoryOption) {
    return PrintPeakMemory(argv[2]);
  }

#ifdef BOARDKIT_BOARDSIM
  if (argc == 2 && std::string_view(argv[1]) == kSimWorkerOption) {
    return RunSimWorker();
  }
#endif

  const Effort effort = Take("--smoke", argc, argv) ? Effort::kSmoke : Effort::kVerdict;
  const bool ofSim = Take("--sim", argc, argv);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return kExitFailed;
  }

  if (ofSim) {
#ifdef BOARDKIT_BOARDSIM
    RegisterSimBench(effort);
#else
    throw std::runtime_error("the simulator was not built");
#endif
  } else {
    RegisterSystemCallsBench(effort);
    RegisterFileBench(effort);
    RegisterWatchDogBench(effort);
    RegisterSerialPortBench(effort);
    RegisterLinuxutilsBench(effort);
    RegisterOpSystemBench(effort);
    RegisterIpNetBench(effort);
    RegisterStartBench();
  }

  TableReporter reporter(ofSim ? "boardsim" : "boardkit", effort == Effort::kVerdict);
  if (benchmark::RunSpecifiedBenchmarks(&reporter) == 0 || reporter.HasFailed()) {
    return kExitFailed;
  }
  return reporter.IsLimitExceeded() ? kExitExceeded : EXIT_SUCCESS;
}

}  // namespace

/// The status is 0 if all limits are kept, 1 if one is exceeded, 2 if something could not be measured. `--smoke` runs
/// everything for a moment, without verdicts; `--sim` measures the simulator instead of the library; all other options
/// are Google Benchmark's.
int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << argv[0] << ": " << error.what() << '\n';
    return kExitFailed;
  }
}
