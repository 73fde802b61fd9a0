#ifndef BOARDKIT_SIM_SANDBOX_H
#define BOARDKIT_SIM_SANDBOX_H

#include <sys/types.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Descriptor.h"
#include "Options.h"
#include "SetupError.h"
#include "Signals.h"

/// This machine does not allow what the private /dev takes; the opens of devices can be answered instead.
class NamespacesForbidden : public SetupError {
 public:
  using SetupError::SetupError;
};

/// What the application has as its devices, from the other side.
struct SandboxDevices {
  std::vector<Descriptor> terminals;  // their masters, one a serial port
  Descriptor watchdog;                // a FIFO
  Descriptor memory;                  // a file
  Descriptor listener;                // of the supervised system calls
};

/// The place where the application runs: a first process that all others descend from and that none outlives.
///
/// With namespaces, the simulated devices lie under their names in a /dev of its own, and the network is its own.
/// Without, there is nothing but the supervision of system calls.
class Sandbox {
 public:
  /// Prepares everything up to the application's start.
  /// @throws NamespacesForbidden, SetupError; nothing is left then.
  Sandbox(const Options& options, bool namespaces, const Signals::State& signals);
  /// Ends all that still runs in there.
  ~Sandbox();
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  /// Gives away what the simulation is made with.
  SandboxDevices TakeDevices() {
    return std::move(m_devices);
  }
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
  Descriptor Replug(const std::string& path) const;
  /// The cable of an interface in, or out.
  /// @throws SetupError
  void SetLink(const std::string& interface, bool up) const;

 private:
  bool ReceiveMessage();
  void Reap(int options);
  void Join(const std::string& kind) const;

  bool m_namespaces;
  pid_t m_init = -1;
  pid_t m_application = -1;
  std::optional<int> m_status;
  SandboxDevices m_devices;
  Descriptor m_socket;
  Descriptor m_peers;  // the network namespace of the interfaces' other ends
};

#endif
