#ifndef BOARDKIT_TESTS_SYSTEXTS_H
#define BOARDKIT_TESTS_SYSTEXTS_H

#include <string>

/// What failing system calls say, stated a second time: programs compare these texts.
namespace systext {

inline const std::string kWriteError = "Error writing to file descriptor:";
inline const std::string kWriteStuck = "Error writing to file descriptor. No bytes written:";
inline const std::string kReadError = "Error reading from file descriptor:";
inline const std::string kReadEnd = "Error reading from file descriptor. No bytes read:";
inline const std::string kSleepError = "Error sleeping: ";

inline const std::string kMaskError = "Error setting signal mask.";
inline const std::string kHandlerError = "Error setting signal handler: ";
inline const std::string kInterruptError = "Error setting signal interrupt: ";
inline const std::string kDeactivationMaskError = "Error setting deactivation signal mask.";
inline const std::string kDeactivationError = "Error adding to terminate signal mask.";

inline const std::string kMemoryError = "ReadFromMemory Open /dev/mem failed";
inline const std::string kMapError = "Error from mmap";
inline const std::string kSysinfoError = "Cannot retrieve sysinfo";

inline const std::string kNoHandle = "dlsym_e: handle";
inline const std::string kNoSymbol = "dlsym_e: symbol";
inline std::string LookupError(const std::string& symbol, const std::string& loader) {
  return "Error looking up symbol \"" + symbol + "\": " + loader;
}
inline std::string NullSymbol(const std::string& symbol) {
  return "Cannot find symbol \"" + symbol + "\".";
}

}  // namespace systext

#endif
