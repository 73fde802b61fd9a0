#include <IpNet.h>
#include <OpSystem.h>
#include <SystemCalls.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "Catalogue.h"
#include "Groups.h"
#include "Interfaces.h"
#include "Processes.h"
#include "Program.h"
#include "SerialPorts.h"
#include "Signals.h"
#include "Status.h"
#include "WatchdogDevices.h"

namespace {

constexpr const char* kUnknown = "unknown";

/// The page: its text, its JSON, and what of it is unusual.
struct Page {
  std::vector<std::string> lines;
  Json json;
  std::vector<Remark> unusual;

  void Head(const std::string& title) {
    lines.push_back(title);
  }
  void Row(const std::string& name, const std::string& value) {
    constexpr std::size_t kValuesBegin = 14;
    const std::string front = "  " + name;
    lines.push_back(front + std::string(front.size() < kValuesBegin ? kValuesBegin - front.size() : 1, ' ') + value);
  }
};

std::string LineOf(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

/// The rest of the first line of a file that begins with @p key; nothing if there is none.
std::optional<std::string> ValueIn(const std::string& path, const std::string& key) {
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    if (line.rfind(key, 0) == 0) {
      return line.substr(key.size());
    }
  }
  return std::nullopt;
}

std::string Resolved(const std::string& path) {
  char* const resolved = ::realpath(path.c_str(), nullptr);
  std::string text = resolved == nullptr ? "" : resolved;
  std::free(resolved);
  return text;
}

// --- Versions

/// Where the library was loaded from; the file's name ends with its version.
std::string LibraryFile() {
  Dl_info information{};
  const auto function = reinterpret_cast<void*>(&LinuxGetThreadId);
  return ::dladdr(function, &information) != 0 ? Resolved(information.dli_fname) : "";
}

/// The ip that PATH names; what the shell runs may be another one, built into it.
std::string IpInPath() {
  const char* const path = std::getenv("PATH");
  std::istringstream folders(path == nullptr ? "" : path);
  for (std::string folder; std::getline(folders, folder, ':');) {
    const std::string file = folder + "/ip";
    if (::access(file.c_str(), X_OK) == 0) {
      return Resolved(file);
    }
  }
  return {};
}

/// How the ip that the library runs calls itself; empty if there is none.
std::string IpVersion(Page& page) {
  std::string said;
  try {
    said = OpSystem().ExecCmd("ip -V", false);
  } catch (const std::exception& error) {
    said = error.what();  // that of BusyBox does not know the option, and says who it is
  }
  std::istringstream lines(said);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("ip utility", 0) == 0) {
      return Printable(line);
    }
    if (line.rfind("BusyBox v", 0) == 0) {
      return Printable(line.substr(0, line.find(' ', sizeof "BusyBox v" - 1)));
    }
  }
  page.unusual.push_back({"There is no working ip: " + Printable(said.substr(0, said.find('\n'))),
                          "Install iproute2 or BusyBox; add /sbin to PATH."});
  return {};
}

void TellVersions(Page& page) {
  utsname kernel{};
  ::uname(&kernel);
  char library[128] = "";
#ifdef _CS_GNU_LIBC_VERSION
  ::confstr(_CS_GNU_LIBC_VERSION, library, sizeof library);
#endif
  const std::string file = LibraryFile();
  const std::string kernelText = std::string(kernel.sysname) + ' ' + kernel.release;
  const std::string path = IpInPath();
  const std::string version = IpVersion(page);
  if (version.rfind("BusyBox", 0) == 0 && path.find("busybox") == std::string::npos && !path.empty()) {
    page.unusual.push_back({"The shell runs its own ip, not " + path + '.', "Use another shell as /bin/sh."});
  }

  page.Head("versions");
  page.Row("boardctl", BOARDCTL_VERSION);
  page.Row("library", file.empty() ? kUnknown : file);
  page.Row("kernel", kernelText + ", " + kernel.machine);
  page.Row("C library", *library == '\0' ? kUnknown : library);
  page.Row("ip", version.empty() ? "none" : version + (path.empty() ? "" : ", " + path));
  page.json["versions"] = {{"boardctl", BOARDCTL_VERSION},
                           {"library_file", OrNull(file)},
                           {"kernel", kernelText},
                           {"machine", kernel.machine},
                           {"c_library", OrNull(std::string(library))},
                           {"ip", OrNull(version)},
                           {"ip_file", OrNull(path)}};
}

