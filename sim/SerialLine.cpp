#include "SerialLine.h"

// Not <termios.h>: its structure is the C library's, and the kernel's is what the application hands over.
#include <asm/termbits.h>
#include <fcntl.h>
#include <linux/serial.h>
#include <linux/tty.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <iterator>

#include "PseudoTerminal.h"
#include "SetupError.h"

namespace {

constexpr std::size_t kInSize = 65536;  // bytes on their way to the application
constexpr std::size_t kPieceSize = 4096;

// The C library's headers lack these.
constexpr unsigned int kOut1 = 0x2000;
constexpr unsigned int kOut2 = 0x4000;
constexpr unsigned int kLoop = 0x8000;
constexpr unsigned int kOutputs = TIOCM_RTS | TIOCM_DTR | kOut1 | kOut2 | kLoop;
constexpr unsigned int kInputs = TIOCM_CTS | TIOCM_DSR | TIOCM_CAR | TIOCM_RNG;
constexpr unsigned int kReady = TIOCM_CTS | TIOCM_DSR | TIOCM_CAR;  // from somebody who is there
constexpr unsigned int kOpened = TIOCM_RTS | TIOCM_DTR;

// A pseudo-terminal always is at 8 bits without parity, receiving.
constexpr unsigned int kForgotten = CSIZE | PARENB | CREAD;

// Of the line control register.
constexpr std::uint32_t kTwoStopBits = 0x04;
constexpr std::uint32_t kParity = 0x08;
constexpr std::uint32_t kEvenParity = 0x10;

struct ModemLine {
  const char* name;
  unsigned int bit;
};
constexpr ModemLine kModemLines[] = {{"RTS", TIOCM_RTS}, {"DTR", TIOCM_DTR}, {"CTS", TIOCM_CTS},
                                     {"DSR", TIOCM_DSR}, {"CD", TIOCM_CAR},  {"RI", TIOCM_RNG},
                                     {"OUT1", kOut1},    {"OUT2", kOut2},    {"LOOP", kLoop}};

std::string Hex(unsigned int value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", value);
  return text;
}

std::uint32_t LineControl(unsigned int flags) {
  const unsigned int size = flags & CSIZE;
  std::uint32_t lineControl = size == CS8 ? 3 : size == CS7 ? 2 : size == CS6 ? 1 : 0;
  if ((flags & CSTOPB) != 0) {
    lineControl |= kTwoStopBits;
  }
  if ((flags & PARENB) != 0) {
    lineControl |= kParity;
  }
  // Also without parity, where it means nothing: so does the kernel's driver, and reports show it.
  if ((flags & PARODD) == 0) {
    lineControl |= kEvenParity;
  }
  return lineControl;
}

}  // namespace

std::string ModemLineNames(unsigned int lines) {
  std::string names;
  for (const ModemLine& line : kModemLines) {
    if ((lines & line.bit) != 0) {
      names += (names.empty() ? "" : " ") + std::string(line.name);
    }
  }
  return names.empty() ? "none" : names;
}

unsigned int ModemInput(const std::string& name) {
  for (const ModemLine& line : kModemLines) {
    if (name == line.name) {
      return line.bit & kInputs;
    }
  }
  return 0;
}

SerialLine::SerialLine(const TtyOptions& options, const SerialInfo& info, EventLog& log)
    : m_path(options.path), m_info(info), m_log(log), m_far(options, log), m_inputs(m_far.IsConnected() ? kReady : 0) {}

void SerialLine::Plug(Descriptor master) {
  m_master = std::move(master);
  m_slave = OpenRawSlave(m_master);
  if (!m_slave || ::fcntl(m_master.Get(), F_SETFL, O_RDWR | O_NONBLOCK) == -1) {
    throw SetupError("the terminal behind " + m_path + " can't be opened", errno);
  }
  m_id = FileId::Of(m_slave);
  m_outputs = 0;
  m_forgotten = CS8 | CREAD;
  m_in.clear();
}

void SerialLine::Unplug() {
  m_log.Write(m_path, "hang-up");
  CarryOut();
  m_slave.Close();
  m_master.Close();
  m_in.clear();
}

void SerialLine::AttachUart(const Memory* uart) {
  m_uart = uart;
  ProgramUart(CS8, 9600);
}

Descriptor SerialLine::Open(int flags) const {
  // By the descriptor that is there: whatever the name has come to mean, it is this device.
  Descriptor own(
      ::open(PathOf(m_slave.Get()).c_str(), (flags & (O_ACCMODE | O_NONBLOCK | O_APPEND)) | O_NOCTTY | O_CLOEXEC));
  if (!own) {
    throw RequestError{errno};
  }
  return own;
}

void SerialLine::Opened() {
  m_log.Write(m_path, "open");
  SetOutputs(m_outputs | kOpened);
}

