#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <future>
#include <list>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "AnotherProcess.h"
#include "ExpectThrow.h"
#include "JoiningThread.h"
#include "ScriptedKernel.h"
#include "SysTexts.h"
#include "SystemCalls.h"

namespace {

using Calls = ScriptedKernel::Calls;

constexpr int kRestorer = 0x04000000;  // a flag that some C libraries add for themselves

/// What the handler was last called with.
std::atomic<int> handledCount{0};
std::atomic<int> handledSignal{0};
std::atomic<int> handledInInformation{0};
std::atomic<pid_t> handledSender{0};
std::atomic<int> handledCode{0};
std::atomic<bool> handledWithContext{false};

void Note(int signal, siginfo_t* information, void* context) {
  handledSignal = signal;
  handledInInformation = information->si_signo;
  handledSender = information->si_pid;
  handledCode = information->si_code;
  handledWithContext = context != nullptr;
  ++handledCount;
}

/// Signals, their actions and the calling thread's mask are as before when a test is over.
class Signals : public testing::Test {
 protected:
  Signals() {
    EXPECT_EQ(::pthread_sigmask(SIG_SETMASK, nullptr, &m_mask), 0);
    for (const int signal : kUsed) {
      SCOPED_TRACE(signal);
      struct sigaction action {};
      EXPECT_EQ(::sigaction(signal, nullptr, &action), 0);
      m_actions.emplace_back(signal, action);
    }
    handledCount = 0;
  }
  ~Signals() override {
    // Pending signals are discarded.
    for (const int signal : kUsed) {
      ::signal(signal, SIG_IGN);
    }
    EXPECT_EQ(::pthread_sigmask(SIG_SETMASK, &m_mask, nullptr), 0);
    for (const auto& [signal, action] : m_actions) {
      SCOPED_TRACE(signal);
      EXPECT_EQ(::sigaction(signal, &action, nullptr), 0);
    }
  }

  static struct sigaction ActionOf(int signal) {
    struct sigaction action {};
    EXPECT_EQ(::sigaction(signal, nullptr, &action), 0);
    return action;
  }

  static std::set<int> Blocked() {
    sigset_t mask;
    EXPECT_EQ(::pthread_sigmask(SIG_SETMASK, nullptr, &mask), 0);
    return In(mask);
  }

  static std::set<int> Pending() {
    sigset_t pending;
    EXPECT_EQ(::sigpending(&pending), 0);
    return In(pending);
  }

 private:
  static constexpr std::array<int, 4> kUsed = {SIGUSR1, SIGUSR2, SIGTERM, SIGHUP};

  static std::set<int> In(const sigset_t& set) {
    std::set<int> signals;
    for (int signal = 1; signal <= SIGRTMAX; ++signal) {
      if (::sigismember(&set, signal) == 1) {
        signals.insert(signal);
      }
    }
    return signals;
  }

