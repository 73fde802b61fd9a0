#include "Port.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <map>
#include <system_error>

#include "Check.h"

namespace {

/// The code of a standard speed, BAUD_0 for others.
SerialPort::BaudRate StandardCode(std::uint32_t bitsPerSecond) {
  if (bitsPerSecond <= static_cast<std::uint32_t>(std::numeric_limits<int>::max())) {
    const auto code = SerialPort::ConversionToBaudrateEnum(static_cast<int>(bitsPerSecond));
    if (code != SerialPort::BAUD_0) {
      return code;
    }
  }
  // The conversion knows those from 9600 on.
  for (unsigned int code = SerialPort::BAUD_50; code < SerialPort::BAUD_9600; ++code) {
    if (SerialPort::BaudRateToPrintableNumber(code) == bitsPerSecond) {
      return static_cast<SerialPort::BaudRate>(code);
    }
  }
  return SerialPort::BAUD_0;
}

/// The number that the next descriptor to be opened gets: the lowest that is free.
int NextDescriptor() {
  const int fd = ::open("/", O_PATH | O_CLOEXEC);
  ::close(fd);
  return fd;
}

/// While it lives, reading does not block: the library reads as many bytes as there were a moment ago.
class DoesNotWait {
 public:
  explicit DoesNotWait(int fd) : m_fd(fd) {
    ::fcntl(m_fd, F_SETFL, O_NONBLOCK);
  }
  ~DoesNotWait() {
    ::fcntl(m_fd, F_SETFL, 0);
  }
  DoesNotWait(const DoesNotWait&) = delete;
  DoesNotWait& operator=(const DoesNotWait&) = delete;

 private:
  int m_fd;
};

}  // namespace

unsigned int LineOptions::BitsPerByte() const {
  constexpr unsigned int kSmallest = 5;
  constexpr unsigned int kSizeStep = SerialPort::CHAR_SIZE_6;  // between the codes of the sizes
  const unsigned int data = kSmallest + static_cast<unsigned int>(bits) / kSizeStep;
  return 1 + data + (parity == SerialPort::PARITY_NONE ? 0U : 1U) + (stop == SerialPort::STOP_BITS_1 ? 1U : 2U);
}

std::uint32_t ParseSpeed(const std::string& text) {
  constexpr std::uint32_t kFastest = 20000000;
  return static_cast<std::uint32_t>(check::Decimal(text, 1, kFastest));
}

void AddDevice(CLI::App& verb, std::string& device) {
  AddArgument(verb, "DEVICE", "", device, check::Path, "the serial port, for example /dev/ttyS1", kRequired);
}

void AddSpeed(CLI::App& verb, LineOptions& line) {
  AddArgument(verb, "--speed", "BPS", line.speedBps, ParseSpeed, "bits per second, standard or any (default 115200)");
}

void AddFormat(CLI::App& verb, LineOptions& line) {
  static const std::map<std::string, SerialPort::CharacterSize> kBits = {{"5", SerialPort::CHAR_SIZE_5},
                                                                         {"6", SerialPort::CHAR_SIZE_6},
                                                                         {"7", SerialPort::CHAR_SIZE_7},
                                                                         {"8", SerialPort::CHAR_SIZE_8}};
  static const std::map<std::string, SerialPort::Parity> kParities = {
      {"none", SerialPort::PARITY_NONE}, {"even", SerialPort::PARITY_EVEN}, {"odd", SerialPort::PARITY_ODD}};
  static const std::map<std::string, SerialPort::StopBits> kStops = {{"1", SerialPort::STOP_BITS_1},
                                                                     {"2", SerialPort::STOP_BITS_2}};
  static const std::map<std::string, SerialPort::FlowControl> kFlows = {
      {"none", SerialPort::FLOW_CONTROL_NONE},
      {"hardware", SerialPort::FLOW_CONTROL_HARDWARE},
      {"software", SerialPort::FLOW_CONTROL_SOFTWARE}};
  AddArgument(
      verb, "--bits", "N", line.bits, [](const std::string& text) { return check::OneOf(text, kBits); },
      "data bits, 5 to 8 (default 8)");
  AddArgument(
      verb, "--parity", "P", line.parity, [](const std::string& text) { return check::OneOf(text, kParities); },
      "none, even or odd (default none)");
  AddArgument(
      verb, "--stop", "N", line.stop, [](const std::string& text) { return check::OneOf(text, kStops); },
      "stop bits, 1 or 2 (default 1)");
  AddArgument(
      verb, "--flow", "F", line.flow, [](const std::string& text) { return check::OneOf(text, kFlows); },
      "none, hardware or software (default none)");
}

