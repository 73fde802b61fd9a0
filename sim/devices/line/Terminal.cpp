#include "devices/line/Terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <csignal>
#include <iterator>
#include <utility>

#include "SetupError.h"

namespace {

constexpr speed_t kFirstSpeed = 9600;

// What a pseudo-terminal does not keep, or would do a second time after the line.
constexpr tcflag_t kKeptFlags = CSIZE | PARENB | CREAD;
constexpr tcflag_t kKeptInputFlags = PARMRK | ISTRIP;

Descriptor OpenPeer(const Descriptor& master, int flags) {
  // Through the master, not by a name: the other side may be in another /dev.
  return Descriptor(::ioctl(master.Get(), TIOCGPTPEER, flags | O_NOCTTY | O_CLOEXEC));
}

/// Sets it while it is open for the first time, so that from then on it counts as closed.
Descriptor OpenFirst(const Descriptor& master) {
  Descriptor peer = OpenPeer(master, O_RDWR);
  if (!peer || ::fcntl(master.Get(), F_SETFL, O_RDWR | O_NONBLOCK) == -1) {
    throw SetupError("a terminal can't be opened", errno);
  }
  return peer;
}

}  // namespace

Terminal::Terminal(Descriptor master) : m_master(std::move(master)), m_opens(OpenFirst(m_master)) {
  m_id = FileId::Of(OpenPeer(m_master, O_RDWR));
  m_opens.Take();
  termios2 settings{};
  ::ioctl(m_master.Get(), TCGETS2, &settings);
  settings.c_cflag = (settings.c_cflag & ~static_cast<tcflag_t>(CBAUD | CSIZE)) | B9600 | CS8 | CREAD | HUPCL | CLOCAL;
  settings.c_ispeed = settings.c_ospeed = kFirstSpeed;
  if (const int error = Set(settings); error != 0) {
    throw SetupError("a terminal can't be set", error);
  }
}

Terminal::Use Terminal::TakeOpens() const {
  // In one call, as every request asks for it: usually nothing has happened.
  pollfd waits[] = {{m_opens.Get(), POLLIN, 0}, {m_master.Get(), 0, 0}};
  ::poll(waits, std::size(waits), 0);
  if (waits[0].revents == 0) {
    return {false, (waits[1].revents & POLLHUP) != 0};
  }
  // In this order: whoever opens it now has it open afterwards.
  const bool isOpened = m_opens.Take();
  return {isOpened, IsHungUp(m_master)};
}

Descriptor Terminal::Open(int flags) const {
  return OpenPeer(m_master, flags);
}

unsigned int Terminal::Number() const {
  unsigned int number = 0;
  ::ioctl(m_master.Get(), TIOCGPTN, &number);
  return number;
}

int Terminal::Set(const termios2& settings) {
  termios2 own = settings;
  own.c_iflag &= ~kKeptInputFlags;
  // Acts on the other side's attributes.
  if (::ioctl(m_master.Get(), TCSETS2, &own) == -1 || ::ioctl(m_master.Get(), TCGETS2, &m_settings) == -1) {
    return errno;
  }
  m_settings.c_cflag = (m_settings.c_cflag & ~kKeptFlags) | (settings.c_cflag & kKeptFlags);
  m_settings.c_iflag |= settings.c_iflag & kKeptInputFlags;
  return 0;
}

void Terminal::DropInput() const {
  // Also what has not reached the application yet, which a request to the master would leave.
  const Descriptor peer = OpenPeer(m_master, O_RDWR | O_NONBLOCK);
  ::ioctl(peer.Get(), TCFLSH, TCIFLUSH);
}

std::size_t Terminal::Unread() const {
  const Descriptor peer = OpenPeer(m_master, O_RDWR | O_NONBLOCK);
  int unread = 0;
  ::ioctl(peer.Get(), FIONREAD, &unread);
  return static_cast<std::size_t>(unread);
}

void Terminal::Interrupt() const {
  ::ioctl(m_master.Get(), TIOCSIG, SIGINT);
}
