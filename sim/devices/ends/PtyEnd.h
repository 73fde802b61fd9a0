#ifndef BOARDKIT_SIM_DEVICES_ENDS_PTYEND_H
#define BOARDKIT_SIM_DEVICES_ENDS_PTYEND_H

#include <optional>
#include <string>

#include "Descriptor.h"
#include "devices/OpenWatch.h"
#include "devices/ends/StreamEnd.h"

/// A pseudo-terminal of the machine. Its users come and go.
class PtyEnd : public StreamEnd {
 public:
  /// @param link a name for it; without one, its own is printed.
  /// @throws SetupError
  PtyEnd(const std::string& device, const std::string& link, EventLog& log);
  ~PtyEnd() override;
  PtyEnd(const PtyEnd&) = delete;
  PtyEnd& operator=(const PtyEnd&) = delete;

  pollfd Interest(bool listening, bool sending) const override;
  void Look() override;
  std::size_t Send(std::string_view bytes) override;
  std::size_t Receive(char* buffer, std::size_t size) override;

 private:
  std::optional<OpenWatch> m_opens;
  std::string m_link;  // to remove
};

#endif
