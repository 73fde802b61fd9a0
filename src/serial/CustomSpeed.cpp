// A source of its own: the kernel's header defines a termios too, and clashes with the C library's.
#include "CustomSpeed.h"

#include <asm/termbits.h>
#include <sys/ioctl.h>

int boardkit::SetCustomSpeed(int fd, std::uint32_t bitsPerSecond) {
  termios2 settings{};
  if (::ioctl(fd, TCGETS2, &settings) == -1) {
    return -1;
  }

  // No separate input speed, which would outlive this one: the output speed holds for both.
  settings.c_cflag &= ~static_cast<tcflag_t>(CBAUD | CBAUD << IBSHIFT);
  settings.c_cflag |= BOTHER;
  settings.c_ispeed = bitsPerSecond;
  settings.c_ospeed = bitsPerSecond;
  return ::ioctl(fd, TCSETS2, &settings);
}
