#include "Signals.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <termios.h>
#include <unistd.h>

#include <SystemCalls.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <iterator>
#include <system_error>

namespace {

constexpr int kNone = -1;

std::atomic<int> caught{0};
std::atomic<int> discarded{kNone};  // the descriptor of the tty
std::atomic<int> freed{kNone};      // another one of it
std::atomic<std::uint32_t> discardedBytes{0};
std::atomic<int> handedTo{kNone};  // a process; 0 for all descendants
int wake[2] = {kNone, kNone};

/// Appends @p number in decimal digits, and a NUL; with what a signal handler may call.
char* Append(char* to, int number) {
  char digits[12];
  char* first = std::end(digits);
  do {
    *--first = static_cast<char>('0' + number % 10);
    number /= 10;
  } while (number != 0);
  while (first != std::end(digits)) {
    *to++ = *first++;
  }
  *to = '\0';
  return to;
}

char* Append(char* to, const char* text) {
  while (*text != '\0') {
    *to++ = *text++;
  }
  *to = '\0';
  return to;
}

/// The list of @p process's children, open; kNone where the kernel does not list them.
int OpenChildrenOf(int process) {
  char path[64];
  char* end = Append(path, "/proc/");
  end = Append(end, process);
  end = Append(end, "/task/");
  end = Append(end, process);
  Append(end, "/children");
  return ::open(path, O_RDONLY | O_CLOEXEC);
}

/// The next number of such a list; 0 at its end.
int NextChild(int list) {
  int child = 0;
  char character = 0;
  while (::read(list, &character, 1) == 1 && character >= '0' && character <= '9') {
    child = child * 10 + (character - '0');
  }
  return child;
}

/// Sends @p number to all descendants of @p process, to each after its own: these would have another parent otherwise.
void SignalDescendants(int process, int number) {
  constexpr int kDeepest = 16;
  int line[kDeepest] = {process};  // of descent
  int lists[kDeepest] = {OpenChildrenOf(process)};
  int depth = 0;
  while (depth >= 0) {
    const int child = NextChild(lists[depth]);
    if (child != 0 && depth + 1 < kDeepest) {
      ++depth;
      line[depth] = child;
      lists[depth] = OpenChildrenOf(child);
      continue;
    }
    if (child != 0) {
      ::kill(child, number);
      continue;
    }
    ::close(lists[depth]);
    if (depth != 0) {
      ::kill(line[depth], number);
    }
    --depth;
  }
}

void Note(int number, siginfo_t* information, void* /*context*/) {
  const int error = errno;
  int none = 0;
  caught.compare_exchange_strong(none, number);
  const char byte = 0;
  // A full pipe wakes as well.
  [[maybe_unused]] const ssize_t written = ::write(wake[1], &byte, 1);
  if (const int fd = discarded; fd != kNone) {
    int waiting = 0;
    if (::ioctl(fd, TIOCOUTQ, &waiting) == 0) {
      discardedBytes += static_cast<std::uint32_t>(waiting);
    }
    ::tcflush(fd, TCOFLUSH);
    ::fcntl(freed, F_SETFL, O_NONBLOCK);
  }
  const int process = handedTo;
  const bool isFromTerminal = information->si_code == SI_KERNEL;
  if (process > 0 && !isFromTerminal) {
    ::kill(process, number);
  } else if (process == 0 && !isFromTerminal) {
    SignalDescendants(::getpid(), number);
  }
  errno = error;
}

void Ignore(int /*number*/, siginfo_t* /*information*/, void* /*context*/) {}

}  // namespace

namespace signals {

void Install() {
  if (::pipe2(wake, O_CLOEXEC | O_NONBLOCK) == -1) {
    throw std::system_error(errno, std::generic_category(), "No pipe for signals");
  }
  for (const int number : kNumbers) {
    struct sigaction before {};
    ::sigaction(number, nullptr, &before);
    // What nohup or a shell's & has switched off stays so.
    if (before.sa_handler != SIG_IGN) {
      InstallSignalHandler(number, Note);
    }
  }
  InstallSignalHandler(SIGPIPE, Ignore);
  InstallSignalHandler(SIGXFSZ, Ignore);
}

Held::Held(Holding holding) : m_holding(holding) {
  sigset_t signals;
  ::sigemptyset(&signals);
  for (const int number : kNumbers) {
    ::sigaddset(&signals, number);
  }
  ::sigprocmask(SIG_BLOCK, &signals, &m_before);
  if (m_holding == kForItsCommandsToo) {
    // A shell unblocks what is blocked, and leaves ignored what is ignored. What is blocked here waits all the same.
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    for (std::size_t i = 0; i < std::size(kNumbers); ++i) {
      ::sigaction(kNumbers[i], &ignore, &m_actions[i]);
    }
  }
}

Held::~Held() {
  if (m_holding == kForItsCommandsToo) {
    for (std::size_t i = 0; i < std::size(kNumbers); ++i) {
      ::sigaction(kNumbers[i], &m_actions[i], nullptr);
    }
  }
  ::sigprocmask(SIG_SETMASK, &m_before, nullptr);
}

int Caught() {
  return caught;
}

bool Wait(int milliseconds) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::milliseconds(milliseconds);
  while (Caught() == 0) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    if (left <= 0) {
      return true;
    }
    pollfd woken{wake[0], POLLIN, 0};
    ::poll(&woken, 1, static_cast<int>(left));
  }
  return false;
}

int Descriptor() {
  return wake[0];
}

DiscardsOutput::DiscardsOutput(int fd, int other) {
  freed = other;
  discarded = fd;
}

DiscardsOutput::~DiscardsOutput() {
  discarded = kNone;
}

std::uint32_t DiscardsOutput::Bytes() {
  return discardedBytes;
}

HandsOn::HandsOn(int process) {
  if (process == 0) {
    // Else what a command leaves in the background would become init's child, and no signal would find it.
    ::prctl(PR_SET_CHILD_SUBREAPER, 1UL, 0UL, 0UL, 0UL);
  }
  handedTo = process;
}

HandsOn::~HandsOn() {
  handedTo = kNone;
  ::prctl(PR_SET_CHILD_SUBREAPER, 0UL, 0UL, 0UL, 0UL);
}

}  // namespace signals
