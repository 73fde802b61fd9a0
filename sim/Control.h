#ifndef BOARDKIT_SIM_CONTROL_H
#define BOARDKIT_SIM_CONTROL_H

#include <functional>
#include <list>
#include <string>
#include <vector>

#include "Descriptor.h"

/// A socket on which a technician, or a test, gives commands: one a line, each answered by a line.
class Control {
 public:
  /// Carries out a command. What it returns, or the sentence that it throws as a SetupError, is the answer.
  using Handler = std::function<std::string(const std::string& command)>;

  /// @throws SetupError if the socket can't be made.
  Control(const std::string& path, Handler handler);
  ~Control();
  Control(const Control&) = delete;
  Control& operator=(const Control&) = delete;

  /// All descriptors to wait for.
  std::vector<int> Descriptors() const;
  /// Accepts, reads and answers, without waiting.
  void Serve();

 private:
  struct Client {
    Descriptor socket;
    std::string pending;
  };
  bool Serve(Client& client);

  const std::string m_path;
  const Handler m_handler;
  Descriptor m_listener;
  std::list<Client> m_clients;
};

#endif
