#include "devices/PseudoTerminal.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>

Descriptor OpenRawSlave(const Descriptor& master) {
  // By the master, not by a name: the slave may lie in another /dev.
  Descriptor slave(::ioctl(master.Get(), TIOCGPTPEER, O_RDWR | O_NOCTTY | O_CLOEXEC));
  termios settings{};
  if (!slave || ::tcgetattr(slave.Get(), &settings) == -1) {
    return Descriptor();
  }
  ::cfmakeraw(&settings);
  ::cfsetspeed(&settings, B9600);
  settings.c_cflag |= CLOCAL | CREAD;
  if (::tcsetattr(slave.Get(), TCSANOW, &settings) == -1) {
    return Descriptor();
  }
  return slave;
}
