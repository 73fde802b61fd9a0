#include "sandbox/Sandbox.h"

#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <functional>
#include <utility>

#include "sandbox/FirstProcess.h"
#include "sandbox/Namespaces.h"
#include "sandbox/Rights.h"
#include "sandbox/Users.h"

namespace {

/// Does something in a process of its own and waits for it.
/// @returns the exit status.
int InChild(const std::function<int()>& action) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::_exit(action());
  }
  int status = -1;
  while (child != -1 && ::waitpid(child, &status, 0) == -1 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

Sandbox::Sandbox(const Plan& plan, const Signals::State& signals) : Sandbox(plan, signals, Channel::MakePair()) {}

Sandbox::Sandbox(const Plan& plan, const Signals::State& signals, std::pair<Channel, Channel> ends)
    : m_namespaces(plan.namespaces), m_channel(std::move(ends.first)) {
  Channel theirs = std::move(ends.second);
  if (!m_namespaces) {
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    for (const Node& node : plan.nodes) {
      m_nodes[node.path] = MakeNamelessNode(node);
    }
  }

  RaiseLimits();
  bool hasUsers = false;
  m_init = CloneForPlan(plan, hasUsers);
  if (m_init == 0) {
    m_channel.Close();
    RunFirstProcess(plan, hasUsers, theirs, signals);
  }
  if (errno == EAGAIN || errno == ENOMEM || !m_namespaces) {
    Require(m_init != -1, "no process can be started");
  }
  Require<NamespacesForbidden>(m_init != -1, "namespaces can't be made");
  theirs.Close();

  try {
    if (hasUsers) {
      MapUsersOf(m_init);
    }
    m_channel.SendGo();
    while (!m_listener) {
      if (!ReceiveMessage()) {
        throw SetupError("The first process has ended before the application began.");
      }
    }
  } catch (const SetupError&) {
    Kill();
    Reap(0);
    throw;
  }
}

Sandbox::~Sandbox() {
  if (m_init != -1) {
    Kill();
    Reap(0);
  }
}

Descriptor Sandbox::TakeNode(const std::string& path) {
  return std::move(m_nodes[path]);
}

Descriptor Sandbox::TakeEntry(const std::string& path) {
  return std::move(m_entries[path]);
}

Descriptor Sandbox::TakeListener() {
  return std::move(m_listener);
}

void Sandbox::Go() {
  m_channel.SendGo();
}

void Sandbox::Signal(int signal) const {
  // Likewise never without a process. Once it has ended, its number may be another one's.
  if (m_application > 0 && !m_status) {
    ::kill(m_application, signal);
  }
}

void Sandbox::Kill() {
  // Never without a process: -1 would mean every process of the machine.
  if (m_init != -1) {
    // Without namespaces the first process has to end the others before itself.
    ::kill(m_init, m_namespaces ? SIGKILL : SIGTERM);
  }
}

bool Sandbox::HasEnded() {
  if (m_init != -1) {
    Reap(WNOHANG);
  }
  return m_init == -1;
}

Descriptor Sandbox::Renew(const std::string& path) const {
  if (!m_namespaces) {
    return MakeNamelessNode({path, Node::Kind::kTerminal});
  }
  const auto ends = Channel::MakePair();
  const int status = InChild([&] {
    JoinMounts(m_init);
    try {
      ends.second.Send(Message(Message::Kind::kNode), RenewNode(path).Get());
    } catch (const SetupError&) {
      return 1;
    }
    return 0;
  });
  if (status != 0) {
    throw SetupError(path + " can't be mounted again");
  }
  Message message;
  return ends.first.Receive(message, nullptr);
}

void Sandbox::SetLink(const std::string& interface, bool up) const {
  const std::string peer = PeerOf(interface);
  if (peer.empty() || !m_peers) {
    throw SetupError("there is no simulated interface " + interface);
  }
  const int status = InChild([&] {
    JoinUsers(m_init);
    if (::setns(m_peers.Get(), CLONE_NEWNET) == -1) {
      return 1;
    }
    try {
      RunIp("link set " + peer + (up ? " up\n" : " down\n"));
    } catch (const SetupError&) {
      return 1;
    }
    return 0;
  });
  if (status != 0) {
    throw SetupError("the cable of " + interface + " can't be moved");
  }
}

bool Sandbox::ReceiveMessage() {
  Message message;
  pid_t sender = -1;
  Descriptor descriptor = m_channel.Receive(message, &sender);
  switch (message.kind) {
    case Message::Kind::kNode:
      m_nodes[message.text] = std::move(descriptor);
      return true;
    case Message::Kind::kEntry:
      m_entries[message.text] = std::move(descriptor);
      return true;
    case Message::Kind::kNetwork:
      m_peers = std::move(descriptor);
      return true;
    case Message::Kind::kListener:
      m_listener = std::move(descriptor);
      m_application = sender;
      return true;
    case Message::Kind::kEnded:
      m_status = message.status;
      return true;
    case Message::Kind::kForbidden:
      throw NamespacesForbidden(message.text);
    case Message::Kind::kFailed:
      throw SetupError(message.text);
    case Message::Kind::kNothing:
      break;
  }
  return false;
}

void Sandbox::Reap(int options) {
  pid_t ended = 0;
  int status = 0;
  while ((ended = ::waitpid(m_init, &status, options)) == -1 && errno == EINTR) {
  }
  if (ended != m_init) {
    return;
  }
  if (!m_namespaces && WIFSIGNALED(status)) {
    // If it was killed, it could not end the others: they are now children of this process.
    EndDescendants();
  }
  m_init = -1;
  try {
    while (ReceiveMessage()) {
    }
  } catch (const SetupError&) {
    // It has ended in any case.
  }
}
