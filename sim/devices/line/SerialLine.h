#ifndef BOARDKIT_SIM_DEVICES_LINE_SERIALLINE_H
#define BOARDKIT_SIM_DEVICES_LINE_SERIALLINE_H

#include <linux/serial.h>

#include <cstdint>
#include <optional>
#include <string>

#include "devices/Device.h"
#include "devices/ends/FarEnd.h"
#include "devices/line/LineSettings.h"
#include "devices/line/ModemControl.h"
#include "devices/line/Port.h"
#include "devices/line/Receiver.h"
#include "devices/line/Sender.h"
#include "devices/line/SerialRequests.h"

/// Where the registers of a UART lie.
struct UartPlace {
  std::uint32_t base = 0x80011000;
  std::uint32_t stride = 4;
};

/// A serial port with a 16550's modem lines: the other side of the terminal that the application has as its device.
///
/// Its parts carry the bytes and answer the requests. Here they are put together: when each has its turn, what opening
/// and closing mean, and what a technician can do.
class SerialLine : public Device {
 public:
  /// What the options say of it.
  struct Traits {
    FarEndMaker farEnd;
    serial_struct info{};
    std::optional<UartPlace> uart;  // where its registers are to lie; none: they are not in memory
    bool isPaced = false;
  };

  /// @throws SetupError if the far end can't be connected.
  SerialLine(const std::string& path, const Traits& traits, const Backplane& backplane);

  /// Begins to carry bytes; also called after a hang-up.
  void Attach(Descriptor descriptor) override;
  void Tell(SystemFolder folder) override;
  void Connect(const Devices& board) override;
  bool Is(const FileId& file) const override;
  /// The driver raises RTS and DTR.
  void Opened() override;
  void NotOpened() override;
  Descriptor Open(int flags) const override;
  void Request(const TrappedCall& call) override;
  /// What the application has written still goes to the far end.
  bool IsBusy() override;

 private:
  void AddCommands();
  void HangUp();
  void PlugIn();
  void Feed(const std::string& hex);
  void TellInfo();

  void Register();
  pollfd MasterInterest() const;
  std::optional<Clock::time_point> Next() const;
  /// Does all that can be done without waiting.
  void Work();

  void LookForOpens();
  void Begin(Port::Use use);
  void LastClose();
  void EndClose();

  const std::optional<UartPlace> m_uartPlace;
  const Backplane m_backplane;
  Port m_port;
  ModemControl m_modem;
  Sender m_sender;
  Receiver m_receiver;
  LineSettings m_settings;
  SerialRequests m_requests;
  SystemFolder m_told;

  Clock::time_point m_openEnds;
  bool m_isClosing = false;  // what was written before the last close is still on its way
  Clock::time_point m_closeEnds;
  std::optional<Clock::time_point> m_lastMove;  // after the application's end
  std::uint64_t m_lastGone = 0;                 // with it

  EventLoop::Registration m_masterRegistration;
  EventLoop::Registration m_opensRegistration;
  EventLoop::Registration m_farRegistration;
  EventLoop::Registration m_timeRegistration;
};

std::unique_ptr<DeviceKind> MakeSerialLineKind();

#endif
