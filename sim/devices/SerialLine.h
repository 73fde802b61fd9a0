#ifndef BOARDKIT_SIM_DEVICES_SERIALLINE_H
#define BOARDKIT_SIM_DEVICES_SERIALLINE_H

#include <linux/serial.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "devices/ByteQueue.h"
#include "devices/Device.h"
#include "devices/LateCalls.h"
#include "devices/Pace.h"
#include "devices/Terminal.h"
#include "devices/Uart.h"
#include "devices/ends/FarEnd.h"

/// Where the registers of a UART lie.
struct UartPlace {
  std::uint32_t base = 0x80011000;
  std::uint32_t stride = 4;
};

/// A serial port with a 16550's modem lines: the other side of the terminal that the application has as its device.
///
/// The terminal does what it can by itself. What it refuses or forgets is done here, and the bytes are carried between
/// it and the far end, or back while the loop is on. Who writes waits while they can't go; nothing of his is lost.
class SerialLine : public Device {
 public:
  /// What the options say of it.
  struct Traits {
    FarEndMaker farEnd;
    serial_struct info{};
    std::optional<UartPlace> uart;  // where its registers are to lie; none: they are not in memory
    bool isPaced = false;
  };

  /// The requests that it answers.
  static TrappedRequests Requests();

  /// @throws SetupError if the far end can't be connected.
  SerialLine(const std::string& path, const Traits& traits, const Backplane& backplane);

  /// From now on it carries. Also after a hang-up.
  void Attach(Descriptor descriptor) override;
  void Connect(const Devices& board) override;
  bool Is(const FileId& file) const override;
  /// The driver raises RTS and DTR.
  void Opened() override;
  Descriptor Open(int flags) const override;
  void Request(const TrappedCall& call) override;
  /// What the application has written still goes to the far end.
  bool IsBusy() override;

 private:
  enum class Use {
    kNever,    // opened until now
    kClosed,   // after the last close
    kOpening,  // the kernel is about to open it
    kOpen
  };

  void AddCommands();
  void HangUp();
  void Renew();
  void Feed(const std::string& hex);

  // What is to be waited for.
  pollfd MasterInterest() const;
  pollfd FarInterest() const;
  std::optional<Clock::time_point> Next() const;
  /// Does all that can be done without waiting.
  void Work();

  // Opens and closes.
  void LookForOpens();
  void Begin(Use use);
  void LastClose();
  void EndClose();

  // To the far end.
  bool CanSend() const;
  void TakeWritten(std::size_t most);
  bool Transmit();
  std::size_t SendOn(std::string_view bytes);
  void DropOutput();

  // From the far end.
  bool IsListening() const;
  bool Receive();
  void Arrive(std::string_view bytes);
  std::string Filtered(std::string_view bytes);
  void BreakIn();
  void Queue(std::string_view bytes);
  bool Deliver();
  void DropInput();
  bool IsThrottling() const;
  void LookAtInput();
  void Throttle(bool on);

  // Modem lines.
  /// The word that TIOCMGET gives.
  unsigned int ModemLines() const;
  void SetOutputs(unsigned int outputs);
  void SetInputs(unsigned int bits, bool on);
  void LookAtFarEnd();
  void CountModemLines();
  void SetBreak(bool on);

  // Requests.
  /// When all is sent that has been written until now.
  void AfterOutput(const TrappedCall& call, std::function<void(const TrappedCall&)> then);
  std::uint64_t WrittenUntilNow();
  void GetSettings(const TrappedCall& call) const;
  void SetSettings(const TrappedCall& call);
  void Apply(unsigned int request, termios2 settings);
  bool CanRun(const termios2& settings) const;
  std::uint32_t Baud() const;
  void Program();
  void Flush(const TrappedCall& call);
  void ControlFlow(const TrappedCall& call);
  void SendBreak(const TrappedCall& call, std::chrono::milliseconds duration);
  void AwaitModemLines(const TrappedCall& call);
  void GetCounts(const TrappedCall& call) const;
  void SetInfo(const TrappedCall& call);

  serial_struct m_info;
  const std::optional<UartPlace> m_uartPlace;
  const bool m_isPaced;
  const Backplane m_backplane;
  EventLog& m_log;
  const std::unique_ptr<FarEnd> m_far;
  std::optional<Uart> m_uart;
  std::optional<Terminal> m_terminal;

  Use m_use = Use::kNever;
  bool m_isClosing = false;  // what was written before the last close is still on its way
  Clock::time_point m_closeEnds;
  bool m_isExclusive = false;

  ByteQueue m_out;  // on its way to the far end
  Pace m_outPace;
  std::uint64_t m_gone = 0;  // how many have been in it, and are no more
  std::optional<char> m_urgent;
  bool m_isHeld = false;     // by TCXONC
  bool m_isStopped = false;  // by the far end's XOFF
  bool m_isBreaking = false;
  bool m_isFarFull = false;
  std::optional<Clock::time_point> m_breakEnds;
  std::optional<Clock::time_point> m_lastMove;  // after the application's end

  ByteQueue m_in;  // on its way to the application
  Pace m_inPace;
  bool m_isTerminalFull = false;
  bool m_isThrottled = false;
  std::size_t m_handedOver = 0;  // since the last look
  std::optional<Clock::time_point> m_lookAt;

  unsigned int m_outputs = 0;  // of the modem lines, and the loop
  unsigned int m_inputs = 0;
  unsigned int m_farInputs = 0;
  unsigned int m_counted = 0;
  serial_icounter_struct m_counts{};
  LateCalls m_late;

  EventLoop::Registration m_masterRegistration;
  EventLoop::Registration m_opensRegistration;
  EventLoop::Registration m_farRegistration;
  EventLoop::Registration m_timeRegistration;
};

std::unique_ptr<DeviceKind> MakeSerialLineKind();

#endif