void SerialLine::Request(const TrappedCall& call) {
  switch (call.IoctlRequest()) {
    case TCGETS:
    case TCGETS2:
      GetSettings(call);
      break;
    case TCSETS:
    case TCSETSW:
    case TCSETSF:
    case TCSETS2:
    case TCSETSW2:
    case TCSETSF2:
      SetSettings(call);
      break;
    case TCFLSH:
      Flush(call);
      break;
    case TIOCMGET:
      call.Write(ModemLines());
      m_log.Write(m_path, "TIOCMGET " + Hex(ModemLines()));
      break;
    case TIOCMSET:
      SetOutputs(call.Read<unsigned int>() & kOutputs);
      m_log.Write(m_path, "TIOCMSET " + Hex(m_outputs));
      break;
    case TIOCMBIS:
      SetOutputs(m_outputs | (call.Read<unsigned int>() & kOutputs));
      m_log.Write(m_path, "TIOCMBIS " + Hex(m_outputs));
      break;
    case TIOCMBIC:
      SetOutputs(m_outputs & ~call.Read<unsigned int>());
      m_log.Write(m_path, "TIOCMBIC " + Hex(m_outputs));
      break;
    case TIOCGSERIAL:
      GetInfo(call);
      break;
    case TIOCSSERIAL:
      SetInfo(call);
      break;
    default:
      call.Continue();
      return;
  }
  call.Return(0);
}

short SerialLine::MasterEvents() const {
  return static_cast<short>(POLLIN | (m_in.empty() ? 0 : POLLOUT));
}

short SerialLine::FarEvents() const {
  // Whoever is at the far end waits while the application does not read, as long as a slow line would make him wait.
  const bool room = m_in.size() < kInSize;
  return static_cast<short>((room ? POLLIN : 0) | (m_far.HasToWrite() ? POLLOUT : 0));
}

void SerialLine::Carry(bool fromFar) {
  m_far.Flush();
  CarryOut();
  if (fromFar) {
    CarryIn();
  }
  FlushIn();
}

void SerialLine::Feed(std::string_view bytes) {
  m_log.Write(m_path, "feed bytes=" + std::to_string(bytes.size()));
  Queue(bytes);
}

void SerialLine::SetInputs(unsigned int bits, bool on) {
  m_inputs = on ? m_inputs | bits : m_inputs & ~bits;
  m_log.Write(m_path, "inputs " + ModemLineNames(m_inputs));
}

unsigned int SerialLine::ModemLines() const {
  if ((m_outputs & kLoop) == 0) {
    return m_outputs | m_inputs;
  }
  // In the loop, the outputs are what the inputs see.
  unsigned int inputs = 0;
  inputs |= (m_outputs & TIOCM_RTS) != 0 ? TIOCM_CTS : 0;
  inputs |= (m_outputs & TIOCM_DTR) != 0 ? TIOCM_DSR : 0;
  inputs |= (m_outputs & kOut1) != 0 ? TIOCM_RNG : 0;
  inputs |= (m_outputs & kOut2) != 0 ? TIOCM_CAR : 0;
  return m_outputs | inputs;
}

/// Takes what the application has written. Reading up to "nothing there" sees all that was written before.
void SerialLine::CarryOut() {
  const bool loop = (m_outputs & kLoop) != 0;
  char piece[kPieceSize];
  while (true) {
    const ssize_t got = ::read(m_master.Get(), piece, sizeof piece);
    if (got <= 0) {
      return;
    }
    const std::string_view bytes(piece, static_cast<std::size_t>(got));
    if (loop || m_far.IsEcho()) {
      Queue(bytes);
    } else {
      m_far.Send(bytes);
    }
  }
}

void SerialLine::CarryIn() {
  char piece[kPieceSize];
  const bool wasConnected = m_far.IsConnected();
  const std::size_t got = m_far.Receive(piece, sizeof piece);
  if (wasConnected && !m_far.IsConnected()) {
    SetInputs(kReady, false);
  }
  // In the loop the receiver does not listen to the line, and on a line that hangs up there is none.
  if (m_master && (m_outputs & kLoop) == 0) {
    m_in.append(piece, got);
  }
}

/// Hands bytes to the application for which nobody can be made to wait: more than a driver would hold are lost.
void SerialLine::Queue(std::string_view bytes) {
  const std::size_t room = kInSize - std::min(kInSize, m_in.size());
  m_in.append(bytes.substr(0, room));
  if (bytes.size() > room) {
    m_dropped += bytes.size() - room;
    m_log.Write(m_path, "overrun dropped=" + std::to_string(m_dropped));
  }
  FlushIn();
}

void SerialLine::FlushIn() {
  while (!m_in.empty()) {
    const ssize_t written = ::write(m_master.Get(), m_in.data(), m_in.size());
    if (written <= 0) {
      return;
    }
    m_in.erase(0, static_cast<std::size_t>(written));
  }
}

void SerialLine::SetOutputs(unsigned int outputs) {
  if (((m_outputs ^ outputs) & kLoop) != 0) {
    // What has been written belongs to where the line led until now.
    CarryOut();
  }
  m_outputs = outputs;
}

