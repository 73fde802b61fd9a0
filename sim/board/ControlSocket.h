#ifndef BOARDKIT_SIM_BOARD_CONTROLSOCKET_H
#define BOARDKIT_SIM_BOARD_CONTROLSOCKET_H

#include <list>
#include <string>

#include "Descriptor.h"
#include "board/Commands.h"
#include "board/EventLoop.h"

/// A socket on which a technician, or a test, gives commands: one per line, each answered by a line.
class ControlSocket {
 public:
  /// @throws SetupError if the socket can't be made.
  ControlSocket(const std::string& path, const Commands& commands, EventLoop& loop);
  ~ControlSocket();
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;

 private:
  struct Client {
    Descriptor socket;
    std::string pending;
    EventLoop::Registration registration;
  };
  void Accept();
  bool Serve(Client& client) const;

  const std::string m_path;
  const Commands& m_commands;
  EventLoop& m_loop;
  Descriptor m_listener;
  std::list<Client> m_clients;
  EventLoop::Registration m_registration;
};

#endif
