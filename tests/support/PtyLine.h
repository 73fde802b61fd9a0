#ifndef BOARDKIT_TESTS_PTYLINE_H
#define BOARDKIT_TESTS_PTYLINE_H

#include <cstddef>
#include <string>

#include "ScriptedKernel.h"

/// A pseudo-terminal: a tty of the real kernel whose far end is held here.
///
/// The near end is held open too, so that its attributes last and can be looked at while no port is open on it.
class PtyLine {
 public:
  PtyLine();
  ~PtyLine();
  PtyLine(const PtyLine&) = delete;
  PtyLine& operator=(const PtyLine&) = delete;

  const std::string& Device() const;
  int NearEnd() const;

  /// Sends all of @p bytes from the far end.
  void Send(const std::string& bytes) const;
  /// Sends @p bytes and waits until the near end has them: the kernel carries them there in its own time.
  void SendAndWait(const std::string& bytes) const;
  /// Takes @p count bytes at the far end, and waits for them.
  std::string Receive(std::size_t count) const;
  void HangUp();
  /// Ends what another thread sends or receives at the far end, as failed.
  void GiveUp() const;

 private:
  std::string m_device;
  int m_farEnd;
  int m_nearEnd;
  int m_givenUp;  // an event

  /// Waits until @p events are there at the far end.
  void WaitFor(short events) const;
};

/// Stands in for the requests that a pseudo-terminal does not know, while it lives: the modem bits, which closing
/// needs.
class PtyModem {
 public:
  PtyModem();

  ScriptedKernel kernel;
  int bits = 0;
};

#endif
