// Feeds the parser of the control socket's lines with a fuzzer's texts. A line either has the arguments that its usage
// says, or is refused with a sentence.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "Require.h"
#include "SetupError.h"
#include "board/Commands.h"

namespace {

bool IsWord(const std::string& word) {
  return !word.empty() && word.find_first_of(" \t\n\v\f\r") == std::string::npos;
}

Commands::Handler Expecting(std::size_t least, std::size_t most) {
  return [least, most](const Commands::Words& words) {
    Require(words.size() >= least && words.size() <= most);
    Require(std::all_of(words.begin(), words.end(), IsWord));
    return words.empty() ? std::string() : words.front();
  };
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Commands commands;
  commands.Add("watchdog", Expecting(0, 0));
  commands.Add("read ADDRESS", [](const Commands::Words& words) { return std::to_string(ParseWord(words.at(0))); });
  commands.Add("link INTERFACE up|down", [](const Commands::Words& words) {
    Require(words.size() == 2 && (words[1] == "up" || words[1] == "down"));
    return std::string();
  });
  commands.AddFor("/dev/ttyS1", "feed TTY HEX", Expecting(1, 1));
  commands.AddFor("/dev/ttyS1", "set TTY INPUT...", Expecting(1, size));

  try {
    commands.Obey(std::string(reinterpret_cast<const char*>(data), size));
  } catch (const SetupError& error) {
    Require(*error.what() != '\0');
  }
  return 0;
}
