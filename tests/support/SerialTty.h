#ifndef BOARDKIT_TESTS_SERIALTTY_H
#define BOARDKIT_TESTS_SERIALTTY_H

#include <linux/serial.h>
#include <termios.h>

#include <cstdint>
#include <string>
#include <vector>

#include "MemoryStandIn.h"
#include "ScriptedKernel.h"

/// The control flags of @p attributes. Some C libraries set the input's speed there even if it is that of the output,
/// others leave it out: it is left out here.
tcflag_t ControlFlags(const termios& attributes);

/// A tty that exists only in this process: every call on its descriptor is noted, and answered from the members.
///
/// A script of the kernel goes first, so that `tty.kernel.Script("tcflush", {Real(), Fails(EIO)})` lets the second
/// flush fail. Where the device is open, everything else works.
class SerialTty {
 public:
  static constexpr const char* kDevice = "/dev/ttyS1";
  static constexpr int kFd = 70;  // no descriptor of the kernel's: all calls on it are answered here

  SerialTty();
  SerialTty(const SerialTty&) = delete;
  SerialTty& operator=(const SerialTty&) = delete;

  bool IsOpen() const;
  /// How often it was opened so far, and how often closed.
  int Opened() const;
  int Closed() const;
  /// Closes it for a test that answered the close itself.
  void ForgetOpen();

  ScriptedKernel kernel;
  termios attributes{};
  std::vector<termios> written;  ///< all attributes that were set, in order
  unsigned int inputSpeed = 0;   ///< bit/s, with the extended attributes
  unsigned int outputSpeed = 0;
  int modemBits = 0;
  serial_struct info{};
  std::string received;  ///< what waits to be read
  std::string sent;
  const MemoryStandIn* memory = nullptr;  ///< what is opened in the place of /dev/mem, if anything

 private:
  /// Simulates @p function for this device; on other descriptors it is the C library's.
  void Simulate(const std::string& function, const Simulation& simulation);

  int m_opened = 0;
  int m_closed = 0;
};

/// The registers of the board's UART, in physical memory that is there while they live.
class SerialRegisters : public MemoryStandIn {
 public:
  static constexpr std::uint32_t kLatchLow = 0x80011000;
  static constexpr std::uint32_t kLatchHigh = 0x80011004;
  static constexpr std::uint32_t kLineControl = 0x8001100C;

  explicit SerialRegisters(SerialTty& tty);
  ~SerialRegisters();
  SerialRegisters(const SerialRegisters&) = delete;
  SerialRegisters& operator=(const SerialRegisters&) = delete;

 private:
  SerialTty& m_tty;
};

#endif
