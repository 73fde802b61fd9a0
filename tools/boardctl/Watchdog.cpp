#include <WatchDog.h>
#include <fcntl.h>
#include <linux/watchdog.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <system_error>
#include <thread>

#include "Check.h"
#include "Groups.h"
#include "Program.h"
#include "Signals.h"
#include "Status.h"
#include "WatchdogDevices.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int kFeedingsPerTimeout = 3;  // so that two may be late
constexpr int kMsPerS = 1000;

struct WatchdogArguments {
  std::string device;
  int intervalS = 30;
  int everyS = 0;  // 0: as often as the time-out asks for
  std::string check;
  std::string alive;
};

// --- show

int Show(const std::string& device, Output& out) {
  const WatchdogLook look = LookAtWatchdog(device);
  constexpr const char* kUnknown = "unknown";
  const auto seconds = [&](const std::optional<std::uint64_t>& number) {
    return number ? std::to_string(*number) + " s" : kUnknown;
  };
  std::string limits;
  if (look.shortestS && look.longestS) {
    limits = " (from " + seconds(look.shortestS) +
             (*look.longestS == 0 ? ", without an upper limit)" : " to " + seconds(look.longestS) + ')');
  }
  out.Line(device);
  out.Line("  identity   " + look.identity.value_or(kUnknown));
  out.Line("  state      " + look.state.value_or(kUnknown));
  out.Line("  time-out   " + seconds(look.timeoutS) + limits);
  out.Line("  time left  " + seconds(look.timeLeftS));
  out.Line("  nowayout   " + std::string(look.nowayout ? (*look.nowayout ? "yes" : "no") : kUnknown));
  out.Line("  open by    " + processes::InWords(look.holders));
  if (look.name.empty()) {
    out.Say("Its settings are unknown without opening it, and opening it would arm it.");
  }
  for (const Remark& remark : RemarksOn(look)) {
    out.Say(remark.what + ' ' + remark.remedy);
  }
  out.Object("watchdog", InJson(look));
  return kStatusDone;
}

// --- feed and run

/// While it lives, the terminal stops this process neither by a key nor for writing: a stopped one feeds nothing.
class StopsIgnored {
 public:
  StopsIgnored() {
    for (std::size_t i = 0; i < std::size(kStops); ++i) {
      struct sigaction ignore {};
      ignore.sa_handler = SIG_IGN;
      ::sigaction(kStops[i], &ignore, &m_before[i]);
    }
  }
  ~StopsIgnored() {
    for (std::size_t i = 0; i < std::size(kStops); ++i) {
      ::sigaction(kStops[i], &m_before[i], nullptr);
    }
  }
  StopsIgnored(const StopsIgnored&) = delete;
  StopsIgnored& operator=(const StopsIgnored&) = delete;

  static constexpr int kStops[] = {SIGTSTP, SIGTTIN, SIGTTOU};

 private:
  struct sigaction m_before[std::size(kStops)]{};
};

std::string SecondsInWords(int seconds) {
  return std::to_string(seconds) + " s";
}

/// Which descriptor of this process is the open @p device; -1 for none.
int DescriptorOf(const std::string& device) {
  constexpr int kMost = 256;  // the lowest free one was taken
  struct stat wanted {};
  if (::stat(device.c_str(), &wanted) == 0) {
    for (int fd = STDERR_FILENO + 1; fd < kMost; ++fd) {
      struct stat there {};
      if (::fstat(fd, &there) == 0 && there.st_dev == wanted.st_dev && there.st_ino == wanted.st_ino) {
        return fd;
      }
    }
  }
  return -1;
}

/// Commands get none of the descriptors above 2: one that inherits the device's would keep it open, and counting.
void KeepDescriptors() {
#ifdef SYS_close_range
  constexpr unsigned int kCloseOnExec = 4;  // CLOSE_RANGE_CLOEXEC, from Linux 5.11 on
  if (::syscall(SYS_close_range, STDERR_FILENO + 1U, ~0U, kCloseOnExec) == 0) {
    return;
  }
#endif
  constexpr int kMost = 1024;
  for (int fd = STDERR_FILENO + 1; fd < kMost; ++fd) {
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);
  }
}

/// An armed watchdog, which nothing but Disarm() disarms: when something goes wrong, it is left counting.
class Armed {
 public:
  /// @throws what WatchDog::Activate() does, after a sentence of what that means.
  Armed(const WatchdogArguments& arguments, Output& out)
      : m_out(out),
        m_inTime(out),
        m_device(arguments.device),
        m_dog(std::make_unique<WatchDog>(arguments.intervalS, m_device)) {
    const signals::Held held;
    Arm(arguments.intervalS);
    KeepDescriptors();
    watchdog_info support{};
    m_hasMagicClose =
        ::ioctl(DescriptorOf(m_device), WDIOC_GETSUPPORT, &support) != 0 || (support.options & WDIOF_MAGICCLOSE) != 0;
  }

