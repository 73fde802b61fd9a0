#ifndef BOARDKIT_SIM_OPTION_H
#define BOARDKIT_SIM_OPTION_H

#include <functional>
#include <string>

/// An option of the command line that has a value.
struct Option {
  std::string name;   // "--tty"
  std::string value;  // as the help shows it
  std::string help;
  bool isRepeatable = false;
  /// Takes one value.
  /// @throws SetupError with a sentence on what is wrong.
  std::function<void(const std::string& text)> take;
};

#endif
