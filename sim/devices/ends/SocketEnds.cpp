#include "devices/ends/SocketEnds.h"

#include <netdb.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <ctime>
#include <memory>
#include <utility>

#include "SetupError.h"

namespace {

constexpr time_t kConnectTime = 5;  // seconds
constexpr int kGreatestPort = 0xFFFF;

/// @returns the host and, behind the last colon, the port.
std::pair<std::string, std::string> HostAndPort(const std::string& target) {
  return {target.substr(0, target.rfind(':')), target.substr(target.rfind(':') + 1)};
}

}  // namespace

TcpEnd::TcpEnd(const std::string& device, const std::string& target, EventLog& log) : StreamEnd(device, log) {
  const auto [host, port] = HostAndPort(target);
  // An address of version 6 stands in brackets.
  const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
  const std::string name = bracketed ? host.substr(1, host.size() - 2) : host;
  const std::string what = "the far end of " + device + ", " + host + ':' + port + ", can't be reached";
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (const int result = ::getaddrinfo(name.c_str(), port.c_str(), &hints, &found); result != 0) {
    throw SetupError(what + ": " + ::gai_strerror(result));
  }
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> addresses(found, ::freeaddrinfo);

  int error = 0;
  for (const addrinfo* address = found; address != nullptr; address = address->ai_next) {
    Descriptor stream(::socket(address->ai_family, address->ai_socktype | SOCK_CLOEXEC, address->ai_protocol));
    // Bounds the wait for a host that does not answer.
    const timeval wait{kConnectTime, 0};
    ::setsockopt(stream.Get(), SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
    if (::connect(stream.Get(), address->ai_addr, address->ai_addrlen) == 0) {
      Use(std::move(stream));
      return;
    }
    error = errno == EINPROGRESS ? ETIMEDOUT : errno;
  }
  throw SetupError(what, error);
}

bool TcpEnd::IsTarget(const std::string& text) {
  const auto [host, port] = HostAndPort(text);
  const bool isNumber = port.find_first_not_of("0123456789") == std::string::npos;
  return text.find(':') != std::string::npos && !port.empty() &&
         (!isNumber || (port.size() <= 5 && std::stoi(port) <= kGreatestPort));
}

UnixEnd::UnixEnd(const std::string& device, const std::string& path, EventLog& log) : StreamEnd(device, log) {
  const std::string what = "the far end of " + device + ", " + path + ", can't be reached";
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    throw SetupError(what, ENAMETOOLONG);
  }
  path.copy(address.sun_path, path.size());
  Descriptor stream(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!stream || ::connect(stream.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) {
    throw SetupError(what, errno);
  }
  Use(std::move(stream));
}
