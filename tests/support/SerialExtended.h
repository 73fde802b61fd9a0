#ifndef BOARDKIT_TESTS_SERIALEXTENDED_H
#define BOARDKIT_TESTS_SERIALEXTENDED_H

#include <sys/ioctl.h>

/// A tty's attributes as the kernel has them, any speeds included: laid out as its `termios2`, whose header clashes
/// with the C library's.
struct ExtendedAttributes {
  unsigned int inputFlags;
  unsigned int outputFlags;
  unsigned int controlFlags;
  unsigned int localFlags;
  unsigned char line;
  unsigned char characters[19];
  unsigned int inputSpeed;   // bit/s
  unsigned int outputSpeed;  // bit/s

  static constexpr unsigned long kGet = _IOR('T', 0x2A, char[44]);  // TCGETS2
  static constexpr unsigned long kSet = _IOW('T', 0x2B, char[44]);  // TCSETS2

  // In the control flags, for the output and for the input: a speed that has no code.
  static constexpr unsigned int kSpeedMask = 0x100F;
  static constexpr unsigned int kOtherSpeed = 0x1000;
  static constexpr unsigned int kInputShift = 16;
};

/// Those of the tty @p fd.
ExtendedAttributes GetExtendedAttributes(int fd);

#endif
