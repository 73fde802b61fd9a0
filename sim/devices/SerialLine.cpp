#include "devices/SerialLine.h"

// Not <termios.h>: its structure is the C library's, and the kernel's is what the application hands over.
#include <asm/termbits.h>
#include <fcntl.h>
#include <linux/tty.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <limits>
#include <utility>

#include "SetupError.h"
#include "devices/Memory.h"
#include "devices/ModemLines.h"

namespace {

constexpr std::size_t kOutSize = 4096;       // bytes that a driver holds
constexpr std::size_t kWrittenSize = 20480;  // bytes that wait in the terminal besides
constexpr std::size_t kInSize = 65536;       // bytes on their way to the application
constexpr std::size_t kPieceSize = 4096;
constexpr std::size_t kThrottle = 3968;  // unread bytes, of the 4096 that a terminal keeps
constexpr std::size_t kUnthrottle = 128;
constexpr int kMostTurns = 16;  // before others have theirs
constexpr std::chrono::milliseconds kInputLook{10};
constexpr std::chrono::seconds kPatience{5};  // after the application's end, with a far end that takes nothing
constexpr std::chrono::milliseconds kBreak{250};
constexpr std::chrono::milliseconds kBreakUnit{100};
constexpr std::chrono::milliseconds kClosingUnit{10};
constexpr int kLeastBase = 9600;

constexpr unsigned int kOpened = TIOCM_RTS | TIOCM_DTR;
constexpr char kFullByte = '\377';

// What a pseudo-terminal refuses, forgets, or answers without knowing what is on its way.
constexpr unsigned int kRequests[] = {
    TCGETS,   TCSETS,   TCSETSW,  TCSETSF,  TCGETS2,    TCSETS2,     TCSETSW2,    TCSETSF2,    TCFLSH,
    TCXONC,   TCSBRK,   TCSBRKP,  TIOCSBRK, TIOCCBRK,   TIOCOUTQ,    TIOCEXCL,    TIOCNXCL,    TIOCGEXCL,
    TIOCMGET, TIOCMSET, TIOCMBIS, TIOCMBIC, TIOCMIWAIT, TIOCGICOUNT, TIOCGSERIAL, TIOCSSERIAL, TIOCSERGETLSR};

std::string Hex(unsigned int value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", value);
  return text;
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

/// The bits that go over the line for a byte.
int BitsOf(tcflag_t flags) {
  const tcflag_t size = flags & CSIZE;
  const int data = size == CS8 ? 8 : size == CS7 ? 7 : size == CS6 ? 6 : 5;
  return 1 + data + ((flags & PARENB) != 0 ? 1 : 0) + ((flags & CSTOPB) != 0 ? 2 : 1);
}

template <typename Moment>
void Earlier(std::optional<Moment>& earliest, const std::optional<Moment>& moment) {
  if (moment && (!earliest || *moment < *earliest)) {
    earliest = moment;
  }
}

}  // namespace

TrappedRequests SerialLine::Requests() {
  return {{std::begin(kRequests), std::end(kRequests)}, {}};
}

SerialLine::SerialLine(const std::string& path, const Traits& traits, const Backplane& backplane)
    : Device(path),
      m_info(traits.info),
      m_uartPlace(traits.uart),
      m_isPaced(traits.isPaced),
      m_backplane(backplane),
      m_log(backplane.log),
      m_far(traits.farEnd(path, backplane.log)),
      m_out(kOutSize + kWrittenSize),
      m_in(kInSize),
      m_inputs(m_far->Inputs(0)),
      m_farInputs(m_inputs),
      m_counted(m_inputs) {
  AddCommands();
}

void SerialLine::Attach(Descriptor descriptor) {
  m_terminal.emplace(std::move(descriptor));
  m_late.Clear();
  m_breakEnds.reset();
  m_use = m_use == Use::kNever ? Use::kNever : Use::kClosed;
  m_isClosing = m_isExclusive = m_isHeld = m_isStopped = m_isBreaking = m_isThrottled = false;
  m_gone += m_out.Size();
  m_out.Clear();
  m_in.Clear();
  m_outputs = 0;
  Program();
  const auto work = [this](short /*events*/) { Work(); };
  m_masterRegistration = m_backplane.loop.Watch([this] { return MasterInterest(); }, work);
  m_opensRegistration = m_backplane.loop.Watch(
      [this] {
        return pollfd{m_terminal ? m_terminal->Events() : -1, POLLIN, 0};
      },
      work);
  m_farRegistration = m_backplane.loop.Watch([this] { return FarInterest(); }, work);
  m_timeRegistration = m_backplane.loop.At([this] { return Next(); }, [this] { Work(); });
}

void SerialLine::Connect(const Devices& board) {
  if (!m_uartPlace) {
    return;
  }
  for (const auto& device : board) {
    if (const auto* memory = dynamic_cast<const Memory*>(device.get())) {
      m_uart.emplace(*memory, m_uartPlace->base, m_uartPlace->stride);
      Program();
    }
  }
}

bool SerialLine::Is(const FileId& file) const {
  return m_terminal && file == m_terminal->Id();
}

void SerialLine::Opened() {
  // A close just before is still on its way.
  Work();
  if (!m_terminal) {
    throw RequestError{EIO};
  }
  if (m_isExclusive) {
    throw RequestError{EBUSY};
  }
  Begin(Use::kOpening);
}

Descriptor SerialLine::Open(int flags) const {
  Descriptor own = m_terminal->Open(flags & (O_ACCMODE | O_NONBLOCK | O_APPEND));
  if (!own) {
    throw RequestError{errno};
  }
  return own;
}

void SerialLine::Request(const TrappedCall& call) {
  Work();
  const unsigned int request = call.IoctlRequest();
  switch (request) {
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
      return;
    case TCFLSH:
      Flush(call);
      break;
    case TCXONC:
      ControlFlow(call);
      break;
    case TCSBRK:
      if (call.IoctlArgument() != 0) {
        AfterOutput(call, [](const TrappedCall& drained) { drained.Return(0); });
      } else {
        SendBreak(call, kBreak);
      }
      Work();
      return;
    case TCSBRKP: {
      const auto units = static_cast<int>(call.IoctlArgument());
      SendBreak(call, units == 0 ? kBreak : units * kBreakUnit);
      Work();
      return;
    }
    case TIOCSBRK:
    case TIOCCBRK:
      SetBreak(request == TIOCSBRK);
      break;
    case TIOCOUTQ:
      WrittenUntilNow();
      call.Write(static_cast<int>(m_out.Size()));
      break;
    case TIOCSERGETLSR:
      WrittenUntilNow();
      call.Write(m_out.IsEmpty() ? TIOCSER_TEMT : 0U);
      break;
    case TIOCEXCL:
    case TIOCNXCL:
      m_isExclusive = request == TIOCEXCL;
      break;
    case TIOCGEXCL:
      call.Write(m_isExclusive ? 1 : 0);
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
    case TIOCMIWAIT:
      AwaitModemLines(call);
      return;
    case TIOCGICOUNT:
      GetCounts(call);
      break;
    case TIOCGSERIAL:
      call.Write(m_info);
      m_log.Write(Path(), "TIOCGSERIAL");
      break;
    case TIOCSSERIAL:
      SetInfo(call);
      break;
    default:
      call.Continue();
      return;
  }
  call.Return(0);
  Work();
}

bool SerialLine::IsBusy() {
  const std::uint64_t before = m_gone;
  Work();
  if (!m_lastMove || m_gone != before) {
    m_lastMove = Clock::now();
  }
  const bool isBusy = m_terminal && !m_out.IsEmpty() && CanSend() && Clock::now() < *m_lastMove + kPatience;
  if (!isBusy && !m_out.IsEmpty()) {
    m_log.Write(Path(), "lost bytes=" + std::to_string(m_out.Size()));
    DropOutput();
  }
  return isBusy;
}

// --- The technician's commands ---------------------------------------------------------------------------------------

void SerialLine::AddCommands() {
  // Each answers "ok", but for one.
  const auto add = [this](const char* usage, const std::function<void(const Commands::Words&)>& action) {
    m_backplane.commands.AddFor(Path(), usage, [this, action](const Commands::Words& words) {
      action(words);
      Work();
      return std::string();
    });
  };
  add("feed TTY HEX", [this](const Commands::Words& words) { Feed(words[0]); });
  add("break TTY", [this](const Commands::Words& /*none*/) {
    Work();
    BreakIn();
  });
  add("hangup TTY", [this](const Commands::Words& /*none*/) { HangUp(); });
  add("plug TTY", [this](const Commands::Words& /*none*/) { Renew(); });
  add("set TTY INPUT...", [this](const Commands::Words& words) { SetInputs(ModemInputs(words), true); });
  add("clear TTY INPUT...", [this](const Commands::Words& words) { SetInputs(ModemInputs(words), false); });
  m_backplane.commands.AddFor(Path(), "lines TTY",
                              [this](const Commands::Words& /*none*/) { return ModemLineNames(ModemLines()); });
}

void SerialLine::Feed(const std::string& hex) {
  if (!m_terminal) {
    throw SetupError(Path() + " is not plugged in");
  }
  const std::string bytes = ParseBytes(hex);
  m_log.Write(Path(), "feed bytes=" + std::to_string(bytes.size()));
  Work();
  Arrive(bytes);
}

/// The application reads the end of the file and can do nothing else any more.
void SerialLine::HangUp() {
  m_log.Write(Path(), "hang-up");
  Work();
  DropOutput();
  m_in.Clear();
  m_terminal.reset();
  m_use = Use::kClosed;
}

void SerialLine::Renew() {
  if (m_terminal) {
    throw SetupError(Path() + " is plugged in");
  }
  Attach(m_backplane.renew(Path()));
}

// --- The loop --------------------------------------------------------------------------------------------------------

pollfd SerialLine::MasterInterest() const {
  // Without an opener, it would tell of that for ever.
  if (!m_terminal || m_use != Use::kOpen) {
    return {-1, 0, 0};
  }
  const int events = (m_out.Size() < kOutSize ? POLLIN : 0) | (m_isTerminalFull ? POLLOUT : 0);
  return {m_terminal->Get(), static_cast<short>(events), 0};
}

pollfd SerialLine::FarInterest() const {
  // Whoever is at the far end waits while the application does not read.
  return m_far->Interest(IsListening(), m_isFarFull && CanSend());
}

std::optional<SerialLine::Clock::time_point> SerialLine::Next() const {
  std::optional<Clock::time_point> next = m_late.Next();
  Earlier(next, m_far->Next());
  Earlier(next, m_breakEnds);
  if (CanSend() && !m_isFarFull) {
    Earlier(next, m_outPace.Next(m_out.Size()));
  }
  if (m_use == Use::kOpen && !m_isTerminalFull) {
    Earlier(next, m_inPace.Next(m_in.Size()));
  }
  Earlier(next, m_lookAt);
  if (m_isClosing && !CanSend()) {
    Earlier(next, std::make_optional(m_closeEnds));
  }
  if (m_lastMove) {
    Earlier(next, std::make_optional(*m_lastMove + kPatience));
  }
  return next;
}

void SerialLine::Work() {
  LookForOpens();
  LookAtFarEnd();
  m_isFarFull = m_isTerminalFull = false;
  bool isMoving = true;
  for (int turn = 0; isMoving && turn < kMostTurns; ++turn) {
    isMoving = Transmit();
    isMoving = Receive() || isMoving;
    isMoving = Deliver() || isMoving;
  }
  LookAtInput();
  EndClose();
  m_late.Try();
  m_late.LookForSignals();
}

// --- Opens and closes ------------------------------------------------------------------------------------------------

void SerialLine::LookForOpens() {
  if (!m_terminal) {
    return;
  }
  const bool isOpened = m_terminal->TakeOpens();
  const bool isClosed = m_terminal->IsClosed();
  if (m_use == Use::kOpening) {
    m_use = isOpened || !isClosed ? Use::kOpen : m_use;
  } else if (m_use != Use::kOpen && (isOpened || !isClosed)) {
    // In a way that is not kept back.
    Begin(Use::kOpen);
  }
  if (m_use == Use::kOpen && isClosed) {
    LastClose();
  }
}

void SerialLine::Begin(Use use) {
  m_log.Write(Path(), "open");
  const bool isFirst = m_use == Use::kNever || m_use == Use::kClosed;
  if (isFirst && m_isClosing) {
    // What can't go does not belong to whoever opens it now.
    m_closeEnds = Clock::now();
    EndClose();
    m_isClosing = false;
  }
  m_use = isFirst ? use : m_use;
  const bool isZero = (m_terminal->Settings().c_cflag & CBAUD) == B0;
  SetOutputs(m_outputs | (isFirst ? kOut2 : 0) | (isZero ? 0 : kOpened));
}

/// The last one who had it open has closed it.
void SerialLine::LastClose() {
  m_use = Use::kClosed;
  if (m_isHeld) {
    DropOutput();
  }
  m_isExclusive = m_isHeld = m_isStopped = m_isBreaking = m_isThrottled = false;
  m_urgent.reset();
  DropInput();
  m_terminal->TakeOpens();
  m_isClosing = true;
  m_closeEnds = m_info.closing_wait == ASYNC_CLOSING_WAIT_INF    ? Clock::time_point::max()
                : m_info.closing_wait == ASYNC_CLOSING_WAIT_NONE ? Clock::now()
                                                                 : Clock::now() + m_info.closing_wait * kClosingUnit;
}

/// What a driver does once the output has gone, or has had its time to go.
void SerialLine::EndClose() {
  if (!m_isClosing) {
    return;
  }
  TakeWritten(kOutSize);
  if (!m_out.IsEmpty()) {
    // A far end that is slow gets all.
    if (CanSend() || Clock::now() < m_closeEnds) {
      return;
    }
    DropOutput();
  }
  m_isClosing = false;
  const bool hangsUp = (m_terminal->Settings().c_cflag & HUPCL) != 0;
  SetOutputs(m_outputs & ~(kOut2 | (hangsUp ? kOpened : 0)));
}

// --- To the far end --------------------------------------------------------------------------------------------------

bool SerialLine::CanSend() const {
  if (!m_terminal || m_isHeld || m_isStopped || m_isBreaking) {
    return false;
  }
  return (m_terminal->Settings().c_cflag & CRTSCTS) == 0 || (ModemLines() & TIOCM_CTS) != 0;
}

/// Takes what the application has written, until there are so many bytes.
void SerialLine::TakeWritten(std::size_t most) {
  char piece[kPieceSize];
  while (m_terminal && m_out.Size() < most) {
    const ssize_t got = ::read(m_terminal->Get(), piece, std::min(sizeof piece, most - m_out.Size()));
    if (got <= 0) {
      return;
    }
    m_out.Append({piece, static_cast<std::size_t>(got)});
  }
}

/// @returns whether something has gone.
bool SerialLine::Transmit() {
  if (m_urgent && SendOn({&*m_urgent, 1}) == 1) {
    m_urgent.reset();
  }
  TakeWritten(kOutSize);
  if (!CanSend() || m_out.IsEmpty()) {
    m_outPace.Rest();
    return false;
  }
  const std::string_view due = m_out.View().substr(0, m_outPace.Due(m_out.Size()));
  const std::size_t sent = due.empty() ? 0 : SendOn(due);
  m_isFarFull = sent < due.size();
  if (m_isFarFull) {
    m_outPace.Rest();
  }
  m_out.Take(sent);
  m_outPace.Spend(sent);
  m_gone += sent;
  m_counts.tx += static_cast<int>(sent);
  return sent > 0;
}

/// @returns how many have gone.
std::size_t SerialLine::SendOn(std::string_view bytes) {
  if ((m_outputs & kLoop) == 0 && !m_far->ReturnsBytes()) {
    return m_far->Send(bytes);
  }
  Arrive(bytes);
  return bytes.size();
}

void SerialLine::DropOutput() {
  do {
    m_gone += m_out.Size();
    m_out.Clear();
    TakeWritten(kOutSize);
  } while (!m_out.IsEmpty());
}

// --- From the far end ------------------------------------------------------------------------------------------------

/// Whether the far end is heard. Before the first open it waits with what it has to say.
bool SerialLine::IsListening() const {
  return m_use == Use::kClosed || (m_use == Use::kOpen && ((m_outputs & kLoop) != 0 || m_in.Room() >= kPieceSize));
}

/// @returns whether something has come.
bool SerialLine::Receive() {
  if (!IsListening()) {
    return false;
  }
  // A marked byte takes the room of two.
  char piece[kPieceSize / 2];
  const bool wasConnected = m_far->IsConnected();
  const std::size_t got = m_far->Receive(piece, sizeof piece);
  // In the loop the receiver does not listen to the line.
  if ((m_outputs & kLoop) == 0) {
    Arrive({piece, got});
  }
  if (wasConnected && !m_far->IsConnected()) {
    LookAtFarEnd();
  }
  return got > 0;
}

void SerialLine::Arrive(std::string_view bytes) {
  // A port that is closed hears nothing.
  if (m_use != Use::kOpen || bytes.empty() || (m_terminal->Settings().c_cflag & CREAD) == 0) {
    return;
  }
  m_counts.rx += static_cast<int>(bytes.size());
  if ((m_terminal->Settings().c_iflag & (IXON | PARMRK | ISTRIP)) == 0) {
    Queue(bytes);
  } else {
    Queue(Filtered(bytes));
  }
}

/// Does what a terminal would do too late: it only sees what the application has room for.
std::string SerialLine::Filtered(std::string_view bytes) {
  const termios2& settings = m_terminal->Settings();
  const bool isMarked = (settings.c_iflag & PARMRK) != 0 && (settings.c_iflag & ISTRIP) == 0;
  std::string rest;
  for (const char byte : bytes) {
    const char stripped = (settings.c_iflag & ISTRIP) != 0 ? static_cast<char>(byte & 0x7F) : byte;
    if ((settings.c_iflag & IXON) != 0) {
      if (stripped == static_cast<char>(settings.c_cc[VSTOP])) {
        m_isStopped = true;
        continue;
      }
      const bool isStart = stripped == static_cast<char>(settings.c_cc[VSTART]);
      m_isStopped = m_isStopped && !isStart && (settings.c_iflag & IXANY) == 0;
      if (isStart) {
        continue;
      }
    }
    rest.append(isMarked && stripped == kFullByte ? 2 : 1, stripped);
  }
  return rest;
}

void SerialLine::BreakIn() {
  if (m_use != Use::kOpen) {
    return;
  }
  ++m_counts.brk;
  m_log.Write(Path(), "break in");
  const termios2& settings = m_terminal->Settings();
  if ((settings.c_iflag & IGNBRK) != 0) {
    return;
  }
  if ((settings.c_iflag & BRKINT) != 0) {
    if ((settings.c_lflag & NOFLSH) == 0) {
      DropInput();
      DropOutput();
    }
    m_terminal->Interrupt();
  } else if ((settings.c_iflag & PARMRK) != 0) {
    Queue(std::string_view("\377\0\0", 3));
  } else {
    Queue(std::string_view("\0", 1));
  }
}

/// For whoever can't be made to wait: more than a driver would hold is lost.
void SerialLine::Queue(std::string_view bytes) {
  const std::uint64_t before = m_in.Dropped();
  if (!m_in.Append(bytes)) {
    m_counts.buf_overrun += static_cast<int>(m_in.Dropped() - before);
    m_log.Write(Path(), "overrun dropped=" + std::to_string(m_in.Dropped()));
  }
}

/// Hands bytes to the application.
/// @returns whether it has taken some.
bool SerialLine::Deliver() {
  if (m_use != Use::kOpen || m_in.IsEmpty()) {
    m_inPace.Rest();
    return false;
  }
  const std::string_view due = m_in.View().substr(0, m_inPace.Due(m_in.Size()));
  const ssize_t written = due.empty() ? 0 : ::write(m_terminal->Get(), due.data(), due.size());
  if (written == -1 && errno != EAGAIN && errno != EINTR) {
    // A terminal that takes nothing any more has been hung up, which discards all.
    m_in.Clear();
    return false;
  }
  const auto taken = static_cast<std::size_t>(std::max<ssize_t>(written, 0));
  m_isTerminalFull = taken < due.size();
  if (m_isTerminalFull) {
    m_inPace.Rest();
  }
  m_in.Take(taken);
  m_inPace.Spend(taken);
  m_handedOver += taken;
  return taken > 0;
}

void SerialLine::DropInput() {
  m_in.Clear();
  m_terminal->DropInput();
  m_handedOver = 0;
}

/// Whether the far end is told when the application does not read.
bool SerialLine::IsThrottling() const {
  const termios2& settings = m_terminal->Settings();
  return (settings.c_iflag & IXOFF) != 0 || (settings.c_cflag & CRTSCTS) != 0;
}

void SerialLine::LookAtInput() {
  if (m_use != Use::kOpen) {
    m_lookAt.reset();
    return;
  }
  if (!IsThrottling()) {
    m_lookAt.reset();
    if (m_isThrottled) {
      Throttle(false);
    }
    return;
  }
  if (!m_isThrottled && m_isTerminalFull) {
    Throttle(true);
  }
  if (!m_lookAt && (m_isThrottled || m_handedOver >= kThrottle)) {
    // What was handed over takes a moment to be there.
    m_lookAt = Clock::now() + kInputLook;
  } else if (m_lookAt && Clock::now() >= *m_lookAt) {
    m_lookAt.reset();
    m_handedOver = m_terminal->Unread();
    const bool isRead = m_in.IsEmpty() && m_handedOver <= kUnthrottle;
    if (m_isThrottled ? isRead : m_handedOver >= kThrottle) {
      Throttle(!m_isThrottled);
    }
    if (m_isThrottled) {
      m_lookAt = Clock::now() + kInputLook;
    }
  }
}

void SerialLine::Throttle(bool on) {
  m_isThrottled = on;
  const termios2& settings = m_terminal->Settings();
  if ((settings.c_iflag & IXOFF) != 0) {
    m_urgent = static_cast<char>(settings.c_cc[on ? VSTOP : VSTART]);
    Transmit();
  }
  if ((settings.c_cflag & CRTSCTS) != 0) {
    SetOutputs(on ? m_outputs & ~static_cast<unsigned int>(TIOCM_RTS) : m_outputs | TIOCM_RTS);
  }
}

// --- Modem lines -----------------------------------------------------------------------------------------------------

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

void SerialLine::SetOutputs(unsigned int outputs) {
  if (((m_outputs ^ outputs) & kLoop) != 0) {
    // What has been written belongs to where the line led until now.
    for (int turn = 0; turn < kMostTurns && Transmit(); ++turn) {
    }
  }
  m_outputs = outputs;
  LookAtFarEnd();
  CountModemLines();
}

void SerialLine::SetInputs(unsigned int bits, bool on) {
  m_inputs = on ? m_inputs | bits : m_inputs & ~bits;
  m_log.Write(Path(), "inputs " + ModemLineNames(m_inputs));
  CountModemLines();
}

/// Somebody may have come, or gone, or see other outputs.
void SerialLine::LookAtFarEnd() {
  m_far->Look();
  const unsigned int inputs = m_far->Inputs(m_outputs);
  if (const unsigned int changed = inputs ^ m_farInputs; changed != 0) {
    m_farInputs = inputs;
    SetInputs(changed & inputs, true);
    SetInputs(changed & ~inputs, false);
  }
}

/// As a UART does: of the ring indicator, its end.
void SerialLine::CountModemLines() {
  const unsigned int inputs = ModemLines() & kInputs;
  const unsigned int changed = inputs ^ m_counted;
  m_counts.cts += (changed & TIOCM_CTS) != 0 ? 1 : 0;
  m_counts.dsr += (changed & TIOCM_DSR) != 0 ? 1 : 0;
  m_counts.dcd += (changed & TIOCM_CAR) != 0 ? 1 : 0;
  m_counts.rng += (changed & ~inputs & TIOCM_RNG) != 0 ? 1 : 0;
  m_counted = inputs;
}

void SerialLine::SetBreak(bool on) {
  if (on == m_isBreaking) {
    return;
  }
  m_isBreaking = on;
  m_log.Write(Path(), on ? "break on" : "break off");
  if (on && m_far->ReturnsBreaks() && (m_outputs & kLoop) == 0) {
    BreakIn();
  }
}

// --- Requests --------------------------------------------------------------------------------------------------------

/// @returns how many bytes will have gone when all of these have.
std::uint64_t SerialLine::WrittenUntilNow() {
  TakeWritten(kOutSize + kWrittenSize);
  return m_gone + m_out.Size();
}

void SerialLine::AfterOutput(const TrappedCall& call, std::function<void(const TrappedCall&)> then) {
  m_late.Add(call, [this, until = WrittenUntilNow(), then = std::move(then)](const TrappedCall& waiting) {
    if (m_gone < until) {
      return false;
    }
    then(waiting);
    return true;
  });
}

void SerialLine::GetSettings(const TrappedCall& call) const {
  const termios2& settings = m_terminal->Settings();
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
  termios2 settings = m_terminal->Settings();
  if (request == TCSETS || request == TCSETSW || request == TCSETSF) {
    const auto older = call.Read<termios>();
    std::copy_n(reinterpret_cast<const char*>(&older), sizeof older, reinterpret_cast<char*>(&settings));
  } else {
    settings = call.Read<termios2>();
  }
  const auto apply = [this, request, settings](const TrappedCall& ready) {
    Apply(request, settings);
    ready.Return(0);
  };
  if (request == TCSETS || request == TCSETS2) {
    apply(call);
  } else {
    AfterOutput(call, apply);
  }
  Work();
}

void SerialLine::Apply(unsigned int request, termios2 settings) {
  if (!m_terminal) {
    throw RequestError{EIO};
  }
  if (request == TCSETSF || request == TCSETSF2) {
    DropInput();
  }
  const termios2 before = m_terminal->Settings();
  if (const int error = m_terminal->Set(settings); error != 0) {
    throw RequestError{error};
  }
  const tcflag_t flags = settings.c_cflag;
  settings = m_terminal->Settings();
  if (!CanRun(settings)) {
    constexpr tcflag_t kSpeeds = CBAUD | CBAUD << IBSHIFT;
    settings.c_cflag = (settings.c_cflag & ~kSpeeds) | (before.c_cflag & kSpeeds);
    settings.c_ispeed = before.c_ispeed;
    settings.c_ospeed = before.c_ospeed;
    m_terminal->Set(settings);
  }
  if ((settings.c_iflag & IXON) == 0) {
    m_isStopped = false;
  }
  // Speed 0 hangs up, and any other one after it picks up again.
  const bool wasZero = (before.c_cflag & CBAUD) == B0;
  const bool isZero = (settings.c_cflag & CBAUD) == B0;
  if (isZero) {
    SetOutputs(m_outputs & ~kOpened);
  } else if (wasZero) {
    SetOutputs(m_outputs | kOpened);
  }
  Program();
  m_log.Write(Path(), "settings speed=" + std::to_string(isZero ? 0 : settings.c_ospeed) + " flags=" + Hex(flags));
}

/// Whether the UART's clock can be divided to that speed. Drivers take others without an error, and keep the old one.
bool SerialLine::CanRun(const termios2& settings) const {
  constexpr std::uint32_t kGreatestDivisor = 0xFFFF;
  constexpr std::uint32_t kTolerance = 100;  // a hundredth above the fastest is taken for it
  const auto base = static_cast<std::uint64_t>(m_info.baud_base);
  return (settings.c_cflag & CBAUD) == B0 ||
         (settings.c_ospeed >= base / kGreatestDivisor && settings.c_ospeed <= base + base / kTolerance);
}

/// The speed of the line. 38400 stands for others where TIOCSSERIAL said so.
std::uint32_t SerialLine::Baud() const {
  const speed_t speed = m_terminal->Settings().c_ospeed;
  if (speed != 38400) {
    return (m_terminal->Settings().c_cflag & CBAUD) == B0 ? 0 : speed;
  }
  switch (static_cast<unsigned int>(m_info.flags) & ASYNC_SPD_MASK) {
    case ASYNC_SPD_HI:
      return 57600;
    case ASYNC_SPD_VHI:
      return 115200;
    case ASYNC_SPD_SHI:
      return 230400;
    case ASYNC_SPD_WARP:
      return 460800;
    case ASYNC_SPD_CUST:
      return static_cast<std::uint32_t>(m_info.baud_base / std::max(m_info.custom_divisor, 1));
    default:
      return speed;
  }
}

/// What a driver does for the attributes of the line.
void SerialLine::Program() {
  if (!m_terminal) {
    return;
  }
  const tcflag_t flags = m_terminal->Settings().c_cflag;
  const std::uint32_t baud = Baud();
  const double rate = m_isPaced ? static_cast<double>(baud) / BitsOf(flags) : 0;
  m_outPace.SetRate(rate);
  m_inPace.SetRate(rate);
  if (m_uart) {
    m_uart->Program(static_cast<std::uint32_t>(m_info.baud_base), baud, flags);
  }
}

/// Discards, as TCFLSH does.
void SerialLine::Flush(const TrappedCall& call) {
  const auto queue = call.IoctlArgument();
  if (queue > TCIOFLUSH) {
    throw RequestError{EINVAL};
  }
  if (queue != TCOFLUSH) {
    DropInput();
  }
  if (queue != TCIFLUSH) {
    DropOutput();
  }
  m_log.Write(Path(), queue == TCIFLUSH ? "flush input" : queue == TCOFLUSH ? "flush output" : "flush both");
}

void SerialLine::ControlFlow(const TrappedCall& call) {
  const cc_t* const characters = m_terminal->Settings().c_cc;
  switch (call.IoctlArgument()) {
    case TCOOFF:
      m_isHeld = true;
      break;
    case TCOON:
      // It forgets an XOFF of the meantime, too.
      m_isStopped = m_isStopped && !m_isHeld;
      m_isHeld = false;
      break;
    case TCIOFF:
      m_urgent = static_cast<char>(characters[VSTOP]);
      break;
    case TCION:
      m_urgent = static_cast<char>(characters[VSTART]);
      break;
    default:
      throw RequestError{EINVAL};
  }
}

void SerialLine::SendBreak(const TrappedCall& call, std::chrono::milliseconds duration) {
  const auto end = [this] {
    m_breakEnds.reset();
    SetBreak(false);
  };
  const auto attempt = [this, duration, end, until = WrittenUntilNow(),
                        ends = std::optional<Clock::time_point>()](const TrappedCall& waiting) mutable {
    if (m_gone < until && !ends) {
      return false;
    }
    if (!ends) {
      SetBreak(true);
      ends = m_isPaced ? Clock::now() + duration : Clock::now();
      m_breakEnds = ends;
    }
    if (Clock::now() < *ends) {
      return false;
    }
    end();
    waiting.Return(0);
    return true;
  };
  m_late.Add(call, attempt, end);
}

void SerialLine::AwaitModemLines(const TrappedCall& call) {
  const auto mask = static_cast<unsigned int>(call.IoctlArgument());
  m_late.Add(call, [this, mask, before = m_counts](const TrappedCall& waiting) {
    const bool isChanged = ((mask & TIOCM_CTS) != 0 && m_counts.cts != before.cts) ||
                           ((mask & TIOCM_DSR) != 0 && m_counts.dsr != before.dsr) ||
                           ((mask & TIOCM_CAR) != 0 && m_counts.dcd != before.dcd) ||
                           ((mask & TIOCM_RNG) != 0 && m_counts.rng != before.rng);
    if (isChanged || !m_terminal) {
      isChanged ? waiting.Return(0) : waiting.Fail(EIO);
    }
    return isChanged || !m_terminal;
  });
}

void SerialLine::GetCounts(const TrappedCall& call) const {
  call.Write(m_counts);
}

/// What it takes, it keeps.
void SerialLine::SetInfo(const TrappedCall& call) {
  const auto info = call.Read<serial_struct>();
  if (info.baud_base < kLeastBase || info.irq < 0 || info.type < PORT_UNKNOWN || info.type > PORT_MAX) {
    throw RequestError{EINVAL};
  }
  const int line = m_info.line;
  m_info = info;
  m_info.line = line;
  Program();
  m_log.Write(Path(), "TIOCSSERIAL");
}
