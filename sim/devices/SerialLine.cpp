#include "devices/SerialLine.h"

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
#include <sstream>
#include <utility>
#include <vector>

#include "SetupError.h"
#include "Text.h"
#include "devices/Memory.h"
#include "devices/PseudoTerminal.h"
#include "sandbox/PrivateDev.h"

namespace {

constexpr std::size_t kInSize = 65536;  // bytes on their way to the application
constexpr std::size_t kPieceSize = 4096;
constexpr std::uint32_t kFirstSpeed = 9600;
constexpr int kPatience = 100;  // milliseconds

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

// What a pseudo-terminal refuses, or forgets. TCFLSH: bytes on their way through the simulator are to go, too.
constexpr unsigned int kRequests[] = {TCGETS, TCSETS,   TCSETSW,  TCSETSF,  TCGETS2,  TCSETS2,     TCSETSW2,   TCSETSF2,
                                      TCFLSH, TIOCMGET, TIOCMSET, TIOCMBIS, TIOCMBIC, TIOCGSERIAL, TIOCSSERIAL};

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

/// The modem lines by name: "RTS DTR CTS".
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
    if (name == line.name && (line.bit & kInputs) != 0) {
      return line.bit;
    }
  }
  throw SetupError("the inputs are CTS, DSR, CD and RI, not \"" + name + "\"");
}

unsigned int ModemInputs(const std::vector<std::string>& names) {
  unsigned int inputs = 0;
  for (const std::string& name : names) {
    inputs |= ModemInput(name);
  }
  return inputs;
}

std::string ParseBytes(const std::string& hex) {
  std::string bytes;
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    const std::string pair = hex.substr(i, 2);
    if (pair.size() != 2 || pair.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
      throw SetupError("bytes are pairs of hexadecimal digits, not \"" + hex + "\"");
    }
    bytes.push_back(static_cast<char>(std::stoul(pair, nullptr, 16)));
  }
  return bytes;
}

class SerialLineKind : public DeviceKind {
 public:
  std::vector<Option> Options() override {
    return {{"--tty", "PATH[=FAR]", "A serial port, and its far end (/dev/ttyS1=echo)", true,
             [this](const std::string& text) { TakeTty(text); }},
            {"--serial-info", "FIVE,NUMBERS",
             "What TIOCGSERIAL tells: base, FIFO size, flags, irq,\ndivisor (3906250,64,0x10000040,42,0)", false,
             [this](const std::string& text) { TakeInfo(text); }},
            {"--uart", "BASE[:STRIDE]", "The first port's registers (0x80011000:4)", false,
             [this](const std::string& text) { TakeUart(text); }}};
  }

  std::vector<Node> Nodes() const override {
    std::vector<Node> nodes;
    for (const auto& [path, farEnd] : Ttys()) {
      nodes.push_back({path, Node::Kind::kTerminal});
    }
    return nodes;
  }

  TrappedRequests Requests() const override {
    return {{std::begin(kRequests), std::end(kRequests)}, {}};
  }

  Devices Make(const Backplane& backplane) const override {
    Devices devices;
    for (const auto& [path, farEnd] : Ttys()) {
      const auto uart = devices.empty() ? std::make_optional(m_uart) : std::nullopt;
      devices.push_back(std::make_unique<SerialLine>(path, farEnd, m_info, uart, backplane));
    }
    return devices;
  }

 private:
  using Tty = std::pair<std::string, FarEndMaker>;

  std::vector<Tty> Ttys() const {
    return m_ttys.empty() ? std::vector<Tty>{{"/dev/ttyS1", ParseFarEnd("echo")}} : m_ttys;
  }

  void TakeTty(const std::string& text) {
    const auto [path, farEnd] = Cut(text, '=');
    m_ttys.emplace_back(CheckedNode("--tty", path), ParseFarEnd(path == text ? "echo" : farEnd));
  }

  void TakeInfo(const std::string& text) {
    std::uint32_t* const fields[] = {&m_info.baudBase, &m_info.fifoSize, &m_info.flags, &m_info.irq, &m_info.divisor};
    std::vector<std::string> numbers;
    std::istringstream list(text);
    for (std::string number; std::getline(list, number, ',');) {
      numbers.push_back(number);
    }
    if (numbers.size() != std::size(fields)) {
      throw SetupError("--serial-info needs five numbers: BAUD_BASE,FIFO_SIZE,FLAGS,IRQ,DIVISOR.");
    }
    for (std::size_t i = 0; i < numbers.size(); ++i) {
      *fields[i] = NumberOf("--serial-info", numbers[i]);
    }
  }

