#ifndef BOARDKIT_SIM_OPTION_H
#define BOARDKIT_SIM_OPTION_H

#include <functional>
#include <string>

/// An option of the command line.
struct Option {
  std::string name;   // "--tty"
  std::string value;  // as the help shows it; empty: it has none
  std::string help;
  bool isRepeatable = false;
  /// Takes one value, or the option without one.
  /// @throws SetupError with a sentence on what is wrong.
  std::function<void(const std::string& text)> take;
};

#endif
