#ifndef BOARDKIT_SIM_SANDBOX_SANDBOX_H
#define BOARDKIT_SIM_SANDBOX_SANDBOX_H

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>

#include "Descriptor.h"
#include "board/Signals.h"
#include "sandbox/Channel.h"
#include "sandbox/Errors.h"
#include "sandbox/Plan.h"

/// The place where the application runs: a first process that all others descend from and that none outlives.
///
/// With namespaces, the simulated devices lie under their names in a /dev of its own, and the network is its own.
/// Without, there is nothing but the supervision of system calls.
class Sandbox {
 public:
  /// Prepares everything up to the application's start.
  /// @throws NamespacesForbidden, SetupError; nothing is left then.
  Sandbox(const Plan& plan, const Signals::State& signals);
  /// Ends all that still runs in there.
  ~Sandbox();
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  /// Gives away the other side of a node.
  Descriptor TakeNode(const std::string& path);
  /// Gives away the folder for what /sys shows of a node; none where there is no such thing.
  Descriptor TakeEntry(const std::string& path);
  /// Gives away where the supervised system calls arrive.
  Descriptor TakeListener();

  bool HasNamespaces() const {
    return m_namespaces;
  }
  /// Starts the application.
  void Go();
  void Signal(int signal) const;
  /// Ends all processes at once.
  void Kill();
  /// Whether the first process has ended, and all others with it.
  bool HasEnded();
  /// The application's wait status; nothing if it was ended from here, or from outside.
  std::optional<int> ApplicationStatus() const {
    return m_status;
  }

  /// A new terminal under the name of one that has been hung up.
  /// @throws SetupError
  Descriptor Renew(const std::string& path) const;
  /// Plugs the cable of an interface in, or out.
  /// @throws SetupError
  void SetLink(const std::string& interface, bool up) const;

 private:
  Sandbox(const Plan& plan, const Signals::State& signals, std::pair<Channel, Channel> ends);
  bool ReceiveMessage();
  void Reap(int options);

  bool m_namespaces;
  pid_t m_init = -1;
  pid_t m_application = -1;
  std::optional<int> m_status;
  std::map<std::string, Descriptor> m_nodes;  // by their paths
  std::map<std::string, Descriptor> m_entries;
  Descriptor m_listener;
  Descriptor m_peers;  // the network namespace of the interfaces' other ends
  Channel m_channel;
};

#endif
