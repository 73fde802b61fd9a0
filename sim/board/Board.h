#ifndef BOARDKIT_SIM_BOARD_BOARD_H
#define BOARDKIT_SIM_BOARD_BOARD_H

#include <memory>
#include <optional>
#include <string>

#include "Options.h"
#include "board/Answers.h"
#include "board/Backplane.h"
#include "board/Commands.h"
#include "board/ControlSocket.h"
#include "board/EventLog.h"
#include "board/EventLoop.h"
#include "board/Signals.h"
#include "devices/Device.h"
#include "sandbox/Sandbox.h"
#include "sandbox/Supervisor.h"

/// The board: its devices, the application on it, and the loop that serves both.
class Board {
 public:
  /// Sets everything up.
  /// @throws SetupError; nothing is left then.
  explicit Board(const Options& options);
  Board(const Board&) = delete;
  Board& operator=(const Board&) = delete;

  /// Runs the application to its end, or to the last reset.
  /// @returns the exit status.
  int Run();

 private:
  void Start();
  /// @returns the application's status, or that of a reset.
  int RunOnce();
  Plan MakePlan() const;
  void MakeSandbox();
  void RefuseRootOnThisNetwork() const;
  void AnswerCall();
  bool HandOnSignals();
  void SetLink(const std::string& interface, const std::string& state);
  void Reset(const std::string& path, const std::string& circumstance, const std::string& account);
  int ApplicationStatus() const;

  const Options& m_options;
  Signals m_signals;
  EventLog m_log;
  EventLoop m_loop;
  Commands m_commands;
  bool m_isReset = false;
  Devices m_devices;
  std::optional<ControlSocket> m_control;
  std::unique_ptr<Sandbox> m_sandbox;
  std::optional<Answers> m_answers;
  std::optional<Supervisor> m_supervisor;
};

#endif
