#ifndef BOARDKIT_OPSYSTEM_H
#define BOARDKIT_OPSYSTEM_H

/// @file
/// A shell command's complete output.
///
/// @code{.cpp}
/// OpSystem system;
/// std::cout << system.ExecCmd("echo hello", false);
/// try {
///   system.ExecCmd("ls /nowhere", false);
/// } catch (const std::logic_error& failure) {  // its status was not 0
///   std::cout << "it said: " << failure.what();
/// }
/// @endcode
/// This is a part of `examples/commands.cpp`. The handbook has more: @ref commands.

#include <string>

#pragma GCC visibility push(default)

/// Runs shell commands and returns what they print.
///
/// @snippet commands.cpp use
///
/// Stateless: one object may serve any number of users and threads, and may be copied freely.
///
/// @warning Nothing in the command is quoted for the shell: quote what comes from outside.
class OpSystem {
 public:
  virtual ~OpSystem();

  OpSystem() = default;
  /// There is nothing to copy: any two objects are alike.
  OpSystem(const OpSystem&) = default;
  /// There is nothing to copy: any two objects are alike.
  OpSystem& operator=(const OpSystem&) = default;

  /// Runs @p command in the system shell, waits for its end and returns its standard output and standard error.
  ///
  /// " 2>&1" is appended to the text: of several commands in it, only the last one's standard error is collected, the
  /// others write to the caller's own. So the text must not end in a newline (the suffix would be a command of its own,
  /// and its status the one that counts), in a comment or in "&". The second argument has no effect.
  ///
  /// The output is returned byte for byte, the last newline included, with two exceptions: a NUL byte cuts off the rest
  /// of its line (or of its 511-byte piece of a longer line), and a signal whose handler was installed without
  /// `SA_RESTART` ends the reading early, which looks like the end of the output.
  /// @throws std::logic_error with the complete output as its message, and nothing else, if the command ends with a
  /// non-zero status: any exit code, 127 for a command that the shell cannot find, or death by a signal.
  /// @throws std::system_error "popen failed" if the command cannot be started.
  /// @throws std::system_error "pclose failed" if its status cannot be collected; ECHILD where SIGCHLD is ignored.
  virtual std::string ExecCmd(std::string command, bool);
};

#pragma GCC visibility pop

#endif