// --- Load and memory

void TellLoad(Page& page) {
  constexpr double kLoadUnit = 1U << SI_LOAD_SHIFT;
  constexpr std::uint64_t kKib = 1024;
  constexpr std::uint64_t kMib = kKib * kKib;
  struct sysinfo information {};
  sysinfo_e(&information);
  const long processors = ::sysconf(_SC_NPROCESSORS_ONLN);
  const double load = static_cast<double>(information.loads[0]) / kLoadUnit;
  const std::uint64_t total = std::uint64_t{information.totalram} * information.mem_unit;
  const auto told = ValueIn("/proc/meminfo", "MemAvailable:");
  const std::uint64_t available = told ? std::strtoull(told->c_str(), nullptr, 10) * kKib : 0;

  page.Head("load and memory");
  page.Row("load", Fixed(load, 2) + " on " + std::to_string(processors) + " processors, up " +
                       std::to_string(information.uptime) + " s");
  page.Row("memory", std::to_string(total / kMib) + " MiB, " +
                         (told ? std::to_string(available / kMib) + " MiB available" : "available: unknown"));
  page.json["load"] = {{"load_1min", load}, {"processors", processors}, {"uptime_s", information.uptime}};
  page.json["memory"] = {{"total_bytes", total}, {"available_bytes", told ? Json(available) : Json()}};

  constexpr int kBusy = 2;     // processes that wait, for each processor
  constexpr int kScarce = 10;  // the part that should be left
  if (load > static_cast<double>(processors * kBusy)) {
    page.unusual.push_back({"More is running than the processors can handle.", "Find out what is running: top."});
  }
  if (told && available < total / kScarce) {
    page.unusual.push_back({"Less than a tenth of the memory is available.", "Find out what takes it: top, free."});
  }
  constexpr std::time_t kBuilt = 1577836800;  // the year 2020: no board that runs this had an earlier day
  if (std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()) < kBuilt) {
    page.unusual.push_back({"The clock is wrong.", "Set it: date -s, or a time service."});
  }
}

// --- Devices

void TellSerialPorts(Page& page) {
  page.Head("serial ports");
  Json ports = Json::array();
  for (const SerialDevice& device : SerialDevices()) {
    if (device.hasUart == false) {
      continue;  // a node without a UART
    }
    const auto holders = processes::HoldersOf(device.path);
    page.Row(device.path,
             (device.driver.empty() ? "driver unknown" : device.driver) + ", open by " + processes::InWords(holders));
    Json port = {{"device", device.path}, {"driver", OrNull(device.driver)}};
    processes::AddTo(port, holders);
    ports.push_back(port);
    if (::access(device.path.c_str(), R_OK | W_OK) != 0) {
      page.unusual.push_back({device.path + " may not be opened: " + std::strerror(errno) + '.',
                              "Run as root, or join the device's group (dialout)."});
    }
  }
  if (ports.empty()) {
    page.Row("none", "");
    page.unusual.push_back({"There is no serial port.", "Load its driver, or check the device tree."});
  }
  page.json["serial_ports"] = ports;
}

void TellWatchdogs(Page& page) {
  page.Head("watchdogs");
  Json watchdogs = Json::array();
  for (const std::string& path : WatchdogPaths()) {
    try {
      const WatchdogLook look = LookAtWatchdog(path);
      page.Row(path, look.identity.value_or("unknown without opening") + (look.state ? ", " + *look.state : "") +
                         (look.timeoutS ? ", time-out " + std::to_string(*look.timeoutS) + " s" : "") + ", open by " +
                         processes::InWords(look.holders));
      watchdogs.push_back(InJson(look));
      const auto remarks = RemarksOn(look);
      page.unusual.insert(page.unusual.end(), remarks.begin(), remarks.end());
    } catch (const std::exception& error) {
      const std::string text = error.what();  // that of the library begins with a blank
      page.unusual.push_back(
          {path + " can't be examined: " + text.substr(text.find_first_not_of(' ')), "Check that its node exists."});
    }
  }
  if (watchdogs.empty()) {
    page.Row("none", "");
    page.unusual.push_back({"There is no watchdog.", "Load its driver (for trials: modprobe softdog)."});
  }
  page.json["watchdogs"] = watchdogs;
}

