#ifndef BOARDKIT_SIM_DEVICES_ENDS_COMMANDEND_H
#define BOARDKIT_SIM_DEVICES_ENDS_COMMANDEND_H

#include <sys/types.h>

#include <string>

#include "devices/ends/StreamEnd.h"

/// The standard input and output of a shell command, which runs on the machine.
class CommandEnd : public StreamEnd {
 public:
  /// @throws SetupError
  CommandEnd(const std::string& device, const std::string& command, EventLog& log);
  ~CommandEnd() override;
  CommandEnd(const CommandEnd&) = delete;
  CommandEnd& operator=(const CommandEnd&) = delete;

 private:
  pid_t m_command = -1;
};

#endif
