#include "devices/line/SerialRequests.h"

#include <linux/tty.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

#include "Text.h"
#include "devices/ModemLines.h"
#include "devices/line/Earlier.h"

namespace {

constexpr std::chrono::milliseconds kBreak{250};
constexpr std::chrono::milliseconds kBreakUnit{100};
constexpr int kLeastBase = 9600;

constexpr unsigned int kRequests[] = {
    TCGETS,   TCSETS,   TCSETSW,  TCSETSF,  TCGETS2,    TCSETS2,     TCSETSW2,    TCSETSF2,    TCFLSH,
    TCXONC,   TCSBRK,   TCSBRKP,  TIOCSBRK, TIOCCBRK,   TIOCOUTQ,    TIOCEXCL,    TIOCNXCL,    TIOCGEXCL,
    TIOCMGET, TIOCMSET, TIOCMBIS, TIOCMBIC, TIOCMIWAIT, TIOCGICOUNT, TIOCGSERIAL, TIOCSSERIAL, TIOCSERGETLSR};
constexpr unsigned int kQuestions[] = {TCGETS, TCGETS2, TIOCGEXCL, TIOCMGET, TIOCGSERIAL};

}  // namespace

TrappedRequests SerialRequests::Numbers() {
  return {std::begin(kRequests), std::end(kRequests)};
}

bool SerialRequests::OnlyAsks(unsigned int request) {
  return std::find(std::begin(kQuestions), std::end(kQuestions), request) != std::end(kQuestions);
}

SerialRequests::SerialRequests(const Parts& parts, bool isPaced)
    : m_port(parts.port),
      m_modem(parts.modem),
      m_sender(parts.sender),
      m_receiver(parts.receiver),
      m_settings(parts.settings),
      m_tellInfo(parts.tellInfo),
      m_isPaced(isPaced) {}