  void TakeUart(const std::string& text) {
    const auto [base, stride] = Cut(text, ':');
    m_uart.base = NumberOf("--uart", base);
    m_uart.stride = base == text ? m_uart.stride : NumberOf("--uart", stride);
    if (m_uart.stride == 0) {
      throw SetupError("--uart needs a stride: the distance of the registers in bytes.");
    }
  }

  std::vector<Tty> m_ttys;
  SerialInfo m_info;
  UartPlace m_uart;
};

}  // namespace

SerialLine::SerialLine(const std::string& path, const FarEndMaker& farEnd, const SerialInfo& info,
                       std::optional<UartPlace> uart, const Backplane& backplane)
    : Device(path),
      m_info(info),
      m_uartPlace(uart),
      m_backplane(backplane),
      m_log(backplane.log),
      m_far(farEnd(path, backplane.log)),
      m_inputs(m_far->IsConnected() ? kReady : 0),
      m_in(kInSize) {
  AddCommands();
}

void SerialLine::Attach(Descriptor descriptor) {
  m_master = std::move(descriptor);
  m_slave = OpenRawSlave(m_master);
  if (!m_slave || ::fcntl(m_master.Get(), F_SETFL, O_RDWR | O_NONBLOCK) == -1) {
    throw SetupError("the terminal behind " + Path() + " can't be opened", errno);
  }
  m_id = FileId::Of(m_slave);
  m_outputs = 0;
  m_forgotten = CS8 | CREAD;
  m_in.Clear();
  m_masterRegistration = m_backplane.loop.Watch([this] { return MasterInterest(); }, [this](short) { Carry(false); });
  m_farRegistration = m_backplane.loop.Watch([this] { return FarInterest(); }, [this](short) { Carry(true); });
}

void SerialLine::Connect(const Devices& board) {
  if (!m_uartPlace) {
    return;
  }
  for (const auto& device : board) {
    if (const auto* memory = dynamic_cast<const Memory*>(device.get())) {
      m_uart.emplace(*memory, m_uartPlace->base, m_uartPlace->stride);
      m_uart->Program(kFirstSpeed, CS8);
    }
  }
}

bool SerialLine::Is(const FileId& file) const {
  return m_slave && file == m_id;
}

