#ifndef BOARDKIT_SERIAL_SPEEDCODES_H
#define BOARDKIT_SERIAL_SPEEDCODES_H

#include <termios.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

#include "SerialPort.h"

/// This library uses the kernel's codes for speeds (B9600 is 13), and so do older C libraries. Newer ones (glibc
/// from 2.42 on) take and return plain bits per second. This is the one place that converts between them.
namespace boardkit::speedcodes {

struct Speed {
  int code;
  unsigned int bitsPerSecond;
};

constexpr Speed kSpeeds[] = {
    {SerialPort::BAUD_0, 0},
    {SerialPort::BAUD_50, 50},
    {SerialPort::BAUD_75, 75},
    {SerialPort::BAUD_110, 110},
    {SerialPort::BAUD_134, 134},
    {SerialPort::BAUD_150, 150},
    {SerialPort::BAUD_200, 200},
    {SerialPort::BAUD_300, 300},
    {SerialPort::BAUD_600, 600},
    {SerialPort::BAUD_1200, 1200},
    {SerialPort::BAUD_1800, 1800},
    {SerialPort::BAUD_2400, 2400},
    {SerialPort::BAUD_4800, 4800},
    {SerialPort::BAUD_9600, 9600},
    {SerialPort::BAUD_19200, 19200},
    {SerialPort::BAUD_38400, 38400},
    {SerialPort::BAUD_57600, 57600},
    {SerialPort::BAUD_115200, 115200},
    {SerialPort::BAUD_230400, 230400},
    {SerialPort::BAUD_460800, 460800},
    {SerialPort::BAUD_500000, 500000},
    {SerialPort::BAUD_576000, 576000},
    {SerialPort::BAUD_921600, 921600},
    {SerialPort::BAUD_1000000, 1000000},
    {SerialPort::BAUD_1152000, 1152000},
    {SerialPort::BAUD_1500000, 1500000},
    {SerialPort::BAUD_2000000, 2000000},
    {SerialPort::BAUD_2500000, 2500000},
    {SerialPort::BAUD_3000000, 3000000},
};

/// The kernel's code for a speed that has none of its own.
constexpr int kOtherSpeed = 4096;

constexpr bool kSpeedsAreRates = B9600 != 13;

// Templates, so that both branches are compiled and tested with either kind of C library.

/// Sets both speeds with cfsetispeed() and cfsetospeed(). C libraries that take codes refuse anything else. Those that
/// take rates refuse nothing, so an unknown code fails with EINVAL here.
template <bool speedsAreRates = kSpeedsAreRates>
int SetSpeeds(termios& settings, int code) {
  auto given = static_cast<speed_t>(code);
  if constexpr (speedsAreRates) {
    const auto* const speed =
        std::find_if(std::begin(kSpeeds), std::end(kSpeeds), [&](const Speed& s) { return s.code == code; });
    if (speed == std::end(kSpeeds)) {
      errno = EINVAL;
      return -1;
    }
    given = speed->bitsPerSecond;
  }
  const int result = ::cfsetispeed(&settings, given);
  return result < 0 ? result : ::cfsetospeed(&settings, given);
}

/// The code for what cfgetispeed() returns; kOtherSpeed for a rate that has none.
template <bool speedsAreRates = kSpeedsAreRates>
int ToCode(speed_t given) {
  if constexpr (speedsAreRates) {
    const auto* const speed =
        std::find_if(std::begin(kSpeeds), std::end(kSpeeds), [&](const Speed& s) { return s.bitsPerSecond == given; });
    return speed == std::end(kSpeeds) ? kOtherSpeed : speed->code;
  }
  return static_cast<int>(given);
}

}  // namespace boardkit::speedcodes

#endif
