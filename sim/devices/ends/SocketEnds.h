#ifndef BOARDKIT_SIM_DEVICES_ENDS_SOCKETENDS_H
#define BOARDKIT_SIM_DEVICES_ENDS_SOCKETENDS_H

#include <sys/socket.h>

#include <string>
#include <vector>

#include "devices/ends/StreamEnd.h"

/// The address of a socket, of any family.
struct SocketAddress {
  sockaddr_storage storage{};
  socklen_t size = 0;

  const sockaddr* Get() const {
    return reinterpret_cast<const sockaddr*>(&storage);
  }
};

/// A connection to a listening socket. If it ends, a new one is tried.
class ConnectingEnd : public StreamEnd {
 public:
  using StreamEnd::StreamEnd;

  pollfd Interest(bool listening, bool sending) const override;
  std::optional<Clock::time_point> Next() const override;
  void Look() override;

 protected:
  /// Connects to the first address that answers.
  /// @throws SetupError with those words if none does.
  void Connect(std::vector<SocketAddress> addresses, const std::string& what);
  void Gone() override;

 private:
  void Seek();
  void Postpone();

  std::vector<SocketAddress> m_addresses;
  std::size_t m_tried = 0;  // how many of the addresses, lately
  Descriptor m_pending;     // a connection that is being made
  Clock::time_point m_next;
};

class TcpEnd : public ConnectingEnd {
 public:
  /// @param target HOST:PORT.
  /// @throws SetupError
  TcpEnd(const std::string& device, const std::string& target, EventLog& log);

  static bool IsTarget(const std::string& text);
};

class UnixEnd : public ConnectingEnd {
 public:
  /// @throws SetupError
  UnixEnd(const std::string& device, const std::string& path, EventLog& log);
};

/// A socket that listens. Connections are accepted one after the other.
class ListeningEnd : public StreamEnd {
 public:
  using StreamEnd::StreamEnd;

  pollfd Interest(bool listening, bool sending) const override;
  void Look() override;

 protected:
  /// @throws SetupError
  void Listen(const SocketAddress& address, const std::string& what);

 private:
  Descriptor m_listener;
};

/// On the loopback address.
class TcpListenEnd : public ListeningEnd {
 public:
  /// @throws SetupError
  TcpListenEnd(const std::string& device, const std::string& port, EventLog& log);

  static bool IsTarget(const std::string& text);
};

class UnixListenEnd : public ListeningEnd {
 public:
  /// @throws SetupError
  UnixListenEnd(const std::string& device, const std::string& path, EventLog& log);
  ~UnixListenEnd() override;
  UnixListenEnd(const UnixListenEnd&) = delete;
  UnixListenEnd& operator=(const UnixListenEnd&) = delete;

 private:
  const std::string m_path;
};

#endif
