#ifndef BOARDKIT_SIM_SIMULATOR_H
#define BOARDKIT_SIM_SIMULATOR_H

#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Control.h"
#include "EventLog.h"
#include "Memory.h"
#include "Options.h"
#include "Sandbox.h"
#include "SerialLine.h"
#include "Signals.h"
#include "Supervisor.h"
#include "Watchdog.h"

/// The board: its devices, the application on it, and the loop that serves both.
class Simulator {
 public:
  /// Sets everything up.
  /// @throws SetupError; nothing is left then.
  explicit Simulator(const Options& options);

  /// Runs the application to its end, or to the reset.
  /// @returns the exit status.
  int Run();

 private:
  void MakeSandbox();
  void RefuseRootOnThisNetwork() const;
  void WaitForEvents();
  void Answer(const TrappedCall& call);
  void AnswerIoctl(const TrappedCall& call);
  void AnswerOpen(const TrappedCall& call);
  void HandOnSignals();
  int Reset(const std::string& circumstance);
  int EndStatus();
  void Drain();

  std::string Obey(const std::string& command);
  std::optional<std::string> ObeyOnLine(const std::string& verb, const std::vector<std::string>& words);
  SerialLine& LineOf(const std::string& path);

  const Options m_options;
  Signals m_signals;
  EventLog m_log;
  std::list<SerialLine> m_lines;
  std::unique_ptr<Control> m_control;
  std::unique_ptr<Sandbox> m_sandbox;
  std::unique_ptr<Memory> m_memory;
  std::unique_ptr<Watchdog> m_watchdog;
  std::unique_ptr<Supervisor> m_supervisor;
};

#endif
