#ifndef BOARDKIT_SIM_FAREND_H
#define BOARDKIT_SIM_FAREND_H

#include <poll.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "Descriptor.h"
#include "EventLog.h"
#include "Options.h"

/// What a serial line leads to: a pseudo-terminal, a socket or a command of the machine, or nothing.
///
/// (The echo is the line's own: it sends back itself.)
class FarEnd {
 public:
  /// Connects.
  /// @throws SetupError if that fails.
  FarEnd(const TtyOptions& options, EventLog& log);
  ~FarEnd();
  FarEnd(const FarEnd&) = delete;
  FarEnd& operator=(const FarEnd&) = delete;

  bool IsEcho() const {
    return m_isEcho;
  }
  /// Whether somebody is there.
  bool IsConnected() const {
    return m_isEcho || m_stream;
  }
  int Get() const {
    return m_stream.Get();
  }
  bool HasToWrite() const {
    return !m_queue.empty();
  }

  /// Sends the bytes, or queues them. What is too much is counted and dropped.
  void Send(std::string_view bytes);
  /// Writes what is queued, as far as that goes.
  void Flush();
  /// Reads what has come, into the buffer.
  /// @returns the number of bytes; 0 if there are none, or nobody is there any more.
  std::size_t Receive(char* buffer, std::size_t size);

 private:
  void OpenPty(const std::string& link);
  void Connect(const std::string& host, const std::string& port);
  void ConnectUnix(const std::string& path);
  void Execute(const std::string& command);
  void Disconnect();

  const std::string m_device;
  EventLog& m_log;
  bool m_isEcho = false;
  Descriptor m_stream;
  Descriptor m_slave;  // a pseudo-terminal's other side: held, so that users of it may come and go
  std::string m_link;  // to remove
  pid_t m_command = -1;
  std::string m_queue;
  std::uint64_t m_dropped = 0;
};

#endif
