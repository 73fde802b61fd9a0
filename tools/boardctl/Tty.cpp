#include "Tty.h"

// Not <termios.h>: its speeds are codes, and a source cannot include both.
#include <asm/termbits.h>
#include <fcntl.h>
#include <linux/serial.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <system_error>

namespace {

/// A request about unsent bytes has failed, which is no error where the driver lacks it. The text is the library's.
void ThrowUnlessUnknown() {
  if (errno != ENOTTY && errno != EINVAL) {
    throw std::system_error(errno, std::system_category(), "Error writing to file descriptor: ");
  }
}

const char* ParityOf(tcflag_t flags) {
  if ((flags & PARENB) == 0) {
    return "none";
  }
  if ((flags & CMSPAR) != 0) {
    return (flags & PARODD) != 0 ? "mark" : "space";
  }
  return (flags & PARODD) != 0 ? "odd" : "even";
}

int DataBitsOf(tcflag_t flags) {
  switch (flags & CSIZE) {
    case CS5:
      return 5;
    case CS6:
      return 6;
    case CS7:
      return 7;
    default:
      return 8;
  }
}

/// Whether the kernel knows the character device as something else. It has no entries for pseudo-terminals.
bool IsOfOtherKind(dev_t number) {
  const std::string path =
      "/sys/dev/char/" + std::to_string(major(number)) + ':' + std::to_string(minor(number)) + "/subsystem";
  std::error_code none;
  const std::string kind = std::filesystem::read_symlink(path, none).filename();
  return !none && kind != "tty";
}

/// Looks before it opens, as opening a watchdog arms it. If looking fails, opening reports why.
int OpenPort(const std::string& device) {
  constexpr unsigned int kMiscMajor = 10;  // has /dev/watchdog, and no port
  struct stat node {};
  if (::stat(device.c_str(), &node) == 0 &&
      (!S_ISCHR(node.st_mode) || major(node.st_rdev) == kMiscMajor || IsOfOtherKind(node.st_rdev))) {
    throw std::runtime_error(device + " is not a serial port");
  }
  return ::open(device.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
}

}  // namespace

Tty::Tty(const std::string& device) : m_fd(OpenPort(device)) {
  if (m_fd == -1) {
    throw std::system_error(errno, std::system_category(), "Open Serial Port '" + device + "' failed?");
  }
  termios2 settings{};
  if (::ioctl(m_fd, TCGETS2, &settings) == 0) {
    m_before.assign(reinterpret_cast<const char*>(&settings), sizeof settings);
  }
}

Tty::~Tty() {
  ::close(m_fd);
}

Tty::Settings Tty::Read() const {
  termios2 settings{};
  if (::ioctl(m_fd, TCGETS2, &settings) == -1) {
    throw std::system_error(errno, std::system_category(), "Get the current port settings failed?");
  }
  const bool isHardware = (settings.c_cflag & CRTSCTS) != 0;
  const bool isSoftware = (settings.c_iflag & (IXON | IXOFF)) != 0;
  Settings read;
  read.speedBps = settings.c_ospeed;
  read.inputSpeedBps = settings.c_ispeed;
  read.dataBits = DataBitsOf(settings.c_cflag);
  read.parity = ParityOf(settings.c_cflag);
  read.stopBits = (settings.c_cflag & CSTOPB) != 0 ? 2 : 1;
  read.flow = isHardware ? isSoftware ? "both" : "hardware" : isSoftware ? "software" : "none";
  read.isRaw = (settings.c_lflag & (ICANON | ECHO | ISIG)) == 0 && (settings.c_oflag & OPOST) == 0;
  return read;
}

Json Tty::ModemLines() const {
  int lines = 0;
  if (::ioctl(m_fd, TIOCMGET, &lines) == -1) {
    return Json();
  }
  constexpr int kLoop = 0x8000;  // the C library's header does not know it
  return {{"DTR", (lines & TIOCM_DTR) != 0}, {"RTS", (lines & TIOCM_RTS) != 0}, {"CTS", (lines & TIOCM_CTS) != 0},
          {"DSR", (lines & TIOCM_DSR) != 0}, {"CD", (lines & TIOCM_CD) != 0},   {"RI", (lines & TIOCM_RI) != 0},
          {"LOOP", (lines & kLoop) != 0}};
}

Json Tty::Counters() const {
  serial_icounter_struct counted{};
  if (::ioctl(m_fd, TIOCGICOUNT, &counted) == -1) {
    return Json();
  }
  return {{"rx", counted.rx},           {"tx", counted.tx},           {"frame", counted.frame},
          {"parity", counted.parity},   {"overrun", counted.overrun}, {"break", counted.brk},
          {"lost", counted.buf_overrun}};
}

Json Tty::Uart() const {
  serial_struct uart{};
  if (::ioctl(m_fd, TIOCGSERIAL, &uart) == -1) {
    return Json();
  }
  return {{"baud_base_bps", uart.baud_base}, {"fifo_bytes", uart.xmit_fifo_size}, {"irq", uart.irq}};
}

std::uint32_t Tty::Waiting() const {
  int count = 0;
  if (::ioctl(m_fd, TIOCOUTQ, &count) == -1) {
    ThrowUnlessUnknown();
    return 0;
  }
  return static_cast<std::uint32_t>(count);
}

bool Tty::HasRoom(int milliseconds) const {
  pollfd room{m_fd, POLLOUT, 0};
  return ::poll(&room, 1, milliseconds) == 1;
}

bool Tty::Drain() const {
  if (::ioctl(m_fd, TCSBRK, 1) == -1) {
    if (errno == EINTR) {
      return false;
    }
    ThrowUnlessUnknown();
  }
  // A line that is hung up meanwhile has nothing to wait for either, and would seem to have sent everything.
  return Waiting() == 0;
}

void Tty::Discard() const {
  ::ioctl(m_fd, TCFLSH, TCOFLUSH);
}

void Tty::Quieten() const {
  if (!m_before.empty()) {
    termios2 settings{};
    std::memcpy(&settings, m_before.data(), sizeof settings);
    settings.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL);
    settings.c_cflag |= CLOCAL;
    ::ioctl(m_fd, TCSETS2, &settings);
  }
}

bool Tty::PutBack() const {
  return !m_before.empty() && ::ioctl(m_fd, TCSETS2, m_before.data()) == 0;
}