void SerialLine::Opened() {
  m_log.Write(Path(), "open");
  SetOutputs(m_outputs | kOpened);
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
      m_log.Write(Path(), "TIOCMGET " + Hex(ModemLines()));
      break;
    case TIOCMSET:
      SetOutputs(call.Read<unsigned int>() & kOutputs);
      m_log.Write(Path(), "TIOCMSET " + Hex(m_outputs));
      break;
    case TIOCMBIS:
      SetOutputs(m_outputs | (call.Read<unsigned int>() & kOutputs));
      m_log.Write(Path(), "TIOCMBIS " + Hex(m_outputs));
      break;
    case TIOCMBIC:
      SetOutputs(m_outputs & ~call.Read<unsigned int>());
      m_log.Write(Path(), "TIOCMBIC " + Hex(m_outputs));
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

void SerialLine::Finish(Clock::time_point latest) {
  Carry(false);
  pollfd far = m_far->Interest(false);
  while (m_far->HasToDeliver() && Clock::now() < latest) {
    ::poll(&far, 1, kPatience);
    Carry(false);
  }
}

void SerialLine::AddCommands() {
  // Each answers "ok", but for one.
  const auto add = [this](const char* usage, const std::function<void(const Commands::Words&)>& action) {
    m_backplane.commands.AddFor(Path(), usage, [action](const Commands::Words& words) {
      action(words);
      return std::string();
    });
  };
  add("feed TTY HEX", [this](const Commands::Words& words) { Feed(words[0]); });
  add("hangup TTY", [this](const Commands::Words& /*none*/) { HangUp(); });
  add("plug TTY", [this](const Commands::Words& /*none*/) { Renew(); });
  add("set TTY INPUT...", [this](const Commands::Words& words) { SetInputs(ModemInputs(words), true); });
  add("clear TTY INPUT...", [this](const Commands::Words& words) { SetInputs(ModemInputs(words), false); });
  m_backplane.commands.AddFor(Path(), "lines TTY",
                              [this](const Commands::Words& /*none*/) { return ModemLineNames(ModemLines()); });
}

void SerialLine::Feed(const std::string& hex) {
  if (!m_master) {
    throw SetupError(Path() + " is not plugged in");
  }
  const std::string bytes = ParseBytes(hex);
  m_log.Write(Path(), "feed bytes=" + std::to_string(bytes.size()));
  Queue(bytes);
}

/// The application reads the end of the file and can do nothing else any more.
void SerialLine::HangUp() {
  m_log.Write(Path(), "hang-up");
  CarryOut();
  m_slave.Close();
  m_master.Close();
  m_in.Clear();
}

void SerialLine::Renew() {
  if (m_master) {
    throw SetupError(Path() + " is plugged in");
  }
  Attach(m_backplane.renew(Path()));
}

void SerialLine::SetInputs(unsigned int bits, bool on) {
  m_inputs = on ? m_inputs | bits : m_inputs & ~bits;
  m_log.Write(Path(), "inputs " + ModemLineNames(m_inputs));
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

pollfd SerialLine::MasterInterest() const {
  return {m_master.Get(), static_cast<short>(POLLIN | (m_in.IsEmpty() ? 0 : POLLOUT)), 0};
}

pollfd SerialLine::FarInterest() const {
  // Whoever is at the far end waits while the application does not read, as long as a slow line would make him wait.
  return m_far->Interest(m_in.Room() > 0);
}

void SerialLine::Carry(bool fromFar) {
  m_far->Deliver();
  CarryOut();
  if (fromFar) {
    CarryIn();
  }
  DeliverIn();
}

/// Takes what the application has written. Reading up to "nothing there" sees all that was written before.
void SerialLine::CarryOut() {
  const bool returns = (m_outputs & kLoop) != 0 || m_far->ReturnsBytes();
  char piece[kPieceSize];
  while (true) {
    const ssize_t got = ::read(m_master.Get(), piece, sizeof piece);
    if (got <= 0) {
      return;
    }
    const std::string_view bytes(piece, static_cast<std::size_t>(got));
    if (returns) {
      Queue(bytes);
    } else {
      m_far->Send(bytes);
    }
  }
}

void SerialLine::CarryIn() {
  char piece[kPieceSize];
  const bool wasConnected = m_far->IsConnected();
  const std::size_t got = m_far->Receive(piece, std::min(sizeof piece, m_in.Room()));
  if (wasConnected && !m_far->IsConnected()) {
    SetInputs(kReady, false);
  }
  // In the loop the receiver does not listen to the line, and on a line that hangs up there is none.
  if (m_master && (m_outputs & kLoop) == 0) {
    m_in.Append({piece, got});
  }
}

/// Hands bytes to the application for which nobody can be made to wait: more than a driver would hold are lost.
void SerialLine::Queue(std::string_view bytes) {
  if (!m_in.Append(bytes)) {
    m_log.Write(Path(), "overrun dropped=" + std::to_string(m_in.Dropped()));
  }
  DeliverIn();
}

void SerialLine::DeliverIn() {
  // A terminal that takes nothing any more has been hung up, which discards all.
  m_in.Deliver(m_master.Get());
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
    m_in.Clear();
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
  m_log.Write(Path(), "settings speed=" + std::to_string(isZero ? 0 : after.c_ospeed) + " flags=" + Hex(flags));
}

/// Whether the UART's clock can be divided to that speed. Drivers take others without an error, and keep the old one.
bool SerialLine::CanRun(const termios2& settings) const {
  constexpr std::uint32_t kGreatestDivisor = 0xFFFF;
  constexpr std::uint32_t kTolerance = 100;  // a hundredth above the fastest is taken for it
  const std::uint64_t base = m_info.baudBase;
  return (settings.c_cflag & CBAUD) == B0 ||
         (settings.c_ospeed >= base / kGreatestDivisor && settings.c_ospeed <= base + base / kTolerance);
}

void SerialLine::ProgramUart(unsigned int flags, unsigned int baud) const {
  if (m_uart) {
    m_uart->Program(baud, flags);
  }
}

void SerialLine::Flush(const TrappedCall& call) {
  const auto queue = call.IoctlArgument();
  if (queue != TCOFLUSH) {
    CarryOut();
    m_in.Clear();
  }
  if (::ioctl(m_slave.Get(), TCFLSH, queue) == -1) {
    throw RequestError{errno};
  }
  m_log.Write(Path(), queue == TCIFLUSH ? "flush input" : queue == TCOFLUSH ? "flush output" : "flush both");
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
  m_log.Write(Path(), "TIOCGSERIAL");
}

void SerialLine::SetInfo(const TrappedCall& call) {
  const auto info = call.Read<serial_struct>();
  m_info.baudBase = static_cast<std::uint32_t>(info.baud_base);
  m_info.flags = static_cast<std::uint32_t>(info.flags);
  m_info.divisor = static_cast<std::uint32_t>(info.custom_divisor);
  m_log.Write(Path(), "TIOCSSERIAL");
}

std::unique_ptr<DeviceKind> MakeSerialLineKind() {
  return std::make_unique<SerialLineKind>();
}
