#ifndef BOARDKIT_SIM_EXITSTATUS_H
#define BOARDKIT_SIM_EXITSTATUS_H

// Besides the application's own statuses, and 128 and the number of the signal that ended it.
constexpr int kStatusReset = 86;  // the watchdog has reset the board
constexpr int kStatusNotSetUp = 125;
constexpr int kStatusNotExecutable = 126;
constexpr int kStatusNotFound = 127;
constexpr int kStatusSignal = 128;

#endif