  sigset_t m_mask{};
  std::vector<std::pair<int, struct sigaction>> m_actions;
};

using InstallingAHandler = Signals;
using DeactivatingASignal = Signals;

// --- InstallSignalHandler --------------------------------------------------------------------------------------------

TEST_F(InstallingAHandler, ItIsCalledWithTheSignalItsInformationAndAContext) {
  InstallSignalHandler(SIGUSR1, Note);

  ASSERT_EQ(::raise(SIGUSR1), 0);

  EXPECT_EQ(handledCount, 1);
  EXPECT_EQ(handledSignal, SIGUSR1);
  EXPECT_EQ(handledInInformation, SIGUSR1);
  EXPECT_EQ(handledSender, ::getpid());
  EXPECT_TRUE(handledWithContext);
}

TEST_F(InstallingAHandler, TheInformationTellsWhichProcessSent) {
  InstallSignalHandler(SIGUSR1, Note);

  const pid_t parent = ::getpid();
  const pid_t child = ::fork();
  if (child == 0) {
    ::_exit(::kill(parent, SIGUSR1) == 0 ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_EQ(status, 0);

  EXPECT_EQ(handledCount, 1);
  EXPECT_EQ(handledSender, child);
  EXPECT_EQ(handledCode, SI_USER);
}

TEST_F(InstallingAHandler, ItStaysInstalledAndAnotherOneReplacesIt) {
  InstallSignalHandler(SIGUSR1, Note);
  ASSERT_EQ(::raise(SIGUSR1), 0);
  ASSERT_EQ(::raise(SIGUSR1), 0);
  EXPECT_EQ(handledCount, 2);

  static std::atomic<int> others{0};
  InstallSignalHandler(SIGUSR1, [](int, siginfo_t*, void*) { ++others; });
  ASSERT_EQ(::raise(SIGUSR1), 0);

  EXPECT_EQ(handledCount, 2);
  EXPECT_EQ(others, 1);
}

TEST_F(InstallingAHandler, TheFlagsAreThoseTwoAndTheMaskIsEmpty) {
  InstallSignalHandler(SIGUSR1, Note);

  const struct sigaction action = ActionOf(SIGUSR1);
  EXPECT_EQ(action.sa_flags & ~kRestorer, SA_SIGINFO | SA_RESTART);
  EXPECT_EQ(action.sa_sigaction, Note);
  for (int signal = 1; signal <= SIGRTMAX; ++signal) {
    EXPECT_NE(::sigismember(&action.sa_mask, signal), 1) << signal;
  }
}

TEST_F(InstallingAHandler, TakesThreeCallsInThisOrder) {
  ScriptedKernel kernel;
  kernel.Watch("sigemptyset").Watch("sigaddset").Watch("sigaction").Watch("siginterrupt").Watch("sigprocmask");

  InstallSignalHandler(SIGUSR1, Note);

  EXPECT_EQ(SA_SIGINFO | SA_RESTART, 0x10000004);
  EXPECT_EQ(kernel.Seen(),
            (Calls{"sigemptyset()", "sigaction(10, flags 0x10000004, mask none, null)", "siginterrupt(10, 0)"}));
}

TEST_F(InstallingAHandler, OtherSignalsMayInterruptIt) {
  static std::atomic<int> depth{0};
  static std::atomic<int> deepest{0};
  const auto nest = [](int signal, siginfo_t*, void*) {
    ++depth;
    deepest = std::max<int>(deepest, depth);
    if (signal == SIGUSR1) {
      ::raise(SIGUSR2);
    }
    --depth;
  };
  InstallSignalHandler(SIGUSR1, nest);
  InstallSignalHandler(SIGUSR2, nest);

  ASSERT_EQ(::raise(SIGUSR1), 0);

  EXPECT_EQ(deepest, 2);
}

TEST_F(InstallingAHandler, AnInterruptedReadGoesOn) {
  InstallSignalHandler(SIGUSR1, Note);
  std::array<int, 2> pipe{};
  ASSERT_EQ(::pipe(pipe.data()), 0);
  const pthread_t reader = ::pthread_self();
  JoiningThread sender([&] {
    for (int i = 1; i <= 3; ++i) {
      // The reader most likely waits by now. If not, the signal comes too early: that proves less, but breaks nothing.
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      ::pthread_kill(reader, SIGUSR1);
      while (handledCount != i) {
        std::this_thread::yield();
      }
    }
    EXPECT_EQ(::write(pipe[1], "x", 1), 1);
  });

  char byte = 0;
  const ssize_t got = ::read(pipe[0], &byte, 1);
  const int error = errno;

  sender.Join();
  EXPECT_EQ(got, 1) << error;
  EXPECT_EQ(byte, 'x');
  EXPECT_EQ(handledCount, 3);
  ::close(pipe[0]);
  ::close(pipe[1]);
}

TEST_F(InstallingAHandler, RestartingIsTurnedOnAgainWhereItWasOff) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  ASSERT_EQ(::sigaction(SIGUSR1, &action, nullptr), 0);

  InstallSignalHandler(SIGUSR1, Note);

  EXPECT_NE(ActionOf(SIGUSR1).sa_flags & SA_RESTART, 0);
}

TEST_F(InstallingAHandler, SignalsThatDoNotExistOrCannotBeCaughtThrowEinval) {
  for (const int signal : {0, -1, 65, SIGKILL, SIGSTOP, INT_MAX, INT_MIN}) {
    SCOPED_TRACE(signal);
    EXPECT_SYSTEM_ERROR(InstallSignalHandler(signal, Note), EINVAL, systext::kHandlerError);
  }
  EXPECT_EXACT_THROW(InstallSignalHandler(SIGKILL, Note), std::system_error,
                     systext::kHandlerError + ": Invalid argument");
}

TEST_F(InstallingAHandler, AMaskThatCannotBeEmptiedThrowsAndInstallsNothing) {
  ScriptedKernel kernel;
  kernel.Script("sigemptyset", {Fails(EINVAL)}).Watch("sigaction").Watch("siginterrupt");

  EXPECT_EXACT_THROW(InstallSignalHandler(SIGUSR1, Note), std::runtime_error, systext::kMaskError);

  EXPECT_EQ(kernel.Seen(), (Calls{"sigemptyset()"}));
  EXPECT_NE(ActionOf(SIGUSR1).sa_sigaction, Note);
}

TEST_F(InstallingAHandler, ARefusedActionThrowsWithItsNumber) {
  ScriptedKernel kernel;
  kernel.Script("sigaction", {Fails(EPERM)}).Watch("siginterrupt");

  EXPECT_SYSTEM_ERROR(InstallSignalHandler(SIGUSR1, Note), EPERM, systext::kHandlerError);

  EXPECT_EQ(kernel.Seen(), (Calls{"sigaction(10, flags 0x10000004, mask none, null)"}));
}

TEST_F(InstallingAHandler, IfRestartingIsRefusedTheHandlerStaysInstalled) {
  ScriptedKernel kernel;
  kernel.Script("siginterrupt", {Fails(EPERM), Fails(EINVAL)});

  EXPECT_SYSTEM_ERROR(InstallSignalHandler(SIGUSR1, Note), EPERM, systext::kInterruptError);
  EXPECT_EXACT_THROW(InstallSignalHandler(SIGUSR1, Note), std::system_error,
                     systext::kInterruptError + ": Invalid argument");

  EXPECT_EQ(ActionOf(SIGUSR1).sa_sigaction, Note);
  ASSERT_EQ(::raise(SIGUSR1), 0);
  EXPECT_EQ(handledCount, 1);
}

// --- DeactivateSignalP -----------------------------------------------------------------------------------------------

TEST_F(DeactivatingASignal, TheSignalStaysPendingUntilItIsUnblocked) {
  InstallSignalHandler(SIGTERM, Note);

  DeactivateSignalP(SIGTERM);

  ASSERT_EQ(::pthread_kill(::pthread_self(), SIGTERM), 0);
  EXPECT_EQ(Pending(), std::set<int>{SIGTERM});
  EXPECT_EQ(handledCount, 0);
  sigset_t set;
  ASSERT_EQ(::sigemptyset(&set), 0);
  ASSERT_EQ(::sigaddset(&set, SIGTERM), 0);
  ASSERT_EQ(::pthread_sigmask(SIG_UNBLOCK, &set, nullptr), 0);
  EXPECT_EQ(Pending(), std::set<int>{});
  EXPECT_EQ(handledCount, 1);
}

TEST_F(DeactivatingASignal, OneIsBlockedAfterTheOtherAndNoneBesides) {
  const std::set<int> before = Blocked();
  std::set<int> expected = before;
  for (const int signal : {SIGUSR1, SIGHUP, SIGUSR1, SIGTERM}) {
    SCOPED_TRACE(signal);
    DeactivateSignalP(signal);
    expected.insert(signal);
    EXPECT_EQ(Blocked(), expected);
  }
}

TEST_F(DeactivatingASignal, TakesThreeCallsWithAFreshSetEveryTime) {
  ScriptedKernel kernel;
  kernel.Watch("sigemptyset").Watch("sigaddset").Watch("sigprocmask").Watch("sigaction");

  DeactivateSignalP(SIGUSR1);
  DeactivateSignalP(SIGTERM);

  EXPECT_EQ(kernel.Seen(), (Calls{"sigemptyset()", "sigaddset(none, 10)", "sigprocmask(SIG_BLOCK, 10, null)",
                                  "sigemptyset()", "sigaddset(none, 15)", "sigprocmask(SIG_BLOCK, 15, null)"}));
}

TEST_F(DeactivatingASignal, OnlyTheCallingThreadIsAffectedAndTheThreadsThatItMakes) {
  const std::set<int> before = Blocked();
  std::set<int> inThread;
  std::set<int> inItsThread;

  JoiningThread([&] {
    DeactivateSignalP(SIGUSR2);
    inThread = Blocked();
    JoiningThread([&] { inItsThread = Blocked(); }).Join();
  }).Join();

  EXPECT_EQ(Blocked(), before);
  EXPECT_EQ(inThread.count(SIGUSR2), 1U);
  EXPECT_EQ(inItsThread, inThread);
}

TEST_F(DeactivatingASignal, SignalsThatDoNotExistThrowAndBlockNothing) {
  const std::set<int> before = Blocked();
  for (const int signal : {0, -1, 65, INT_MAX, INT_MIN}) {
    SCOPED_TRACE(signal);
    EXPECT_EXACT_THROW(DeactivateSignalP(signal), std::runtime_error, systext::kDeactivationError);
  }
  EXPECT_EQ(Blocked(), before);
}

TEST_F(DeactivatingASignal, ASignalThatCannotBeBlockedIsNotBlockedAndNobodyIsTold) {
  const std::set<int> before = Blocked();

  EXPECT_NO_THROW(DeactivateSignalP(SIGKILL));

  EXPECT_EQ(Blocked(), before);
}

TEST_F(DeactivatingASignal, EachFailureStopsTheCallsBehindIt) {
  {
    ScriptedKernel kernel;
    kernel.Script("sigemptyset", {Fails(EINVAL)}).Watch("sigaddset").Watch("sigprocmask");
    EXPECT_EXACT_THROW(DeactivateSignalP(SIGUSR1), std::runtime_error, systext::kDeactivationMaskError);
    EXPECT_EQ(kernel.Seen(), (Calls{"sigemptyset()"}));
  }
  {
    ScriptedKernel kernel;
    kernel.Script("sigaddset", {Fails(EINVAL)}).Watch("sigprocmask");
    EXPECT_EXACT_THROW(DeactivateSignalP(SIGUSR1), std::runtime_error, systext::kDeactivationError);
    EXPECT_EQ(kernel.Seen(), (Calls{"sigaddset(none, 10)"}));
  }
  ScriptedKernel kernel;
  kernel.Script("sigprocmask", {Fails(EPERM), Fails(EINVAL)});
  EXPECT_SYSTEM_ERROR(DeactivateSignalP(SIGUSR1), EPERM, "");
  EXPECT_EXACT_THROW(DeactivateSignalP(SIGUSR1), std::system_error, ": Invalid argument");
}

// --- Names and numbers -----------------------------------------------------------------------------------------------

TEST(GetProcSchedPolicyName, FourPoliciesHaveNamesAndAllOthersNone) {
  EXPECT_STREQ(GetProcSchedPolicyName(SCHED_OTHER), "other");
  EXPECT_STREQ(GetProcSchedPolicyName(SCHED_FIFO), "fifo");
  EXPECT_STREQ(GetProcSchedPolicyName(SCHED_RR), "rrobin");
  EXPECT_STREQ(GetProcSchedPolicyName(SCHED_BATCH), "batch");
  for (const int policy : {4, 5, 6, 7, 100, 256, 65536, INT_MAX, -1, -2, -3, -4, -256, INT_MIN, INT_MIN + 1}) {
    EXPECT_STREQ(GetProcSchedPolicyName(policy), "<ukwn>") << policy;
  }
}

TEST(GetProcSchedPolicyName, TheTextIsTheSameEveryTime) {
  for (int policy = -1; policy <= 4; ++policy) {
    SCOPED_TRACE(policy);
    EXPECT_EQ(static_cast<const void*>(GetProcSchedPolicyName(policy)), GetProcSchedPolicyName(policy));
  }
  static_assert(std::is_same_v<decltype(GetProcSchedPolicyName(0)), const char*>);
}

TEST(LinuxGetThreadId, IsTheProcessIdInTheMainThreadAndAnotherOneInEveryOther) {
  EXPECT_EQ(LinuxGetThreadId(), ::getpid());

  std::set<int> ids = {LinuxGetThreadId()};
  constexpr int kThreads = 4;
  std::list<JoiningThread> threads;
  std::vector<std::promise<int>> found(kThreads);
  std::promise<void> go;
  const std::shared_future<void> allow = go.get_future().share();
  for (std::promise<int>& promise : found) {
    // All are alive at once, since the kernel reuses the numbers of dead threads.
    threads.emplace_back([&promise, allow] {
      const int id = LinuxGetThreadId();
      EXPECT_EQ(id, static_cast<int>(::syscall(SYS_gettid)));
      EXPECT_EQ(::access(("/proc/self/task/" + std::to_string(id)).c_str(), F_OK), 0);
      promise.set_value(id);
      allow.wait();
    });
  }
  for (std::promise<int>& promise : found) {
    ids.insert(promise.get_future().get());
  }
  go.set_value();
  for (JoiningThread& thread : threads) {
    thread.Join();
  }
  EXPECT_EQ(ids.size(), kThreads + 1U);
}

TEST(LinuxGetThreadId, IsTheResultOfOneSystemCallAsItComes) {
#ifdef __ARM_EABI__
  static_assert(SYS_gettid == 224);
#endif
  ScriptedKernel kernel;
  kernel.Script("syscall", {Returns(4711), Returns(0), Fails(ENOSYS)});

  EXPECT_EQ(LinuxGetThreadId(), 4711);
  EXPECT_EQ(LinuxGetThreadId(), 0);
  EXPECT_EQ(LinuxGetThreadId(), -1);

  const std::string call = "syscall(" + std::to_string(SYS_gettid) + ')';
  EXPECT_EQ(kernel.Seen(), (Calls{call, call, call}));
}

TEST(LinuxGetThreadId, AChildProcessHasItsOwn) {
  EXPECT_EQ(StatusOfAnotherProcess([] { return LinuxGetThreadId() == ::getpid() ? 0 : 1; }), 0);
}

}  // namespace