/// The kernel's options about /dev/mem, each on a line after a newline; empty where it does not publish them.
std::string KernelOptions() {
  utsname kernel{};
  ::uname(&kernel);
  std::string options;
  std::ifstream file(std::string("/boot/config-") + kernel.release);
  for (std::string line; std::getline(file, line);) {
    options += line.find("DEVMEM") != std::string::npos ? line + '\n' : "";
  }
  if (options.empty()) {
    // Many boards have no such file, but their kernel publishes its own options.
    try {
      options = OpSystem().ExecCmd("zcat /proc/config.gz 2>/dev/null | sed -n /DEVMEM/p", false);
    } catch (const std::exception&) {
      // Without sed, they stay unknown.
    }
  }
  return options.empty() ? "" : '\n' + options;
}

void TellMemoryDevice(Page& page) {
  constexpr const char* kDevice = "/dev/mem";
  constexpr unsigned int kRawIo = 17;  // CAP_SYS_RAWIO
  const auto told = ValueIn("/proc/self/status", "CapEff:");
  const bool hasCapability =
      told && (std::strtoull(told->c_str() + std::strspn(told->c_str(), "\t "), nullptr, 16) >> kRawIo & 1U) != 0;
  const std::string lockdown = LineOf("/sys/kernel/security/lockdown");
  const bool isLocked = !lockdown.empty() && lockdown.find("[none]") == std::string::npos;
  const std::string options = KernelOptions();
  const bool isStrict = options.find("\nCONFIG_STRICT_DEVMEM=y\n") != std::string::npos;
  const bool isRelaxed = LineOf("/proc/cmdline").find("iomem=relaxed") != std::string::npos;

  const int fd = ::open(kDevice, O_RDWR | O_SYNC | O_CLOEXEC);
  const int error = fd == -1 ? errno : 0;
  if (fd != -1) {
    ::close(fd);
  }
  std::string why;
  std::string remedy;
  if (error == ENOENT || error == ENXIO) {
    why = "the kernel has no such device (CONFIG_DEVMEM)";
    remedy = "Build the kernel with CONFIG_DEVMEM.";
  } else if (error != 0 && isLocked) {
    why = "the kernel is locked down: " + Printable(lockdown);
    remedy = "Boot without lockdown=, and with Secure Boot off.";
  } else if (error == EACCES) {
    why = "the user may not open it";
    remedy = "Run as root.";
  } else if (error != 0 && !hasCapability) {
    why = "the capability CAP_SYS_RAWIO is missing";
    remedy = "Run as root, or grant the capability.";
  } else if (error != 0) {
    why = std::strerror(error);
    remedy = "Check the node's permissions.";
  }
  page.Head("physical memory");
  page.Row(kDevice, why.empty()
                        ? std::string("may be used") +
                              (isStrict ? ", but not for memory that the kernel itself uses (CONFIG_STRICT_DEVMEM" +
                                              std::string(isRelaxed ? ", iomem=relaxed)" : ")")
                                        : "")
                        : "may not be used: " + why);
  page.json["physical_memory"] = {{"device", kDevice},
                                  {"usable", why.empty()},
                                  {"why_not", OrNull(why)},
                                  {"cap_sys_rawio", told ? Json(hasCapability) : Json()},
                                  {"lockdown", OrNull(Printable(lockdown))},
                                  {"strict_devmem", options.empty() ? Json() : Json(isStrict)},
                                  {"iomem_relaxed", isRelaxed}};
  if (!why.empty()) {
    page.unusual.push_back({"Registers can't be read: " + why + '.', remedy});
  }
}

// --- The network

