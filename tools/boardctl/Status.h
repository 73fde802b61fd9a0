#ifndef BOARDKIT_CTL_STATUS_H
#define BOARDKIT_CTL_STATUS_H

#include <stdexcept>

// The exit statuses; every help shows them.
constexpr int kStatusDone = 0;
constexpr int kStatusFailed = 1;
constexpr int kStatusUsage = 2;
constexpr int kStatusUnchanged = 3;  // only where --changed asks for it
constexpr int kStatusSignal = 128;   // and the number of the signal

/// Wrong usage that shows only when the arguments are seen together: one phrase for the user. A verb throws it before
/// it opens or changes anything.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

#endif
