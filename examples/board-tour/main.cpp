// A tour of the whole library: what is called, and what came out of it.
#include <getopt.h>

#include <exception>
#include <functional>
#include <iostream>
#include <string>

#include "Chapters.h"
#include "Page.h"

namespace {

constexpr const char* kUsage =
    "Usage: board-tour [OPTION]...\n"
    "\n"
    "Shows what the library does, chapter by chapter. Without options, only what\n"
    "changes nothing is shown. These name what else may be used:\n"
    "\n"
    "  --serial PATH      a serial port, which is set to 115200 baud. Text and 1 MiB\n"
    "                     go through its loopback, and to its far end if that\n"
    "                     echoes. A real line takes 91 seconds each time.\n"
    "                     The report reads the UART's registers, as root.\n"
    "  --memory ADDRESS   a word of physical memory. It is read, changed and put\n"
    "                     back: name one that nobody uses.\n"
    "  --watchdog PATH    a watchdog, which is armed, fed, and disarmed at the end.\n"
    "                     WARNING: the board resets if the tour can't get there, or\n"
    "                     if the driver is built to go on counting.\n"
    "  --starve           with --watchdog, only this: the watchdog is armed and then\n"
    "                     no longer fed. WARNING: the board resets.\n"
    "  --interface NAME   a network interface. WARNING: its addresses and the default\n"
    "                     gateways are taken away for a second, and others are set.\n"
    "                     They are printed before and put back at the end, but\n"
    "                     connections may break. As root.\n"
    "  --help\n"
    "\n"
    "The exit status is 0, or 1 if a chapter failed, or 2 after a wrong call.\n";

struct Options {
  std::string serial;
  std::string memory;
  std::string watchdog;
  std::string interface;
  bool starve = false;
};

enum class Arguments { kRight, kWrong, kHelp };

Arguments Parse(int argc, char* argv[], Options& options) {
  const option known[] = {{"serial", required_argument, nullptr, 's'},
                          {"memory", required_argument, nullptr, 'm'},
                          {"watchdog", required_argument, nullptr, 'w'},
                          {"starve", no_argument, nullptr, 'x'},
                          {"interface", required_argument, nullptr, 'i'},
                          {"help", no_argument, nullptr, 'h'},
                          {nullptr, 0, nullptr, 0}};
  for (int found = 0; (found = ::getopt_long(argc, argv, "h", known, nullptr)) != -1;) {
    switch (found) {
      case 's':
        options.serial = optarg;
        break;
      case 'm':
        options.memory = optarg;
        break;
      case 'w':
        options.watchdog = optarg;
        break;
      case 'i':
        options.interface = optarg;
        break;
      case 'x':
        options.starve = true;
        break;
      case 'h':
        return Arguments::kHelp;
      default:
        return Arguments::kWrong;
    }
  }
  const bool isRight = optind == argc && (!options.starve || !options.watchdog.empty());
  return isRight ? Arguments::kRight : Arguments::kWrong;
}

class Tour {
 public:
  /// A chapter that fails does not keep the others from being shown.
  void Show(const std::string& title, const std::string& header, const std::function<void()>& chapter) {
    page::Chapter(std::to_string(++m_chapters) + ". " + title, header);
    try {
      chapter();
    } catch (const std::exception& e) {
      page::Failure(e.what());
      m_failed += (m_failed.empty() ? "" : ", ") + title;
    }
  }

  void LeaveOut(const std::string& title, const std::string& option) {
    m_leftOut += (m_leftOut.empty() ? "" : ", ") + title + " (" + option + ')';
  }

  /// @returns the exit status.
  int End() const {
    if (!m_leftOut.empty()) {
      page::Note("Not shown, since nothing was named for it: " + m_leftOut + '.');
    }
    page::Note(m_failed.empty() ? "That was all of it, and all went well." : "Failed: " + m_failed + '.');
    return m_failed.empty() ? 0 : 1;
  }

 private:
  int m_chapters = 0;
  std::string m_failed;
  std::string m_leftOut;
};

int ShowAll(const Options& options) {
  Tour tour;
  if (options.serial.empty()) {
    tour.LeaveOut("serial port", "--serial");
  } else {
    tour.Show("Serial port", "SerialPort.h", [&] { ShowSerialPort(options.serial); });
  }
  if (options.memory.empty()) {
    tour.LeaveOut("physical memory", "--memory");
  }
  tour.Show("Memory", "SystemCalls.h", [&] { ShowMemory(options.memory); });
  if (options.watchdog.empty()) {
    tour.LeaveOut("watchdog", "--watchdog");
  } else {
    tour.Show("Watchdog", "WatchDog.h", [&] { ShowWatchdog(options.watchdog); });
  }
  if (options.interface.empty()) {
    tour.LeaveOut("network changes", "--interface");
  }
  tour.Show("Network", "IpNet.h", [&] { ShowNetwork(options.interface); });
  tour.Show("Commands", "OpSystem.h", ShowCommands);
  tour.Show("Files", "File.h", ShowFiles);
  tour.Show("System", "SystemCalls.h", ShowSystem);
  tour.Show("Signals", "SystemCalls.h", ShowSignals);
  tour.Show("Threads", "SystemCalls.h", ShowThreads);
  tour.Show("Traceback", "linuxutils.h", ShowTraceback);
  return tour.End();
}

/// @returns the exit status: to come back is the failure.
int Starve(const std::string& watchdog) {
  page::Chapter("The watchdog once more, fed no longer", "WatchDog.h");
  try {
    StarveWatchdog(watchdog);
  } catch (const std::exception& e) {
    page::Failure(e.what());
  }
  return 1;
}

}  // namespace

int main(int argc, char* argv[]) {
  Options options;
  const Arguments arguments = Parse(argc, argv, options);
  if (arguments != Arguments::kRight) {
    (arguments == Arguments::kHelp ? std::cout : std::cerr) << kUsage;
    return arguments == Arguments::kHelp ? 0 : 2;
  }

  if (options.starve) {
    return Starve(options.watchdog);
  }
  std::cout << "A tour of boardkit. Of each step: what is called, and what came out of it.\n";
  return ShowAll(options);
}
