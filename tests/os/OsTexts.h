#ifndef BOARDKIT_TESTS_OSTEXTS_H
#define BOARDKIT_TESTS_OSTEXTS_H

#include <string>

/// What a command that can't be run says, stated a second time: programs compare these texts.
namespace ostext {

inline const std::string kPopenFailed = "popen failed";
inline const std::string kPcloseFailed = "pclose failed";

}  // namespace ostext

#endif
