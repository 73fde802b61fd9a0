#ifndef BOARDKIT_SIM_WATCHDOGREQUESTS_H
#define BOARDKIT_SIM_WATCHDOGREQUESTS_H

#include <linux/watchdog.h>
#include <sys/ioctl.h>

// All requests of a watchdog are of one type.
constexpr unsigned int kRequestTypeBits = 0xFF00;
constexpr unsigned int kWatchdogType = static_cast<unsigned int>(WATCHDOG_IOCTL_BASE) << 8U;

#endif
