#ifndef BOARDKIT_SIM_DEVICES_LINE_LINESETTINGS_H
#define BOARDKIT_SIM_DEVICES_LINE_LINESETTINGS_H

#include <cstdint>
#include <optional>

#include "devices/line/ModemControl.h"
#include "devices/line/Port.h"
#include "devices/line/Receiver.h"
#include "devices/line/Sender.h"
#include "devices/line/Uart.h"

/// What a driver does for the attributes of a line: its speed, its format, and the registers of its UART.
class LineSettings {
 public:
  /// @param isPaced whether bytes take the time that the attributes say.
  LineSettings(Port& port, ModemControl& modem, Sender& sender, Receiver& receiver, bool isPaced);

  void Use(const Uart& uart);
  /// Sets the attributes.
  /// @throws RequestError
  void Set(const termios2& wanted);
  /// Does what the attributes say, and what is known of the port.
  void Program();

 private:
  bool CanRun(const termios2& settings) const;
  std::uint32_t Baud() const;

  Port& m_port;
  ModemControl& m_modem;
  Sender& m_sender;
  Receiver& m_receiver;
  const bool m_isPaced;
  std::optional<Uart> m_uart;
};

#endif
