#include "Program.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstring>
#include <exception>
#include <memory>
#include <stdexcept>

#include "Catalogue.h"
#include "Completion.h"
#include "Signals.h"
#include "Status.h"

namespace {

constexpr std::size_t kColumn = 22;  // where explanations begin

/// @p text in lines that fit 80 columns, each but the first one indented; its own line breaks stay.
std::string Wrapped(std::string text, std::size_t indent) {
  constexpr std::size_t kWidth = 80;
  const std::size_t width = kWidth - indent;
  std::string wrapped;
  while (!text.empty()) {
    std::size_t end = std::min(text.find('\n'), text.size());
    if (end > width) {
      const std::size_t blank = text.rfind(' ', width);
      end = blank == std::string::npos || blank == 0 ? end : blank;
    }
    wrapped += (wrapped.empty() ? "" : '\n' + std::string(indent, ' ')) + text.substr(0, end);
    text.erase(0, end + 1);
  }
  return wrapped + '\n';
}

/// "  NAME   explanation", with the lines of the explanation below each other.
std::string Row(const std::string& name, const std::string& explanation) {
  std::string row = "  " + name;
  row += row.size() + 2 > kColumn ? "\n" + std::string(kColumn, ' ') : std::string(kColumn - row.size(), ' ');
  return row + Wrapped(explanation, kColumn);
}

std::string NameOf(const CLI::App* app) {
  std::string name = app->get_name();
  for (const CLI::App* parent = app->get_parent(); parent != nullptr; parent = parent->get_parent()) {
    name = parent->get_name() + ' ' + name;
  }
  return name;
}

/// The path of @p app without the program's own name.
std::string VerbNameOf(const CLI::App* app) {
  const std::string name = NameOf(app);
  const std::size_t blank = name.find(' ');
  return blank == std::string::npos ? "" : name.substr(blank + 1);
}

std::string NamesOf(const std::vector<const CLI::App*>& apps) {
  std::string names;
  for (const CLI::App* const app : apps) {
    names += (names.empty() ? "" : ", ") + app->get_name();
  }
  return names;
}

std::vector<const CLI::App*> Below(const CLI::App* app) {
  return app->get_subcommands([](const CLI::App* below) { return !below->get_name().empty(); });
}

const CLI::App* Below(const CLI::App* app, const std::string& name) {
  for (const CLI::App* const below : Below(app)) {
    if (below->get_name() == name) {
      return below;
    }
  }
  return nullptr;
}

const CLI::Option* OptionOf(const CLI::App* app, const std::string& name) {
  for (; app != nullptr; app = app->get_parent()) {
    for (const CLI::Option* const option : app->get_options()) {
      if (option->check_name(name)) {
        return option;
      }
    }
  }
  return nullptr;
}

/// What is wrong with an option, in our own words. The parser's begin with the option's name.
std::string MismatchInWords(const std::string& problem, const CLI::App* app) {
  std::string name = problem.substr(0, problem.find_first_of(": "));
  const CLI::Option* option = OptionOf(app, name);
  if (option == nullptr) {
    name.insert(0, "--");
    option = OptionOf(app, name);
  }
  if (option == nullptr) {
    return problem;
  }
  if (option->get_items_expected_max() == 0) {
    return name + " takes no value";
  }
  return option->results().size() > 1 ? name + " is given more than once"
                                      : name + " takes a value: " + option->get_type_name();
}

/// The options that may follow @p app; @p verb is null for a group.
std::vector<std::string> OptionsOf(const CLI::App* app, const Verb* verb) {
  std::vector<std::string> names;
  for (; app != nullptr; app = app->get_parent()) {
    for (const CLI::Option* const option : app->get_options()) {
      const std::string name = option->get_name();
      const bool isRefused = verb != nullptr && ((name == "--json" && !verb->hasJson) ||
                                                 (name == "--dry-run" && !verb->hasDryRun) || name == "--version");
      if (!option->get_positional() && !isRefused && std::find(names.begin(), names.end(), name) == names.end()) {
        names.push_back(name);
      }
    }
  }
  return names;
}

/// How many letters have to be changed, added or removed to make one of the other.
std::size_t Distance(const std::string& left, const std::string& right) {
  std::vector<std::size_t> row(right.size() + 1);
  for (std::size_t i = 0; i < row.size(); ++i) {
    row[i] = i;
  }
  for (std::size_t i = 1; i <= left.size(); ++i) {
    std::size_t diagonal = row[0]++;
    for (std::size_t j = 1; j < row.size(); ++j) {
      const std::size_t changed = diagonal + (left[i - 1] == right[j - 1] ? 0 : 1);
      diagonal = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, changed});
    }
  }
  return row.back();
}

