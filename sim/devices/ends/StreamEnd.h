#ifndef BOARDKIT_SIM_DEVICES_ENDS_STREAMEND_H
#define BOARDKIT_SIM_DEVICES_ENDS_STREAMEND_H

#include <string>

#include "Descriptor.h"
#include "devices/ByteQueue.h"
#include "devices/ends/FarEnd.h"

/// A far end that is reached by one descriptor, which a derived class opens.
class StreamEnd : public FarEnd {
 public:
  StreamEnd(std::string device, EventLog& log);

  bool IsConnected() const override {
    return static_cast<bool>(m_stream);
  }
  pollfd Interest(bool listening) const override;
  void Send(std::string_view bytes) override;
  void Deliver() override;
  bool HasToDeliver() const override {
    return !m_queue.IsEmpty();
  }
  std::size_t Receive(char* buffer, std::size_t size) override;

 protected:
  const std::string& Device() const {
    return m_device;
  }
  /// Nobody has to wait for it from now on.
  void Use(Descriptor stream);
  void Close() {
    m_stream.Close();
  }

 private:
  const std::string m_device;
  EventLog& m_log;
  Descriptor m_stream;
  ByteQueue m_queue;
};

#endif
