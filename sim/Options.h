#ifndef BOARDKIT_SIM_OPTIONS_H
#define BOARDKIT_SIM_OPTIONS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// What the far end of a serial line is.
struct FarEndOptions {
  enum class Kind { kNone, kEcho, kPty, kTcp, kUnix, kExec };

  Kind kind = Kind::kEcho;
  std::string target;  // link, host:port, path or command
};

struct TtyOptions {
  std::string path = "/dev/ttyS1";
  FarEndOptions farEnd;
};

/// What TIOCGSERIAL tells.
struct SerialInfo {
  std::uint32_t baudBase = 3906250;
  std::uint32_t fifoSize = 64;
  std::uint32_t flags = 0x10000040;
  std::uint32_t irq = 42;
  std::uint32_t divisor = 0;
};

struct RegisterPreset {
  std::uint32_t address = 0;
  std::uint32_t value = 0;
};

enum class Net { kPrivate, kNone, kHost };

struct Options {
  bool check = false;
  std::vector<TtyOptions> ttys{TtyOptions{}};
  SerialInfo serialInfo;
  std::string watchdog = "/dev/watchdog";  // empty: none
  bool memory = true;
  std::uint32_t uartBase = 0x80011000;
  std::uint32_t uartStride = 4;
  std::vector<RegisterPreset> registers;
  std::optional<Net> net;  // none: the user did not say
  bool namespaces = true;
  std::string log;      // empty: none
  std::string control;  // empty: none
  std::vector<std::string> command;
};

inline Net NetworkOf(const Options& options) {
  return options.net.value_or(Net::kPrivate);
}

constexpr const char* kMemoryPath = "/dev/mem";

/// Reads the command line.
/// @returns nothing if it has been answered already (--help, --version).
/// @throws SetupError with a sentence on what is wrong.
std::optional<Options> ParseOptions(int argc, const char* const* argv);

#endif
