#include "devices/ByteQueue.h"

#include <algorithm>

bool ByteQueue::Append(std::string_view bytes) {
  const std::size_t added = std::min(bytes.size(), Room());
  m_bytes.erase(0, m_taken);
  m_taken = 0;
  m_bytes.append(bytes.substr(0, added));
  m_dropped += bytes.size() - added;
  return added == bytes.size();
}

void ByteQueue::Take(std::size_t count) {
  m_taken += count;
  if (IsEmpty()) {
    Clear();
  }
}

void ByteQueue::Clear() {
  m_bytes.clear();
  m_taken = 0;
}
