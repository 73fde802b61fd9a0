#include "devices/line/SerialLine.h"

#include <fcntl.h>
#include <linux/tty.h>

#include <cerrno>
#include <utility>

#include "SetupError.h"
#include "Text.h"
#include "devices/Memory.h"
#include "devices/ModemLines.h"
#include "devices/line/Earlier.h"

namespace {

constexpr int kMostTurns = 16;                // before others have their turn
constexpr std::chrono::seconds kPatience{5};  // after the application's end, with a far end that takes nothing
constexpr std::chrono::milliseconds kClosingUnit{10};
constexpr std::chrono::seconds kOpening{1};  // for the kernel, which may refuse it

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

}  // namespace

SerialLine::SerialLine(const std::string& path, const Traits& traits, const Backplane& backplane)
    : Device(path),
      m_uartPlace(traits.uart),
      m_backplane(backplane),
      m_port{path, backplane.log, traits.farEnd(path, backplane.log), traits.info},
      m_modem(m_port),
      m_sender(m_port, m_modem, [this](std::string_view bytes) { m_receiver.Hear(bytes); }),
      m_receiver(m_port, m_modem, m_sender),
      m_settings(m_port, m_modem, m_sender, m_receiver, traits.isPaced),
      m_requests({m_port, m_modem, m_sender, m_receiver, m_settings, [this] { TellInfo(); }}, traits.isPaced) {
  AddCommands();
  Register();
}

void SerialLine::Attach(Descriptor descriptor) {
  m_port.terminal.emplace(std::move(descriptor));
  m_port.use = m_port.use == Port::Use::kNever ? Port::Use::kNever : Port::Use::kClosed;
  m_port.isExclusive = m_isClosing = false;
  m_requests.Reset();
  m_sender.Reset();
  m_receiver.Reset();
  m_modem.SetOutputs(0);
  m_settings.Program();
  TellInfo();
}

void SerialLine::Tell(SystemFolder folder) {
  m_told = std::move(folder);
  TellInfo();
}

void SerialLine::Connect(const Devices& board) {
  if (!m_uartPlace) {
    return;
  }
  for (const auto& device : board) {
    if (const auto* memory = dynamic_cast<const Memory*>(device.get())) {
      m_settings.Use(Uart(*memory, m_uartPlace->base, m_uartPlace->stride));
    }
  }
}

bool SerialLine::Is(const FileId& file) const {
  return m_port.terminal && file == m_port.terminal->Id();
}

void SerialLine::Opened() {
  if (!m_port.terminal) {
    throw RequestError{EIO};
  }
  if (m_port.isExclusive) {
    throw RequestError{EBUSY};
  }
  m_openEnds = Clock::now() + kOpening;
  Begin(Port::Use::kOpening);
}

void SerialLine::NotOpened() {
  if (m_port.use == Port::Use::kOpening) {
    LastClose();
    EndClose();
  }
}

Descriptor SerialLine::Open(int flags) const {
  Descriptor own = m_port.terminal->Open(flags & (O_ACCMODE | O_NONBLOCK | O_APPEND));
  if (!own) {
    throw RequestError{errno};
  }
  return own;
}

void SerialLine::Request(const TrappedCall& call) {
  // What the application did before has been noticed: the loop guarantees that.
  m_modem.LookAtFarEnd();
  m_requests.Answer(call);
  if (SerialRequests::OnlyAsks(call.IoctlRequest())) {
    return;
  }
  Work();
}

bool SerialLine::IsBusy() {
  Work();
  // Most of it moves between two questions.
  if (const std::uint64_t gone = m_sender.Gone(); !m_lastMove || gone != m_lastGone) {
    m_lastMove = Clock::now();
    m_lastGone = gone;
  }
  // An echo, or nobody, would not miss it.
  const bool isHeard = m_port.far->IsConnected() && !m_port.far->ReturnsBytes();
  const bool isBusy =
      m_port.terminal && isHeard && !m_sender.IsEmpty() && m_sender.CanSend() && Clock::now() < *m_lastMove + kPatience;
  if (!isBusy && !m_sender.IsEmpty()) {
    if (isHeard) {
      m_port.Log("lost bytes=" + std::to_string(m_sender.Waiting()));
    }
    m_sender.Drop();
  }
  return isBusy;
}

