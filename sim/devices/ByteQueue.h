#ifndef BOARDKIT_SIM_DEVICES_BYTEQUEUE_H
#define BOARDKIT_SIM_DEVICES_BYTEQUEUE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// Bytes on their way, up to a limit. Those beyond it are dropped, and counted.
class ByteQueue {
 public:
  explicit ByteQueue(std::size_t capacity) : m_capacity(capacity) {}

  std::size_t Size() const {
    return m_bytes.size() - m_taken;
  }
  bool IsEmpty() const {
    return Size() == 0;
  }
  std::size_t Room() const {
    return m_capacity - Size();
  }
  /// All that were dropped since the beginning.
  std::uint64_t Dropped() const {
    return m_dropped;
  }
  /// What is in it, the oldest first, up to the next change.
  std::string_view View() const {
    return std::string_view(m_bytes).substr(m_taken);
  }

  /// Adds as many as there is room for.
  /// @returns whether these were all.
  bool Append(std::string_view bytes);
  /// Removes the oldest: they have gone on.
  void Take(std::size_t count);
  /// Discards what is in it. That does not count as dropped.
  void Clear();

 private:
  std::size_t m_capacity;
  std::string m_bytes;
  std::size_t m_taken = 0;  // how many at the beginning have gone already
  std::uint64_t m_dropped = 0;
};

#endif
