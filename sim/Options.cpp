#include "Options.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <map>
#include <memory>

#include "Number.h"
#include "SetupError.h"

namespace {

std::uint32_t NumberOf(const std::string& option, const std::string& text) {
  if (const auto number = ParseNumber(text)) {
    return *number;
  }
  throw SetupError(option + " needs a number of 32 bits, not \"" + text + "\".");
}

/// Splits at the first separator; without one, the second part is empty.
std::pair<std::string, std::string> Cut(const std::string& text, char separator) {
  const std::size_t at = text.find(separator);
  return at == std::string::npos ? std::make_pair(text, std::string())
                                 : std::make_pair(text.substr(0, at), text.substr(at + 1));
}

/// A node can only be simulated in the private /dev, under a name of its own.
std::string CheckedNode(const std::string& option, const std::string& path) {
  static constexpr const char* kTaken[] = {"/dev/null", "/dev/zero",   "/dev/full", "/dev/random", "/dev/urandom",
                                           "/dev/tty",  "/dev/ptmx",   "/dev/fd",   "/dev/stdin",  "/dev/stdout",
                                           "/dev/shm",  "/dev/stderr", "/dev/pts",  "/dev/mqueue", "/dev/log"};
  const std::string inside = path + '/';
  const bool clean = path.rfind("/dev/", 0) == 0 && path.find("//") == std::string::npos &&
                     inside.find("/./") == std::string::npos && inside.find("/../") == std::string::npos &&
                     path.back() != '/';
  if (!clean) {
    throw SetupError(option + " needs a path below /dev, not \"" + path + "\".");
  }
  for (const std::string taken : kTaken) {
    if (path == taken || path.rfind(taken + '/', 0) == 0) {
      throw SetupError(option + " can't be " + path + ": every program needs that one as it is.");
    }
  }
  return path;
}

FarEndOptions ParseFarEnd(const std::string& text) {
  static const std::map<std::string, FarEndOptions::Kind> kKinds = {
      {"none", FarEndOptions::Kind::kNone}, {"echo", FarEndOptions::Kind::kEcho}, {"pty", FarEndOptions::Kind::kPty},
      {"tcp", FarEndOptions::Kind::kTcp},   {"unix", FarEndOptions::Kind::kUnix}, {"exec", FarEndOptions::Kind::kExec}};
  const auto [word, target] = Cut(text, ':');
  const auto kind = kKinds.find(word);
  const bool plain = word == "none" || word == "echo";
  const std::string port = word == "tcp" ? target.substr(target.rfind(':') + 1) : "";
  const bool isNumber = !port.empty() && port.find_first_not_of("0123456789") == std::string::npos;
  const bool wrong = kind == kKinds.end() || (plain && word != text) || (!plain && word != "pty" && target.empty()) ||
                     (word == "tcp" && (target.find(':') == std::string::npos || port.empty())) ||
                     (isNumber && (port.size() > 5 || std::stoi(port) > 0xFFFF));
  if (wrong) {
    throw SetupError(
        "The far end of a --tty is echo, none, pty[:LINK], tcp:HOST:PORT, unix:PATH or exec:COMMAND, not \"" + text +
        "\".");
  }
  return {kind->second, target};
}

TtyOptions ParseTty(const std::string& text) {
  const auto [path, farEnd] = Cut(text, '=');
  return {CheckedNode("--tty", path), farEnd.empty() && path == text ? FarEndOptions{} : ParseFarEnd(farEnd)};
}

SerialInfo ParseSerialInfo(const std::vector<std::string>& numbers) {
  SerialInfo info;
  std::uint32_t* const fields[] = {&info.baudBase, &info.fifoSize, &info.flags, &info.irq, &info.divisor};
  if (numbers.size() != std::size(fields)) {
    throw SetupError("--serial-info needs five numbers: BAUD_BASE,FIFO_SIZE,FLAGS,IRQ,DIVISOR.");
  }
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    *fields[i] = NumberOf("--serial-info", numbers[i]);
  }
  return info;
}

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
  for (const TtyOptions& tty : options.ttys) {
    paths.push_back(tty.path);
  }
  paths.push_back(options.watchdog);
  paths.emplace_back(options.memory ? kMemoryPath : "");
  for (std::size_t i = 0; i < paths.size(); ++i) {
    for (std::size_t j = 0; j < paths.size(); ++j) {
      if (i != j && !paths[i].empty() && (paths[j] + '/').rfind(paths[i] + '/', 0) == 0) {
        throw SetupError("The devices " + paths[i] + " and " + paths[j] + " are in each other's way.");
      }
    }
  }
}

