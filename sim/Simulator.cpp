#include "Simulator.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <vector>

#include "ExitStatus.h"
#include "Number.h"
#include "SetupError.h"

namespace {

constexpr std::size_t kMostNames = 41;  // as many links as the kernel follows, and the first one

std::string ProcessFolder(const TrappedCall& call) {
  return "/proc/" + std::to_string(call.Thread()) + '/';
}

/// The path that the application means, from its root on: it may begin at its folder, or at one that it has open.
std::filesystem::path AbsolutePath(const TrappedCall& call, const std::string& path) {
  if (path.front() == '/') {
    return path;
  }
  const std::string base = call.OpenFolder() == AT_FDCWD ? "cwd" : "fd/" + std::to_string(call.OpenFolder());
  std::error_code error;
  return std::filesystem::read_symlink(ProcessFolder(call) + base, error) / path;
}

/// The file that the application means, as it sees it: its links lead through its own /dev.
/// @returns no file's identity if it is not there, or only for the application itself.
FileId FileOf(const TrappedCall& call, const std::filesystem::path& path) {
  const Descriptor root(::open((ProcessFolder(call) + "root").c_str(), O_PATH | O_CLOEXEC));
  open_how how{};
  how.flags = O_PATH | O_CLOEXEC;
  how.resolve = RESOLVE_IN_ROOT;
  const Descriptor file(static_cast<int>(::syscall(SYS_openat2, root.Get(), path.c_str(), &how, sizeof how)));
  return file ? FileId::Of(file) : FileId();
}

/// The names of a file: the one that was called, and those that it links to.
std::vector<std::string> NamesOf(const std::filesystem::path& path) {
  std::vector<std::string> names;
  std::filesystem::path name = path.lexically_normal();
  std::error_code error;
  while (!error && names.size() < kMostNames) {
    names.push_back(name);
    name = (name.parent_path() / std::filesystem::read_symlink(name, error)).lexically_normal();
  }
  return names;
}

std::uint32_t ParseWord(const std::string& text) {
  if (const auto number = ParseNumber(text)) {
    return *number;
  }
  throw SetupError("\"" + text + "\" is no number of 32 bits");
}

std::string ParseBytes(const std::string& hex) {
  std::string bytes;
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    const std::string pair = hex.substr(i, 2);
    if (pair.size() != 2 || pair.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
      throw SetupError("bytes are pairs of hexadecimal digits, not \"" + hex + "\"");
    }
    bytes.push_back(static_cast<char>(std::stoul(pair, nullptr, 16)));
  }
  return bytes;
}

unsigned int ParseInputs(const std::vector<std::string>& names) {
  unsigned int inputs = 0;
  for (const std::string& name : names) {
    if (ModemInput(name) == 0) {
      throw SetupError("the inputs are CTS, DSR, CD and RI, not \"" + name + "\"");
    }
    inputs |= ModemInput(name);
  }
  return inputs;
}

constexpr const char* kCommands =
    "feed TTY HEX | hangup TTY | plug TTY | set TTY INPUT... | clear TTY INPUT... | lines TTY | read ADDRESS | "
    "write ADDRESS VALUE | link INTERFACE up|down | watchdog | help";

}  // namespace

Simulator::Simulator(const Options& options)
    : m_options(options), m_log(options.log.empty() ? EventLog() : EventLog(options.log)) {
  for (const TtyOptions& tty : m_options.ttys) {
    m_lines.emplace_back(tty, m_options.serialInfo, m_log);
  }
  if (!m_options.control.empty()) {
    m_control = std::make_unique<Control>(m_options.control, [this](const std::string& line) { return Obey(line); });
  }
  MakeSandbox();

  SandboxDevices devices = m_sandbox->TakeDevices();
  auto terminal = devices.terminals.begin();
  for (SerialLine& line : m_lines) {
    line.Plug(std::move(*terminal++));
  }
  if (m_options.memory) {
    m_memory = std::make_unique<Memory>(std::move(devices.memory), m_options);
    m_lines.front().AttachUart(m_memory.get());
  }
  if (!m_options.watchdog.empty()) {
    m_watchdog = std::make_unique<Watchdog>(m_options.watchdog, std::move(devices.watchdog), m_log);
  }
  m_supervisor = std::make_unique<Supervisor>(std::move(devices.listener));
}

int Simulator::Run() {
  // A key pressed while all this was set up has not reached the application.
  sigset_t pending;
  ::sigpending(&pending);
  if (::sigismember(&pending, SIGINT) == 1) {
    return kStatusSignal + SIGINT;
  }
  m_sandbox->Go();
  while (!m_sandbox->HasEnded()) {
    if (m_watchdog) {
      m_watchdog->Look();
      if (const auto deadline = m_watchdog->Deadline(); deadline && *deadline <= Watchdog::Clock::now()) {
        return Reset("");
      }
    }
    WaitForEvents();
  }
  return EndStatus();
}

