#include "Memory.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "SetupError.h"
#include "Supervisor.h"

namespace {

constexpr std::uint32_t kUartClock = 62500000;  // Hz
constexpr std::uint32_t kClocksPerBit = 16;

// Indices of the UART's registers.
constexpr std::uint32_t kDivisorLow = 0;
constexpr std::uint32_t kDivisorHigh = 1;
constexpr std::uint32_t kLineControl = 3;

}  // namespace

Memory::Memory(Descriptor file, const Options& options)
    : m_file(std::move(file)), m_uartBase(options.uartBase), m_uartStride(options.uartStride) {
  for (const RegisterPreset& preset : options.registers) {
    Write(preset.address, preset.value);
    if (Read(preset.address) != preset.value) {
      throw SetupError("the register presets can't be written to /dev/mem", ENOSPC);
    }
  }
}

std::uint32_t Memory::Read(std::uint32_t address) const {
  std::uint32_t value = 0;
  return ::pread(m_file.Get(), &value, sizeof value, address) == sizeof value ? value : 0;
}

void Memory::Write(std::uint32_t address, std::uint32_t value) const {
  // Fails only where memory itself runs out: then the register keeps what it had.
  [[maybe_unused]] const ssize_t written = ::pwrite(m_file.Get(), &value, sizeof value, address);
}

void Memory::ProgramUart(std::uint32_t baud, std::uint32_t lineControl) const {
  if (baud != 0) {
    // The whole divisor in one word: as words are how it is read, the sum of both comes out right.
    const std::uint64_t clocks = std::uint64_t{kClocksPerBit} * baud;
    Write(Register(kDivisorLow),
          static_cast<std::uint32_t>(std::max<std::uint64_t>((kUartClock + clocks / 2) / clocks, 1)));
    Write(Register(kDivisorHigh), 0);
  }
  Write(Register(kLineControl), lineControl);
}

Descriptor Memory::Open(int flags) const {
  Descriptor own(::open(PathOf(m_file.Get()).c_str(), (flags & O_ACCMODE) | O_CLOEXEC));
  if (!own) {
    throw RequestError{errno};
  }
  return own;
}
