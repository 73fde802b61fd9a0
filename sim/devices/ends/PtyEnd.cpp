#include "devices/ends/PtyEnd.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "SetupError.h"

namespace {

/// Opens the other side of a pseudo-terminal's master and makes it a plain line: 9600 baud, 8 bits, no echo.
///
/// A fresh one echoes and edits, and would send the board's own bytes back to it.
/// @returns the descriptor, or none with errno.
Descriptor OpenRawSlave(const Descriptor& master) {
  Descriptor slave(::ioctl(master.Get(), TIOCGPTPEER, O_RDWR | O_NOCTTY | O_CLOEXEC));
  termios settings{};
  if (!slave || ::tcgetattr(slave.Get(), &settings) == -1) {
    return Descriptor();
  }
  ::cfmakeraw(&settings);
  ::cfsetspeed(&settings, B9600);
  settings.c_cflag |= CLOCAL | CREAD;
  return ::tcsetattr(slave.Get(), TCSANOW, &settings) == 0 ? std::move(slave) : Descriptor();
}

}  // namespace

PtyEnd::PtyEnd(const std::string& device, const std::string& link, EventLog& log) : StreamEnd(device, log) {
  Descriptor master(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
  if (!master || ::grantpt(master.Get()) == -1 || ::unlockpt(master.Get()) == -1) {
    throw SetupError("the far end of " + device + " gets no pseudo-terminal", errno);
  }
  const Descriptor slave = OpenRawSlave(master);
  if (!slave) {
    throw SetupError("the far end of " + device + " can't be opened", errno);
  }
  m_opens.emplace(slave);

  char name[64];
  if (const int error = ::ptsname_r(master.Get(), name, sizeof name); error != 0) {
    throw SetupError("the far end of " + device + " has no name", error);
  }
  Use(std::move(master));
  if (link.empty()) {
    std::fprintf(stderr, "boardsim: the far end of %s is %s\n", device.c_str(), name);
    return;
  }
  // A link that a killed simulator has left points nowhere.
  if (struct stat status{};
      ::lstat(link.c_str(), &status) == 0 && S_ISLNK(status.st_mode) && ::access(link.c_str(), F_OK) == -1) {
    ::unlink(link.c_str());
  }
  if (::symlink(name, link.c_str()) == -1) {
    throw SetupError("the far end of " + device + " can't be linked as " + link, errno);
  }
  m_link = link;
}

PtyEnd::~PtyEnd() {
  if (!m_link.empty()) {
    ::unlink(m_link.c_str());
  }
}

pollfd PtyEnd::Interest(bool listening, bool sending) const {
  if (IsHungUp(Stream())) {
    return {m_opens->Get(), POLLIN, 0};
  }
  return StreamEnd::Interest(listening, sending);
}

void PtyEnd::Look() {
  m_opens->Take();
}

std::size_t PtyEnd::Send(std::string_view bytes) {
  const std::size_t sent = StreamEnd::Send(bytes);
  // What fits waits for the next user; nothing waits for there to be one.
  return sent == 0 && IsHungUp(Stream()) ? bytes.size() : sent;
}

std::size_t PtyEnd::Receive(char* buffer, std::size_t size) {
  const ssize_t got = ::read(Stream().Get(), buffer, size);
  return got > 0 ? static_cast<std::size_t>(got) : 0;
}
