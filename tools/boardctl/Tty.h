#ifndef BOARDKIT_CTL_TTY_H
#define BOARDKIT_CTL_TTY_H

#include <cstdint>
#include <string>

#include "Output.h"

/// A tty looked at beside the library's port, by a descriptor of its own: opening it leaves the settings as they are,
/// while a SerialPort makes the line raw and drops its speed to 0.
class Tty {
 public:
  /// What the line is set to.
  struct Settings {
    std::uint32_t speedBps = 0;
    std::uint32_t inputSpeedBps = 0;
    int dataBits = 0;
    std::string parity;  // none, even, odd, mark, space
    int stopBits = 0;
    std::string flow;  // none, hardware, software, both
    bool isRaw = false;
  };

  /// @throws std::system_error "Open Serial Port '<device>' failed?", the library's text for it.
  explicit Tty(const std::string& device);
  ~Tty();
  Tty(const Tty&) = delete;
  Tty& operator=(const Tty&) = delete;

  int Descriptor() const {
    return m_fd;
  }

  /// @throws std::system_error "Get the current port settings failed?", as the library does: no tty, or hung up.
  Settings Read() const;
  /// The lines that are up, by their names, or null where there are none.
  Json ModemLines() const;
  /// What the driver has counted since it was loaded, or null where it does not count.
  Json Counters() const;
  /// What the serial driver reports about the UART, or null.
  Json Uart() const;

  /// The number of bytes that wait to be sent; 0 also if the driver does not report it.
  /// @throws std::system_error as the library's writing does: the line was hung up, and what waited is lost.
  std::uint32_t Waiting() const;
  /// Waits until the driver takes more, for @p milliseconds at most; true also where writing fails at once.
  bool HasRoom(int milliseconds) const;
  /// Waits until all is sent; false if a signal came first. @throws what Waiting() does.
  bool Drain() const;
  /// Discards what is not sent yet.
  void Discard() const;

  /// Until PutBack(), the kernel echoes nothing and opening waits for no carrier. Opening waits until everything is
  /// sent, which never ends on a line that is flooded with its own echo.
  void Quieten() const;
  /// Restores the settings that this object found when it was made; false if that is refused.
  bool PutBack() const;

 private:
  int m_fd;
  std::string m_before;  // the bytes of the attributes
};

#endif