void SerialRequests::Answer(const TrappedCall& call) {
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
      Discard(call);
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
      return;
    case TCSBRKP: {
      const auto units = static_cast<int>(call.IoctlArgument());
      SendBreak(call, units == 0 ? kBreak : units * kBreakUnit);
      return;
    }
    case TIOCSBRK:
    case TIOCCBRK:
      SetBreak(request == TIOCSBRK);
      break;
    case TIOCOUTQ:
      call.Write(static_cast<int>(m_sender.Waiting()));
      break;
    case TIOCSERGETLSR:
      call.Write(m_sender.Waiting() == 0 ? TIOCSER_TEMT : 0U);
      break;
    case TIOCEXCL:
    case TIOCNXCL:
      m_port.isExclusive = request == TIOCEXCL;
      break;
    case TIOCGEXCL:
      call.Write(m_port.isExclusive ? 1 : 0);
      break;
    case TIOCMGET:
      call.Write(m_modem.Lines());
      m_port.Log("TIOCMGET " + Hex(m_modem.Lines()));
      break;
    case TIOCMSET:
      SetOutputs("TIOCMSET ", call.Read<unsigned int>() & kOutputs);
      break;
    case TIOCMBIS:
      SetOutputs("TIOCMBIS ", m_modem.Outputs() | (call.Read<unsigned int>() & kOutputs));
      break;
    case TIOCMBIC:
      SetOutputs("TIOCMBIC ", m_modem.Outputs() & ~call.Read<unsigned int>());
      break;
    case TIOCMIWAIT:
      AwaitModemLines(call);
      return;
    case TIOCGICOUNT:
      call.Write(m_port.counts);
      break;
    case TIOCGSERIAL:
      call.Write(m_port.info);
      m_port.Log("TIOCGSERIAL");
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

void SerialRequests::AnswerLate() {
  m_late.Try();
  m_late.LookForSignals();
}

std::optional<SerialRequests::Clock::time_point> SerialRequests::Next() const {
  return Earlier(m_late.Next(), m_breakEnds);
}

void SerialRequests::Reset() {
  m_late.Clear();
  m_breakEnds.reset();
}

/// Does something once everything written until now has been sent.
void SerialRequests::AfterOutput(const TrappedCall& call, Action then) {
  m_late.Add(call, [this, until = m_sender.WrittenUntilNow(), then = std::move(then)](const TrappedCall& waiting) {
    if (m_sender.Gone() < until) {
      return false;
    }
    then(waiting);
    return true;
  });
}

void SerialRequests::GetSettings(const TrappedCall& call) const {
  const termios2& settings = m_port.Settings();
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

void SerialRequests::SetSettings(const TrappedCall& call) {
  const unsigned int request = call.IoctlRequest();
  termios2 settings = m_port.Settings();
  if (request == TCSETS || request == TCSETSW || request == TCSETSF) {
    const auto older = call.Read<termios>();
    std::copy_n(reinterpret_cast<const char*>(&older), sizeof older, reinterpret_cast<char*>(&settings));
  } else {
    settings = call.Read<termios2>();
  }
  const auto apply = [this, request, settings](const TrappedCall& ready) {
    if (m_port.terminal && (request == TCSETSF || request == TCSETSF2)) {
      m_receiver.Drop();
    }
    m_settings.Set(settings);
    ready.Return(0);
  };
  if (request == TCSETS || request == TCSETS2) {
    apply(call);
  } else {
    AfterOutput(call, apply);
  }
}

void SerialRequests::Discard(const TrappedCall& call) {
  const auto queue = call.IoctlArgument();
  if (queue > TCIOFLUSH) {
    throw RequestError{EINVAL};
  }
  if (queue != TCOFLUSH) {
    m_receiver.Drop();
  }
  if (queue != TCIFLUSH) {
    m_sender.Drop();
  }
  m_port.Log(queue == TCIFLUSH ? "flush input" : queue == TCOFLUSH ? "flush output" : "flush both");
}

void SerialRequests::ControlFlow(const TrappedCall& call) {
  switch (call.IoctlArgument()) {
    case TCOOFF:
    case TCOON:
      m_sender.Hold(call.IoctlArgument() == TCOOFF);
      break;
    case TCIOFF:
      m_sender.SendControl(VSTOP);
      break;
    case TCION:
      m_sender.SendControl(VSTART);
      break;
    default:
      throw RequestError{EINVAL};
  }
}

void SerialRequests::SetBreak(bool on) {
  if (on == m_sender.IsBreaking()) {
    return;
  }
  m_sender.Break(on);
  m_port.Log(on ? "break on" : "break off");
  if (on && m_port.far->ReturnsBreaks() && !m_modem.IsLooped()) {
    m_receiver.HearBreak();
  }
}

void SerialRequests::SendBreak(const TrappedCall& call, std::chrono::milliseconds duration) {
  const auto end = [this] {
    m_breakEnds.reset();
    SetBreak(false);
  };
  const auto attempt = [this, duration, end, until = m_sender.WrittenUntilNow(),
                        ends = std::optional<Clock::time_point>()](const TrappedCall& waiting) mutable {
    if (m_sender.Gone() < until && !ends) {
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

void SerialRequests::SetOutputs(const char* request, unsigned int outputs) {
  if (((m_modem.Outputs() ^ outputs) & kLoop) != 0) {
    // What has been written is meant for where the line has led until now.
    m_sender.TransmitAll();
  }
  m_modem.SetOutputs(outputs);
  m_port.Log(request + Hex(outputs));
}

void SerialRequests::AwaitModemLines(const TrappedCall& call) {
  const auto mask = static_cast<unsigned int>(call.IoctlArgument());
  m_late.Add(call, [this, mask, before = m_port.counts](const TrappedCall& waiting) {
    const serial_icounter_struct& counts = m_port.counts;
    const bool isChanged = ((mask & TIOCM_CTS) != 0 && counts.cts != before.cts) ||
                           ((mask & TIOCM_DSR) != 0 && counts.dsr != before.dsr) ||
                           ((mask & TIOCM_CAR) != 0 && counts.dcd != before.dcd) ||
                           ((mask & TIOCM_RNG) != 0 && counts.rng != before.rng);
    if (isChanged || !m_port.terminal) {
      isChanged ? waiting.Return(0) : waiting.Fail(EIO);
    }
    return isChanged || !m_port.terminal;
  });
}

/// It keeps what it accepts.
void SerialRequests::SetInfo(const TrappedCall& call) {
  const auto info = call.Read<serial_struct>();
  if (info.baud_base < kLeastBase || info.irq < 0 || info.type < PORT_UNKNOWN || info.type > PORT_MAX) {
    throw RequestError{EINVAL};
  }
  const int line = m_port.info.line;
  m_port.info = info;
  m_port.info.line = line;
  m_settings.Program();
  // Before the answer: whoever gets it may look at once.
  m_tellInfo();
  m_port.Log("TIOCSSERIAL");
}
