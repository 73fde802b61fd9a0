#ifndef BOARDKIT_TESTS_SCRIPTEDKERNEL_H
#define BOARDKIT_TESTS_SCRIPTEDKERNEL_H

#include <cstddef>
#include <functional>
#include <map>
#include <ostream>
#include <queue>
#include <string>
#include <vector>

/// One answer of a scripted function of the C library.
struct Answer {
  long result = 0;
  int error = 0;      ///< the errno that comes with it
  std::string bytes;  ///< what a read hands over, or what a call fills its structure with
  bool real = false;  ///< not scripted: the C library's own answer
};

/// "returns -2 with EIO", or what it gives.
std::ostream& operator<<(std::ostream& stream, const Answer& answer);

/// What a call passes to the kernel.
struct Question {
  int fd = -1;
  std::string bytes;      ///< a path, data to write, or what the structure holds that is handed over
  std::size_t count = 0;  ///< how many bytes it asks for
};

using Simulation = std::function<Answer(const Question&)>;

Answer Returns(long result);             ///< a count, a status; for a function that returns a pointer: null
Answer Fails(int error);                 ///< -1 or null, and errno
Answer Gives(const std::string& bytes);  ///< a read of that many bytes
Answer Real();                           ///< whatever the simulation says, or else the C library

/// @p value as the bytes of a structure.
template <typename Value>
std::string BytesOf(const Value& value) {
  return {reinterpret_cast<const char*>(&value), sizeof(value)};
}

/// 0, with @p value in the structure that the call fills.
template <typename Value>
Answer Fills(const Value& value) {
  return {0, 0, BytesOf(value), false};
}

/// Answers in the C library's place, in the thread that made it and while it lives.
///
/// The test executable defines the functions itself (the linker prefers an executable's definition to a library's), so
/// the tested code has no seam. A function without a script is answered by the C library. A scripted one that is called
/// more often than there are answers fails the test, unless a simulation takes over.
///
/// The requests of ioctl() have names of their own: "TIOCMSET" and "TIOCMSET(7, 0x2)".
///
///     ScriptedKernel kernel;
///     kernel.Script("write", {Returns(3), Fails(EINTR), Returns(7)});
///     WriteLoop(5, "0123456789", 10);
///     EXPECT_EQ(kernel.Seen(), (Calls{"write(5, \"0123456789\")", ...
class ScriptedKernel {
 public:
  using Calls = std::vector<std::string>;

  ScriptedKernel();
  ~ScriptedKernel();  ///< Fails the test if answers are left.
  ScriptedKernel(const ScriptedKernel&) = delete;
  ScriptedKernel& operator=(const ScriptedKernel&) = delete;

  ScriptedKernel& Script(const std::string& function, const std::vector<Answer>& answers);
  /// Notes the calls of @p function and lets the C library answer them.
  ScriptedKernel& Watch(const std::string& function);

  /// Lets @p simulation answer the calls of @p function that no script answers, and notes them. The functions that it
  /// calls are the C library's.
  ScriptedKernel& Simulate(const std::string& function, const Simulation& simulation);

  /// The calls of the scripted, the watched and the simulated functions, in order, with their arguments.
  const Calls& Seen() const;
  /// The same since the last time.
  Calls SeenNow();

  /// The answer to a call; for the definitions of the functions only.
  static Answer Next(const std::string& function, const std::string& arguments, const Question& question = {});

 private:
  std::map<std::string, std::queue<Answer>> m_scripts;
  std::map<std::string, bool> m_watched;
  std::map<std::string, Simulation> m_simulations;
  Calls m_seen;
  std::size_t m_seenBefore = 0;
  ScriptedKernel* m_outer;
};

#endif
