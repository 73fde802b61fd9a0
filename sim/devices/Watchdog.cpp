#include "devices/Watchdog.h"

#include <fcntl.h>
#include <linux/watchdog.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>

#include "SetupError.h"
#include "Text.h"
#include "sandbox/PrivateDev.h"

namespace {

constexpr const char* kPath = "/dev/watchdog";
constexpr watchdog_info kSupport{WDIOF_SETTIMEOUT | WDIOF_KEEPALIVEPING | WDIOF_MAGICCLOSE | WDIOF_PRETIMEOUT, 0,
                                 "boardsim"};
constexpr char kMagic = 'V';
constexpr std::size_t kLargestPage = 65536;  // bytes
constexpr int kFirst = 60;                   // seconds
constexpr int kShortest = 1;                 // seconds
constexpr int kLongest = 65535;              // seconds

std::string Seconds(Watchdog::Clock::duration time) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f", std::chrono::duration<double>(time).count());
  return text;
}

/// The first watchdog has two names.
std::string OtherName(const std::string& path) {
  return path == kPath ? "/dev/watchdog0" : "";
}

/// Opens the node for the board itself, whatever permissions the application has given it. A user other than root is
/// bound by them, but as the owner may change them for a moment.
Descriptor OpenNode(const Descriptor& node, int flags) {
  const std::string path = PathOf(node.Get());
  Descriptor opened(::open(path.c_str(), flags | O_CLOEXEC));
  struct stat status {};
  if (!opened && errno == EACCES && ::stat(path.c_str(), &status) == 0) {
    const mode_t mode = status.st_mode & ALLPERMS;
    if (::chmod(path.c_str(), mode | S_IRUSR | S_IWUSR) == 0) {
      opened = Descriptor(::open(path.c_str(), flags | O_CLOEXEC));
      const int error = errno;
      ::chmod(path.c_str(), mode);
      errno = error;
    }
  }
  return opened;
}

class WatchdogKind : public DeviceKind {
 public:
  std::vector<Option> Options() override {
    return {{"--watchdog", "PATH", "The watchdog, or none (/dev/watchdog)", false,
             [this](const std::string& text) { m_path = text == "none" ? "" : CheckedNode("--watchdog", text); }},
            {"--nowayout", "", "Once started, the watchdog is not stopped any more", false,
             [this](const std::string& /*none*/) { m_traits.noWayOut = true; }}};
  }

  std::vector<Node> Nodes() const override {
    if (m_path.empty()) {
      return {};
    }
    return {
        {m_path, Node::Kind::kFifo, 0, OtherName(m_path), SystemEntry{Class(), "watchdog0", "watchdog", "watchdog"}}};
  }

  std::string Class() const override {
    return "watchdog";
  }

  TrappedRequests Requests() const override {
    return {WDIOC_KEEPALIVE, WDIOC_SETTIMEOUT,    WDIOC_GETTIMEOUT,    WDIOC_GETTIMELEFT,   WDIOC_GETSUPPORT,
            WDIOC_GETSTATUS, WDIOC_GETBOOTSTATUS, WDIOC_SETPRETIMEOUT, WDIOC_GETPRETIMEOUT, WDIOC_SETOPTIONS};
  }

  Devices Make(const Backplane& backplane) const override {
    Devices devices;
    if (!m_path.empty()) {
      devices.push_back(std::make_unique<Watchdog>(m_path, m_traits, backplane));
    }
    return devices;
  }

 private:
  std::string m_path = kPath;  // empty: none
  Watchdog::Traits m_traits;
};

}  // namespace

Watchdog::Watchdog(const std::string& path, const Traits& traits, const Backplane& backplane)
    : Device(path), m_traits(traits), m_backplane(backplane), m_log(backplane.log) {
  m_backplane.commands.Add("watchdog", [this](const Commands::Words& /*none*/) {
    Look();
    return State();
  });
}

void Watchdog::Attach(Descriptor descriptor) {
  m_fifo = std::move(descriptor);
  m_id = FileId::Of(m_fifo);
  m_isOpen = m_isArmed = m_maySleep = m_isFed = false;
  m_timeout = kFirst;
  m_pretimeout = 0;
  Reopen();
  m_readerRegistration = m_backplane.loop.Watch(
      [this] {
        return pollfd{m_reader.Get(), POLLIN, 0};
      },
      [this](short) { Look(); });
  m_deadlineRegistration = m_backplane.loop.At([this] { return Deadline(); }, [this] { Expire(); });
}

