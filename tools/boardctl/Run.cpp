#include <OpSystem.h>

#include <memory>
#include <nlohmann/json.hpp>

#include "Groups.h"
#include "Program.h"
#include "Signals.h"
#include "Status.h"

namespace {

/// @p word as the shell takes it for itself, whatever is in it.
std::string Quoted(const std::string& word) {
  std::string quoted = "'";
  for (const char character : word) {
    quoted += character == '\'' ? "'\\''" : std::string(1, character);
  }
  return quoted + '\'';
}

struct Result {
  std::string output;
  int status = 0;
};

/// Runs @p text by the library's runner, which reports no status and redirects the last command only: so a shell of its
/// own runs the text, and the status follows on a line of its own. The outer one survives signals to print it.
Result RunText(const std::string& text) {
  Result result;
  const std::string all =
      OpSystem().ExecCmd("trap : INT TERM HUP; sh -c " + Quoted(text) + " 2>&1; printf '\n\n%d' \"$?\"", false);
  const std::size_t digits = all.find_last_not_of("0123456789") + 1;
  // One of the two newlines may be lost after a NUL in the output.
  std::size_t end = digits;
  for (int newlines = 2; newlines != 0 && end != 0 && all[end - 1] == '\n'; --newlines) {
    --end;
  }
  result.output = all.substr(0, end);
  result.status = std::stoi("0" + all.substr(digits));
  return result;
}

std::string Meaning(int status) {
  constexpr int kNotExecutable = 126;
  constexpr int kNotFound = 127;
  std::string meaning = "status " + std::to_string(status);
  if (status == kNotExecutable) {
    meaning += ": it cannot be executed";
  } else if (status == kNotFound) {
    meaning += ": there is no such command";
  } else if (status > kStatusSignal) {
    meaning += ": ended by signal " + std::to_string(status - kStatusSignal);
  }
  return meaning;
}

int RunCommand(const std::string& text, Call& call) {
  if (text.empty() == call.command.empty() || (text.empty() && call.command.front().empty())) {
    throw UsageError("it takes one command: a text for the shell, or \"--\" and the command's words");
  }
  std::string command = text;
  for (const std::string& word : call.command) {
    command += (command.empty() ? "" : " ") + Quoted(word);
  }

  const signals::HandsOn handsOn;
  const Result result = RunText(command);
  const bool isEmptyOrEnded = result.output.empty() || result.output.back() == '\n';
  if (call.out.IsJson()) {
    call.out.Object("run", {{"command", command}, {"output", result.output}, {"status", result.status}});
  } else {
    call.out.Bytes(result.output.data(), result.output.size());
    if (!isEmptyOrEnded) {
      call.out.Line("");
    }
  }
  call.out.Say("boardctl: " + Meaning(result.status));
  return result.status == 0 ? kStatusDone : kStatusFailed;
}

}  // namespace

void AddRun(Program& program) {
  const auto text = std::make_shared<std::string>();
  CLI::App& verb =
      program.AddVerb(nullptr,
                      {"run", "Runs a command, and prints its whole output and its status",
                       "COMMAND\n       boardctl run [OPTION]... -- COMMAND [ARGUMENT]...", "",
                       "The library's runner runs it. COMMAND goes to the shell as it stands; the words "
                       "after \"--\" are the command's own, and no shell reads them. The output, standard "
                       "error included, is printed when the command has ended; a NUL in it cuts off the "
                       "rest of its line. SIGINT and SIGTERM are handed on. A process that COMMAND leaves in the "
                       "background is waited for as long as it keeps the output open; SIGTERM ends it, but a shell "
                       "lets it ignore SIGINT. COMMAND's status is given in "
                       "words: this program's own is 1 unless it is 0.",
                       "run -- uname -a", "what COMMAND has done.", true, false, true},
                      [text](Call& call) { return RunCommand(*text, call); });
  AddArgument(verb, "COMMAND", "", *text, AnyText, "a text for the shell");
}
