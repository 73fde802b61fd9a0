#include "board/ControlSocket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "SetupError.h"

namespace {

constexpr std::size_t kLongestCommand = 65536;  // bytes

}  // namespace

ControlSocket::ControlSocket(const std::string& path, const Commands& commands, EventLoop& loop)
    : m_path(path),
      m_commands(commands),
      m_loop(loop),
      m_listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
  const std::string what = "the control socket " + path + " can't be made";
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    throw SetupError(what, ENAMETOOLONG);
  }
  path.copy(address.sun_path, path.size());
  const auto* name = reinterpret_cast<const sockaddr*>(&address);

  int result = ::bind(m_listener.Get(), name, sizeof address);
  if (result == -1 && errno == EADDRINUSE) {
    // What a killed simulator has left behind answers nobody any more. (Nor does a file, which is not ours.)
    const Descriptor probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    struct stat status {};
    if (::lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode) &&
        ::connect(probe.Get(), name, sizeof address) == -1 && errno == ECONNREFUSED) {
      ::unlink(path.c_str());
      result = ::bind(m_listener.Get(), name, sizeof address);
    } else {
      errno = EADDRINUSE;
    }
  }
  if (result == -1 || ::listen(m_listener.Get(), SOMAXCONN) == -1) {
    throw SetupError(what, errno);
  }
  m_registration = m_loop.Watch([this] { return pollfd{m_listener.Get(), POLLIN, 0}; }, [this](short) { Accept(); });
}

ControlSocket::~ControlSocket() {
  ::unlink(m_path.c_str());
}

void ControlSocket::Accept() {
  Descriptor socket(::accept4(m_listener.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!socket) {
    return;
  }
  const auto client = m_clients.insert(m_clients.end(), {std::move(socket), "", {}});
  client->registration = m_loop.Watch(
      [client] {
        return pollfd{client->socket.Get(), POLLIN, 0};
      },
      [this, client](short) {
        if (!Serve(*client)) {
          m_clients.erase(client);
        }
      });
}

/// @returns whether the client is still there.
bool ControlSocket::Serve(Client& client) const {
  char piece[4096];
  const ssize_t got = ::recv(client.socket.Get(), piece, sizeof piece, 0);
  if (got <= 0) {
    return got == -1 && errno == EAGAIN;
  }
  client.pending.append(piece, static_cast<std::size_t>(got));

  for (std::size_t end = 0; (end = client.pending.find('\n')) != std::string::npos;) {
    const std::string command = client.pending.substr(0, end);
    client.pending.erase(0, end + 1);
    std::string answer;
    try {
      answer = m_commands.Obey(command);
      answer = answer.empty() ? "ok" : "ok " + answer;
    } catch (const SetupError& error) {
      answer = std::string("error ") + error.what();
    }
    answer += '\n';
    // Whoever does not read the answers does without.
    ::send(client.socket.Get(), answer.data(), answer.size(), MSG_NOSIGNAL);
  }
  return client.pending.size() <= kLongestCommand;
}