  ~Armed() {
    // Its destructor would disarm it.
    [[maybe_unused]] const WatchDog* const left = m_dog.release();
  }

  Armed(const Armed&) = delete;
  Armed& operator=(const Armed&) = delete;

  int TimeoutS() const {
    return m_timeoutS;
  }
  milliseconds Period() const {
    return milliseconds(std::int64_t{m_timeoutS} * kMsPerS / kFeedingsPerTimeout);
  }

  void Feed() {
    Do(&WatchDog::Feed, "Feeding");
  }

  /// Returns the exit status: it may keep counting nevertheless.
  int Disarm() {
    Do(&WatchDog::Deactivate, "Disarming");
    m_inTime.reset();
    const WatchdogLook look = LookAfterClosing();
    if (look.IsActive()) {
      m_out.Warn("boardctl: closed properly, but " + m_device + " still counts (nowayout): THE BOARD RESETS within " +
                 SecondsInWords(m_timeoutS) + " unless another program opens and feeds it.");
      return kStatusFailed;
    }
    m_out.Say(
        "boardctl: " + m_device +
        (look.state ? " is disarmed." : " is disarmed, unless its driver has nowayout set, which is unknown here."));
    return kStatusDone;
  }

  /// Leaves it counting, and says so; returns the exit status.
  int Leave(const std::string& reason) {
    m_out.Warn("boardctl: " + reason + ": no more feeding, THE BOARD RESETS within " + SecondsInWords(m_timeoutS) +
               '.');
    if (!m_hasMagicClose) {
      m_out.Warn("boardctl: this driver has no magic close and would stop at any close: " + m_device +
                 " is kept open until the reset.");
      WaitForReset();
    }
    return kStatusFailed;
  }

 private:
  /// Waits whatever signals come: a driver may take longer than its time-out.
  void WaitForReset() const {
    std::this_thread::sleep_for(std::chrono::seconds(std::int64_t{2} * m_timeoutS + 1));
  }

  void Do(void (WatchDog::*step)(), const char* name) {
    const signals::Held held;
    try {
      (*m_dog.*step)();
    } catch (const std::exception&) {
      m_out.Warn("boardctl: " + std::string(name) + " failed: THE BOARD RESETS within " + SecondsInWords(m_timeoutS) +
                 '.');
      if (!m_hasMagicClose) {
        WaitForReset();
      }
      throw;
    }
  }

  /// A simulated watchdog notices a close a moment later.
  WatchdogLook LookAfterClosing() const {
    constexpr milliseconds kPatience(1000);
    constexpr milliseconds kPiece(10);
    const Clock::time_point end = Clock::now() + kPatience;
    WatchdogLook look = LookAtWatchdog(m_device);
    while (look.IsActive() && look.nowayout != true && Clock::now() < end) {
      std::this_thread::sleep_for(kPiece);
      look = LookAtWatchdog(m_device);
    }
    return look;
  }

  void Arm(int intervalS) {
    try {
      m_dog->Activate();
    } catch (const std::system_error& error) {
      // It throws this only if it could not open the device.
      std::string why = " could not be opened";
      if (error.code().value() == EBUSY) {
        const auto holders = LookAtWatchdog(m_device).holders;
        why =
            " is in use, by " + (holders.empty() ? "a process that is not visible here" : processes::InWords(holders));
      }
      m_out.Warn("boardctl: " + m_device + why + ". Nothing was armed.");
      throw;
    } catch (const std::logic_error&) {
      m_out.Warn("boardctl: the driver refuses " + SecondsInWords(intervalS) + ", and " + m_device +
                 " was opened to ask it: it counts with its old time-out (a driver without the magic close does not), "
                 "and THE BOARD RESETS unless you take over now: boardctl watchdog feed " +
                 m_device + ", and Ctrl-C.");
      throw;
    }
    m_timeoutS = intervalS;
    try {
      m_timeoutS = std::max(m_dog->GetInterval(), 1);
    } catch (const std::logic_error&) {
      // A driver that does not report it uses what it was asked for.
    }
    if (m_timeoutS != intervalS) {
      m_out.Say("boardctl: the driver changed " + SecondsInWords(intervalS) + " to " + SecondsInWords(m_timeoutS) +
                '.');
    }
  }

