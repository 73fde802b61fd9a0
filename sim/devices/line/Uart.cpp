#include "devices/line/Uart.h"

#include <asm/termbits.h>

#include <algorithm>

namespace {

// Indices of the registers.
constexpr std::uint32_t kDivisorLow = 0;
constexpr std::uint32_t kDivisorHigh = 1;
constexpr std::uint32_t kLineControl = 3;

// Of the line control register.
constexpr std::uint32_t kTwoStopBits = 0x04;
constexpr std::uint32_t kParity = 0x08;
constexpr std::uint32_t kEvenParity = 0x10;

std::uint32_t LineControl(unsigned int flags) {
  const unsigned int size = flags & CSIZE;
  std::uint32_t lineControl = size == CS8 ? 3 : size == CS7 ? 2 : size == CS6 ? 1 : 0;
  if ((flags & CSTOPB) != 0) {
    lineControl |= kTwoStopBits;
  }
  if ((flags & PARENB) != 0) {
    lineControl |= kParity;
  }
  // Also without parity, where it means nothing: so does the kernel's driver, and reports show it.
  if ((flags & PARODD) == 0) {
    lineControl |= kEvenParity;
  }
  return lineControl;
}

}  // namespace

void Uart::Program(std::uint32_t base, std::uint32_t baud, unsigned int flags) const {
  if (baud != 0) {
    // The whole divisor in one word: readers add both words, and the sum is right.
    const std::uint64_t divisor = (std::uint64_t{base} + baud / 2) / baud;
    m_memory.Write(Register(kDivisorLow), static_cast<std::uint32_t>(std::max<std::uint64_t>(divisor, 1)));
    m_memory.Write(Register(kDivisorHigh), 0);
  }
  m_memory.Write(Register(kLineControl), LineControl(flags));
}
