#ifndef BOARDKIT_SIM_BOARD_COMMANDS_H
#define BOARDKIT_SIM_BOARD_COMMANDS_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/// The commands of a technician, or a test. Whoever obeys one has registered it.
class Commands {
 public:
  using Words = std::vector<std::string>;
  /// @param arguments as many as the usage has, in its choices.
  /// @returns the answer, which may be empty.
  /// @throws SetupError with a sentence on what is wrong.
  using Handler = std::function<std::string(const Words& arguments)>;

  Commands() = default;
  ~Commands() = default;
  Commands(const Commands&) = delete;
  Commands& operator=(const Commands&) = delete;

  /// @param usage the verb and its arguments: "write ADDRESS VALUE", "link INTERFACE up|down" with a choice.
  void Add(const std::string& usage, Handler handler);
  /// A command that several devices have. Its first argument is the device's path, which the handler does not get.
  /// @param usage "set TTY INPUT..." with an argument that may be repeated.
  void AddFor(const std::string& device, const std::string& usage, Handler handler);

  /// Carries out a line.
  /// @throws SetupError
  std::string Obey(const std::string& line) const;

 private:
  struct Command {
    std::string usage;
    std::string device;  // empty: it is nobody's in particular
    Handler handler;
  };

  std::string Usages() const;

  std::vector<Command> m_commands;
};

/// @throws SetupError if it is not a 32-bit number.
std::uint32_t ParseWord(const std::string& text);

#endif
