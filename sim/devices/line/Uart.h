#ifndef BOARDKIT_SIM_DEVICES_LINE_UART_H
#define BOARDKIT_SIM_DEVICES_LINE_UART_H

#include <cstdint>

#include "devices/Memory.h"

/// The registers of a 16550 in physical memory, as far as its driver programs them.
class Uart {
 public:
  /// @param stride the distance between registers, in bytes.
  Uart(const Memory& memory, std::uint32_t base, std::uint32_t stride)
      : m_memory(memory), m_base(base), m_stride(stride) {}

  /// What a driver does when it programs the line: divisor and line control, with the access to the divisor off.
  /// @param base the fastest speed.
  /// @param baud 0: the divisor stays as it is.
  /// @param flags the terminal attributes' c_cflag.
  void Program(std::uint32_t base, std::uint32_t baud, unsigned int flags) const;

 private:
  std::uint32_t Register(std::uint32_t index) const {
    return m_base + index * m_stride;
  }

  const Memory& m_memory;
  std::uint32_t m_base;
  std::uint32_t m_stride;
};

#endif
