#include "Options.h"

#include <CLI/CLI.hpp>
#include <list>
#include <map>
#include <memory>

#include "SetupError.h"
#include "Text.h"
#include "devices/ends/FarEnd.h"

namespace {

Net ParseNet(const std::string& text) {
  static const std::map<std::string, Net> kKinds = {
      {"private", Net::kPrivate}, {"none", Net::kNone}, {"host", Net::kHost}};
  const auto kind = kKinds.find(text);
  if (kind == kKinds.end()) {
    throw SetupError("--net is private, none or host, not \"" + text + "\".");
  }
  return kind->second;
}

void CheckNodesDiffer(const Options& options) {
  std::vector<std::string> paths;
  for (const auto& kind : options.devices) {
    for (const Node& node : kind->Nodes()) {
      paths.push_back(node.path);
    }
  }
  for (std::size_t i = 0; i < paths.size(); ++i) {
    for (std::size_t j = 0; j < paths.size(); ++j) {
      if (i != j && (paths[j] + '/').rfind(paths[i] + '/', 0) == 0) {
        throw SetupError("The devices " + paths[i] + " and " + paths[j] + " conflict: their paths overlap.");
      }
    }
  }
}

/// An option of the devices, and the values that were given for it.
struct DeviceOption {
  Option option;
  std::vector<std::string> values;
};

constexpr const char* kDescription =
    "Runs an unchanged program as if on the board: with a serial port, a watchdog,\n"
    "physical memory and network interfaces of its own. The machine itself stays as\n"
    "it is.\n";

constexpr const char* kFooter =
    "\n"
    "Exit status: that of COMMAND, 128 and the signal's number if a signal ended it,\n"
    "86 if the watchdog reset the board, 125 if the board could not be set up, 126\n"
    "and 127 if COMMAND can't be executed or does not exist. The manual page\n"
    "boardsim(1) describes everything.";

constexpr std::size_t kOptionWidth = 27;  // characters, which leaves 53 for its explanation

/// The whole help: versions of the parser differ in their layout, and the shells' completion reads it.
class HelpFormatter : public CLI::Formatter {
 public:
  std::string make_help(const CLI::App* app, std::string name, CLI::AppFormatMode /*mode*/) const override {
    std::string help = kDescription;
    help += "\nUsage: " + name + " [OPTION]... [--] COMMAND [ARGUMENT]...\n       " + name + " --check\n\nOptions:\n";
    for (const CLI::Option* const option : app->get_options()) {
      help += Row(*option);
    }
    return help + '\n' + app->get_footer() + '\n';
  }

 private:
  static std::string Row(const CLI::Option& option) {
    std::string left = "  " + option.get_name(false, true);
    if (const std::string value = option.get_type_name(); !value.empty()) {
      left += ' ' + value;
    }
    if (option.get_expected_max() == CLI::detail::expected_max_vector_size) {
      left += " ...";
    }
    const std::string margin(kOptionWidth, ' ');
    std::string row = left.size() < kOptionWidth ? left + margin.substr(left.size()) : left + '\n' + margin;
    for (const char character : option.get_description()) {
      row += character;
      if (character == '\n') {
        row += margin;
      }
    }
    return row + '\n';
  }
};

}  // namespace

std::optional<Options> ParseOptions(int argc, const char* const* argv) {
  CLI::App app(kDescription, "boardsim");
  app.footer("FAR is " + FarEndForms() + ".\n" + kFooter);
  app.formatter(std::make_shared<HelpFormatter>());
  app.prefix_command();
  app.set_help_flag("-h,--help", "Print this help");
  app.set_version_flag("--version", "boardsim " BOARDSIM_VERSION, "Print the version");

  Options options;
  options.devices = AllDeviceKinds();
  std::list<DeviceOption> ofDevices;
  for (const auto& kind : options.devices) {
    for (Option& option : kind->Options()) {
      DeviceOption& added = ofDevices.emplace_back(DeviceOption{std::move(option), {}});
      if (added.option.value.empty()) {
        app.add_flag_callback(
            added.option.name, [&added] { added.values = {""}; }, added.option.help);
        continue;
      }
      // One argument each: the rest belongs to the command.
      auto* known = app.add_option(added.option.name, added.values, added.option.help)
                        ->allow_extra_args(false)
                        ->type_name(added.option.value);
      added.option.isRepeatable ? known->take_all() : known->expected(1);
    }
  }
  std::string net;
  app.add_option("--net", net, "The network: private, none or host (private)")->type_name("KIND");
  const auto* noNamespaces = app.add_flag("--no-namespaces", "Answer the opens of devices instead of making a /dev");
  std::string restarts;
  app.add_option("--restart", restarts, "Start COMMAND anew after a reset, at most N times")->type_name("N");
  app.add_option("--control", options.control, "Take commands on this socket")->type_name("SOCKET");
  app.add_flag("--check", options.check, "Say what this machine allows, and how to get the rest");
  app.add_option("--log", options.log, "Write one line per event, - for standard error")->type_name("FILE");

  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& answered) {
    app.exit(answered);
    return std::nullopt;
  } catch (const CLI::ParseError& error) {
    throw SetupError(std::string(error.what()) + ". Try --help.");
  }

  options.namespaces = noNamespaces->empty();
  for (const DeviceOption& given : ofDevices) {
    for (const std::string& value : given.values) {
      given.option.take(value);
    }
  }
  if (!restarts.empty()) {
    options.restarts = NumberOf("--restart", restarts);
  }
  if (!net.empty()) {
    options.net = ParseNet(net);
  }
  CheckNodesDiffer(options);

  options.command = app.remaining();
  if (!options.command.empty() && options.command.front() == "--") {
    options.command.erase(options.command.begin());
  } else if (!options.command.empty() && options.command.front().front() == '-') {
    throw SetupError("There is no option " + options.command.front() + ". Try --help.");
  }
  if (options.check != options.command.empty()) {
    throw SetupError(options.check ? "--check runs no command." : "No command was given. Try --help.");
  }
  return options;
}