constexpr const char* kDescription =
    "Runs an unchanged program as if on the board: with a serial port, a watchdog,\n"
    "physical memory and network interfaces of its own. The machine itself stays as\n"
    "it is.\n";

constexpr const char* kFooter =
    "FAR is echo, none, pty[:LINK], tcp:HOST:PORT, unix:PATH or exec:COMMAND.\n"
    "\n"
    "Exit status: that of COMMAND, 128 and the signal's number if a signal ended it,\n"
    "86 if the watchdog reset the board, 125 if the board could not be set up, 126\n"
    "and 127 if COMMAND can't be executed or does not exist. The manual page\n"
    "boardsim(1) has all of it.";

constexpr std::size_t kOptionWidth = 27;  // characters, which leaves 53 for its explanation

/// Tells of the command, too.
class HelpFormatter : public CLI::Formatter {
 public:
  std::string make_usage(const CLI::App* /*app*/, std::string name) const override {
    return "Usage: " + name + " [OPTION]... [--] COMMAND [ARGUMENT]...\n       " + name + " --check\n";
  }
};

}  // namespace

std::optional<Options> ParseOptions(int argc, const char* const* argv) {
  CLI::App app(kDescription, "boardsim");
  app.footer(kFooter);
  app.formatter(std::make_shared<HelpFormatter>());
  app.get_formatter()->column_width(kOptionWidth);
  app.prefix_command();
  app.set_help_flag("-h,--help", "Print this help");
  app.set_version_flag("--version", "boardsim " BOARDSIM_VERSION, "Print the version");

  std::vector<std::string> ttys;
  std::vector<std::string> serialInfo;
  std::string watchdog;
  std::string memory;
  std::string uart;
  std::vector<std::string> registers;
  std::string net;
  Options options;
  // One argument each: the rest belongs to the command.
  const auto each = [](CLI::Option* option) { return option->take_all()->allow_extra_args(false); };
  each(app.add_option("--tty", ttys, "A serial port, and its far end (/dev/ttyS1=echo)"))->type_name("PATH[=FAR]");
  app.add_option("--serial-info", serialInfo,
                 "What TIOCGSERIAL tells: base, FIFO size, flags, irq,\ndivisor (3906250,64,0x10000040,42,0)")
      ->delimiter(',')
      ->allow_extra_args(false)
      ->type_name("FIVE,NUMBERS");
  app.add_option("--watchdog", watchdog, "The watchdog, or none (/dev/watchdog)")->type_name("PATH");
  app.add_option("--mem", memory, "No /dev/mem")->type_name("none");
  app.add_option("--uart", uart, "The first port's registers (0x80011000:4)")->type_name("BASE[:STRIDE]");
  each(app.add_option("--reg", registers, "A word of physical memory at the start"))->type_name("ADDRESS=VALUE");
  app.add_option("--net", net, "The network: private, none or host (private)")->type_name("KIND");
  const auto* noNamespaces = app.add_flag("--no-namespaces", "Answer the opens of devices instead of making a /dev");
  app.add_option("--control", options.control, "Take commands on this socket")->type_name("SOCKET");
  app.add_flag("--check", options.check, "Tell what this machine allows, and the remedies");
  app.add_option("--log", options.log, "Write one line an event, - for standard error")->type_name("FILE");

  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& answered) {
    app.exit(answered);
    return std::nullopt;
  } catch (const CLI::ParseError& error) {
    throw SetupError(std::string(error.what()) + ". Try --help.");
  }

  options.namespaces = noNamespaces->empty();
  if (!ttys.empty()) {
    options.ttys.clear();
    for (const std::string& tty : ttys) {
      options.ttys.push_back(ParseTty(tty));
    }
  }
  if (!serialInfo.empty()) {
    options.serialInfo = ParseSerialInfo(serialInfo);
  }
  if (!watchdog.empty()) {
    options.watchdog = watchdog == "none" ? "" : CheckedNode("--watchdog", watchdog);
  }
  if (!memory.empty()) {
    if (memory != "none") {
      throw SetupError("--mem can only be none, not \"" + memory + "\".");
    }
    options.memory = false;
  }
  if (!uart.empty()) {
    const auto [base, stride] = Cut(uart, ':');
    options.uartBase = NumberOf("--uart", base);
    options.uartStride = base == uart ? options.uartStride : NumberOf("--uart", stride);
  }
  if (options.uartStride == 0) {
    throw SetupError("--uart needs a stride: the distance of the registers in bytes.");
  }
  for (const std::string& preset : registers) {
    const auto [address, value] = Cut(preset, '=');
    options.registers.push_back({NumberOf("--reg", address), NumberOf("--reg", value)});
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