  Output& m_out;
  std::optional<Output::InTime> m_inTime;  // a terminal that is stopped must not keep it from feeding
  std::string m_device;
  std::unique_ptr<WatchDog> m_dog;
  int m_timeoutS = 0;
  bool m_hasMagicClose = true;
};

/// Checks what it can without opening the device: after an interval that the driver refuses, nothing could disarm it.
void CheckBeforeArming(const WatchdogArguments& arguments, Output& out) {
  if (arguments.everyS >= arguments.intervalS) {
    throw UsageError("--every: " + SecondsInWords(arguments.everyS) + " is not shorter than --interval, " +
                     SecondsInWords(arguments.intervalS));
  }
  WatchdogLook look;
  try {
    look = LookAtWatchdog(arguments.device);
  } catch (const std::system_error&) {
    return;  // opening reports why
  }
  const auto interval = static_cast<std::uint64_t>(arguments.intervalS);
  const std::uint64_t least = look.shortestS.value_or(1);
  const std::uint64_t most = look.longestS.value_or(0);  // 0: no limit
  if (interval < least || (most != 0 && interval > most)) {
    throw UsageError("--interval: the driver takes " + std::to_string(least) +
                     (most == 0 ? " s or more, not " : " to " + std::to_string(most) + " s, not ") +
                     SecondsInWords(arguments.intervalS));
  }
  if (look.nowayout == true) {
    out.Warn("boardctl: nowayout is set: once armed, nothing disarms " + arguments.device +
             ", and the board resets after the last feeding.");
  }
}

void TellArmed(const Armed& dog, const WatchdogArguments& arguments, milliseconds period, Output& out) {
  out.Say("boardctl: " + arguments.device + " is armed: the board resets when it is not fed for " +
          SecondsInWords(dog.TimeoutS()) + "; it is fed every " +
          Fixed(std::chrono::duration<double>(period).count(), period.count() % kMsPerS == 0 ? 0 : 1) + " s.");
}

int Feed(const WatchdogArguments& arguments, Output& out) {
  CheckBeforeArming(arguments, out);
  if (signals::Caught() != 0) {
    return kStatusDone;
  }
  const StopsIgnored ignored;
  Armed dog(arguments, out);
  const milliseconds period = arguments.everyS == 0 ? dog.Period() : milliseconds(arguments.everyS * kMsPerS);
  if (period >= std::chrono::seconds(dog.TimeoutS())) {
    dog.Disarm();
    throw std::runtime_error("Feeding every " + SecondsInWords(arguments.everyS) + " is too rare for a time-out of " +
                             SecondsInWords(dog.TimeoutS()));
  }
  TellArmed(dog, arguments, period, out);
  while (signals::Wait(static_cast<int>(period.count()))) {
    dog.Feed();
  }
  return dog.Disarm();
}

/// A command that was started, and is ours to wait for.
class Child {
 public:
  /// @p isApart: in a process group of its own, where the terminal's keys do not reach it, and without input.
  Child(const std::vector<std::string>& words, bool isApart) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawnattr_init(&attributes);
    short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
    sigset_t signals;
    ::sigemptyset(&signals);
    ::posix_spawnattr_setsigmask(&attributes, &signals);
    for (const int number : StopsIgnored::kStops) {
      ::sigaddset(&signals, number);
    }
    ::posix_spawnattr_setsigdefault(&attributes, &signals);
    if (isApart) {
      flags |= POSIX_SPAWN_SETPGROUP;
      ::posix_spawnattr_setpgroup(&attributes, 0);
      ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    }
    ::posix_spawnattr_setflags(&attributes, flags);

    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (const std::string& word : words) {
      pointers.push_back(
          const_cast<char*>(word.c_str()));  // NOLINT(cppcoreguidelines-pro-type-const-cast): the interface
    }
    pointers.push_back(nullptr);
    const int error = ::posix_spawnp(&m_process, pointers.front(), &actions, &attributes, pointers.data(), environ);
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
      throw std::system_error(error, std::generic_category(), '\'' + words.front() + "' can't be started");
    }
  }

  int Process() const {
    return m_process;
  }

  bool HasEnded() const {
    siginfo_t information{};
    return ::waitid(P_PID, static_cast<id_t>(m_process), &information, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           information.si_pid == m_process;
  }

  /// Waits for its end. "" if it ended well, else how.
  std::string Reap() const {
    int status = 0;
    while (::waitpid(m_process, &status, 0) == -1 && errno == EINTR) {
    }
    if (WIFSIGNALED(status)) {
      return "was ended by signal " + std::to_string(WTERMSIG(status));
    }
    return status == 0 ? "" : "ended with status " + std::to_string(WEXITSTATUS(status));
  }

  void KillGroup() const {
    ::kill(-m_process, SIGKILL);
    Reap();
  }

 private:
  pid_t m_process = 0;
};

