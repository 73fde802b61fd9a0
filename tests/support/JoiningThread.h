#ifndef BOARDKIT_TESTS_JOININGTHREAD_H
#define BOARDKIT_TESTS_JOININGTHREAD_H

#include <functional>
#include <thread>

/// A thread beside a test that cannot end the run of the others: what it throws is a failure of the test, and it is
/// joined whichever way the test is left. A broken pipe is an error there, never a signal.
class JoiningThread {
 public:
  /// @param release ends what @p work may be waiting for, if the test is left before it calls Join().
  explicit JoiningThread(const std::function<void()>& work, std::function<void()> release = {});
  ~JoiningThread();
  JoiningThread(const JoiningThread&) = delete;
  JoiningThread& operator=(const JoiningThread&) = delete;

  void Join();

 private:
  std::function<void()> m_release;
  std::thread m_thread;
};

#endif
