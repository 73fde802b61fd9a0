#ifndef BOARDKIT_SERIAL_SPEEDCODES_H
#define BOARDKIT_SERIAL_SPEEDCODES_H

#include <termios.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

/// Speeds travel as the kernel's codes (B9600 is 13) through this library, and so they do through older C libraries.
/// Newer ones (glibc from 2.42 on) take and give plain bits per second instead. Here is the one place that knows both.
namespace speedcodes {

struct Speed {
  int code;
  unsigned int bitsPerSecond;
};

constexpr Speed kSpeeds[] = {
    {0, 0},          {1, 50},         {2, 75},         {3, 110},        {4, 134},        {5, 150},
    {6, 200},        {7, 300},        {8, 600},        {9, 1200},       {10, 1800},      {11, 2400},
    {12, 4800},      {13, 9600},      {14, 19200},     {15, 38400},     {4097, 57600},   {4098, 115200},
    {4099, 230400},  {4100, 460800},  {4101, 500000},  {4102, 576000},  {4103, 921600},  {4104, 1000000},
    {4105, 1152000}, {4106, 1500000}, {4107, 2000000}, {4108, 2500000}, {4109, 3000000},
};

/// The kernel's code for a speed that has none of its own.
constexpr int kOtherSpeed = 4096;

constexpr bool kSpeedsAreRates = B9600 != 13;

/// Sets both speeds with cfsetispeed() and cfsetospeed(). Those that take codes refuse what is none; those that take
/// rates refuse nothing, so what is no code does not get to them, but fails with EINVAL here.
template <bool speedsAreRates = kSpeedsAreRates>
int SetSpeeds(termios& settings, int code) {
  auto given = static_cast<speed_t>(code);
  if (speedsAreRates) {
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

/// The code for what cfgetispeed() gives; kOtherSpeed for a rate that has none.
template <bool speedsAreRates = kSpeedsAreRates>
int ToCode(speed_t given) {
  if (speedsAreRates) {
    const auto* const speed =
        std::find_if(std::begin(kSpeeds), std::end(kSpeeds), [&](const Speed& s) { return s.bitsPerSecond == given; });
    return speed == std::end(kSpeeds) ? kOtherSpeed : speed->code;
  }
  return static_cast<int>(given);
}

}  // namespace speedcodes

#endif
