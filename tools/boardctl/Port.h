#ifndef BOARDKIT_CTL_PORT_H
#define BOARDKIT_CTL_PORT_H

#include <SerialPort.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "Output.h"
#include "Program.h"
#include "Signals.h"
#include "Tty.h"

/// How a line is to be set up, as the options say.
struct LineOptions {
  std::string device;
  std::uint32_t speedBps = 115200;
  SerialPort::CharacterSize bits = SerialPort::CHAR_SIZE_8;
  SerialPort::Parity parity = SerialPort::PARITY_NONE;
  SerialPort::StopBits stop = SerialPort::STOP_BITS_1;
  SerialPort::FlowControl flow = SerialPort::FLOW_CONTROL_NONE;

  /// Bits on the line for each byte: start, data, parity, stop.
  unsigned int BitsPerByte() const;
};

/// Adds DEVICE, which is required.
void AddDevice(CLI::App& verb, std::string& device);
/// Adds --speed.
void AddSpeed(CLI::App& verb, LineOptions& line);
/// Adds --bits, --parity, --stop, --flow.
void AddFormat(CLI::App& verb, LineOptions& line);
/// Adds DEVICE, --speed and the format.
void AddLine(CLI::App& verb, LineOptions& line);
/// A speed in bits per second, standard or not.
std::uint32_t ParseSpeed(const std::string& text);

/// Adds the verb test to the group serial.
void AddSerialTest(Program& program, CLI::App& group);

/// Reports once that nothing goes out, when that has lasted.
class Standstill {
 public:
  static constexpr int kLookMs = 20;  // how often to look

  explicit Standstill(Output& out) : m_out(out) {}

  /// @p waiting: how many bytes the driver has not sent yet.
  void Look(std::uint32_t waiting);

 private:
  using Clock = std::chrono::steady_clock;

  Output& m_out;
  std::uint32_t m_last = 0;
  Clock::time_point m_since = Clock::now();
  bool m_isTold = false;
};

/// The library's port, and a way out of it whatever happens: what it cannot close (an unplugged adapter, a line without
/// modem lines) is restored through a second descriptor and left to the kernel, as its destructor would end the
/// process.
class Port {
 public:
  /// Opens the device and sets the line up. @throws what the library does.
  Port(const LineOptions& line, Output& out);
  /// Discards what is not sent yet, and closes; failures are reported.
  ~Port();
  Port(const Port&) = delete;
  Port& operator=(const Port&) = delete;

  SerialPort* operator->() const {
    return m_port.get();
  }
  const Tty& Side() const {
    return m_side;
  }

  /// Sets the speed; false if the line does not run at it then.
  bool SetSpeed(std::uint32_t bitsPerSecond);

  /// Waits until something can be read, for @p milliseconds at most, or until a signal comes.
  bool WaitForData(int milliseconds) const;
  /// What the driver has received: nothing if another program that has the port open was faster.
  /// @throws what the library does for a line that was hung up.
  std::vector<unsigned char> Read();

 private:
  void WaitUntilOthersHaveSent() const;
  void Close();

  Output& m_out;
  Tty m_side;
  int m_fd;  // of the library's port
  std::unique_ptr<SerialPort> m_port;
  signals::DiscardsOutput m_discards;
};

#endif
