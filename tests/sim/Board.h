#ifndef BOARDKIT_TESTS_SIM_BOARD_H
#define BOARDKIT_TESTS_SIM_BOARD_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Lists.h"
#include "TemporaryFolder.h"

using Words = std::vector<std::string>;

constexpr const char* kSimulator = BOARDKIT_BOARDSIM;
/// How root runs it without namespaces, on the machine's own network.
inline const Words kWithoutNamespaces = {"--no-namespaces", "--net", "host"};

/// Nothing here may take longer, however busy the machine is.
constexpr std::chrono::seconds kLongest{200};

enum class User {
  kOneself,
  kOrdinary  // a user without rights, where root runs the tests
};

/// How to start the simulator.
struct Start {
  Words options;
  Words command;
  User user = User::kOneself;
  Words environment;              // "NAME=value", besides that of the tests
  std::function<void()> prepare;  // in the new process
  bool bare = false;              // without the simulator
};

struct Outcome {
  int status;  // 128 and the number of the signal, if one has ended the simulator itself
  std::string output;
  std::string errors;
};

/// A simulator that runs, its application at the other end of two pipes.
class Board {
 public:
  /// @param folder where it keeps its files.
  Board(const Start& start, const std::string& folder);
  /// Ends it if it still runs.
  ~Board();
  Board(const Board&) = delete;
  Board& operator=(const Board&) = delete;

  pid_t Process() const {
    return m_process;
  }
  /// Writes a line to the application.
  void Tell(const std::string& line) const;
  /// The next line that the application writes; "(nothing)" at its end, or if it takes too long.
  std::string Listen();
  /// Both. The probe answers each line with one.
  std::string Ask(const std::string& line);
  /// The application's input ends here.
  void EndInput();
  /// Everything up to the end.
  Outcome Finish();
  /// What it has written to standard error until now.
  std::string Errors() const;

 private:
  bool Read(std::chrono::steady_clock::time_point deadline);

  const std::string m_errorsPath;
  pid_t m_process = -1;
  int m_input = -1;
  int m_output = -1;
  std::string m_pending;
};

/// Tests of the simulator: they leave the machine as it was, or fail.
class SimulatorTest : public testing::Test {
 protected:
  SimulatorTest();

  /// Fails if a process, a mount or a temporary file has been left behind.
  void TearDown() override;

  /// Starts one.
  std::unique_ptr<Board> Boot(const Words& options, const Words& command);
  std::unique_ptr<Board> Boot(const Start& start);
  /// Runs one to its end.
  Outcome Run(const Words& options, const Words& command);
  Outcome Run(const Start& start);
  /// What a shell script prints on one, without complaints.
  std::string InShell(const Words& options, const std::string& script);
  /// Expects success, and silence.
  void ExpectSteps(const Words& options, const Words& command);
  /// For one user after the other.
  void ExpectStepsOfEachUser(const Words& command);

  /// A folder of the test's own.
  std::string Folder() const {
    return m_folder.Path();
  }
  /// A path in it.
  std::string Path(const std::string& name) const {
    return m_folder.Path() / name;
  }
  /// A copy of a program, or of what it needs, for every user.
  std::string Shared(const std::string& program);
  /// Where the simulator makes its temporary files.
  std::string Temporary() const {
    return Path("temporary");
  }

 private:
  TemporaryFolder m_folder{"boardsim-test"};
  std::string m_mounts;
};

/// Tests that need namespaces.
class BoardTest : public SimulatorTest {
 protected:
  /// Skips where a machine does not allow them.
  void SetUp() override;
};

/// Whether everybody may have a user namespace here. In a chroot, nobody may.
bool AreUserNamespacesAllowed();
constexpr const char* kNoUserNamespaces = "User namespaces are forbidden here.";

/// Cuts off the first line.
/// @returns whether there is a whole one.
bool TakeLine(std::string& pending, std::string& line);
/// The answer where no line comes.
constexpr const char* kNothing = "(nothing)";

std::string Contents(const std::string& path);
/// Waits for a text in a file that grows.
/// @returns what is in it then.
std::string WaitForText(const std::string& path, const std::string& text);
/// Waits until it holds.
bool Eventually(const std::function<bool()>& condition);
/// A path as a word of a shell command.
std::string Quoted(const std::string& path);
/// The output of a shell command of the machine.
std::string Shell(const std::string& command);
/// As the probe says it.
std::string Failed(int error);

/// In a process of its own: hides a folder of the machine from it, and all that it starts, behind an empty disk.
/// @param options of the disk; null: none.
void HideFolder(const char* folder, const char* options = nullptr);
/// The direct children of a process.
std::vector<pid_t> ChildrenOf(pid_t process);

#endif