void Simulator::MakeSandbox() {
  if (m_options.namespaces) {
    try {
      m_sandbox = std::make_unique<Sandbox>(m_options, true, m_signals.Before());
      return;
    } catch (const NamespacesForbidden& error) {
      if (m_options.net && *m_options.net != Net::kHost) {
        throw SetupError(std::string(error.what()) + ", so there can be no network of its own.");
      }
      RefuseRootOnThisNetwork();
      std::fprintf(
          stderr, "boardsim: %s, so no device is to be seen in /dev, and the network is this machine's. See --check.\n",
          error.what());
    }
  } else if (m_options.net && *m_options.net != Net::kHost) {
    throw SetupError("Without namespaces there is only --net host.");
  }
  RefuseRootOnThisNetwork();
  m_sandbox = std::make_unique<Sandbox>(m_options, false, m_signals.Before());
}

void Simulator::RefuseRootOnThisNetwork() const {
  if (::geteuid() == 0 && m_options.net != Net::kHost) {
    throw SetupError(
        "As root, and without namespaces, the application could change this machine's network: say --net host if that "
        "is meant.");
  }
}

void Simulator::WaitForEvents() {
  std::vector<pollfd> waiting{{m_signals.Get(), POLLIN, 0}, {m_supervisor->Get(), POLLIN, 0}};
  for (const SerialLine& line : m_lines) {
    waiting.push_back({line.Master(), line.MasterEvents(), 0});
    waiting.push_back({line.Far().Get(), line.FarEvents(), 0});
  }
  waiting.push_back({m_watchdog ? m_watchdog->Reader() : -1, POLLIN, 0});
  if (m_control) {
    for (const int descriptor : m_control->Descriptors()) {
      waiting.push_back({descriptor, POLLIN, 0});
    }
  }

  timespec wait{};
  const auto deadline = m_watchdog ? m_watchdog->Deadline() : std::nullopt;
  if (deadline) {
    const auto left = std::max(*deadline - Watchdog::Clock::now(), Watchdog::Clock::duration::zero());
    const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
    wait.tv_sec = seconds.count();
    wait.tv_nsec = std::chrono::nanoseconds(left - seconds).count();
  }
  if (::ppoll(waiting.data(), waiting.size(), deadline ? &wait : nullptr, nullptr) <= 0) {
    return;
  }

  auto event = waiting.begin();
  if ((event++)->revents != 0) {
    HandOnSignals();
  }
  if (((event++)->revents & POLLIN) != 0) {
    if (const auto call = m_supervisor->Receive()) {
      Answer(*call);
    }
  }
  for (SerialLine& line : m_lines) {
    const short master = (event++)->revents;
    const short far = (event++)->revents;
    if ((master | far) != 0) {
      line.Carry(far != 0);
    }
  }
  if (m_control) {
    m_control->Serve();
  }
}

void Simulator::Answer(const TrappedCall& call) {
  try {
    if (call.IsIoctl()) {
      AnswerIoctl(call);
    } else {
      AnswerOpen(call);
    }
  } catch (const RequestError& refused) {
    call.Fail(refused.error);
  }
}

void Simulator::AnswerIoctl(const TrappedCall& call) {
  // Whichever way the descriptor came to the application, it is known by the file behind it.
  struct stat status {};
  const std::string name = ProcessFolder(call) + "fd/" + std::to_string(call.IoctlDescriptor());
  if (::stat(name.c_str(), &status) == 0 && call.IsWaiting()) {
    const FileId file = FileId::Of(status);
    for (SerialLine& line : m_lines) {
      if (line.Is(file)) {
        line.Request(call);
        return;
      }
    }
    if (m_watchdog && m_watchdog->Is(file)) {
      m_watchdog->Request(call);
      return;
    }
  }
  call.Continue();
}

void Simulator::AnswerOpen(const TrappedCall& call) {
  std::string path;
  try {
    path = call.OpenPath();
  } catch (const RequestError&) {
    // Left empty: it can't be one of the devices, as far as anybody here can tell.
  }
  if (path.empty()) {
    call.Continue();
    return;
  }

  const bool inject = !m_sandbox->HasNamespaces();
  const std::filesystem::path absolute = AbsolutePath(call, path);
  // A name that nobody has made: there is only the text to go by.
  const std::vector<std::string> names = inject ? NamesOf(absolute) : std::vector<std::string>();
  const auto isNamed = [&](const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
  };
  const FileId file = inject ? FileId() : FileOf(call, absolute);
  const auto isMeant = [&](const auto& device) { return inject ? isNamed(device.Path()) : device.Is(file); };
  if (!call.IsWaiting()) {
    return;
  }
  for (SerialLine& line : m_lines) {
    if (isMeant(line)) {
      line.Opened();
      inject ? call.ReturnDescriptor(line.Open(call.OpenFlags())) : call.Continue();
      return;
    }
  }
  if (m_watchdog && isMeant(*m_watchdog)) {
    m_watchdog->Opened();
    inject ? call.ReturnDescriptor(m_watchdog->Open(call.OpenFlags())) : call.Continue();
    return;
  }
  if (m_memory && inject && isNamed(kMemoryPath)) {
    call.ReturnDescriptor(m_memory->Open(call.OpenFlags()));
    return;
  }
  call.Continue();
}