/// Whether a file is touched again and again. Changes of its time are looked for, not its time: a board's clock jumps
/// when it learns the time.
class Pulse {
 public:
  explicit Pulse(std::string file) : m_file(std::move(file)) {
    Look();
  }

  bool IsThere(std::chrono::seconds within) {
    Look();
    return Clock::now() - m_seen < within;
  }

 private:
  void Look() {
    struct stat file {};
    if (::stat(m_file.c_str(), &file) == 0 &&
        (file.st_mtim.tv_sec != m_time.tv_sec || file.st_mtim.tv_nsec != m_time.tv_nsec)) {
      m_time = file.st_mtim;
      m_seen = Clock::now();
    }
  }

  std::string m_file;
  timespec m_time{};
  Clock::time_point m_seen = Clock::now();
};

/// Waits until a child has ended, a signal came, or it is @p end.
void WaitForChild(Clock::time_point end) {
  sigset_t child;
  ::sigemptyset(&child);
  ::sigaddset(&child, SIGCHLD);
  const auto left = std::max(end - Clock::now(), Clock::duration::zero());
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
  timespec time{};
  time.tv_sec = static_cast<time_t>(seconds.count());
  time.tv_nsec = static_cast<long>(std::chrono::nanoseconds(left - seconds).count());
  ::sigtimedwait(&child, nullptr, &time);
}

/// Feeds while @p command lives and all checks hold. Returns what is wrong, or nothing when it has ended.
std::string FeedWhile(const Child& command, Armed& dog, const WatchdogArguments& arguments) {
  const milliseconds period = dog.Period();
  Pulse pulse(arguments.alive);
  std::optional<Child> check;
  Clock::time_point due = Clock::now() + period;  // of the next feeding, or of the end of the check
  while (!command.HasEnded()) {
    WaitForChild(due);
    if (check && check->HasEnded()) {
      const std::string how = check->Reap();
      check.reset();
      if (!how.empty()) {
        return "--check " + how;
      }
      dog.Feed();
      due = Clock::now() + period;
    }
    if (Clock::now() < due) {
      continue;
    }
    if (check) {
      check->KillGroup();
      return "--check did not end within " + Fixed(std::chrono::duration<double>(period).count(), 1) +
             " s, a third of the time-out";
    }
    if (!arguments.alive.empty() && !pulse.IsThere(std::chrono::seconds(dog.TimeoutS()))) {
      return "--alive: " + arguments.alive + " was not touched for " + SecondsInWords(dog.TimeoutS());
    }
    if (arguments.check.empty()) {
      dog.Feed();
    } else {
      try {
        check.emplace(std::vector<std::string>{"/bin/sh", "-c", arguments.check}, true);
      } catch (const std::system_error& error) {
        return std::string("--check: ") + error.what();
      }
    }
    due = Clock::now() + period;
  }
  if (check) {
    check->KillGroup();
  }
  return {};
}

int Run(const WatchdogArguments& arguments, Call& call) {
  if (call.command.empty() || call.command.front().empty()) {
    throw UsageError("it takes \"--\" and a command after all options");
  }
  CheckBeforeArming(arguments, call.out);
  if (signals::Caught() != 0) {
    return kStatusDone;
  }
  const StopsIgnored ignored;
  ::signal(SIGCHLD, SIG_DFL);
  sigset_t child;
  ::sigemptyset(&child);
  ::sigaddset(&child, SIGCHLD);
  ::sigprocmask(SIG_BLOCK, &child, nullptr);

  Armed dog(arguments, call.out);
  TellArmed(dog, arguments, dog.Period(), call.out);
  std::optional<Child> command;
  std::optional<signals::HandsOn> handsOn;
  {
    const signals::Held held;
    try {
      if (signals::Caught() == 0) {
        command.emplace(call.command, false);
      }
    } catch (const std::system_error&) {
      dog.Disarm();
      throw;
    }
    if (command) {
      handsOn.emplace(command->Process());
    }
  }
  if (!command) {
    return dog.Disarm();
  }

  const std::string wrong = FeedWhile(*command, dog, arguments);
  handsOn.reset();
  if (!wrong.empty()) {
    return dog.Leave(wrong + "; the command (process " + std::to_string(command->Process()) + ") is left running");
  }
  const std::string how = command->Reap();
  // If a signal that was meant for both ended it, it has not failed.
  if (!how.empty() && signals::Caught() == 0) {
    return dog.Leave("the command " + how);
  }
  return dog.Disarm();
}

