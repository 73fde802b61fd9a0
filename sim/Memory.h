#ifndef BOARDKIT_SIM_MEMORY_H
#define BOARDKIT_SIM_MEMORY_H

#include <cstdint>
#include <optional>

#include "Descriptor.h"
#include "Options.h"

/// Physical memory: a sparse file behind the whole 32-bit range, which the application maps.
///
/// Plain memory without side effects. The serial driver's part, to program the registers of the UART, is done here.
class Memory {
 public:
  /// Beyond 4 GiB: a word at the last address is mapped with the page behind it.
  static constexpr std::int64_t kSize = 0x100002000;

  /// @throws SetupError if the presets can't be written.
  Memory(Descriptor file, const Options& options);

  /// The word at any address, aligned or not.
  std::uint32_t Read(std::uint32_t address) const;
  void Write(std::uint32_t address, std::uint32_t value) const;

  /// What a driver does when it programs the line: divisor and line control, with the access to the divisor off.
  /// @param baud 0: the divisor stays as it is.
  void ProgramUart(std::uint32_t baud, std::uint32_t lineControl) const;

  /// A descriptor of its own for the application.
  /// @throws RequestError
  Descriptor Open(int flags) const;

 private:
  std::uint32_t Register(std::uint32_t index) const {
    return m_uartBase + index * m_uartStride;
  }

  Descriptor m_file;
  std::uint32_t m_uartBase;
  std::uint32_t m_uartStride;
};

#endif
