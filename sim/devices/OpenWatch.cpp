#include "devices/OpenWatch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <utility>

#include "SetupError.h"
#include "sandbox/Channel.h"

namespace {

constexpr std::size_t kLongestEvent = sizeof(inotify_event) + NAME_MAX + 1;

/// Lets the kernel close a descriptor later, as closing an inotify instance takes ten milliseconds.
///
/// The descriptor is sent over a connection together with that connection's own receiving end. No process can receive
/// it then, so the kernel's garbage collection closes both.
void LeaveToKernel(Descriptor descriptor) {
  const auto [here, there] = Channel::MakePair();
  for (const int traveller : {descriptor.Get(), there.Get()}) {
    here.Send(Message(Message::Kind::kNothing), traveller);
  }
  // Closed first: the connection must be the last to hold it.
  descriptor.Close();
}

}  // namespace

OpenWatch::OpenWatch(const Descriptor& terminal) : m_events(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
  if (!m_events || ::inotify_add_watch(m_events.Get(), PathOf(terminal.Get()).c_str(), IN_OPEN) == -1) {
    throw SetupError("opens of a terminal can't be watched", errno);
  }
}

OpenWatch::~OpenWatch() {
  try {
    LeaveToKernel(std::move(m_events));
  } catch (const SetupError&) {
    // It is closed anyway.
  }
}

bool OpenWatch::Take() const {
  bool isOpened = false;
  char events[4096];
  // A piece with room for another event is the last one.
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
