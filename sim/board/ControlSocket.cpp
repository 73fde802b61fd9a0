#include "board/ControlSocket.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "SetupError.h"
#include "UnixSocket.h"

namespace {

constexpr std::size_t kLongestCommand = 65536;  // bytes

}  // namespace

ControlSocket::ControlSocket(const std::string& path, const Commands& commands, EventLoop& loop)
    : m_path(path),
      m_commands(commands),
      m_loop(loop),
      m_listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
  const std::string what = "the control socket " + path + " can't be made";
  const sockaddr_un address = MakeUnixAddress(path, what);
  RemoveStaleSocket(path);
  if (::bind(m_listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1 ||
      ::listen(m_listener.Get(), SOMAXCONN) == -1) {
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
    // A client that does not read its answers loses them.
    ::send(client.socket.Get(), answer.data(), answer.size(), MSG_NOSIGNAL);
  }
  return client.pending.size() <= kLongestCommand;
}