// --- The technician's commands ---------------------------------------------------------------------------------------

void SerialLine::AddCommands() {
  // Each answers "ok", but for one.
  const auto add = [this](const char* usage, const std::function<void(const Commands::Words&)>& action) {
    m_backplane.commands.AddFor(Path(), usage, [this, action](const Commands::Words& words) {
      Work();
      action(words);
      Work();
      return std::string();
    });
  };
  add("feed TTY HEX", [this](const Commands::Words& words) { Feed(words[0]); });
  add("break TTY", [this](const Commands::Words& /*none*/) { m_receiver.HearBreak(); });
  add("hangup TTY", [this](const Commands::Words& /*none*/) { HangUp(); });
  add("plug TTY", [this](const Commands::Words& /*none*/) { PlugIn(); });
  add("set TTY INPUT...", [this](const Commands::Words& words) { m_modem.SetInputs(ModemInputs(words), true); });
  add("clear TTY INPUT...", [this](const Commands::Words& words) { m_modem.SetInputs(ModemInputs(words), false); });
  m_backplane.commands.AddFor(Path(), "lines TTY",
                              [this](const Commands::Words& /*none*/) { return ModemLineNames(m_modem.Lines()); });
}

void SerialLine::Feed(const std::string& hex) {
  if (!m_port.terminal) {
    throw SetupError(Path() + " is not plugged in");
  }
  const std::string bytes = ParseBytes(hex);
  m_port.Log("feed bytes=" + std::to_string(bytes.size()));
  m_receiver.Hear(bytes);
}

/// From now on the application reads the end of the file, and can do nothing else.
void SerialLine::HangUp() {
  m_port.Log("hang-up");
  m_sender.Drop();
  m_receiver.Reset();
  m_port.terminal.reset();
  m_port.use = Port::Use::kClosed;
}

void SerialLine::PlugIn() {
  if (m_port.terminal) {
    throw SetupError(Path() + " is plugged in");
  }
  Attach(m_backplane.renew(Path()));
}

/// What the kernel shows of a port with a UART.
void SerialLine::TellInfo() {
  const serial_struct& info = m_port.info;
  const std::string number = std::to_string(m_port.terminal->Number());
  m_told.Write("dev", "136:" + number);
  m_told.Write("uevent", "MAJOR=136\nMINOR=" + number + "\nDEVNAME=" + Path().substr(std::string("/dev/").size()));
  m_told.Write("type", std::to_string(info.type));
  m_told.Write("line", std::to_string(info.line));
  m_told.Write("irq", std::to_string(info.irq));
  m_told.Write("flags", Hex(static_cast<std::uint32_t>(info.flags)));
  m_told.Write("uartclk", std::to_string(std::int64_t{info.baud_base} * 16));
  m_told.Write("xmit_fifo_size", std::to_string(info.xmit_fifo_size));
  m_told.Write("custom_divisor", std::to_string(info.custom_divisor));
  m_told.Write("close_delay", std::to_string(info.close_delay));
  m_told.Write("closing_wait", std::to_string(info.closing_wait));
}

// --- The loop --------------------------------------------------------------------------------------------------------

/// Called once: a port that is plugged in again keeps its place before those that answer the application.
void SerialLine::Register() {
  const auto work = [this](short /*events*/) { Work(); };
  m_masterRegistration = m_backplane.loop.Watch([this] { return MasterInterest(); }, work);
  m_opensRegistration = m_backplane.loop.Watch(
      [this] {
        // While it is open, its opens change nothing.
        return pollfd{m_port.terminal && !m_port.IsOpen() ? m_port.terminal->Events() : -1, POLLIN, 0};
      },
      work);
  m_farRegistration = m_backplane.loop.Watch(
      [this] {
        // Whoever is at the far end waits while the application does not read.
        return m_port.far->Interest(m_receiver.IsListening(), m_sender.IsFarFull() && m_sender.CanSend());
      },
      work);
  m_timeRegistration = m_backplane.loop.At([this] { return Next(); }, [this] { Work(); });
}

pollfd SerialLine::MasterInterest() const {
  // While nobody has it open, poll() would report a hang-up for ever.
  if (!m_port.terminal || !m_port.IsOpen()) {
    return {-1, 0, 0};
  }
  const int events = (m_sender.HasRoom() ? POLLIN : 0) | (m_receiver.IsTerminalFull() ? POLLOUT : 0);
  return {m_port.terminal->Get(), static_cast<short>(events), 0};
}

