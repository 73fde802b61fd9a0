#ifndef BOARDKIT_SIM_DEVICES_ENDS_PTYEND_H
#define BOARDKIT_SIM_DEVICES_ENDS_PTYEND_H

#include <string>

#include "Descriptor.h"
#include "devices/ends/StreamEnd.h"

/// A pseudo-terminal of the machine.
class PtyEnd : public StreamEnd {
 public:
  /// @param link a name for it; without one, its own is printed.
  /// @throws SetupError
  PtyEnd(const std::string& device, const std::string& link, EventLog& log);
  ~PtyEnd() override;

 private:
  Descriptor m_slave;  // held, so that users of it may come and go
  std::string m_link;  // to remove
};

#endif