void Watchdog::Tell(SystemFolder folder) {
  m_told = std::move(folder);
  m_told.Write("identity", reinterpret_cast<const char*>(kSupport.identity));
  m_told.Write("options", Hex(kSupport.options));
  m_told.Write("min_timeout", std::to_string(kShortest));
  m_told.Write("max_timeout", std::to_string(kLongest));
  m_told.Write("nowayout", m_traits.noWayOut ? "1" : "0");
  m_told.Write("bootstatus", std::to_string(m_bootStatus));
  // That of the node, which is a FIFO.
  m_told.Write("dev", "0:0");
  const std::string node = OtherName(Path()).empty() ? Path() : OtherName(Path());
  m_told.Write("uevent", "DEVNAME=" + node.substr(std::string("/dev/").size()));
  TellState();
  m_tellRegistration = m_backplane.loop.At([this] { return NextSecond(); }, [this] { TellState(); });
}

bool Watchdog::Is(const FileId& file) const {
  return file == m_id;
}

void Watchdog::Opened() {
  // A close just before it may not have been noticed yet.
  Look();
  if (m_isOpen) {
    m_log.Write(Path(), "open refused: busy");
    throw RequestError{EBUSY};
  }
  m_wasArmed = m_isArmed;
  Begin();
  TellState();
}

void Watchdog::NotOpened() {
  // The would-be writer has gone.
  Reopen();
  m_isOpen = false;
  m_isArmed = m_wasArmed;
  m_log.Write(Path(), "open failed");
  TellState();
}

bool Watchdog::IsCalled(const std::string& name) const {
  return name == Path() || (!name.empty() && name == OtherName(Path()));
}

Descriptor Watchdog::Open(int flags) const {
  // Write-only even for O_RDWR: reading would take away what was written.
  const int kept = O_WRONLY | (flags & O_NONBLOCK);
  Descriptor own = OpenNode(m_fifo, kept);
  if (!own || ::fcntl(own.Get(), F_SETFL, kept | O_DIRECT) == -1) {
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
      call.Write(kSupport);
      break;
    case WDIOC_GETSTATUS:
      call.Write(Status());
      break;
    case WDIOC_GETBOOTSTATUS:
      call.Write(m_bootStatus);
      break;
    case WDIOC_SETPRETIMEOUT:
      SetPretimeout(call);
      break;
    case WDIOC_GETPRETIMEOUT:
      call.Write(m_pretimeout);
      break;
    case WDIOC_SETOPTIONS:
      SetOptions(call);
      break;
    default:
      throw RequestError{ENOTTY};
  }
  TellState();
  call.Return(0);
}

void Watchdog::Finish() {
  Look();
  if (Deadline()) {
    Reset(", not stopped by the application,");
  }
}

void Watchdog::Look() {
  pollfd reader{m_reader.Get(), POLLIN, 0};
  while (::poll(&reader, 1, 0) > 0) {
    char bytes[kLargestPage];
    const ssize_t got = ::read(m_reader.Get(), bytes, sizeof bytes);
    if (got > 0) {
      if (!m_isOpen) {
        Begin();
      }
      // A single large write arrives in pieces of a page.
      const bool hasMagic = std::find(bytes, bytes + got, kMagic) != bytes + got;
      m_maySleep = hasMagic || (m_maySleep && m_goesOn);
      m_goesOn = got % ::sysconf(_SC_PAGESIZE) == 0;
      Feed(m_maySleep ? "write magic" : "write");
      continue;
    }
    if (!m_isOpen) {
      Begin();
    }
    // All who had it open have closed it. A reader opened anew waits for the next one.
    Reopen();
    m_isOpen = false;
    if (m_maySleep && !m_traits.noWayOut) {
      m_isArmed = false;
    } else if (m_isArmed) {
      // A driver also feeds its watchdog at a close that does not stop it.
      m_fed = Clock::now();
    }
    m_log.Write(Path(), m_isArmed ? "close: not stopped" : "close: stopped");
    reader.fd = m_reader.Get();
  }
  TellState();
}

std::optional<Watchdog::Clock::time_point> Watchdog::Deadline() const {
  if (!m_isArmed) {
    return std::nullopt;
  }
  const bool warns = m_pretimeout != 0 && !m_isWarned;
  return m_fed + std::chrono::seconds(m_timeout - (warns ? m_pretimeout : 0));
}

void Watchdog::Expire() {
  // It may have been fed just now.
  Look();
  const auto deadline = Deadline();
  if (!deadline || *deadline > Clock::now()) {
    return;
  }
  if (m_pretimeout != 0 && !m_isWarned) {
    m_isWarned = true;
    m_log.Write(Path(), "pretimeout");
  } else {
    Reset("");
  }
}

