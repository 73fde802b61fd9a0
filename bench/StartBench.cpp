#include <cstdio>
#include <stdexcept>
#include <string>

#include "Benches.h"
#include "Contest.h"

namespace {

constexpr double kLimit = 140'000;

/// The instructions that @p program executes, from the dynamic linker's first one on. The same program takes the same
/// number every time, whatever else the machine does.
double CountInstructions(const std::string& program) {
  const std::string command =
      "valgrind --tool=callgrind --callgrind-out-file=/dev/null '" + program + "' 2>&1 </dev/null";
  std::FILE* const pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) {
    throw std::runtime_error("valgrind could not be started");
  }
  double instructions = 0;
  char line[256];
  while (std::fgets(line, sizeof line, pipe) != nullptr) {
    std::sscanf(line, "==%*d== Collected : %lf", &instructions);
  }
  if (::pclose(pipe) != 0 || instructions == 0) {
    throw std::runtime_error("valgrind could not count the instructions of " + program);
  }
  return instructions;
}

/// What a program's start costs that has the C++ library, and what it costs with this library besides.
Amounts MeasureStart() {
  return {Unit::kInstruction, Measure::kDifference, kLimit, CountInstructions(BOARDKIT_BENCH_START_BARE),
          CountInstructions(BOARDKIT_BENCH_START)};
}

}  // namespace

void RegisterStartBench() {
  RegisterAmounts("Start", MeasureStart);
}
