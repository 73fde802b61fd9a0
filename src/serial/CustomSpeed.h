#ifndef BOARDKIT_SERIAL_CUSTOMSPEED_H
#define BOARDKIT_SERIAL_CUSTOMSPEED_H

#include <cstdint>

namespace boardkit {

/// Programs both directions of the tty @p fd to any speed, through the kernel's extended terminal attributes.
/// Returns -1 with errno if the driver refuses.
int SetCustomSpeed(int fd, std::uint32_t bitsPerSecond);

}  // namespace boardkit

#endif