/// " (did you mean list?)", if something there is nearly so.
std::string Nearest(const std::string& word, const std::vector<std::string>& names) {
  constexpr std::size_t kNear = 3;
  std::string nearest;
  std::size_t least = kNear;
  for (const std::string& name : names) {
    const std::size_t distance = Distance(word, name);
    if (distance < least && distance < name.size()) {
      least = distance;
      nearest = name;
    }
  }
  return nearest.empty() ? "" : " (did you mean " + nearest + "?)";
}

/// The whole help of the program, a group or a verb.
class HelpFormatter : public CLI::Formatter {
 public:
  explicit HelpFormatter(const Program& program) : m_program(program) {}

  std::string make_help(const CLI::App* app, std::string /*name*/, CLI::AppFormatMode /*mode*/) const override {
    const Verb* const verb = m_program.VerbOf(app);
    if (verb != nullptr) {
      return HelpOfVerb(app, *verb);
    }
    return app->get_parent() == nullptr ? HelpOfProgram(app) : HelpOfGroup(app);
  }

 private:
  static std::string Options(const CLI::App* app, bool positional) {
    std::string rows;
    for (const CLI::Option* const option : app->get_options()) {
      if (option->get_positional() == positional && option != app->get_help_ptr()) {
        const std::string type = option->get_type_name();
        rows += Row(positional ? option->get_name() : option->get_name() + (type.empty() ? "" : ' ' + type),
                    option->get_description());
      }
    }
    return rows;
  }

  static std::string HelpOfProgram(const CLI::App* app) {
    std::string help = "boardctl looks at a board's devices, tries them and sets them up.\n";
    help += "Usage: boardctl [OPTION]... GROUP [VERB] [ARGUMENT]...\n\n";
    for (const CLI::App* const below : Below(app)) {
      help += Row(below->get_name(), below->get_description());
    }
    help += "\nOptions, before or after the verb:\n" + Options(app, false) +
            Row("-h, --help", app->get_help_ptr()->get_description());
    help +=
        "\nStatus: 0 done, 1 failed, 2 wrong usage, 3 nothing had to be changed (only with\n"
        "--changed), 130 and 143 after SIGINT and SIGTERM.\n"
        "boardctl GROUP VERB --help shows what remains on the board; see boardctl(1).\n";
    return help;
  }

  static std::string HelpOfGroup(const CLI::App* app) {
    std::string help = NameOf(app) + ": " + app->get_description() + '\n';
    help += "Usage: boardctl [OPTION]... " + app->get_name() + " VERB [ARGUMENT]...\n\n";
    for (const CLI::App* const below : Below(app)) {
      help += Row(below->get_name(), below->get_description());
    }
    return help + "\n" + NameOf(app) + " VERB --help shows more, and what remains on the board.\n";
  }

  std::string HelpOfVerb(const CLI::App* app, const Verb& verb) const {
    std::string help;
    if (*verb.danger != '\0') {
      help += Wrapped(verb.danger, 0);
    }
    help += std::string(verb.summary) + ".\n";
    help += "Usage: " + NameOf(app) + (*verb.usage == '\0' ? "" : ' ' + std::string(verb.usage)) + "\n";
    const std::string positionals = Options(app, true);
    help += (positionals.empty() ? "" : '\n' + positionals) + "\nOptions:\n" + Options(app, false);
    const CLI::App* top = app;
    while (top->get_parent() != nullptr) {
      top = top->get_parent();
    }
    for (const CLI::Option* const option : top->get_options()) {
      const std::string name = option->get_name();
      const bool holds =
          name == "--quiet" || (name == "--json" && verb.hasJson) || (name == "--dry-run" && verb.hasDryRun);
      if (holds) {
        help += Row(name, option->get_description());
      }
    }
    help += Row("-h, --help", "print this help");
    if (*verb.details != '\0') {
      help += '\n' + Wrapped(verb.details, 0);
    }
    if (*verb.example != '\0') {
      help += "\nExample: boardctl " + std::string(verb.example) + '\n';
    }
    help += "\nStatus: 0 done, 1 failed, 2 wrong usage and nothing was opened";
    help += verb.hasChanged ? ", 3 see --changed,\n130 and 143 after SIGINT and SIGTERM.\n"
                            : ",\n130 and 143 after SIGINT and SIGTERM.\n";
    return help + Wrapped(std::string("What remains: ") + verb.remains, 0);
  }