std::optional<SerialLine::Clock::time_point> SerialLine::Next() const {
  std::optional<Clock::time_point> next = Earlier(m_requests.Next(), m_port.far->Next());
  next = Earlier(next, Earlier(m_sender.Next(), m_receiver.Next()));
  if (m_isClosing && !m_sender.CanSend()) {
    next = Earlier(next, std::make_optional(m_closeEnds));
  }
  if (m_port.use == Port::Use::kOpening) {
    next = Earlier(next, std::make_optional(m_openEnds));
  }
  return m_lastMove ? Earlier(next, std::make_optional(*m_lastMove + kPatience)) : next;
}

void SerialLine::Work() {
  LookForOpens();
  m_modem.LookAtFarEnd();
  m_sender.Begin();
  m_receiver.Begin();
  bool isMoving = true;
  for (int turn = 0; isMoving && turn < kMostTurns; ++turn) {
    isMoving = m_sender.Transmit();
    isMoving = m_receiver.Receive() || isMoving;
    isMoving = m_receiver.Deliver() || isMoving;
  }
  m_receiver.LookAtReader();
  EndClose();
  m_requests.AnswerLate();
}

// --- Opens and closes ------------------------------------------------------------------------------------------------

void SerialLine::LookForOpens() {
  if (!m_port.terminal) {
    return;
  }
  const auto [isOpened, isClosed] = m_port.terminal->TakeOpens();
  if (m_port.use == Port::Use::kOpening) {
    if (isOpened || !isClosed) {
      m_port.use = Port::Use::kOpen;
    } else if (Clock::now() >= m_openEnds) {
      LastClose();
    }
  } else if (!m_port.IsOpen() && (isOpened || !isClosed)) {
    // By an open that is not supervised.
    Begin(Port::Use::kOpen);
  }
  if (m_port.IsOpen() && isClosed) {
    LastClose();
  }
}

void SerialLine::Begin(Port::Use use) {
  m_port.Log("open");
  const bool isFirst = m_port.use == Port::Use::kNever || m_port.use == Port::Use::kClosed;
  if (isFirst && m_isClosing) {
    // Output that can't go must not become part of the new opener's.
    m_closeEnds = Clock::now();
    EndClose();
    m_isClosing = false;
  }
  m_port.use = isFirst ? use : m_port.use;
  const bool isZero = (m_port.Settings().c_cflag & CBAUD) == B0;
  m_modem.SetOutputs(m_modem.Outputs() | (isFirst ? kOut2 : 0) | (isZero ? 0 : kRaised));
}

/// The last one who had it open has closed it.
void SerialLine::LastClose() {
  m_port.use = Port::Use::kClosed;
  m_port.isExclusive = false;
  if (m_sender.IsHeld()) {
    m_sender.Drop();
  }
  m_sender.EndStops();
  m_receiver.Reset();
  m_receiver.Drop();
  m_isClosing = true;
  const unsigned int wait = m_port.info.closing_wait;
  m_closeEnds = wait == ASYNC_CLOSING_WAIT_INF    ? Clock::time_point::max()
                : wait == ASYNC_CLOSING_WAIT_NONE ? Clock::now()
                                                  : Clock::now() + wait * kClosingUnit;
  // Most of the events until now come from the port's own opens; but somebody may have opened it again.
  if (!m_port.terminal->TakeOpens().isClosed) {
    Begin(Port::Use::kOpen);
  }
}

/// What a driver does once the output has gone, or has had its time to go.
void SerialLine::EndClose() {
  if (!m_isClosing) {
    return;
  }
  m_sender.TakeRest();
  if (!m_sender.IsEmpty()) {
    // A slow far end gets everything.
    if (m_sender.CanSend() || Clock::now() < m_closeEnds) {
      return;
    }
    m_sender.Drop();
  }
  m_isClosing = false;
  const bool hangsUp = (m_port.Settings().c_cflag & HUPCL) != 0;
  m_modem.SetOutputs(m_modem.Outputs() & ~(kOut2 | (hangsUp ? kRaised : 0)));
}
