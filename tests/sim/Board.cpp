#include "Board.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

#include "AnotherProcess.h"
#include "NetworkNamespace.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kNobody = 65534;
constexpr int kNoSuchUser = 99;  // exit status

/// Waits for something to read.
bool WaitForInput(int fd, Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  pollfd wait{fd, POLLIN, 0};
  return left.count() > 0 && ::poll(&wait, 1, static_cast<int>(left.count())) == 1;
}

void WriteFile(const char* path, const std::string& text) {
  const int file = ::open(path, O_WRONLY | O_CLOEXEC);
  [[maybe_unused]] const ssize_t written = ::write(file, text.data(), text.size());
  ::close(file);
}

/// Mounts of this process are its own from now on.
void EnterMountNamespace() {
  const uid_t user = ::geteuid();
  const gid_t group = ::getegid();
  if (user == 0) {
    ::unshare(CLONE_NEWNS);
  } else {
    ::unshare(CLONE_NEWUSER | CLONE_NEWNS);
    WriteFile("/proc/self/setgroups", "deny");
    WriteFile("/proc/self/uid_map", std::to_string(user) + ' ' + std::to_string(user) + " 1");
    WriteFile("/proc/self/gid_map", std::to_string(group) + ' ' + std::to_string(group) + " 1");
  }
  ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
}

/// Root's programs would reach the machine's own devices if the simulator did not answer: a test must show that, and
/// the machine must not suffer from it.
void HideDevices() {
  EnterMountNamespace();
  for (const char* device : {"/dev/mem", "/dev/watchdog", "/dev/watchdog0", "/dev/ttyS1"}) {
    ::mount("/dev/null", device, nullptr, MS_BIND, nullptr);
  }
}

[[noreturn]] void Become(const Start& start, pid_t parent) {
  if (start.user == User::kOrdinary && ::geteuid() == 0 &&
      (::setgroups(0, nullptr) == -1 || ::setresgid(kNobody, kNobody, kNobody) == -1 ||
       ::setresuid(kNobody, kNobody, kNobody) == -1)) {
    ::_exit(kNoSuchUser);
  }
  // A test that is ended leaves nothing behind, either.
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) {
    ::_exit(1);
  }
  if (::geteuid() == 0 && !start.options.empty() && start.options.front() == "--no-namespaces") {
    HideDevices();
  }
  // Descriptor numbers are printed and compared, so none may be inherited from the caller of the tests.
  ::syscall(SYS_close_range, STDERR_FILENO + 1, ~0U, 0);
  for (const std::string& variable : start.environment) {
    ::putenv(::strdup(variable.c_str()));
  }
  if (start.prepare) {
    start.prepare();
  }
  const Words words = start.bare ? start.command : Words{kSimulator} + start.options + Words{"--"} + start.command;
  std::vector<char*> arguments;
  for (const std::string& word : words) {
    arguments.push_back(const_cast<char*>(word.c_str()));  // NOLINT(cppcoreguidelines-pro-type-const-cast)
  }
  arguments.push_back(nullptr);
  const char* simulator = std::getenv("BOARDSIM_COPY");
  const std::string path = simulator == nullptr ? words.front() : simulator;
  ::unsetenv("BOARDSIM_COPY");
  ::execv(path.c_str(), arguments.data());
  ::_exit(1);
}

/// Whether all children have ended. Those of ended simulators are children of the tests' process.
bool ReapAll() {
  int status = 0;
  while (::waitpid(-1, &status, WNOHANG) > 0) {
  }
  return ::waitpid(-1, &status, WNOHANG) == -1 && errno == ECHILD;
}

/// The mounts that a simulator could have left behind. Others come and go on a machine.
std::string OwnMounts() {
  std::istringstream all(Contents("/proc/self/mountinfo"));
  std::string own;
  for (std::string line; std::getline(all, line);) {
    std::istringstream fields(line);
    std::string place;
    for (int i = 0; i < 5; ++i) {
      fields >> place;
    }
    const std::string top = place.substr(0, place.find('/', 1));
    if (top == "/dev" || top == "/proc" || top == "/run" || top == "/sys" ||
        line.find(" boardsim ") != std::string::npos) {
      own += line + '\n';
    }
  }
  return own;
}

