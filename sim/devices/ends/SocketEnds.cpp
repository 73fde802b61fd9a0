#include "devices/ends/SocketEnds.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <utility>

#include "SetupError.h"
#include "UnixSocket.h"

namespace {

constexpr time_t kConnectTime = 5;                // seconds, at the start
constexpr std::chrono::milliseconds kRetry{200};  // before a lost one is tried again
constexpr int kGreatestPort = 0xFFFF;

/// @returns the host and, after the last colon, the port.
std::pair<std::string, std::string> HostAndPort(const std::string& target) {
  return {target.substr(0, target.rfind(':')), target.substr(target.rfind(':') + 1)};
}

bool IsNumber(const std::string& text) {
  return text.find_first_not_of("0123456789") == std::string::npos;
}

bool IsPort(const std::string& number) {
  return !number.empty() && number.size() <= 5 && std::stoi(number) <= kGreatestPort;
}

SocketAddress MakeAddress(const void* address, socklen_t size) {
  SocketAddress made;
  std::memcpy(&made.storage, address, size);
  made.size = size;
  return made;
}

SocketAddress UnixAddress(const std::string& path, const std::string& what) {
  const sockaddr_un address = MakeUnixAddress(path, what);
  return MakeAddress(&address, sizeof address);
}

}  // namespace

pollfd ConnectingEnd::Interest(bool listening, bool sending) const {
  return m_pending ? pollfd{m_pending.Get(), POLLOUT, 0} : StreamEnd::Interest(listening, sending);
}

std::optional<ConnectingEnd::Clock::time_point> ConnectingEnd::Next() const {
  return IsConnected() || m_pending ? std::nullopt : std::make_optional(m_next);
}

void ConnectingEnd::Look() {
  if (IsConnected()) {
    return;
  }
  if (m_pending) {
    pollfd wait{m_pending.Get(), POLLOUT, 0};
    if (::poll(&wait, 1, 0) != 1) {
      return;
    }
    int error = 0;
    socklen_t size = sizeof error;
    ::getsockopt(m_pending.Get(), SOL_SOCKET, SO_ERROR, &error, &size);
    Descriptor made = std::move(m_pending);
    m_pending.Close();
    if (error == 0) {
      Use(std::move(made));
      Log("far-end here");
    } else {
      Postpone();
    }
  } else if (Clock::now() >= m_next) {
    Seek();
  }
}

void ConnectingEnd::Connect(std::vector<SocketAddress> addresses, const std::string& what) {
  m_addresses = std::move(addresses);
  int error = 0;
  for (const SocketAddress& address : m_addresses) {
    Descriptor stream(::socket(address.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    // Bounds the wait for a host that does not answer.
    const timeval wait{kConnectTime, 0};
    ::setsockopt(stream.Get(), SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
    if (::connect(stream.Get(), address.Get(), address.size) == 0) {
      Use(std::move(stream));
      return;
    }
    error = errno == EINPROGRESS ? ETIMEDOUT : errno;
  }
  throw SetupError(what, error);
}

void ConnectingEnd::Gone() {
  Postpone();
}

/// Begins a connection. A later look shows whether it succeeded.
void ConnectingEnd::Seek() {
  const SocketAddress& address = m_addresses[m_tried++ % m_addresses.size()];
  Descriptor stream(::socket(address.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (::connect(stream.Get(), address.Get(), address.size) == 0 || errno == EINPROGRESS) {
    m_pending = std::move(stream);
    Look();
  } else {
    Postpone();
  }
}

void ConnectingEnd::Postpone() {
  m_next = Clock::now() + kRetry;
}

TcpEnd::TcpEnd(const std::string& device, const std::string& target, EventLog& log) : ConnectingEnd(device, log) {
  const auto [host, port] = HostAndPort(target);
  // An IPv6 address is in brackets.
  const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
  const std::string name = bracketed ? host.substr(1, host.size() - 2) : host;
  const std::string what = "the far end of " + device + ", " + host + ':' + port + ", can't be reached";
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (const int result = ::getaddrinfo(name.c_str(), port.c_str(), &hints, &found); result != 0) {
    throw SetupError(what + ": " + ::gai_strerror(result));
  }
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> list(found, ::freeaddrinfo);
  std::vector<SocketAddress> addresses;
  for (const addrinfo* address = found; address != nullptr; address = address->ai_next) {
    addresses.push_back(MakeAddress(address->ai_addr, address->ai_addrlen));
  }
  Connect(std::move(addresses), what);
}

bool TcpEnd::IsTarget(const std::string& text) {
  const auto [host, port] = HostAndPort(text);
  return text.find(':') != std::string::npos && !port.empty() && (!IsNumber(port) || IsPort(port));
}

UnixEnd::UnixEnd(const std::string& device, const std::string& path, EventLog& log) : ConnectingEnd(device, log) {
  const std::string what = "the far end of " + device + ", " + path + ", can't be reached";
  Connect({UnixAddress(path, what)}, what);
}

pollfd ListeningEnd::Interest(bool listening, bool sending) const {
  return IsConnected() ? StreamEnd::Interest(listening, sending) : pollfd{m_listener.Get(), POLLIN, 0};
}

void ListeningEnd::Look() {
  if (!IsConnected()) {
    if (Descriptor stream(::accept4(m_listener.Get(), nullptr, nullptr, SOCK_CLOEXEC)); stream) {
      Use(std::move(stream));
      Log("far-end here");
    }
  }
}

void ListeningEnd::Listen(const SocketAddress& address, const std::string& what) {
  m_listener = Descriptor(::socket(address.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  // The connections of a board that has ended are still known for a while.
  const int on = 1;
  ::setsockopt(m_listener.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (::bind(m_listener.Get(), address.Get(), address.size) == -1 || ::listen(m_listener.Get(), 1) == -1) {
    throw SetupError(what, errno);
  }
}

TcpListenEnd::TcpListenEnd(const std::string& device, const std::string& port, EventLog& log)
    : ListeningEnd(device, log) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
  address.sin_port = ::htons(static_cast<std::uint16_t>(std::stoi(port)));
  Listen(MakeAddress(&address, sizeof address), "the far end of " + device + " can't listen at port " + port);
}

bool TcpListenEnd::IsTarget(const std::string& text) {
  return IsNumber(text) && IsPort(text) && std::stoi(text) != 0;
}

UnixListenEnd::UnixListenEnd(const std::string& device, const std::string& path, EventLog& log)
    : ListeningEnd(device, log), m_path(path) {
  const std::string what = "the far end of " + device + " can't listen at " + path;
  const SocketAddress address = UnixAddress(path, what);
  RemoveStaleSocket(path);
  Listen(address, what);
}

UnixListenEnd::~UnixListenEnd() {
  ::unlink(m_path.c_str());
}
