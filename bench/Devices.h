#ifndef BOARDKIT_BENCH_DEVICES_H
#define BOARDKIT_BENCH_DEVICES_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "Descriptor.h"

/// @file
/// Devices to measure on that a machine without the board lacks.
///
/// For their sake this program defines `open` and `ioctl` itself, with what they do not answer handed on to the C
/// library. The bare code and the library both call these definitions, so that what they cost is on both sides; nothing
/// else that is measured calls `open` or `ioctl`.

/// A pseudo-terminal, seen from its far end. The near end is the device to be opened under Name(), raw for these
/// functions to work, and to be closed before the far end.
///
/// The requests for modem lines, which a pseudo-terminal does not know, succeed on every descriptor.
class Terminal {
 public:
  /// What the near end holds for its readers; one byte less than its buffer.
  static constexpr std::size_t kReceiveCapacity = 4095;

  Terminal();

  const std::string& Name() const;

  /// Sends @p count bytes to the near end and returns when @p nearEnd, a descriptor of it, can read them all.
  void Fill(int nearEnd, std::size_t count) const;
  /// Waits for @p count bytes of the near end and drops them.
  void Drain(std::size_t count) const;

 private:
  Descriptor m_farEnd;
  std::string m_name;
};

/// A watchdog device, to be opened under Name().
///
/// Each feeding is answered by a question to the kernel about its pipe: a real system call, and a cheap one.
class WatchDogDevice {
 public:
  WatchDogDevice();

  std::string Name() const;

 private:
  int m_ends[2] = {-1, -1};
  Descriptor m_input;
  Descriptor m_output;
};

/// A sparse file that is opened in the place of /dev/mem while the object lives. Its name is gone with it.
class PhysicalMemory {
 public:
  /// The word at the byte address @p address is @p value, and all others up to there are 0.
  PhysicalMemory(unsigned int address, std::uint32_t value);
  ~PhysicalMemory();

  PhysicalMemory(const PhysicalMemory&) = delete;
  PhysicalMemory& operator=(const PhysicalMemory&) = delete;

 private:
  std::string m_path;
};

#endif