void Watchdog::Reset(const std::string& circumstance) {
  m_isArmed = false;
  m_bootStatus = WDIOF_CARDRESET;
  m_backplane.reset(
      Path(), circumstance,
      "time-out " + std::to_string(m_timeout) + " s, last fed " + Seconds(Clock::now() - m_fed) + " s ago");
}

/// For the technician: "armed open timeout=60 left=57.310".
std::string Watchdog::State() const {
  std::string state = m_isArmed ? "armed" : "stopped";
  state += m_isOpen ? " open" : " closed";
  state += " timeout=" + std::to_string(m_timeout);
  return m_isArmed ? state + " left=" + Seconds(m_fed + std::chrono::seconds(m_timeout) - Clock::now()) : state;
}

/// Begins when it is opened or, if that open was not supervised, when its first use shows it.
void Watchdog::Begin() {
  m_isOpen = true;
  m_maySleep = false;
  m_log.Write(Path(), "open");
  Arm();
}

void Watchdog::Reopen() {
  m_reader = OpenNode(m_fifo, O_RDONLY | O_NONBLOCK);
}

/// A watchdog that already counts is not fed by it.
void Watchdog::Arm() {
  if (!m_isArmed) {
    m_isArmed = m_isFed = true;
    m_isWarned = false;
    m_fed = Clock::now();
  }
}

void Watchdog::Feed(const char* how) {
  m_fed = Clock::now();
  m_isFed = m_isFed || m_isArmed;
  m_isWarned = false;
  m_log.Write(Path(), how);
}

void Watchdog::Stop() {
  if (m_traits.noWayOut) {
    throw RequestError{EBUSY};
  }
  m_isArmed = false;
  m_log.Write(Path(), "stopped by request");
}

/// What the kernel's watchdogs report. That it was fed is reported once.
unsigned int Watchdog::Status() {
  const bool isFed = std::exchange(m_isFed, false);
  return m_bootStatus | (m_maySleep ? WDIOF_MAGICCLOSE : 0U) | (isFed ? WDIOF_KEEPALIVEPING : 0U);
}

void Watchdog::SetTimeout(const TrappedCall& call) {
  const int seconds = call.Read<int>();
  if (seconds < kShortest || seconds > kLongest) {
    m_log.Write(Path(), "timeout refused: " + std::to_string(seconds));
    throw RequestError{EINVAL};
  }
  m_timeout = seconds;
  m_pretimeout = m_pretimeout < seconds ? m_pretimeout : 0;
  m_fed = Clock::now();
  m_isFed = m_isFed || m_isArmed;
  m_isWarned = false;
  m_log.Write(Path(), "timeout " + std::to_string(seconds));
  call.Write(m_timeout);
}

void Watchdog::SetPretimeout(const TrappedCall& call) {
  const int seconds = call.Read<int>();
  if (seconds < 0 || seconds >= m_timeout) {
    throw RequestError{EINVAL};
  }
  m_pretimeout = seconds;
  m_isWarned = false;
  m_log.Write(Path(), "pretimeout " + std::to_string(seconds));
  call.Write(m_pretimeout);
}

void Watchdog::SetOptions(const TrappedCall& call) {
  const int options = call.Read<int>();
  if ((options & (WDIOS_DISABLECARD | WDIOS_ENABLECARD)) == 0) {
    throw RequestError{ENOTTY};
  }
  if ((options & WDIOS_DISABLECARD) != 0) {
    Stop();
  }
  if ((options & WDIOS_ENABLECARD) != 0) {
    Arm();
    m_log.Write(Path(), "started by request");
  }
}

/// When the time left in /sys becomes out of date.
std::optional<Watchdog::Clock::time_point> Watchdog::NextSecond() const {
  return m_isArmed ? std::make_optional(m_fed + std::chrono::seconds(m_timeout - m_toldLeft + 1)) : std::nullopt;
}

void Watchdog::TellState() {
  m_toldLeft = SecondsLeft();
  m_told.Write("state", m_isArmed ? "active" : "inactive");
  m_told.Write("timeout", std::to_string(m_timeout));
  m_told.Write("pretimeout", std::to_string(m_pretimeout));
  m_told.Write("timeleft", std::to_string(m_toldLeft));
}

int Watchdog::SecondsLeft() const {
  const auto left = m_fed + std::chrono::seconds(m_timeout) - Clock::now();
  return m_isArmed ? static_cast<int>(std::chrono::ceil<std::chrono::seconds>(left).count()) : 0;
}

std::unique_ptr<DeviceKind> MakeWatchdogKind() {
  return std::make_unique<WatchdogKind>();
}