  const Program& m_program;
};

}  // namespace

Program::Program() : m_app(std::make_unique<CLI::App>("", "boardctl")) {
  m_app->formatter(std::make_shared<HelpFormatter>(*this));
  m_app->set_help_flag("-h,--help", "print this help");
  m_app->set_version_flag("--version", "boardctl " BOARDCTL_VERSION, "print the version");
  AddFlag(*m_app, "--json", m_options.json, "the results as JSON, one object per line");
  AddFlag(*m_app, "--quiet", m_options.quiet, "print only results and failures, and no progress");
  AddFlag(*m_app, "--dry-run", m_dryRun, "show what would be changed, and change nothing");
  // The options of all verbs may also follow the verb; unknown ones are named in the message below.
  m_app->fallthrough();
  m_app->allow_extras();
  m_app->require_subcommand(0, 1);
}

Program::~Program() = default;

CLI::App& Program::AddGroup(const char* name, const char* summary) {
  CLI::App* const group = m_app->add_subcommand(name, summary);
  group->require_subcommand(0, 1);
  return *group;
}

CLI::App& Program::AddVerb(CLI::App* group, const Verb& verb, Run run) {
  CLI::App* const app = (group == nullptr ? *m_app : *group).add_subcommand(verb.name, verb.summary);
  app->require_subcommand(0);
  m_verbs[app] = {verb, std::move(run)};
  return *app;
}

const Verb* Program::VerbOf(const CLI::App* app) const {
  const auto found = m_verbs.find(app);
  return found == m_verbs.end() ? nullptr : &found->second.verb;
}

Expected Program::ExpectedBehind(const std::vector<std::string>& words, bool isOption) const {
  const CLI::App* app = m_app.get();
  const CLI::Option* open = nullptr;  // waits for its value
  std::size_t position = 0;
  for (const std::string& word : words) {
    if (word == "--") {
      return {{}, word, {}};
    }
    if (open != nullptr) {
      open = nullptr;
    } else if (word.rfind('-', 0) == 0) {
      const CLI::Option* const option = OptionOf(app, word);
      open = option != nullptr && option->get_items_expected_max() != 0 ? option : nullptr;
    } else if (const CLI::App* const below = Below(app, word); below != nullptr) {
      app = below;
    } else {
      ++position;
    }
  }

  if (open != nullptr) {
    return {{}, open->get_name(), {}};
  }
  if (isOption) {
    return {OptionsOf(app, VerbOf(app)), {}, {}};
  }
  for (const CLI::Option* const option : app->get_options()) {
    if (option->get_positional() && position-- == 0) {
      return {{}, option->get_name(), app->get_parent()->get_name()};
    }
  }
  Expected expected;
  for (const CLI::App* const below : Below(app)) {
    expected.words.push_back(below->get_name());
  }
  return expected;
}

int Program::Main(int argc, const char* const* argv) {
  std::vector<std::string> arguments(argv + std::min(argc, 1), argv + argc);
  // What a command of the user's own is given stays its own.
  const bool isCompleting = !arguments.empty() && arguments.front() == kCompletionWord;
  const auto separator = std::find(arguments.begin(), arguments.end(), "--");
  m_hasCommand = !isCompleting && separator != arguments.end();
  if (m_hasCommand) {
    m_command.assign(separator + 1, arguments.end());
    arguments.erase(separator, arguments.end());
  }

  Output words({});
  const CLI::App* chosen = m_app.get();
  std::string wrong;
  try {
    if (isCompleting) {
      for (const std::string& word : Complete(*this, {arguments.begin() + 1, arguments.end()})) {
        words.Line(word);
      }
      return kStatusDone;
    }
    const int status = Parse(arguments, chosen);
    if (chosen == nullptr) {
      return status;
    }
    return RunVerb(*chosen);
  } catch (const UsageError& error) {
    wrong = error.what();
  } catch (const OutputClosed&) {
    return kStatusFailed;
  } catch (const std::exception& error) {
    words.Warn(std::string("boardctl: ") + error.what());
    return kStatusFailed;
  }
  const std::string verb = VerbNameOf(chosen);
  words.Warn("boardctl: " + (verb.empty() ? "" : verb + ": ") + wrong + " (see " + NameOf(chosen) + " --help)");
  return kStatusUsage;
}