void Simulator::HandOnSignals() {
  signalfd_siginfo signal{};
  while (::read(m_signals.Get(), &signal, sizeof signal) == sizeof signal) {
    // What comes from the terminal has reached the application as well.
    if (signal.ssi_signo != SIGCHLD && signal.ssi_code != SI_KERNEL) {
      m_sandbox->Signal(static_cast<int>(signal.ssi_signo));
    }
  }
}

int Simulator::Reset(const std::string& circumstance) {
  m_sandbox->Kill();
  const std::string account = m_watchdog->Account();
  m_log.Write(m_watchdog->Path(), "reset " + account);
  m_log.Write("board", "end status=" + std::to_string(kStatusReset));
  std::fprintf(stderr, "boardsim: %s%s has reset the board: %s\n", m_watchdog->Path().c_str(), circumstance.c_str(),
               account.c_str());
  return kStatusReset;
}

int Simulator::EndStatus() {
  Drain();
  if (m_watchdog) {
    m_watchdog->Look();
    if (m_watchdog->Deadline()) {
      return Reset(", not stopped by the application,");
    }
  }
  const std::optional<int> ended = m_sandbox->ApplicationStatus();
  const int status = !ended                ? kStatusSignal + SIGKILL
                     : WIFSIGNALED(*ended) ? kStatusSignal + WTERMSIG(*ended)
                                           : WEXITSTATUS(*ended);
  m_log.Write("board", "end status=" + std::to_string(status));
  return status;
}

/// What the application has written before its end still goes to the far ends, as far as these take it in time.
void Simulator::Drain() {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  for (SerialLine& line : m_lines) {
    line.Carry(false);
    pollfd far{line.Far().Get(), POLLOUT, 0};
    while (line.Far().HasToWrite() && std::chrono::steady_clock::now() < end) {
      ::poll(&far, 1, 100);
      line.Carry(false);
    }
  }
}

std::string Simulator::Obey(const std::string& command) {
  std::istringstream input(command);
  std::string verb;
  input >> verb;
  std::vector<std::string> words;
  for (std::string word; input >> word;) {
    words.push_back(word);
  }
  if (const auto answer = ObeyOnLine(verb, words)) {
    return *answer;
  }

  const auto is = [&](const char* name, std::size_t count) { return verb == name && words.size() == count; };
  if (m_memory && is("read", 1)) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", m_memory->Read(ParseWord(words[0])));
    return text;
  }
  if (m_watchdog && is("watchdog", 0)) {
    m_watchdog->Look();
    return m_watchdog->State();
  }
  if (m_memory && is("write", 2)) {
    m_memory->Write(ParseWord(words[0]), ParseWord(words[1]));
  } else if (is("link", 2) && (words[1] == "up" || words[1] == "down")) {
    m_sandbox->SetLink(words[0], words[1] == "up");
    m_log.Write(words[0], "link " + words[1]);
  } else if (is("help", 0)) {
    return kCommands;
  } else {
    throw SetupError("the commands are: " + std::string(kCommands));
  }
  return "";
}

/// The commands whose first word is a serial port.
/// @returns nothing if it is none of them.
std::optional<std::string> Simulator::ObeyOnLine(const std::string& verb, const std::vector<std::string>& words) {
  const auto is = [&](const char* name, std::size_t count) { return verb == name && words.size() == count; };
  if (is("feed", 2)) {
    SerialLine& line = LineOf(words[0]);
    if (line.Master() == -1) {
      throw SetupError(words[0] + " is not plugged in");
    }
    line.Feed(ParseBytes(words[1]));
  } else if (is("hangup", 1)) {
    LineOf(words[0]).Unplug();
  } else if (is("plug", 1)) {
    SerialLine& line = LineOf(words[0]);
    if (line.Master() != -1) {
      throw SetupError(words[0] + " is plugged in");
    }
    line.Plug(m_sandbox->Replug(words[0]));
  } else if ((verb == "set" || verb == "clear") && words.size() > 1) {
    LineOf(words[0]).SetInputs(ParseInputs({words.begin() + 1, words.end()}), verb == "set");
  } else if (is("lines", 1)) {
    return ModemLineNames(LineOf(words[0]).ModemLines());
  } else {
    return std::nullopt;
  }
  return "";
}

SerialLine& Simulator::LineOf(const std::string& path) {
  for (SerialLine& line : m_lines) {
    if (line.Path() == path) {
      return line;
    }
  }
  throw SetupError("there is no simulated port " + path);
}
