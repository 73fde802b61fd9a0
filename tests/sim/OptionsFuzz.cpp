// Feeds the parser of the command line with words that a fuzzer makes up, one per line. They are taken, with a command
// to run or a check to make, or refused with a sentence.

#include <cstddef>
#include <cstdint>
#include <iostream>
#include <string>
#include <vector>

#include "Options.h"
#include "Require.h"
#include "SetupError.h"

namespace {

/// The lines, but for what no word can have in it.
std::vector<std::string> WordsOf(const std::string& text) {
  std::vector<std::string> words(1);
  for (const char character : text) {
    if (character == '\n' || character == '\0') {
      words.emplace_back();
    } else {
      words.back().push_back(character);
    }
  }
  return words;
}

void Parse(const std::vector<std::string>& words) {
  std::vector<const char*> arguments{"boardsim"};
  for (const std::string& word : words) {
    arguments.push_back(word.c_str());
  }
  const std::optional<Options> options = ParseOptions(static_cast<int>(arguments.size()), arguments.data());
  if (!options) {
    return;
  }
  Require(options->check == options->command.empty());
  for (const auto& kind : options->devices) {
    for (const Node& node : kind->Nodes()) {
      Require(node.path.rfind("/dev/", 0) == 0 && node.path.find("/../") == std::string::npos);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::cout.setstate(std::ios::failbit);  // the help is not for anybody here
  try {
    Parse(WordsOf(std::string(reinterpret_cast<const char*>(data), size)));
  } catch (const SetupError& error) {
    Require(*error.what() != '\0');
  }
  return 0;
}
