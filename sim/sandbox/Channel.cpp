#include "sandbox/Channel.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "sandbox/Errors.h"

Message::Message(Kind what, const std::string& words) : kind(what) {
  words.copy(text, sizeof text - 1);
}

std::pair<Channel, Channel> Channel::MakePair() {
  int ends[2];
  Require(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0, "no socket can be made");
  std::pair<Channel, Channel> pair{Channel(ends[0]), Channel(ends[1])};
  // Gives the processes inside by their numbers outside.
  const int on = 1;
  ::setsockopt(pair.first.Get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
  return pair;
}

void Channel::Send(const Message& message, int descriptor) const {
  iovec part{const_cast<Message*>(&message), sizeof message};  // NOLINT(cppcoreguidelines-pro-type-const-cast)
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof descriptor)] = {};
  if (descriptor != -1) {
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    cmsghdr* rights = CMSG_FIRSTHDR(&header);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof descriptor);
    std::memcpy(CMSG_DATA(rights), &descriptor, sizeof descriptor);
  }
  ::sendmsg(m_socket.Get(), &header, MSG_NOSIGNAL);
}

Descriptor Channel::Receive(Message& message, pid_t* sender) const {
  message = Message();
  iovec part{&message, sizeof message};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int)) + CMSG_SPACE(sizeof(ucred))] = {};
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  header.msg_control = control;
  header.msg_controllen = sizeof control;
  ssize_t size = 0;
  while ((size = ::recvmsg(m_socket.Get(), &header, MSG_CMSG_CLOEXEC)) == -1 && errno == EINTR) {
  }

  int descriptor = -1;
  for (cmsghdr* extra = CMSG_FIRSTHDR(&header); size > 0 && extra != nullptr; extra = CMSG_NXTHDR(&header, extra)) {
    if (extra->cmsg_type == SCM_RIGHTS) {
      std::memcpy(&descriptor, CMSG_DATA(extra), sizeof descriptor);
    } else if (extra->cmsg_type == SCM_CREDENTIALS && sender != nullptr) {
      ucred credentials{};
      std::memcpy(&credentials, CMSG_DATA(extra), sizeof credentials);
      *sender = credentials.pid;
    }
  }
  return Descriptor(descriptor);
}

void Channel::SendGo() const {
  const char go = 1;
  ::send(m_socket.Get(), &go, sizeof go, MSG_NOSIGNAL);
}

bool Channel::AwaitGo() const {
  char go = 0;
  return ::recv(m_socket.Get(), &go, sizeof go, 0) == sizeof go;
}
