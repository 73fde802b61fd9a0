#ifndef BOARDKIT_SIM_DEVICES_SERIALLINE_H
#define BOARDKIT_SIM_DEVICES_SERIALLINE_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "devices/ByteQueue.h"
#include "devices/Device.h"
#include "devices/Uart.h"
#include "devices/ends/FarEnd.h"

struct termios2;  // the kernel's, whose header clashes with the C library's

/// What TIOCGSERIAL tells.
struct SerialInfo {
  std::uint32_t baudBase = 3906250;
  std::uint32_t fifoSize = 64;
  std::uint32_t flags = 0x10000040;
  std::uint32_t irq = 42;
  std::uint32_t divisor = 0;
};

/// Where the registers of a UART lie.
struct UartPlace {
  std::uint32_t base = 0x80011000;
  std::uint32_t stride = 4;
};

/// A serial port with a 16550's modem lines: the master of the pseudo-terminal that the application has as its device.
///
/// The pseudo-terminal does what it can by itself. What it refuses or forgets is done here, and the bytes are carried
/// between it and the far end, or back while the loop is on.
class SerialLine : public Device {
 public:
  /// @param uart where its registers are to lie; none: they are not in memory.
  /// @throws SetupError if the far end can't be connected.
  SerialLine(const std::string& path, const FarEndMaker& farEnd, const SerialInfo& info, std::optional<UartPlace> uart,
             const Backplane& backplane);

  /// From now on it carries. Also after a hang-up.
  void Attach(Descriptor descriptor) override;
  void Connect(const Devices& board) override;
  bool Is(const FileId& file) const override;
  /// The driver raises RTS and DTR.
  void Opened() override;
  Descriptor Open(int flags) const override;
  void Request(const TrappedCall& call) override;
  /// What the application has written still goes to the far end, as far as this takes it in time.
  void Finish(Clock::time_point latest) override;

 private:
  void AddCommands();
  void HangUp();
  void Renew();
  void Feed(const std::string& hex);
  void SetInputs(unsigned int bits, bool on);
  /// The word that TIOCMGET gives.
  unsigned int ModemLines() const;

  // What is to be waited for.
  pollfd MasterInterest() const;
  pollfd FarInterest() const;
  /// Carries what there is, in all directions, without waiting.
  void Carry(bool fromFar);
  void CarryOut();
  void CarryIn();
  void Queue(std::string_view bytes);
  void DeliverIn();
  void SetOutputs(unsigned int outputs);
  void GetSettings(const TrappedCall& call) const;
  void SetSettings(const TrappedCall& call);
  bool CanRun(const termios2& settings) const;
  void ProgramUart(unsigned int flags, unsigned int baud) const;
  /// Discards, as TCFLSH does.
  void Flush(const TrappedCall& call);
  void GetInfo(const TrappedCall& call) const;
  void SetInfo(const TrappedCall& call);

  SerialInfo m_info;
  const std::optional<UartPlace> m_uartPlace;
  const Backplane m_backplane;
  EventLog& m_log;
  const std::unique_ptr<FarEnd> m_far;
  std::optional<Uart> m_uart;
  Descriptor m_master;
  Descriptor m_slave;  // held: a master without any slave reports an error for ever
  FileId m_id;
  unsigned int m_outputs = 0;  // of the modem lines, and the loop
  unsigned int m_inputs = 0;
  unsigned int m_forgotten = 0;  // the settings that a pseudo-terminal forgets
  ByteQueue m_in;                // on its way to the application
  EventLoop::Registration m_masterRegistration;
  EventLoop::Registration m_farRegistration;
};

std::unique_ptr<DeviceKind> MakeSerialLineKind();

#endif
