#ifndef BOARDKIT_TESTS_SIM_SOCKETS_H
#define BOARDKIT_TESTS_SIM_SOCKETS_H

#include <netinet/in.h>

#include <string>
#include <string_view>

/// The other end of a stream. No wait lasts for ever.
class Connection {
 public:
  explicit Connection(int fd);
  /// Connects to a UNIX socket as soon as it exists.
  explicit Connection(const std::string& path);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  int Get() const {
    return m_fd;
  }
  void Close();

  void Write(std::string_view bytes) const;
  /// What comes next, in one piece; empty if nothing does.
  std::string ReadSome(int milliseconds) const;
  /// That many bytes, or fewer if no more come.
  std::string Read(std::size_t size) const;
  /// The next line without its end; "(nothing)" at the end, or if it takes too long.
  std::string ReadLine();
  /// Sends a command and returns the answer.
  std::string Ask(const std::string& command);

 private:
  int m_fd;
  std::string m_pending;
};

/// A socket that listens, for one who connects.
class Listener {
 public:
  /// Of the loopback address, on a port of its own: AF_INET or AF_INET6.
  explicit Listener(int family);
  /// A UNIX socket to which every user may connect.
  explicit Listener(const std::string& path);
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  /// Whether this machine has such sockets.
  bool Works() const {
    return m_works;
  }
  std::string Port() const;
  /// @returns the connection's descriptor; -1 if nobody has called.
  int Accept() const;

 private:
  int m_fd;
  bool m_works = false;
};

#endif
