#include "SerialPort.h"

#include <linux/serial.h>
#include <sys/ioctl.h>

#include <cstdint>
#include <ios>
#include <iterator>
#include <sstream>

#include "../sys/SystemError.h"
#include "SpeedCodes.h"
#include "SystemCalls.h"

using boardkit::ThrowSystemError;

// Another board's values may be given at build time; see the options BOARDKIT_UART_*.
#ifndef BOARDKIT_UART_PHYS_BASE
#define BOARDKIT_UART_PHYS_BASE 0x80011000
#endif
#ifndef BOARDKIT_UART_CLOCK_HZ
#define BOARDKIT_UART_CLOCK_HZ 62500000
#endif

namespace {

// A 16550-compatible register block, one register every 4 bytes. With the divisor-latch access bit set in the line
// control register, the first two are the divisor latch.
constexpr unsigned int kDivisorLatchLow = (BOARDKIT_UART_PHYS_BASE);
constexpr unsigned int kDivisorLatchHigh = kDivisorLatchLow + 0x4;
constexpr unsigned int kLineControl = kDivisorLatchLow + 0xC;
constexpr unsigned int kDivisorLatchAccess = 0x80;

constexpr double kClock = (BOARDKIT_UART_CLOCK_HZ);  // Hz
constexpr double kClocksPerBit = 16.0;

const char* FlowControlName(SerialPort::FlowControl flowControl) {
  static constexpr const char* kNames[] = {"Hardware", "Software", "None"};
  const auto index = static_cast<unsigned int>(flowControl);
  return index < std::size(kNames) ? kNames[index] : "Invalid";
}

unsigned int PrintableSpeed(speed_t speed) {
  return SerialPort::BaudRateToPrintableNumber(static_cast<unsigned int>(boardkit::speedcodes::ToCode(speed)));
}

}  // namespace

std::string SerialPort::ToString() {
  std::ostringstream report;
  // Without this, a stream that runs out of memory says nothing, and the report lacks parts.
  report.exceptions(std::ios::badbit);
  report << "Device:    " << m_device << '\n';
  if (!m_isOpen) {
    report << "not opened yet!\n";
    return report.str();
  }

  // By contract: the settings are read even if the custom speed is what shows.
  termios settings{};
  GetTheCurrentPortSettings(settings);
  if (m_customBaudRate != 0) {
    report << "Custom Output Baudrate: " << m_customBaudRate << '\n';
    report << "Custom  Baudrate:       " << m_customBaudRate << '\n';
  } else {
    report << "Output Baudrate: " << PrintableSpeed(::cfgetospeed(&settings)) << '\n';
    report << "Input  Baudrate: " << PrintableSpeed(::cfgetispeed(&settings)) << '\n';
  }

  report << "Flowcontrol: " << FlowControlName(GetFlowControl()) << '\n';
  serial_struct info{};
  if (::ioctl(m_fd, TIOCGSERIAL, &info) == -1) {
    // By contract: the blank at the beginning, and -1 alone is a failure.
    ThrowSystemError(" TIOCGSERIAL failed!");
  }

  report << "Baud Base:     " << info.baud_base << '\n';
  report << "FIFO Size:     " << info.xmit_fifo_size << '\n';
  // By contract: the stream stays hexadecimal from here on, for the interrupt, the divisor and the registers too.
  report << "Flags:       0x" << std::hex << info.flags << '\n';
  report << "IRQ:           " << info.irq << '\n';
  report << "Divisor:       " << info.custom_divisor << '\n';
  if (!m_termiosSupported) {
    report << "Terminal Attributes are NOT supported!\n";
  }

  const unsigned int lineControl = ReadFromPhysicalMemoryAddress(kLineControl);
  report << "Line Register: 0x" << lineControl << '\n';
  WriteToPhysicalMemoryAddress(kLineControl, lineControl | kDivisorLatchAccess);
  const std::uint64_t low = ReadFromPhysicalMemoryAddress(kDivisorLatchLow);
  const std::uint64_t high = ReadFromPhysicalMemoryAddress(kDivisorLatchHigh);
  // By contract: the two are joined as words, although each is one byte of the divisor.
  const std::uint64_t latch = high << 32U | low;
  report << "Divisor Latch: " << latch << '\n';
  report << "Real baud rate: " << kClock / (static_cast<double>(latch) * kClocksPerBit) << '\n';

  // By contract: reopening makes the driver program the line again; nothing else clears the access bit.
  Close();
  Open(m_baudRate, m_charSize, m_parity, m_stopBits, m_flowControl);
  return report.str();
}
