#ifndef BOARDKIT_SIM_DEVICES_ENDS_STREAMEND_H
#define BOARDKIT_SIM_DEVICES_ENDS_STREAMEND_H

#include <string>

#include "Descriptor.h"
#include "devices/ends/FarEnd.h"

/// A far end that is reached by one descriptor, which a derived class opens.
class StreamEnd : public FarEnd {
 public:
  StreamEnd(std::string device, EventLog& log);

  bool IsConnected() const override {
    return static_cast<bool>(m_stream);
  }
  pollfd Interest(bool listening, bool sending) const override;
  std::size_t Send(std::string_view bytes) override;
  std::size_t Receive(char* buffer, std::size_t size) override;

 protected:
  const std::string& Device() const {
    return m_device;
  }
  const Descriptor& Stream() const {
    return m_stream;
  }
  void Log(const std::string& event) const {
    m_log.Write(m_device, event);
  }
  /// Nothing has to wait for it from now on.
  void Use(Descriptor stream);
  void Close() {
    m_stream.Close();
  }
  /// The other side has gone.
  virtual void Gone() {}

 private:
  const std::string m_device;
  EventLog& m_log;
  Descriptor m_stream;
};

#endif
