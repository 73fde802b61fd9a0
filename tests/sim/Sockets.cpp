#include "Sockets.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "Board.h"

namespace {

constexpr int kLongEnough = 20000;  // ms

sockaddr_un AddressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

}  // namespace

Connection::Connection(int fd) : m_fd(fd) {
  EXPECT_NE(fd, -1) << "nobody has called";
}

Connection::Connection(const std::string& path) : m_fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  const sockaddr_un address = AddressOf(path);
  EXPECT_TRUE(Eventually([&] {
    return ::connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  })) << path
      << " can't be reached";
}

Connection::~Connection() {
  Close();
}

void Connection::Close() {
  if (m_fd != -1) {
    ::close(m_fd);
  }
  m_fd = -1;
}

void Connection::Write(std::string_view bytes) const {
  ssize_t written = ::send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  if (written == -1 && errno == ENOTSOCK) {
    written = ::write(m_fd, bytes.data(), bytes.size());  // a terminal
  }
  EXPECT_EQ(written, static_cast<ssize_t>(bytes.size())) << std::strerror(errno);
}

std::string Connection::ReadSome(int milliseconds) const {
  pollfd wait{m_fd, POLLIN, 0};
  std::array<char, 65536> piece{};
  const ssize_t got = ::poll(&wait, 1, milliseconds) == 1 ? ::read(m_fd, piece.data(), piece.size()) : 0;
  return {piece.data(), got > 0 ? static_cast<std::size_t>(got) : 0};
}

std::string Connection::Read(std::size_t size) const {
  std::string text;
  pollfd wait{m_fd, POLLIN, 0};
  std::array<char, 65536> piece{};
  while (text.size() < size && ::poll(&wait, 1, kLongEnough) == 1) {
    const ssize_t got = ::read(m_fd, piece.data(), std::min(piece.size(), size - text.size()));
    if (got <= 0) {
      break;
    }
    text.append(piece.data(), static_cast<std::size_t>(got));
  }
  return text;
}

std::string Connection::ReadLine() {
  std::string line;
  while (!TakeLine(m_pending, line)) {
    const std::string piece = ReadSome(kLongEnough);
    if (piece.empty()) {
      return kNothing;
    }
    m_pending += piece;
  }
  return line;
}

std::string Connection::Ask(const std::string& command) {
  Write(command + '\n');
  return ReadLine();
}

Listener::Listener(int family) : m_fd(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in four{};
  four.sin_family = AF_INET;
  four.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  sockaddr_in6 six{};
  six.sin6_family = AF_INET6;
  six.sin6_addr = in6addr_loopback;
  const auto* address =
      family == AF_INET ? reinterpret_cast<const sockaddr*>(&four) : reinterpret_cast<const sockaddr*>(&six);
  const socklen_t size = family == AF_INET ? sizeof four : sizeof six;
  m_works = ::bind(m_fd, address, size) == 0 && ::listen(m_fd, 1) == 0;
}

Listener::Listener(const std::string& path) : m_fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  const sockaddr_un address = AddressOf(path);
  ::unlink(path.c_str());
  m_works = ::bind(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
            ::chmod(path.c_str(), 0777) == 0 && ::listen(m_fd, 1) == 0;
  EXPECT_TRUE(m_works) << path << ": " << std::strerror(errno);
}

Listener::~Listener() {
  ::close(m_fd);
}

std::string Listener::Port() const {
  // The port stands in the same place in both kinds of addresses.
  sockaddr_in6 address{};
  socklen_t size = sizeof address;
  EXPECT_EQ(::getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &size), 0);
  return std::to_string(ntohs(address.sin6_port));
}

int Listener::Accept() const {
  pollfd wait{m_fd, POLLIN, 0};
  return ::poll(&wait, 1, kLongEnough) == 1 ? ::accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC) : -1;
}
