#ifndef BOARDKIT_SIM_SERIALLINE_H
#define BOARDKIT_SIM_SERIALLINE_H

#include <cstdint>
#include <string>
#include <string_view>

#include "Descriptor.h"
#include "EventLog.h"
#include "FarEnd.h"
#include "Memory.h"
#include "Options.h"
#include "Supervisor.h"

struct termios2;  // the kernel's, whose header clashes with the C library's

/// A serial port with a 16550's modem lines: the master of the pseudo-terminal that the application has as its device.
///
/// The pseudo-terminal does what it can by itself. What it refuses or forgets is done here, and the bytes are carried
/// between it and the far end, or back while the loop is on.
class SerialLine {
 public:
  /// @param memory whose UART this port is; null: none.
  /// @throws SetupError if the far end can't be connected.
  SerialLine(const TtyOptions& options, const SerialInfo& info, EventLog& log);

  /// The line is in: from now on it carries. Also after Unplug().
  /// @throws SetupError
  void Plug(Descriptor master);
  /// Hangs up: the application reads the end of the file and can do nothing else any more.
  void Unplug();
  void AttachUart(const Memory* uart);

  const std::string& Path() const {
    return m_path;
  }
  /// Whether the file is this device.
  bool Is(const FileId& file) const {
    return m_slave && file == m_id;
  }
  /// A descriptor of its own for the application.
  Descriptor Open(int flags) const;
  /// The driver raises these lines when the device is opened.
  void Opened();
  /// Answers a request on the device.
  /// @throws RequestError
  void Request(const TrappedCall& call);

  // For the loop that waits:
  int Master() const {
    return m_master.Get();
  }
  short MasterEvents() const;
  const FarEnd& Far() const {
    return m_far;
  }
  short FarEvents() const;
  /// Carries what there is, in all directions, without waiting.
  void Carry(bool fromFar);

  // For the technician:
  void Feed(std::string_view bytes);
  void SetInputs(unsigned int bits, bool on);
  /// The word that TIOCMGET gives.
  unsigned int ModemLines() const;

 private:
  void CarryOut();
  void CarryIn();
  void Queue(std::string_view bytes);
  void FlushIn();
  void SetOutputs(unsigned int outputs);
  void GetSettings(const TrappedCall& call) const;
  void SetSettings(const TrappedCall& call);
  bool CanRun(const termios2& settings) const;
  void ProgramUart(unsigned int flags, unsigned int baud);
  void Flush(const TrappedCall& call);
  void GetInfo(const TrappedCall& call) const;
  void SetInfo(const TrappedCall& call);

  const std::string m_path;
  SerialInfo m_info;
  EventLog& m_log;
  FarEnd m_far;
  const Memory* m_uart = nullptr;
  Descriptor m_master;
  Descriptor m_slave;  // held: a master without any slave reports an error for ever
  FileId m_id;
  unsigned int m_outputs = 0;  // of the modem lines, and the loop
  unsigned int m_inputs = 0;
  unsigned int m_forgotten = 0;  // the settings that a pseudo-terminal forgets
  std::string m_in;              // on its way to the application
  std::uint64_t m_dropped = 0;
};

/// The modem lines by name: "RTS DTR CTS".
std::string ModemLineNames(unsigned int lines);
/// The input of that name, or 0.
unsigned int ModemInput(const std::string& name);

#endif
