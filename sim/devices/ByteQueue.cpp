#include "devices/ByteQueue.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

bool ByteQueue::Append(std::string_view bytes) {
  const std::size_t taken = std::min(bytes.size(), Room());
  m_bytes.erase(0, m_sent);
  m_sent = 0;
  m_bytes.append(bytes.substr(0, taken));
  m_dropped += bytes.size() - taken;
  return taken == bytes.size();
}

int ByteQueue::Deliver(int fd) {
  while (!IsEmpty()) {
    const ssize_t written = ::write(fd, m_bytes.data() + m_sent, Size());
    if (written == -1) {
      return errno == EAGAIN || errno == EINTR ? 0 : errno;
    }
    m_sent += static_cast<std::size_t>(written);
  }
  Clear();
  return 0;
}

void ByteQueue::Clear() {
  m_bytes.clear();
  m_sent = 0;
}
