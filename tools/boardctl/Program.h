#ifndef BOARDKIT_CTL_PROGRAM_H
#define BOARDKIT_CTL_PROGRAM_H

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Output.h"

namespace CLI {
class App;
}

/// What a verb is called with, besides its own arguments.
struct Call {
  Output& out;
  bool dryRun;
  const std::vector<std::string>& command;  // what follows "--"
};

/// How a verb is described. All of it goes into its help, in this order.
struct Verb {
  const char* name = "";
  const char* summary = "";  // a line; the list of the group's verbs has it, too
  const char* usage = "";    // the arguments: "DEVICE [FILE] [OPTION]..."
  const char* danger = "";   // stands first: what may be harmed, in a line or two
  const char* details = "";  // text after the options, wrapped by the help
  const char* example = "";  // a command line, without "boardctl"
  const char* remains = "";  // what remains on the board when the program has gone, as a sentence or more
  bool hasJson = true;       // verbs that read have it
  bool hasDryRun = false;
  bool takesCommand = false;  // after "--"
  bool hasChanged = false;    // mentions status 3; the option itself is the verb's own
};

/// What may come next on a command line.
struct Expected {
  std::vector<std::string> words;  // names of groups, verbs or options
  std::string value;  // the option or argument whose value may come: "--bits", "DEVICE"; "--" for a command
  std::string group;  // that of its verb
};

/// The command line: groups, their verbs and options, help, exit statuses and what failures look like.
///
/// To add a group:
/// 1. Write GROUP.cpp with one function AddGROUP(Program&); declare it in Groups.h, call it in main.cpp, list the
///    source in CMakeLists.txt.
/// 2. In it, `CLI::App& group = program.AddGroup("name", "summary");` and for each verb
///    `CLI::App& verb = program.AddVerb(&group, {name, summary, usage, ...}, run);`. A verb without a group gets
///    nullptr.
/// 3. Its arguments are members of a struct that a shared pointer keeps, captured by @p run. AddArgument() binds them,
///    each with its check of Check.h; nothing else reads the command line. @p run begins when all are right, and throws
///    UsageError for those that do not go together, before it opens anything.
/// 4. @p run prints results by Output, returns a status of Status.h, and looks at signals::Caught() where it waits.
///    What it throws is reported with the catalogue's cause and remedy, with status 1.
class Program {
 public:
  using Run = std::function<int(Call&)>;

  Program();
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  CLI::App& AddGroup(const char* name, const char* summary);
  CLI::App& AddVerb(CLI::App* group, const Verb& verb, Run run);

  /// Parses, runs the verb and returns the exit status.
  int Main(int argc, const char* const* argv);

  /// What may come after @p words, or an option there.
  Expected ExpectedBehind(const std::vector<std::string>& words, bool isOption) const;
  /// The verb that @p app stands for; null for the program itself and for groups.
  const Verb* VerbOf(const CLI::App* app) const;

 private:
  struct Entry {
    Verb verb;
    Run run;
  };

  int Parse(const std::vector<std::string>& arguments, const CLI::App*& chosen);
  int RunVerb(const CLI::App& chosen);
  void CheckGlobals(const CLI::App& chosen) const;

  std::unique_ptr<CLI::App> m_app;
  std::map<const CLI::App*, Entry> m_verbs;
  Output::Options m_options;
  bool m_dryRun = false;
  bool m_hasCommand = false;
  std::vector<std::string> m_command;
};

enum Presence { kOptional, kRequired };

/// Adds an argument whose text is given to @p take, which throws std::invalid_argument with a phrase.
void AddTakenArgument(CLI::App& verb, const std::string& name, const char* type,
                      std::function<void(const std::string&)> take, const std::string& description, Presence presence);

/// Binds an argument: an option ("--speed", with the @p type of its value) or a positional one ("DEVICE", which needs
/// none). @p parse makes the value of the text, or throws std::invalid_argument with a phrase.
template <typename T, typename Parse>
void AddArgument(CLI::App& verb, const std::string& name, const char* type, T& target, Parse parse,
                 const std::string& description, Presence presence = kOptional) {
  AddTakenArgument(
      verb, name, type, [&target, parse](const std::string& text) { target = parse(text); }, description, presence);
}

/// What needs no check: a text for which anything may stand.
inline std::string AnyText(const std::string& text) {
  return text;
}

/// Binds an option without a value.
void AddFlag(CLI::App& verb, const std::string& name, bool& target, const std::string& description);

#endif
