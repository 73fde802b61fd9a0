#include "devices/OpenWatch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <utility>

#include "SetupError.h"

namespace {

constexpr std::size_t kLongestEvent = sizeof(inotify_event) + NAME_MAX + 1;

/// Lets the kernel close a descriptor in its own time, for one that watches takes ten milliseconds.
///
/// It travels over a connection that nobody has, for both ends travel with it: what is under way there, the kernel
/// finds and closes.
void LeaveToKernel(Descriptor descriptor) {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == -1) {
    return;
  }
  const Descriptor one(ends[0]);
  const Descriptor other(ends[1]);
  const int travellers[] = {descriptor.Get(), one.Get(), other.Get()};
  char byte = 0;
  iovec part{&byte, sizeof byte};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof travellers)] = {};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  cmsghdr* rights = CMSG_FIRSTHDR(&message);
  rights->cmsg_level = SOL_SOCKET;
  rights->cmsg_type = SCM_RIGHTS;
  rights->cmsg_len = CMSG_LEN(sizeof travellers);
  std::memcpy(CMSG_DATA(rights), travellers, sizeof travellers);
  ::sendmsg(one.Get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
}

}  // namespace

OpenWatch::OpenWatch(const Descriptor& terminal) : m_events(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
  if (!m_events || ::inotify_add_watch(m_events.Get(), PathOf(terminal.Get()).c_str(), IN_OPEN | IN_CLOSE) == -1) {
    throw SetupError("opens of a terminal can't be watched", errno);
  }
}

OpenWatch::~OpenWatch() {
  LeaveToKernel(std::move(m_events));
}

bool OpenWatch::Take() const {
  bool isOpened = false;
  char events[4096];
  // A piece with room for another event was the last one.
  for (ssize_t got = sizeof events; got > static_cast<ssize_t>(sizeof events - kLongestEvent);) {
    got = ::read(m_events.Get(), events, sizeof events);
    for (ssize_t at = 0; at < got;) {
      inotify_event event{};
      std::memcpy(&event, events + at, sizeof event);
      isOpened = isOpened || (event.mask & (IN_OPEN | IN_Q_OVERFLOW)) != 0;
      at += static_cast<ssize_t>(sizeof event + event.len);
    }
  }
  return isOpened;
}

bool IsHungUp(const Descriptor& master) {
  pollfd wait{master.Get(), 0, 0};
  return ::poll(&wait, 1, 0) == 1 && (wait.revents & POLLHUP) != 0;
}
