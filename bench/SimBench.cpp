#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "BareSupervisor.h"
#include "Benches.h"
#include "Contest.h"
#include "Descriptor.h"

namespace {

constexpr double kUntouchedLimit = 60e-9;      // seconds over the bare call's
constexpr double kUntouchedRatioLimit = 1.05;  // of a call that takes longer than that varies
constexpr double kStartLimit = 20e-3;          // seconds over the bare program's
constexpr double kTrappedLimit = 10e-6;        // seconds
constexpr double kByteLimit = 1e-3;            // seconds
constexpr double kFloodLimit = 0.2;            // seconds, at 50 MiB/s
constexpr double kPaceLimit = 0.01;
constexpr long kTurns = 200;
constexpr long kStartTurns = 10;

constexpr const char* kTty = "/dev/ttyS1";
constexpr const char* kSink = "cat >/dev/null";
constexpr std::size_t kFloodSize = std::size_t{10} * 1024 * 1024;  // bytes
constexpr std::size_t kBytesPerSecond = 11520;                     // at 115200 8N1

void Require(bool success, const char* what) {
  if (!success) {
    throw std::system_error(errno, std::generic_category(), what);
  }
}

// --- What a worker does, on the simulated board and beside it --------------------------------------------------------

/// A raw terminal. Beside the board, its other end is here, too, and sends back what comes.
class Line {
 public:
  Line() {
    int tty = ::open(kTty, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (tty == -1) {
      int master = -1;
      Require(::openpty(&master, &tty, nullptr, nullptr, nullptr) == 0, "no pseudo-terminal");
      m_master = Descriptor(master);
    }
    m_tty = Descriptor(tty);
    m_name = IsOnBoard() ? kTty : ::ttyname(tty);
    termios settings{};
    Require(::tcgetattr(m_tty.Get(), &settings) == 0, "tcgetattr");
    ::cfmakeraw(&settings);
    ::cfsetspeed(&settings, B115200);
    Require(::tcsetattr(m_tty.Get(), TCSANOW, &settings) == 0, "tcsetattr");
  }

  int Get() const {
    return m_tty.Get();
  }
  bool IsOnBoard() const {
    return m_master.Get() == -1;
  }
  const std::string& Name() const {
    return m_name;
  }

  void SendByteAndBack() const {
    char byte = 'x';
    Require(::write(m_tty.Get(), &byte, 1) == 1, "write");
    if (!IsOnBoard()) {
      Require(::read(m_master.Get(), &byte, 1) == 1 && ::write(m_master.Get(), &byte, 1) == 1, "the other end");
    }
    Require(::read(m_tty.Get(), &byte, 1) == 1, "read");
  }

 private:
  Descriptor m_tty;
  Descriptor m_master;
  std::string m_name;
};

struct Case {
  const char* name;
  long calls;  // in a batch
  Measure measure;
  double limit;
  void (*call)(const Line& line);
  std::vector<std::string> options = {};  // of the board
  long turns = kTurns;
};

constexpr std::size_t kSmall = 64;  // bytes
constexpr std::size_t kLarge = std::size_t{64} * 1024;

std::array<char, kLarge>& Buffer() {
  static std::array<char, kLarge> buffer;
  return buffer;
}

void CallNothing(const Line& /*line*/) {
  ::syscall(SYS_getppid);
}

/// From this program's file, which is in memory.
template <std::size_t size>
void Read(const Line& /*line*/) {
  static const Descriptor file(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
  Require(::pread(file.Get(), Buffer().data(), size, 0) == static_cast<ssize_t>(size), "pread");
}

/// This program's file, which is the same one in both places. Two calls: it is closed, too.
void OpenForReading(const Line& /*line*/) {
  static const std::string name = std::filesystem::read_symlink("/proc/self/exe");
  const Descriptor file(::open(name.c_str(), O_RDONLY | O_CLOEXEC));
  Require(file.Get() != -1, "open");
}

/// The kernel's: this program has an `ioctl` of its own, with answers for devices that machines lack.
long RealIoctl(const Line& line, unsigned long request, void* argument) {
  return ::syscall(SYS_ioctl, line.Get(), request, argument);
}

void AskForSize(const Line& line) {
  winsize size{};
  Require(RealIoctl(line, TIOCGWINSZ, &size) == 0, "TIOCGWINSZ");
}

/// Beside the board, calls are answered by the least that can.
void BeSupervised(const Line& line) {
  static bool isSupervised = line.IsOnBoard();
  if (!isSupervised) {
    ContinueSupervised();
    isSupervised = true;
  }
}

void AskForModemLines(const Line& line) {
  BeSupervised(line);
  int lines = 0;
  Require(RealIoctl(line, TIOCMGET, &lines) == 0, "TIOCMGET");
}

/// Two calls: it is closed, too.
void OpenForBoth(const Line& line) {
  BeSupervised(line);
  const Descriptor tty(::open(line.Name().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
}

void SendByteAndBack(const Line& line) {
  line.SendByteAndBack();
}

void WriteAll(int fd, std::size_t size) {
  for (std::size_t done = 0; done < size;) {
    const ssize_t written = ::write(fd, Buffer().data(), std::min(size - done, Buffer().size()));
    Require(written > 0, "write");
    done += static_cast<std::size_t>(written);
  }
}

/// To the far end, which takes it. Beside the board, through a pipe to the same.
void Flood(const Line& line) {
  if (line.IsOnBoard()) {
    WriteAll(line.Get(), kFloodSize);
    Require(::tcdrain(line.Get()) == 0, "tcdrain");
  } else {
    std::FILE* const sink = ::popen(kSink, "we");
    Require(sink != nullptr, kSink);
    WriteAll(::fileno(sink), kFloodSize);
    Require(::pclose(sink) == 0, kSink);
  }
}

/// What goes over the line in some seconds.
template <std::size_t seconds>
void Pace(const Line& line) {
  WriteAll(line.Get(), seconds * kBytesPerSecond);
  Require(::tcdrain(line.Get()) == 0, "tcdrain");
}

const std::vector<std::string>& SinkOptions() {
  static const std::vector<std::string> options{"--tty", std::string(kTty) + "=exec:" + kSink};
  return options;
}

// Each call costs some ten nanoseconds more, whatever it does: that is the kernel's own price for a filter.
const std::vector<Case>& Cases() {
  static const std::vector<Case> cases{
      {"untouched: getppid", 1000, Measure::kDifference, kUntouchedLimit, CallNothing},
      {"untouched: pread, 64 bytes", 500, Measure::kDifference, kUntouchedLimit, Read<kSmall>},
      {"untouched: pread, 64 KiB", 50, Measure::kRatio, kUntouchedRatioLimit, Read<kLarge>},
      {"looked at: open for reading", 50, Measure::kDifference, 2 * kUntouchedLimit, OpenForReading},
      {"looked at: TIOCGWINSZ", 200, Measure::kDifference, kUntouchedLimit, AskForSize},
      {"trapped: TIOCMGET", 50, Measure::kTime, kTrappedLimit, AskForModemLines},
      {"trapped: open of the port", 20, Measure::kTime, kTrappedLimit, OpenForBoth},
      {"byte to the far end and back", 20, Measure::kTime, kByteLimit, SendByteAndBack},
      {"10 MiB to a command", 1, Measure::kTime, kFloodLimit, Flood, SinkOptions(), kStartTurns}};
  return cases;
}

/// After those of the contests: one that is measured by the clock alone, and a short one of its kind.
const std::vector<Case>& PacedCases() {
  static const std::vector<std::string> options{"--pace", "--tty", std::string(kTty) + "=none"};
  static const std::vector<Case> cases{{"paced", 1, Measure::kDeviation, kPaceLimit, Pace<10>, options},
                                       {"paced, shortly", 1, Measure::kDeviation, kPaceLimit, Pace<1>, options}};
  return cases;
}

const Case& CaseOf(unsigned char number) {
  return number < Cases().size() ? Cases()[number] : PacedCases().at(number - Cases().size());
}

// --- The worker as the contest sees it -------------------------------------------------------------------------------

pid_t Spawn(const std::vector<std::string>& command, const std::array<int, 2>& standard) {
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (const std::string& argument : command) {
    arguments.push_back(const_cast<char*>(argument.c_str()));  // NOLINT(cppcoreguidelines-pro-type-const-cast)
  }
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, standard[0], STDIN_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions, standard[1], STDOUT_FILENO);
  pid_t child = -1;
  const int error = ::posix_spawnp(&child, arguments.front(), &actions, nullptr, arguments.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    throw std::system_error(error, std::generic_category(), command.front());
  }
  return child;
}

void WaitFor(pid_t child, const std::string& what) {
  int status = 0;
  if (::waitpid(child, &status, 0) != child || status != 0) {
    throw std::runtime_error(what + " has failed");
  }
}

std::vector<std::string> OnBoard(const std::vector<std::string>& options, const std::vector<std::string>& command) {
  std::vector<std::string> whole{BOARDKIT_BOARDSIM};
  whole.insert(whole.end(), options.begin(), options.end());
  whole.emplace_back("--");
  whole.insert(whole.end(), command.begin(), command.end());
  return whole;
}

class Worker {
 public:
  explicit Worker(const std::vector<std::string>& command) {
    std::array<int, 2> requests{};
    std::array<int, 2> answers{};
    Require(::pipe2(requests.data(), O_CLOEXEC) == 0 && ::pipe2(answers.data(), O_CLOEXEC) == 0, "pipe");
    const Descriptor theirInput(requests[0]);
    const Descriptor theirOutput(answers[1]);
    m_requests = Descriptor(requests[1]);
    m_answers = Descriptor(answers[0]);
    m_process = Spawn(command, {requests[0], answers[1]});
  }
  ~Worker() {
    {
      const Descriptor end = std::move(m_requests);  // tells the worker to end
    }
    ::waitpid(m_process, nullptr, 0);
  }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  Seconds Do(unsigned char number) const {
    double seconds = 0;
    Require(::write(m_requests.Get(), &number, sizeof number) == sizeof number, "the worker takes no requests");
    if (::read(m_answers.Get(), &seconds, sizeof seconds) != sizeof seconds) {
      throw std::runtime_error("the worker has failed");
    }
    return Seconds(seconds);
  }

 private:
  Descriptor m_requests;
  Descriptor m_answers;
  pid_t m_process = -1;
};

std::vector<std::string> WorkerCommand() {
  return {std::filesystem::read_symlink("/proc/self/exe"), kSimWorkerOption};
}

Contest MakeContest(unsigned char number) {
  const Case& measured = CaseOf(number);
  const auto makeBatch = [number](const std::vector<std::string>& started) -> Batch {
    return [worker = std::make_shared<Worker>(started), number] { return worker->Do(number); };
  };
  return {measured.calls,
          measured.turns,
          measured.limit,
          makeBatch(WorkerCommand()),
          makeBatch(OnBoard(measured.options, WorkerCommand())),
          measured.measure};
}

/// The time that the line's speed says, and the time that it takes.
Amounts MeasurePace(Effort effort) {
  const bool isShort = effort == Effort::kSmoke;
  const auto number = static_cast<unsigned char>(Cases().size() + (isShort ? 1 : 0));
  const Case& measured = CaseOf(number);
  const Worker worker(OnBoard(measured.options, WorkerCommand()));
  return {Unit::kSecond, measured.measure, measured.limit, isShort ? 1.0 : 10.0, worker.Do(number).count()};
}

Contest MakeStart() {
  const auto makeBatch = [](const std::vector<std::string>& command) -> Batch {
    return [command] {
      return TimeCalls(1, [&command] { WaitFor(Spawn(command, {STDIN_FILENO, STDOUT_FILENO}), command.front()); });
    };
  };
  return {1, kStartTurns, kStartLimit, makeBatch({"true"}), makeBatch(OnBoard({}, {"true"})), Measure::kDifference};
}

}  // namespace

void RegisterSimBench(Effort effort) {
  RegisterContest("start of `true`, with network", effort, MakeStart);
  unsigned char number = 0;
  for (const Case& measured : Cases()) {
    RegisterContest(measured.name, effort, [number] { return MakeContest(number); });
    ++number;
  }
  RegisterAmounts("paced: 115200 baud, by clock", [effort] { return MeasurePace(effort); });
}

int RunSimWorker() {
  const Line line;
  unsigned char number = 0;
  while (::read(STDIN_FILENO, &number, sizeof number) == sizeof number) {
    const Case& measured = CaseOf(number);
    const double seconds = TimeCalls(measured.calls, [&] { measured.call(line); }).count();
    Require(::write(STDOUT_FILENO, &seconds, sizeof seconds) == sizeof seconds, "nobody takes the answer");
  }
  return EXIT_SUCCESS;
}
