#include <cstdio>
#include <exception>

#include "ExitStatus.h"
#include "Options.h"
#include "Simulator.h"

int main(int argc, char** argv) {
  try {
    const std::optional<Options> options = ParseOptions(argc, argv);
    if (!options) {
      return 0;
    }
    return Simulator(*options).Run();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "boardsim: %s\n", error.what());
    return kStatusNotSetUp;
  }
}
