#ifndef BOARDKIT_SIM_DEVICES_LINE_SERIALREQUESTS_H
#define BOARDKIT_SIM_DEVICES_LINE_SERIALREQUESTS_H

#include <chrono>
#include <functional>
#include <optional>

#include "devices/line/LateCalls.h"
#include "devices/line/LineSettings.h"
#include "devices/line/ModemControl.h"
#include "devices/line/Port.h"
#include "devices/line/Receiver.h"
#include "devices/line/Sender.h"
#include "sandbox/Filter.h"
#include "sandbox/TrappedCall.h"

/// Answers the requests on a serial port that its terminal refuses or forgets, or answers without knowing what is on
/// its way.
class SerialRequests {
 public:
  using Clock = std::chrono::steady_clock;

  /// The parts of a port.
  struct Parts {
    Port& port;
    ModemControl& modem;
    Sender& sender;
    Receiver& receiver;
    LineSettings& settings;
    std::function<void()> tellInfo;  // after a change of the port's info
  };

  static TrappedRequests Numbers();
  /// Whether a request changes nothing, and its answer does not depend on what has moved.
  static bool OnlyAsks(unsigned int request);

  /// @param isPaced whether breaks take their time.
  SerialRequests(const Parts& parts, bool isPaced);

  /// @throws RequestError, which is the answer.
  void Answer(const TrappedCall& call);
  /// Answers those who wait, if it is time.
  void AnswerLate();
  std::optional<Clock::time_point> Next() const;
  /// The port has been replaced: nobody waits any more.
  void Reset();

 private:
  using Action = std::function<void(const TrappedCall&)>;

  void AfterOutput(const TrappedCall& call, Action then);
  void GetSettings(const TrappedCall& call) const;
  void SetSettings(const TrappedCall& call);
  void Discard(const TrappedCall& call);
  void ControlFlow(const TrappedCall& call);
  void SetBreak(bool on);
  void SendBreak(const TrappedCall& call, std::chrono::milliseconds duration);
  void SetOutputs(const char* request, unsigned int outputs);
  void AwaitModemLines(const TrappedCall& call);
  void SetInfo(const TrappedCall& call);

  Port& m_port;
  ModemControl& m_modem;
  Sender& m_sender;
  Receiver& m_receiver;
  LineSettings& m_settings;
  const std::function<void()> m_tellInfo;
  const bool m_isPaced;
  LateCalls m_late;
  std::optional<Clock::time_point> m_breakEnds;
};

#endif
