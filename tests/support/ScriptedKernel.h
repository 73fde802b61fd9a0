#ifndef BOARDKIT_TESTS_SCRIPTEDKERNEL_H
#define BOARDKIT_TESTS_SCRIPTEDKERNEL_H

#include <map>
#include <queue>
#include <string>
#include <vector>

/// One answer of a scripted function of the C library.
struct Answer {
  long result = 0;
  int error = 0;      ///< the errno that comes with it
  std::string bytes;  ///< what a read hands over
  bool real = false;  ///< not scripted: the C library's own answer
};

Answer Returns(long result);             ///< a count, a status; for a function that returns a pointer: null
Answer Fails(int error);                 ///< -1 or null, and errno
Answer Gives(const std::string& bytes);  ///< a read of that many bytes
Answer Real();                           ///< whatever the C library says

/// Answers in the C library's place, in the thread that made it and while it lives.
///
/// The test executable defines the functions itself (the linker prefers an executable's definition to a library's), so
/// the tested code has no seam. A function without a script is answered by the C library. A scripted one that is called
/// more often than there are answers fails the test.
///
///     ScriptedKernel kernel;
///     kernel.Script("write", {Returns(3), Fails(EINTR), Returns(7)});
///     WriteLoop(5, "0123456789", 10);
///     EXPECT_EQ(kernel.Calls(), (Calls{"write(5, \"0123456789\")", ...
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

  /// The calls of the scripted and the watched functions, in order, with their arguments.
  const Calls& Seen() const;

  /// The answer to a call; for the definitions of the functions only.
  static Answer Next(const std::string& function, const std::string& arguments);

 private:
  std::map<std::string, std::queue<Answer>> m_scripts;
  std::map<std::string, bool> m_watched;
  Calls m_seen;
  ScriptedKernel* m_outer;
};

#endif