int Program::Parse(const std::vector<std::string>& arguments, const CLI::App*& chosen) {
  std::string problem;
  bool isAnswered = false;
  bool isMismatch = false;  // between an option and its value
  try {
    // The parser takes them from the end.
    m_app->parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
  } catch (const CLI::CallForHelp&) {
    isAnswered = true;
  } catch (const CLI::CallForVersion& version) {
    Output({}).Bytes((std::string(version.what()) + '\n').data(), std::strlen(version.what()) + 1);
    chosen = nullptr;
    return kStatusDone;
  } catch (const CLI::ArgumentMismatch& error) {
    problem = error.what();
    isMismatch = true;
  } catch (const CLI::ParseError& error) {
    problem = error.what();
  }

  for (auto below = chosen->get_subcommands(); !below.empty(); below = chosen->get_subcommands()) {
    chosen = below.front();
  }
  if (isAnswered) {
    const std::string help = chosen->help();
    Output({}).Bytes(help.data(), help.size());
    chosen = nullptr;
    return kStatusDone;
  }

  const bool isVerb = VerbOf(chosen) != nullptr;
  const char* const kind = isVerb ? "argument" : chosen == m_app.get() ? "group" : "verb";
  std::vector<std::string> names;
  for (const CLI::App* const below : Below(chosen)) {
    names.push_back(below->get_name());
  }
  for (const CLI::App* app = chosen; app != nullptr; app = app->get_parent()) {
    for (const CLI::Option* const option : app->get_options()) {
      names.push_back(option->get_name());
    }
  }
  if (const std::vector<std::string> unknown = m_app->remaining(true); !unknown.empty()) {
    const std::string& word = unknown.front();
    throw UsageError("there is no " + std::string(word.front() == '-' && word.size() > 1 ? "option" : kind) + " \"" +
                     word + '"' + Nearest(word, names));
  }
  if (!isVerb && problem.empty()) {
    throw UsageError("it takes a " + std::string(kind) + ": " + NamesOf(Below(chosen)));
  }
  if (!problem.empty()) {
    throw UsageError(isMismatch ? MismatchInWords(problem, chosen) : problem);
  }
  CheckGlobals(*chosen);
  return kStatusDone;
}

void Program::CheckGlobals(const CLI::App& chosen) const {
  const Verb& verb = m_verbs.at(&chosen).verb;
  if (m_options.json && !verb.hasJson) {
    throw UsageError("it has no JSON");
  }
  if (m_dryRun && !verb.hasDryRun) {
    throw UsageError("it has no dry run");
  }
  if (m_hasCommand && !verb.takesCommand) {
    throw UsageError("it takes no command, and so no \"--\"");
  }
}

int Program::RunVerb(const CLI::App& chosen) {
  Output out(m_options);
  int status = kStatusFailed;
  std::string failure;
  try {
    signals::Install();
    Call call{out, m_dryRun, m_command};
    status = m_verbs.at(&chosen).run(call);
  } catch (const UsageError&) {
    throw;
  } catch (const OutputClosed&) {
    // Whoever closed it knows.
  } catch (const std::exception& error) {
    failure = error.what();
    // Many texts of the library end with what a tool said, newline and all.
    while (!failure.empty() && failure.back() == '\n') {
      failure.pop_back();
    }
    if (failure.empty()) {
      failure = signals::Caught() != 0 ? "a signal ended the command that it ran"
                                       : "the command that it ran failed and printed nothing";
    }
    out.Warn(catalogue::FailureInWords(VerbNameOf(&chosen), failure));
  }
  out.EndProgress();
  return signals::Caught() != 0 ? kStatusSignal + signals::Caught() : status;
}

void AddTakenArgument(CLI::App& verb, const std::string& name, const char* type,
                      std::function<void(const std::string&)> take, const std::string& description, Presence presence) {
  const auto takeOrRefuse = [take = std::move(take), name](const std::string& text) {
    try {
      take(text);
    } catch (const std::invalid_argument& error) {
      throw CLI::ValidationError(name, error.what());
    }
  };
  verb.add_option_function<std::string>(name, takeOrRefuse, description)
      ->type_name(type)
      ->required(presence == kRequired);
}

void AddFlag(CLI::App& verb, const std::string& name, bool& target, const std::string& description) {
  verb.add_flag(name, target, description)->disable_flag_override();
}