void SerialLine::GetSettings(const TrappedCall& call) const {
  termios2 settings{};
  if (::ioctl(m_slave.Get(), TCGETS2, &settings) == -1) {
    throw RequestError{errno};
  }
  settings.c_cflag = (settings.c_cflag & ~kForgotten) | m_forgotten;
  if (call.IoctlRequest() == TCGETS2) {
    call.Write(settings);
  } else {
    // The older structure is the newer one's beginning.
    termios older{};
    static_assert(sizeof older <= sizeof settings);
    std::copy_n(reinterpret_cast<const char*>(&settings), sizeof older, reinterpret_cast<char*>(&older));
    call.Write(older);
  }
}

void SerialLine::SetSettings(const TrappedCall& call) {
  const unsigned int request = call.IoctlRequest();
  if (request == TCSETSF || request == TCSETSF2) {
    CarryOut();
    m_in.clear();
    ::ioctl(m_slave.Get(), TCFLSH, TCIFLUSH);
  }
  termios2 before{};
  ::ioctl(m_slave.Get(), TCGETS2, &before);

  tcflag_t flags = 0;
  int result = 0;
  // Never in the ways that wait: for a writer that itself waits, until its bytes are carried from here.
  if (request == TCSETS || request == TCSETSW || request == TCSETSF) {
    const auto settings = call.Read<termios>();
    flags = settings.c_cflag;
    result = ::ioctl(m_slave.Get(), TCSETS, &settings);
  } else {
    const auto settings = call.Read<termios2>();
    flags = settings.c_cflag;
    result = ::ioctl(m_slave.Get(), TCSETS2, &settings);
  }
  if (result == -1) {
    throw RequestError{errno};
  }
  m_forgotten = flags & kForgotten;

  termios2 after{};
  ::ioctl(m_slave.Get(), TCGETS2, &after);
  if (!CanRun(after)) {
    constexpr tcflag_t kSpeeds = CBAUD | CBAUD << IBSHIFT;
    after.c_cflag = (after.c_cflag & ~kSpeeds) | (before.c_cflag & kSpeeds);
    after.c_ispeed = before.c_ispeed;
    after.c_ospeed = before.c_ospeed;
    ::ioctl(m_slave.Get(), TCSETS2, &after);
  }
  // Speed 0 hangs up, and any other one after it picks up again.
  const bool wasZero = (before.c_cflag & CBAUD) == B0;
  const bool isZero = (after.c_cflag & CBAUD) == B0;
  if (isZero) {
    SetOutputs(m_outputs & ~kOpened);
  } else if (wasZero) {
    SetOutputs(m_outputs | kOpened);
  }
  ProgramUart(flags, isZero ? 0 : after.c_ospeed);
  m_log.Write(m_path, "settings speed=" + std::to_string(isZero ? 0 : after.c_ospeed) + " flags=" + Hex(flags));
}

/// Whether the UART's clock can be divided to that speed. Drivers take others without an error, and keep the old one.
bool SerialLine::CanRun(const termios2& settings) const {
  constexpr std::uint32_t kGreatestDivisor = 0xFFFF;
  constexpr std::uint32_t kTolerance = 100;  // a hundredth above the fastest is taken for it
  const std::uint64_t base = m_info.baudBase;
  return (settings.c_cflag & CBAUD) == B0 ||
         (settings.c_ospeed >= base / kGreatestDivisor && settings.c_ospeed <= base + base / kTolerance);
}

void SerialLine::ProgramUart(unsigned int flags, unsigned int baud) {
  if (m_uart != nullptr) {
    m_uart->ProgramUart(baud, LineControl(flags));
  }
}

void SerialLine::Flush(const TrappedCall& call) {
  const auto queue = call.IoctlArgument();
  if (queue != TCOFLUSH) {
    CarryOut();
    m_in.clear();
  }
  if (::ioctl(m_slave.Get(), TCFLSH, queue) == -1) {
    throw RequestError{errno};
  }
  m_log.Write(m_path, queue == TCIFLUSH ? "flush input" : queue == TCOFLUSH ? "flush output" : "flush both");
}

void SerialLine::GetInfo(const TrappedCall& call) const {
  serial_struct info{};
  info.baud_base = static_cast<int>(m_info.baudBase);
  info.xmit_fifo_size = static_cast<int>(m_info.fifoSize);
  info.flags = static_cast<int>(m_info.flags);
  info.irq = static_cast<int>(m_info.irq);
  info.custom_divisor = static_cast<int>(m_info.divisor);
  info.type = PORT_16550A;
  call.Write(info);
  m_log.Write(m_path, "TIOCGSERIAL");
}

void SerialLine::SetInfo(const TrappedCall& call) {
  const auto info = call.Read<serial_struct>();
  m_info.baudBase = static_cast<std::uint32_t>(info.baud_base);
  m_info.flags = static_cast<std::uint32_t>(info.flags);
  m_info.divisor = static_cast<std::uint32_t>(info.custom_divisor);
  m_log.Write(m_path, "TIOCSSERIAL");
}
