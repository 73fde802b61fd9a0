#ifndef BOARDKIT_SIM_SANDBOX_CHANNEL_H
#define BOARDKIT_SIM_SANDBOX_CHANNEL_H

#include <sys/types.h>

#include <climits>
#include <string>
#include <utility>

#include "Descriptor.h"

/// What the processes inside send to the simulator.
struct Message {
  enum class Kind : char { kNothing, kNode, kEntry, kNetwork, kListener, kForbidden, kFailed, kEnded };

  Kind kind = Kind::kNothing;
  int status = 0;
  char text[PATH_MAX + 256] = {};  // with a path in it

  Message() = default;
  explicit Message(Kind what) : kind(what) {}
  Message(Kind what, const std::string& words);
};

/// One end of the connection between the simulator and the processes inside.
class Channel {
 public:
  /// Both ends. The first one is the simulator's.
  /// @throws SetupError
  static std::pair<Channel, Channel> MakePair();

  int Get() const {
    return m_socket.Get();
  }
  void Close() {
    m_socket.Close();
  }

  void Send(const Message& message, int descriptor = -1) const;
  /// Waits for a message, which is none if the other end has gone.
  /// @param sender its process, in the numbering of the receiver; may be null.
  /// @returns the descriptor that came with it.
  Descriptor Receive(Message& message, pid_t* sender) const;

  /// Lets the application begin.
  void SendGo() const;
  /// @returns false if the simulator has gone.
  bool AwaitGo() const;

 private:
  explicit Channel(int socket) : m_socket(socket) {}

  Descriptor m_socket;
};

#endif
