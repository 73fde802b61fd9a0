#ifndef BOARDKIT_TESTS_WATCHDOGTEXTS_H
#define BOARDKIT_TESTS_WATCHDOGTEXTS_H

#include <string>

/// What the failures of a watchdog say, stated a second time: programs compare these texts.
namespace watchdogtext {

inline const std::string kOpenError = " Could not open watchdog device!";
inline const std::string kWriteError = " Could write watchdog device!";
inline const std::string kCloseError = " Could not close watchdog device!";
inline const std::string kTooShort = "Watchdog interval must be greater than 0 seconds";
inline const std::string kNotSet = "Could not set watchdog interval";
inline const std::string kNotRetrieved = "Could not retrieve watchdog interval";
inline const std::string kNotActive = "Watchdog not activated";

}  // namespace watchdogtext

#endif
