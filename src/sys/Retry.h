#ifndef BOARDKIT_SYS_RETRY_H
#define BOARDKIT_SYS_RETRY_H

#include <cerrno>

namespace boardkit {

/// Whether the loops repeat a transfer that failed with @p error: at once, and as often as it takes.
inline bool IsTemporary(int error) {
  return error == EINTR || error == EAGAIN;
}

}  // namespace boardkit

#endif
