#ifndef BOARDKIT_SIM_DEVICES_MODEMLINES_H
#define BOARDKIT_SIM_DEVICES_MODEMLINES_H

#include <sys/ioctl.h>

#include <string>
#include <vector>

// The C library's headers lack these.
constexpr unsigned int kOut1 = 0x2000;
constexpr unsigned int kOut2 = 0x4000;
constexpr unsigned int kLoop = 0x8000;

constexpr unsigned int kOutputs = TIOCM_RTS | TIOCM_DTR | kOut1 | kOut2 | kLoop;
constexpr unsigned int kInputs = TIOCM_CTS | TIOCM_DSR | TIOCM_CAR | TIOCM_RNG;
/// What a driver raises at an open.
constexpr unsigned int kRaised = TIOCM_RTS | TIOCM_DTR;
/// What somebody at the far end switches on.
constexpr unsigned int kReady = TIOCM_CTS | TIOCM_DSR | TIOCM_CAR;

/// The modem lines by name: "RTS DTR CTS".
std::string ModemLineNames(unsigned int lines);
/// The inputs of these names.
/// @throws SetupError
unsigned int ModemInputs(const std::vector<std::string>& names);

#endif
