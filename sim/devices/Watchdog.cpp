#include "devices/Watchdog.h"

#include <fcntl.h>
#include <linux/watchdog.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

#include "SetupError.h"
#include "sandbox/PrivateDev.h"

namespace {

constexpr char kMagic = 'V';
constexpr int kShortest = 1;     // seconds
constexpr int kLongest = 65535;  // seconds

std::string Seconds(Watchdog::Clock::duration time) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f", std::chrono::duration<double>(time).count());
  return text;
}

class WatchdogKind : public DeviceKind {
 public:
  std::vector<Option> Options() override {
    return {{"--watchdog", "PATH", "The watchdog, or none (/dev/watchdog)", false,
             [this](const std::string& text) { m_path = text == "none" ? "" : CheckedNode("--watchdog", text); }}};
  }

  std::vector<Node> Nodes() const override {
    return m_path.empty() ? std::vector<Node>() : std::vector<Node>{{m_path, Node::Kind::kFifo}};
  }

  TrappedRequests Requests() const override {
    return {{}, {WATCHDOG_IOCTL_BASE}};
  }

  Devices Make(const Backplane& backplane) const override {
    Devices devices;
    if (!m_path.empty()) {
      devices.push_back(std::make_unique<Watchdog>(m_path, backplane));
    }
    return devices;
  }

 private:
  std::string m_path = "/dev/watchdog";  // empty: none
};

}  // namespace

Watchdog::Watchdog(const std::string& path, const Backplane& backplane)
    : Device(path), m_backplane(backplane), m_log(backplane.log) {
  m_backplane.commands.Add("watchdog", [this](const Commands::Words& /*none*/) {
    Look();
    return State();
  });
}

void Watchdog::Attach(Descriptor descriptor) {
  m_fifo = std::move(descriptor);
  m_id = FileId::Of(m_fifo);
  Reopen();
  m_readerRegistration = m_backplane.loop.Watch(
      [this] {
        return pollfd{m_reader.Get(), POLLIN, 0};
      },
      [this](short) { Look(); });
  m_deadlineRegistration = m_backplane.loop.At([this] { return Deadline(); }, [this] { Expire(); });
}

bool Watchdog::Is(const FileId& file) const {
  return file == m_id;
}

void Watchdog::Opened() {
  // A close just before is still on its way.
  Look();
  if (m_isOpen) {
    m_log.Write(Path(), "open refused: busy");
    throw RequestError{EBUSY};
  }
  Begin();
}

Descriptor Watchdog::Open(int flags) const {
  Descriptor own(::open(PathOf(m_fifo.Get()).c_str(), (flags & (O_ACCMODE | O_NONBLOCK)) | O_CLOEXEC));
  if (!own) {
    throw RequestError{errno};
  }
  return own;
}

void Watchdog::Request(const TrappedCall& call) {
  Look();
  if (!m_isOpen) {
    Begin();
  }
  switch (call.IoctlRequest()) {
    case WDIOC_KEEPALIVE:
      Feed("feed");
      break;
    case WDIOC_SETTIMEOUT:
      SetTimeout(call);
      break;
    case WDIOC_GETTIMEOUT:
      call.Write(m_timeout);
      break;
    case WDIOC_GETTIMELEFT:
      call.Write(SecondsLeft());
      break;
    case WDIOC_GETSUPPORT:
      call.Write(watchdog_info{WDIOF_SETTIMEOUT | WDIOF_KEEPALIVEPING | WDIOF_MAGICCLOSE, 0, "boardsim"});
      break;
    case WDIOC_GETSTATUS:
    case WDIOC_GETBOOTSTATUS:
      call.Write(0);
      break;
    case WDIOC_SETOPTIONS:
      SetOptions(call);
      break;
    default:
      throw RequestError{ENOTTY};
  }
  call.Return(0);
}

void Watchdog::Finish(Clock::time_point /*latest*/) {
  Look();
  if (Deadline()) {
    Reset(", not stopped by the application,");
  }
}

void Watchdog::Look() {
  pollfd reader{m_reader.Get(), POLLIN, 0};
  while (::poll(&reader, 1, 0) > 0) {
    char bytes[256];
    const ssize_t got = ::read(m_reader.Get(), bytes, sizeof bytes);
    if (got > 0) {
      if (!m_isOpen) {
        Begin();
      }
      m_maySleep = bytes[got - 1] == kMagic;
      Feed(m_maySleep ? "write magic" : "write");
      continue;
    }
    if (!m_isOpen) {
      Begin();
    }
    // All who had it open have closed it. A reader opened anew waits for the next one.
    Reopen();
    m_isOpen = false;
    if (m_maySleep) {
      m_isArmed = false;
    }
    m_log.Write(Path(), m_maySleep ? "close: stopped" : "close: not stopped");
    reader.fd = m_reader.Get();
  }
}

std::optional<Watchdog::Clock::time_point> Watchdog::Deadline() const {
  return m_isArmed ? std::make_optional(m_fed + std::chrono::seconds(m_timeout)) : std::nullopt;
}

void Watchdog::Expire() {
  // It may have been fed just now.
  Look();
  if (const auto deadline = Deadline(); deadline && *deadline <= Clock::now()) {
    Reset("");
  }
}

void Watchdog::Reset(const std::string& circumstance) const {
  m_backplane.reset(
      Path(), circumstance,
      "time-out " + std::to_string(m_timeout) + " s, last fed " + Seconds(Clock::now() - m_fed) + " s ago");
}

/// For the technician: "armed open timeout=60 left=57.310".
std::string Watchdog::State() const {
  std::string state = m_isArmed ? "armed" : "stopped";
  state += m_isOpen ? " open" : " closed";
  state += " timeout=" + std::to_string(m_timeout);
  return m_isArmed ? state + " left=" + Seconds(*Deadline() - Clock::now()) : state;
}

/// Somebody has opened it: at once, or, in a way that is not kept back, as what he does with it tells.
void Watchdog::Begin() {
  m_isOpen = true;
  m_maySleep = false;
  m_log.Write(Path(), "open");
  Arm();
}

void Watchdog::Reopen() {
  m_reader = Descriptor(::open(PathOf(m_fifo.Get()).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
}

void Watchdog::Arm() {
  m_isArmed = true;
  m_fed = Clock::now();
}

void Watchdog::Feed(const char* how) {
  m_fed = Clock::now();
  m_log.Write(Path(), how);
}

void Watchdog::SetTimeout(const TrappedCall& call) {
  const int seconds = call.Read<int>();
  if (seconds < kShortest || seconds > kLongest) {
    m_log.Write(Path(), "timeout refused: " + std::to_string(seconds));
    throw RequestError{EINVAL};
  }
  m_timeout = seconds;
  m_fed = Clock::now();
  m_log.Write(Path(), "timeout " + std::to_string(seconds));
  call.Write(m_timeout);
}

void Watchdog::SetOptions(const TrappedCall& call) {
  const int options = call.Read<int>();
  if (options == WDIOS_DISABLECARD) {
    m_isArmed = false;
    m_log.Write(Path(), "stopped by request");
  } else if (options == WDIOS_ENABLECARD) {
    Arm();
    m_log.Write(Path(), "started by request");
  } else {
    throw RequestError{EINVAL};
  }
}

int Watchdog::SecondsLeft() const {
  return m_isArmed ? static_cast<int>(std::chrono::ceil<std::chrono::seconds>(*Deadline() - Clock::now()).count()) : 0;
}

std::unique_ptr<DeviceKind> MakeWatchdogKind() {
  return std::make_unique<WatchdogKind>();
}
