#include "Completion.h"

#include <dirent.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>

#include "Check.h"
#include "Groups.h"
#include "Interfaces.h"
#include "Program.h"
#include "SerialPorts.h"
#include "Status.h"

// Made from completion.bash, .zsh and .fish by the build.
extern const char* const kBashCompletion;
extern const char* const kZshCompletion;
extern const char* const kFishCompletion;

namespace {

using Words = std::vector<std::string>;

constexpr const char* kFiles = ":files";

/// The values of options that have a few; a wrong one would be refused when it is used.
const std::map<std::string, Words>& Values() {
  static const std::map<std::string, Words> kValues = {
      {"--bits", {"5", "6", "7", "8"}},
      {"--parity", {"none", "even", "odd"}},
      {"--stop", {"1", "2"}},
      {"--flow", {"none", "hardware", "software"}},
      {"--timestamps", {"relative", "absolute"}},
      {"--speed", {"9600", "19200", "38400", "57600", "115200", "230400", "460800", "921600"}},
      {"--svg", {kFiles}},
      {"--alive", {kFiles}},
      {"--", {kFiles}}};  // a command of the user's own
  return kValues;
}

Words NamesIn(const std::string& folder, const std::string& begin) {
  Words names;
  const std::unique_ptr<DIR, int (*)(DIR*)> open(::opendir(folder.c_str()), ::closedir);
  for (const dirent* entry = open ? ::readdir(open.get()) : nullptr; entry != nullptr; entry = ::readdir(open.get())) {
    const std::string name = entry->d_name;
    if (name[0] != '.' && name.rfind(begin, 0) == 0) {
      names.push_back(name);
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

/// Those of the allowed interface names that boardctl takes.
Words InterfaceNames() {
  Words names;
  for (const Interface& interface : Interfaces()) {
    if (interface.isClean) {
      names.push_back(interface.name);
    }
  }
  return names;
}

/// What a positional argument of this name may be, below the group @p group.
Words Arguments(const std::string& name, const std::string& group) {
  Words found;
  if (name == "DEVICE" && group == "watchdog") {
    for (const std::string& node : NamesIn("/dev", "watchdog")) {
      found.push_back("/dev/" + node);
    }
  } else if (name == "DEVICE") {
    for (const SerialDevice& device : SerialDevices()) {
      found.push_back(device.path);
    }
  } else if (name == "IFACE") {
    found = InterfaceNames();
  } else if (name == "FILE") {
    found = {kFiles};
  } else if (name == "WHAT") {
    found = {"address", "gateway"};
  } else if (name == "SHELL") {
    found = {"bash", "zsh", "fish"};
  }
  return found;
}

}  // namespace

Words Complete(const Program& program, const Words& words) {
  const std::string current = words.empty() ? "" : words.back();
  const Words before(words.begin(), words.end() - (words.empty() ? 0 : 1));
  const Expected expected = program.ExpectedBehind(before, current.rfind('-', 0) == 0);
  Words all = expected.words;
  if (!expected.value.empty()) {
    const auto found = Values().find(expected.value);
    all = found == Values().end() ? Arguments(expected.value, expected.group) : found->second;
  }

  Words fitting;
  for (const std::string& word : all) {
    if (word == kFiles || word.rfind(current, 0) == 0) {
      fitting.push_back(word);
    }
  }
  return fitting;
}

void AddCompletion(Program& program) {
  const auto script = std::make_shared<const char*>();
  CLI::App& verb =
      program.AddVerb(nullptr,
                      {"completion", "Prints the completion script for a shell", "bash|zsh|fish", "",
                       "The names of devices and interfaces are completed, too, and none of them is opened.",
                       "completion bash > /etc/bash_completion.d/boardctl", "nothing; no device is opened.", false},
                      [script](Call& call) {
                        call.out.Bytes(*script, std::strlen(*script));
                        return kStatusDone;
                      });
  AddArgument(
      verb, "SHELL", "", *script,
      [](const std::string& shell) {
        return check::OneOf<const char*>(
            shell, {{"bash", kBashCompletion}, {"zsh", kZshCompletion}, {"fish", kFishCompletion}});
      },
      "bash, zsh or fish", kRequired);
}