void AddLine(CLI::App& verb, LineOptions& line) {
  AddDevice(verb, line.device);
  AddSpeed(verb, line);
  AddFormat(verb, line);
}

void Standstill::Look(std::uint32_t waiting) {
  constexpr std::chrono::seconds kPatience(2);
  if (waiting != m_last) {
    m_last = waiting;
    m_since = Clock::now();
  } else if (!m_isTold && Clock::now() - m_since > kPatience) {
    m_out.Say("boardctl: nothing has gone out for 2 s: the far end may hold the line (flow control); a signal ends it");
    m_isTold = true;
  }
}

Port::Port(const LineOptions& line, Output& out)
    : m_out(out), m_side(line.device), m_fd(NextDescriptor()), m_discards(m_side.Descriptor(), m_fd) {
  m_side.Quieten();
  try {
    WaitUntilOthersHaveSent();
    m_port = std::make_unique<SerialPort>(line.device, true);
    if (!SetSpeed(line.speedBps)) {
      const std::uint32_t runs = m_side.Read().speedBps;
      throw std::runtime_error("The port cannot run at " + std::to_string(line.speedBps) + " bits per second" +
                               (runs == 0 ? "" : ", but at " + std::to_string(runs)));
    }
    // The flow control comes first, for it makes the line raw, with 8 data bits and without parity.
    m_port->SetFlowControl(line.flow);
    m_port->SetCharSize(line.bits);
    m_port->SetParity(line.parity);
    m_port->SetNumOfStopBits(line.stop);
    if (m_port->GetCharSize() != line.bits || m_port->GetParity() != line.parity) {
      m_out.Warn("boardctl: the driver does not support these data bits or this parity, and keeps its own");
    }
  } catch (...) {
    Close();
    throw;
  }
}

Port::~Port() {
  if (m_port) {
    Close();
  }
}

bool Port::SetSpeed(std::uint32_t bitsPerSecond) {
  constexpr double kTolerance = 0.03;  // what a receiver tolerates
  const SerialPort::BaudRate code = StandardCode(bitsPerSecond);
  if (code != SerialPort::BAUD_0) {
    // While a custom speed is set, standard ones do nothing.
    if (m_port->GetCustomBaudRate() != 0) {
      m_port->SetCustomBaudRate(0);
    }
    m_port->SetBaudRate(code);
  } else {
    m_port->SetCustomBaudRate(bitsPerSecond);
  }
  // A driver that cannot make it keeps the old one, and says nothing.
  const double runs = m_side.Read().speedBps;
  const double asked = bitsPerSecond;
  return runs > asked * (1 - kTolerance) && runs < asked * (1 + kTolerance);
}

bool Port::WaitForData(int milliseconds) const {
  constexpr int kPiece = 50;  // a signal that comes just before the waiting is seen after it
  for (int waited = 0; signals::Caught() == 0; waited += kPiece) {
    Output::CheckReader();
    try {
      if (m_port->IsDataReceived(std::min(kPiece, milliseconds - waited))) {
        return true;
      }
    } catch (const std::system_error& error) {
      if (error.code().value() != EINTR) {
        throw;
      }
    }
    if (waited + kPiece >= milliseconds) {
      return false;
    }
  }
  return false;
}

std::vector<unsigned char> Port::Read() {
  std::vector<unsigned char> bytes;
  {
    const DoesNotWait doesNotWait(m_fd);
    m_port->ReadAllAvailableData();
  }
  m_port->Read(bytes, 0);
  return bytes;
}

/// The library would while it opens the port, without a word. A signal discards it.
void Port::WaitUntilOthersHaveSent() const {
  Standstill standstill(m_out);
  while (const std::uint32_t waiting = m_side.Waiting()) {
    standstill.Look(waiting);
    if (!signals::Wait(Standstill::kLookMs)) {
      return;
    }
  }
}

void Port::Close() {
  if (!m_port) {
    // Opening that fails at its last step leaves the line raw.
    m_side.PutBack();
    return;
  }
  // Else closing waits until all is sent, which may be never.
  m_side.Discard();
  try {
    m_port->Close();
    m_side.PutBack();
  } catch (const std::exception& error) {
    // Without a destructor, which would end the process; the kernel closes the descriptor at its end.
    m_port.release();  // NOLINT(bugprone-unused-return-value): left open on purpose
    if (!m_side.PutBack()) {
      m_out.Warn(std::string("boardctl: the line's settings could not be restored: ") + error.what());
    }
  }
  m_port.reset();
}