void ExpectSilence(const Outcome& outcome) {
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.errors, "");
}

}  // namespace

Board::Board(const Start& start, const std::string& folder)
    : m_errorsPath(folder + "/errors-" + std::to_string(Clock::now().time_since_epoch().count())) {
  int input[2];
  int output[2];
  const int errors = ::open(m_errorsPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  if (errors == -1 || ::pipe2(input, O_CLOEXEC) == -1 || ::pipe2(output, O_CLOEXEC) == -1) {
    ADD_FAILURE() << "no pipes: " << std::strerror(errno);
    return;
  }
  const pid_t parent = ::getpid();
  m_process = ::fork();
  if (m_process == 0) {
    ::dup2(input[0], STDIN_FILENO);
    ::dup2(output[1], STDOUT_FILENO);
    ::dup2(errors, STDERR_FILENO);
    Become(start, parent);
  }
  ::close(errors);
  ::close(input[0]);
  ::close(output[1]);
  m_input = input[1];
  m_output = output[0];
}

Board::~Board() {
  EndInput();
  if (m_process > 0) {
    ::kill(m_process, SIGKILL);
    ::waitpid(m_process, nullptr, 0);
  }
  ::close(m_output);
}

void Board::Tell(const std::string& line) const {
  const std::string text = line + '\n';
  EXPECT_EQ(::write(m_input, text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

std::string Board::Listen() {
  const auto deadline = Clock::now() + kLongest;
  std::string line;
  while (!TakeLine(m_pending, line)) {
    if (!Read(deadline)) {
      return kNothing;
    }
  }
  return line;
}

std::string Board::Ask(const std::string& line) {
  Tell(line);
  return Listen();
}

void Board::EndInput() {
  if (m_input != -1) {
    ::close(m_input);
    m_input = -1;
  }
}

Outcome Board::Finish() {
  EndInput();
  const auto deadline = Clock::now() + kLongest;
  while (Read(deadline)) {
  }
  int status = -1;
  bool ended = false;
  while (!(ended = ::waitpid(m_process, &status, WNOHANG) == m_process) && Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (!ended) {
    ADD_FAILURE() << "the simulator does not end";
    ::kill(m_process, SIGKILL);
    ::waitpid(m_process, &status, 0);
  }
  m_process = -1;
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), m_pending, Errors()};
}

std::string Board::Errors() const {
  return Contents(m_errorsPath);
}

bool Board::Read(Clock::time_point deadline) {
  if (!WaitForInput(m_output, deadline)) {
    return false;
  }
  std::array<char, 65536> piece{};
  const ssize_t got = ::read(m_output, piece.data(), piece.size());
  m_pending.append(piece.data(), got > 0 ? static_cast<std::size_t>(got) : 0);
  return got > 0;
}

SimulatorTest::SimulatorTest() {
  EXPECT_EQ(::mkdir(Temporary().c_str(), 0777), 0);
  // For the ordinary user.
  EXPECT_EQ(::chmod(Folder().c_str(), 0777) | ::chmod(Temporary().c_str(), 0777), 0);
  // Whatever outlives a simulator becomes a child of this process, which finds it.
  EXPECT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  m_mounts = OwnMounts();
}

void SimulatorTest::TearDown() {
  EXPECT_TRUE(Eventually(ReapAll)) << "a process has been left behind";
  for (const pid_t child : ChildrenOf(::getpid())) {
    ADD_FAILURE() << Contents("/proc/" + std::to_string(child) + "/cmdline");
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
  }
  EXPECT_EQ(OwnMounts(), m_mounts) << "a mount has been left behind";
  for (const auto& entry : std::filesystem::directory_iterator(Temporary())) {
    ADD_FAILURE() << entry.path() << " has been left behind";
  }
}

std::unique_ptr<Board> SimulatorTest::Boot(const Words& options, const Words& command) {
  Start start;
  start.options = options;
  start.command = command;
  return Boot(start);
}

std::unique_ptr<Board> SimulatorTest::Boot(const Start& start) {
  Start complete = start;
  complete.environment.push_back("TMPDIR=" + Temporary());
  if (start.user == User::kOrdinary) {
    complete.environment.push_back("BOARDSIM_COPY=" + Shared(kSimulator));
    // A build that counts what is executed writes its counters at the end, where this user has to be allowed to.
    complete.environment.push_back("GCOV_PREFIX=" + Path("counters"));
    std::string& program = complete.command.front();
    program = program.front() == '/' ? Shared(program) : program;
  }
  return std::make_unique<Board>(complete, Folder());
}

Outcome SimulatorTest::Run(const Words& options, const Words& command) {
  return Boot(options, command)->Finish();
}

Outcome SimulatorTest::Run(const Start& start) {
  return Boot(start)->Finish();
}

std::string SimulatorTest::InShell(const Words& options, const std::string& script) {
  const Outcome outcome = Run(options, {"sh", "-c", script});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.errors, "");
  return outcome.output;
}

void SimulatorTest::ExpectSteps(const Words& options, const Words& command) {
  ExpectSilence(Run(options, command));
}

void SimulatorTest::ExpectStepsOfEachUser(const Words& command) {
  for (const User user : {User::kOneself, User::kOrdinary}) {
    SCOPED_TRACE(user == User::kOrdinary ? "an ordinary user" : "the user of the tests");
    if (user == User::kOrdinary && !AreUserNamespacesAllowed()) {
      GTEST_SKIP() << kNoUserNamespaces;
    }
    Start start;
    start.command = command;
    start.user = user;
    ExpectSilence(Run(start));
  }
}

std::string SimulatorTest::Shared(const std::string& program) {
  std::string copy = Path(program.substr(program.rfind('/') + 1));
  if (::access(copy.c_str(), F_OK) != 0) {
    std::error_code error;
    std::filesystem::copy_file(program, copy, error);
    EXPECT_FALSE(error) << program;
    EXPECT_EQ(::chmod(copy.c_str(), 0755), 0);
  }
  return copy;
}

void BoardTest::SetUp() {
  const auto enterNamespaces = [] {
    return EnterFreshNetwork().empty() && ::unshare(CLONE_NEWNS | CLONE_NEWPID) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
  };
  if (StatusOfAnotherProcess(enterNamespaces) != EXIT_SUCCESS) {
    GTEST_SKIP() << "Namespaces are forbidden here.";
  }
}

bool AreUserNamespacesAllowed() {
  return StatusOfAnotherProcess([] { return EnterUserNamespace().empty() ? EXIT_SUCCESS : EXIT_FAILURE; }) ==
         EXIT_SUCCESS;
}

bool TakeLine(std::string& pending, std::string& line) {
  const std::size_t end = pending.find('\n');
  if (end == std::string::npos) {
    return false;
  }
  line = pending.substr(0, end);
  pending.erase(0, end + 1);
  return true;
}

std::string Contents(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::string WaitForText(const std::string& path, const std::string& text) {
  std::string contents;
  EXPECT_TRUE(Eventually([&] {
    contents = Contents(path);
    return contents.find(text) != std::string::npos;
  })) << text;
  return contents;
}

bool Eventually(const std::function<bool()>& condition) {
  const auto deadline = Clock::now() + kLongest / 3;
  while (!condition()) {
    if (Clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

std::string Quoted(const std::string& path) {
  return '\'' + path + '\'';
}

std::string Shell(const std::string& command) {
  FILE* pipe = ::popen(command.c_str(), "re");
  std::string output;
  std::array<char, 4096> piece{};
  for (std::size_t got = 0; (got = std::fread(piece.data(), 1, piece.size(), pipe)) != 0;) {
    output.append(piece.data(), got);
  }
  ::pclose(pipe);
  return output;
}

std::string Failed(int error) {
  return std::string("error: ") + std::strerror(error);
}

void HideFolder(const char* folder, const char* options) {
  EnterMountNamespace();
  ::mount("tests", folder, "tmpfs", 0, options);
}

std::vector<pid_t> ChildrenOf(pid_t process) {
  const std::string id = std::to_string(process);
  std::istringstream list(Contents("/proc/" + id + "/task/" + id + "/children"));
  return {std::istream_iterator<pid_t>(list), std::istream_iterator<pid_t>()};
}