int Seconds(const std::string& text) {
  return static_cast<int>(check::Decimal(text, 1, INT_MAX / kMsPerS));
}

CLI::App& AddDeviceVerb(Program& program, CLI::App& group, const Verb& verb,
                        int (*run)(const WatchdogArguments&, Call&), WatchdogArguments*& arguments) {
  const auto kept = std::make_shared<WatchdogArguments>();
  CLI::App& app = program.AddVerb(&group, verb, [kept, run](Call& call) { return run(*kept, call); });
  AddArgument(app, "DEVICE", "", kept->device, check::Path, "the watchdog, for example /dev/watchdog", kRequired);
  arguments = kept.get();
  return app;
}

void AddInterval(CLI::App& app, WatchdogArguments& arguments) {
  AddArgument(app, "--interval", "S", arguments.intervalS, Seconds,
              "time-out in seconds, 1 or more (default 30); the driver may round it or refuse");
}

}  // namespace

void AddWatchdog(Program& program) {
  CLI::App& group = program.AddGroup("watchdog", "the watchdog: show, feed, run a command under it");
  WatchdogArguments* arguments = nullptr;
  AddDeviceVerb(
      program, group,
      {"show", "Shows a watchdog's settings and who has it open, without opening it", "DEVICE [OPTION]...", "",
       "The kernel shows them in /sys. Only root sees the processes of other users.\n"
       "active: a program has armed it, and it counts. If nobody has it open, the board will reset.\n"
       "inactive: no program has armed it. The kernel may be feeding one that the boot loader started.",
       "watchdog show /dev/watchdog", "nothing: the device was not opened."},
      [](const WatchdogArguments& given, Call& call) { return Show(given.device, call.out); }, arguments);

  CLI::App& feed = AddDeviceVerb(
      program, group,
      {"feed", "Arms DEVICE, feeds it until a signal comes, and disarms it", "DEVICE [OPTION]...",
       "If feeding stops, THE BOARD RESETS.",
       "SIGINT (Ctrl-C), SIGTERM, SIGHUP and SIGQUIT disarm it; Ctrl-Z does not stop the feeding. If boardctl is "
       "killed in another way, nobody feeds, and the board resets (unless the driver has no magic close).",
       "watchdog feed /dev/watchdog --interval 30",
       "nothing after \"disarmed\". A driver with nowayout keeps counting and resets the board; one without the magic "
       "close stops at any close: where the board is to reset, boardctl keeps it open until then (at most two "
       "time-outs and a second); if boardctl is killed, the board does not reset.",
       false},
      [](const WatchdogArguments& given, Call& call) { return Feed(given, call.out); }, arguments);
  AddInterval(feed, *arguments);
  AddArgument(feed, "--every", "S", arguments->everyS, Seconds,
              "seconds between two feedings (default: a third of the time-out)");

  CLI::App& run = AddDeviceVerb(
      program, group,
      {"run", "Arms DEVICE, and feeds it while COMMAND lives", "DEVICE [OPTION]... -- COMMAND [ARGUMENT]...",
       "If feeding stops, THE BOARD RESETS.",
       "COMMAND runs as it stands, without a shell; everything after \"--\" belongs to it.\n"
       "COMMAND ends with 0: disarms; status 0.\n"
       "COMMAND ends otherwise: no more feeding, the board resets; status 1, if boardctl ends before.\n"
       "--check or --alive fails: likewise; COMMAND is left running.\n"
       "COMMAND can't be started: disarms; status 1.\n"
       "SIGINT, SIGTERM, SIGHUP, SIGQUIT: handed on; fed until COMMAND has ended, then disarms; the status names the "
       "signal also if --check or --alive failed or nowayout is set, and the board resets.\n"
       "boardctl is killed: nobody feeds, the board resets (unless the driver has no magic close).\n"
       "Without a board: boardsim -- boardctl watchdog run /dev/watchdog -- ./app",
       "watchdog run /dev/watchdog --interval 5 -- ./app",
       "nothing after \"disarmed\". A driver with nowayout keeps counting and resets the board; one without the magic "
       "close stops at any close: where the board is to reset, boardctl keeps it open until then (at most two "
       "time-outs and a second); if boardctl is killed, the board does not reset.",
       false, false, true},
      Run, arguments);
  AddInterval(run, *arguments);
  AddArgument(
      run, "--check", "COMMAND", arguments->check,
      [](const std::string& text) { return check::NotEmpty(text, "a command"); },
      "feed only while this shell command succeeds; it is asked before each feeding and may take a third of "
      "the time-out");
  AddArgument(run, "--alive", "FILE", arguments->alive, check::Path,
              "feed only while FILE is touched within each time-out");
}
