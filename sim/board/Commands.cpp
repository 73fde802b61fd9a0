#include "board/Commands.h"

#include <algorithm>
#include <iterator>
#include <sstream>
#include <string_view>
#include <utility>

#include "SetupError.h"
#include "Text.h"

namespace {

constexpr const char* kHelp = "help";

Commands::Words Split(const std::string& line) {
  std::istringstream input(line);
  return {std::istream_iterator<std::string>(input), std::istream_iterator<std::string>()};
}

bool EndsWith(const std::string& text, std::string_view end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// Whether a word is the verb, one of a choice, or any argument.
bool Fits(const std::string& word, const std::string& expected, bool isVerb) {
  if (isVerb) {
    return word == expected;
  }
  return expected.find('|') == std::string::npos || ('|' + expected + '|').find('|' + word + '|') != std::string::npos;
}

bool Fits(const Commands::Words& words, const std::string& usage) {
  const Commands::Words expected = Split(usage);
  const bool isLong = EndsWith(expected.back(), "...") && words.size() > expected.size();
  if (words.size() != expected.size() && !isLong) {
    return false;
  }
  for (std::size_t i = 0; i < expected.size(); ++i) {
    if (!Fits(words[i], expected[i], i == 0)) {
      return false;
    }
  }
  return true;
}

}  // namespace

void Commands::Add(const std::string& usage, Handler handler) {
  AddFor("", usage, std::move(handler));
}

void Commands::AddFor(const std::string& device, const std::string& usage, Handler handler) {
  m_commands.push_back({usage, device, std::move(handler)});
}

std::string Commands::Obey(const std::string& line) const {
  const Words words = Split(line);
  if (Fits(words, kHelp)) {
    return Usages();
  }
  bool isOthers = false;
  for (const Command& command : m_commands) {
    if (!Fits(words, command.usage)) {
      continue;
    }
    if (command.device.empty()) {
      return command.handler({words.begin() + 1, words.end()});
    }
    if (command.device == words[1]) {
      return command.handler({words.begin() + 2, words.end()});
    }
    isOthers = true;
  }
  throw SetupError(isOthers ? "there is no simulated port " + words[1] : "the commands are: " + Usages());
}

std::string Commands::Usages() const {
  std::vector<std::string> usages;
  for (const Command& command : m_commands) {
    // A command that several devices have is listed once.
    if (std::find(usages.begin(), usages.end(), command.usage) == usages.end()) {
      usages.push_back(command.usage);
    }
  }
  std::string all;
  for (const std::string& usage : usages) {
    all += usage + " | ";
  }
  return all + kHelp;
}

std::uint32_t ParseWord(const std::string& text) {
  if (const auto number = ParseNumber(text)) {
    return *number;
  }
  throw SetupError("\"" + text + "\" is not a 32-bit number");
}