void TellNetwork(Page& page) {
  page.Head("network");
  Json interfaces = Json::array();
  bool isReachable = false;
  for (const Interface& interface : Interfaces()) {
    Json addresses = Json::array();
    std::string words;
    for (const Interface::Address& address : interface.addresses) {
      addresses.push_back(address.InWords());
      words += ", " + address.InWords();
      isReachable = isReachable || (interface.name != "lo" && address.text.rfind("fe80:", 0) != 0);
    }
    page.Row(Printable(interface.name), (interface.isUp ? "up" : "down") + (words.empty() ? ", no address" : words));
    interfaces.push_back({{"interface", Printable(interface.name)}, {"up", interface.isUp}, {"addresses", addresses}});
    if (!interface.isClean) {
      page.unusual.push_back({"A shell could misunderstand the name of the interface \"" + Printable(interface.name) +
                                  "\": nothing is set up on it.",
                              "Rename it with ip link set, from a program without a shell."});
    }
  }
  page.json["interfaces"] = interfaces;
  if (!isReachable) {
    page.unusual.push_back(
        {"No interface but lo has more than a link-local address.", "Add one: boardctl net address."});
  }

  Json gateways = Json::array();
  bool isThere = false;
  OpSystem runner;
  IpNet net(runner);
  for (const bool ipv6 : {false, true}) {
    const char* const family = ipv6 ? "ipv6" : "ipv4";
    try {
      const Gateway gateway = DefaultGateway(net, ipv6);
      isThere = isThere || gateway.isOther || !gateway.address.empty();
      if (gateway.isOther) {
        page.Row("gateway", std::string("none, but a default route of ") + family);
        page.unusual.push_back({std::string("The default route of ") + family + " has no gateway, or several.",
                                std::string("If it should: ip ") + (ipv6 ? "-6" : "-4") +
                                    " route del default, then boardctl net gateway."});
      }
      if (!gateway.address.empty()) {
        page.Row("gateway", gateway.address + " on " + gateway.interface);
        gateways.push_back({{"family", family}, {"gateway", gateway.address}, {"interface", gateway.interface}});
      }
    } catch (const std::exception& error) {
      std::string text = error.what();
      text.erase(text.find_last_not_of('\n') + 1);
      const auto explained = catalogue::Explain(text);
      page.unusual.push_back({std::string("The gateway of ") + family + " is not known: " + Printable(text),
                              explained.empty() || explained.front().causes.empty()
                                  ? "See what ip says."
                                  : (*explained.front().causes.front())["remedy"].get<std::string>()});
    }
  }
  page.json["gateways"] = gateways;
  if (!isThere) {
    page.unusual.push_back({"There is no default gateway.", "Set one: boardctl net gateway."});
  }
}

int Report(Call& call) {
  Page page;
  page.json["time"] = Timestamp(std::chrono::system_clock::now());
  for (const auto tell : {TellVersions, TellLoad, TellSerialPorts, TellWatchdogs, TellMemoryDevice, TellNetwork}) {
    tell(page);
    if (signals::Caught() != 0) {
      return kStatusDone;  // it may have ended what the page should show
    }
  }
  if (!processes::SeesAll()) {
    page.unusual.push_back({"Not all processes are visible: one that is not may have a device open.",
                            ::geteuid() != 0 ? "Run the report as root."
                                             : "Run the report as root with all capabilities, not in a container."});
  }

  Json unusual = Json::array();
  page.Head("unusual");
  for (const Remark& remark : page.unusual) {
    page.lines.push_back("  " + remark.what);
    page.lines.push_back("    remedy: " + remark.remedy);
    unusual.push_back({{"what", remark.what}, {"remedy", remark.remedy}});
  }
  if (unusual.empty()) {
    page.lines.emplace_back("  nothing");
  }
  page.json["unusual"] = unusual;

  for (const std::string& line : page.lines) {
    call.out.Line(line.substr(0, line.find_last_not_of(' ') + 1), line.front() == ' ' ? Output::kPlain : Output::kBold);
  }
  call.out.Object("report", page.json);
  return kStatusDone;
}

}  // namespace

void AddReport(Program& program) {
  program.AddVerb(
      nullptr,
      {"report", "Describes the board on one page: versions, devices, network, what is unusual", "[OPTION]...", "",
       "For bug reports: it names no passwords, no command lines and no files of users, but it does contain addresses. "
       "It "
       "opens no device except /dev/mem, and changes nothing there; it runs the board's ip, which only queries.",
       "report", "nothing."},
      [](Call& call) { return Report(call); });
}
