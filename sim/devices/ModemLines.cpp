#include "devices/ModemLines.h"

#include "SetupError.h"

namespace {

struct ModemLine {
  const char* name;
  unsigned int bit;
};
constexpr ModemLine kModemLines[] = {{"RTS", TIOCM_RTS}, {"DTR", TIOCM_DTR}, {"CTS", TIOCM_CTS},
                                     {"DSR", TIOCM_DSR}, {"CD", TIOCM_CAR},  {"RI", TIOCM_RNG},
                                     {"OUT1", kOut1},    {"OUT2", kOut2},    {"LOOP", kLoop}};

unsigned int ModemInput(const std::string& name) {
  for (const ModemLine& line : kModemLines) {
    if (name == line.name && (line.bit & kInputs) != 0) {
      return line.bit;
    }
  }
  throw SetupError("the inputs are CTS, DSR, CD and RI, not \"" + name + "\"");
}

}  // namespace

std::string ModemLineNames(unsigned int lines) {
  std::string names;
  for (const ModemLine& line : kModemLines) {
    if ((lines & line.bit) != 0) {
      names += (names.empty() ? "" : " ") + std::string(line.name);
    }
  }
  return names.empty() ? "none" : names;
}

unsigned int ModemInputs(const std::vector<std::string>& names) {
  unsigned int inputs = 0;
  for (const std::string& name : names) {
    inputs |= ModemInput(name);
  }
  return inputs;
}
