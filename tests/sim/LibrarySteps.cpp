// What LibraryTest has the library do on the simulated board: library-steps STEP. It prints what it was given there.
#include <IpNet.h>
#include <OpSystem.h>
#include <SerialPort.h>
#include <SystemCalls.h>
#include <WatchDog.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr const char* kPort = "/dev/ttyS1";
constexpr const char* kWatchdog = "/dev/watchdog";
constexpr unsigned int kWord = 0x80020000;
constexpr unsigned int kLineControl = 0x8001100C;
constexpr int kLongEnough = 20000;  // ms

/// Tells what a call throws.
template <typename Function>
void Tell(const char* what, Function function) {
  try {
    function();
    std::cout << what << ": done" << std::endl;
  } catch (const std::exception& e) {
    std::cout << what << ": " << e.what() << std::endl;
  }
}

/// How many descriptors this process has open.
long Descriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
}

void Settings() {
  const long before = Descriptors();
  SerialPort port(kPort, true);
  port.SetBaudRate(SerialPort::BAUD_115200);
  port.SetCharSize(SerialPort::CHAR_SIZE_7);
  port.SetParity(SerialPort::PARITY_ODD);
  port.SetNumOfStopBits(SerialPort::STOP_BITS_2);
  std::cout << port.GetBaudRate() << ' ' << port.GetCharSize() << ' ' << port.GetParity() << ' '
            << port.GetNumOfStopBits() << '\n';
  port.SetFlowControl(SerialPort::FLOW_CONTROL_HARDWARE);
  port.FlushInput();
  port.FlushOutput();
  port.FlushInputAndOutput();
  port.SetCustomBaudRate(250000);
  std::cout << "open, closed, open: +" << Descriptors() - before;
  port.Close();
  std::cout << ' ' << Descriptors() - before;
  port.Open(SerialPort::BAUD_9600, SerialPort::CHAR_SIZE_7, SerialPort::PARITY_EVEN, SerialPort::STOP_BITS_1,
            SerialPort::FLOW_CONTROL_SOFTWARE);
  std::cout << " +" << Descriptors() - before << " descriptors\n";
  const int beside = ::open(kPort, O_RDWR | O_NOCTTY);
  termios attributes{};
  ::tcgetattr(beside, &attributes);
  ::close(beside);
  std::cout << "software flow control: " << ((attributes.c_iflag & IXON) != 0) << ((attributes.c_iflag & IXANY) != 0)
            << ((attributes.c_iflag & IXOFF) != 0) << ' ' << port.GetFlowControl() << '\n';
  // The destructor closes it.
}

void WithoutAttributes() {
  SerialPort port(kPort, false);
  port.SetBaudRate(SerialPort::BAUD_115200);
  port.SetFlowControl(SerialPort::FLOW_CONTROL_HARDWARE);
  port.Close();
}

void Loop() {
  SerialPort port(kPort, true);
  port.SetBaudRate(SerialPort::BAUD_115200);
  port.SetLoopback(true);
  port.Write("loop");
  std::string back(4, '.');
  port.Read(back.data(), 4);
  std::cout << back << '\n';
  port.ReadyForReceive(false);
  port.ReadyForReceive(true);
  port.SetLoopback(false);
  port.SetLoopback(true);
  port.Close();  // with the loop on
}

/// Asks, and echoes the answer: one half directly, one half through the buffer.
void Converse() {
  SerialPort port(kPort, true);
  port.SetBaudRate(SerialPort::BAUD_115200);
  port.Write("question\n");
  std::string direct(128, '.');
  port.Read(direct.data(), 128);
  std::cout << port.IsDataReceived(kLongEnough);
  while (port.AvailableBytesToRead() < 128 && port.IsDataReceived(kLongEnough)) {
    DebugSleep(1);
  }
  port.ReadAllAvailableData();
  std::vector<unsigned char> buffered;
  port.Read(buffered, 0);
  port.Write(direct + std::string(buffered.begin(), buffered.end()));
  std::cout << ' ' << static_cast<char>(port.ReadOneByte()) << ' ' << port.IsDataReceived(0) << '\n';
}

void HangUp() {
  const auto port = std::make_unique<SerialPort>(kPort, true);
  std::cout << "open" << std::endl;
  std::cout << port->IsDataReceived(kLongEnough) << '\n';
  errno = 0;
  Tell("read", [&] { port->ReadOneByte(); });
  Tell("write", [&] { port->Write("x"); });
  Tell("close", [&] { port->Close(); });
  // An object whose line is gone can't be closed any more, and its destructor would end the process.
  ::_exit(0);
}

void Report(const char* speed) {
  SerialPort port(kPort, true);
  port.SetBaudRate(SerialPort::ConversionToBaudrateEnum(std::stoi(speed)));
  port.SetFlowControl(SerialPort::FLOW_CONTROL_HARDWARE);
  std::cout << port.ToString() << std::hex << ReadFromPhysicalMemoryAddress(kLineControl) << '\n';
}

void CustomReport() {
  SerialPort port(kPort, true);
  port.SetCustomBaudRate(250000);
  std::cout << port.ToString();
}

void WatchdogRefused() {
  WatchDog dog(30, kWatchdog);
  dog.Activate();
  Tell("too long", [&] { dog.SetInterval(65536); });
  std::cout << dog.GetInterval() << '\n';
  dog.Feed();
  dog.Deactivate();
  // The refused interval was remembered, so the device is left open, and counting.
  Tell("again", [&] { dog.Activate(); });
}

void WatchdogFed() {
  WatchDog dog(30, kWatchdog);
  dog.Activate();
  dog.SetInterval(45);
  DebugSleep(1100);
  std::cout << dog.GetInterval() << '\n';  // the whole, not what is left
  dog.Feed();
  dog.Feed();
  {
    WatchDog other(20, kWatchdog);
    Tell("another one", [&] { other.Activate(); });
  }
  dog.Deactivate();
  WatchDog last(20, kWatchdog);
  last.Activate();
  // The destructors have one of them to stop.
}

/// Whether a machine has that address: it answers that nobody listens.
bool Answers(const char* address, int family) {
  constexpr int kDiscard = 9;
  sockaddr_in to4{};
  to4.sin_family = AF_INET;
  to4.sin_port = htons(kDiscard);
  ::inet_pton(AF_INET, address, &to4.sin_addr);
  sockaddr_in6 to6{};
  to6.sin6_family = AF_INET6;
  to6.sin6_port = htons(kDiscard);
  ::inet_pton(AF_INET6, address, &to6.sin6_addr);

  // An address of version 6 that has just been set is tentative for some milliseconds. Until then the kernel sends from
  // another one, to which no answer finds its way.
  int error = EHOSTUNREACH;
  for (int attempt = 0; attempt < 5 && error == EHOSTUNREACH; ++attempt) {
    const int connection = ::socket(family, SOCK_STREAM, 0);
    const int result = family == AF_INET ? ::connect(connection, reinterpret_cast<const sockaddr*>(&to4), sizeof to4)
                                         : ::connect(connection, reinterpret_cast<const sockaddr*>(&to6), sizeof to6);
    error = result == -1 ? errno : 0;
    ::close(connection);
  }
  return error == ECONNREFUSED;
}

void Network() {
  constexpr bool kIpV4 = false;
  constexpr bool kIpV6 = true;
  constexpr bool kNoFlush = false;
  constexpr bool kFlush = true;
  OpSystem system;
  IpNet net(system);
  const auto show = [&](const std::string& family) {
    std::cout << system.ExecCmd("ip -" + family + " -o addr show dev eth0 | awk '{ print $4 }'", false)
              << system.ExecCmd("ip -" + family + " route show default", false);
  };

  std::cout << net.GetIfaceInfo("eth0")["link"] << ' ' << net.GetIfaceInfo("eth0").count("ipv4") << '\n';
  std::cout << net.SetAddr("eth0", "192.0.2.10", 24, kIpV4, kNoFlush)
            << net.SetAddr("eth0", "192.0.2.10", 24, kIpV4, kNoFlush) << '\n';
  show("4");
  std::cout << "192.0.2.1 answers: " << Answers("192.0.2.1", AF_INET) << '\n';
  std::cout << "198.51.100.1 answers: " << Answers("198.51.100.1", AF_INET) << '\n';
  std::cout << net.SetGw("eth0", "192.0.2.1", kIpV4, kNoFlush) << net.SetGw("eth0", "192.0.2.1", kIpV4, kNoFlush)
            << '\n';
  show("4");
  std::cout << "198.51.100.1 answers: " << Answers("198.51.100.1", AF_INET) << '\n';

  std::cout << net.SetAddr("eth0", "2001:db8::10", 64, kIpV6, kFlush)
            << net.SetAddr("eth0", "2001:db8::10", 64, kIpV6, kFlush)
            << net.SetGw("eth0", "2001:db8::1", kIpV6, kNoFlush) << net.SetGw("eth0", "2001:db8::1", kIpV6, kNoFlush)
            << '\n';
  show("6");
  std::cout << "2001:db8::1 answers: " << Answers("2001:db8::1", AF_INET6) << '\n';

  std::cout << net.SetGw("eth0", "", kIpV4, kNoFlush) << net.SetAddr("eth0", "192.0.2.20", 25, kIpV4, kNoFlush) << '\n';
  show("4");
  Tell("nosuch0", [&] { net.SetAddr("nosuch0", "192.0.2.10", 24, kIpV4, kNoFlush); });
}

/// A word for whoever reads the memory from outside, and the answer.
void Memory() {
  WriteToPhysicalMemoryAddress(kWord, 0x5EED1E55);
  while (ReadFromPhysicalMemoryAddress(kWord + 4) == 0) {
    DebugSleep(10);
  }
  std::cout << std::hex << ReadFromPhysicalMemoryAddress(kWord + 4) << '\n';
}

}  // namespace

int main(int argc, char* argv[]) {
  const std::string step = argc > 1 ? argv[1] : "";
  try {
    if (step == "settings") {
      Settings();
    } else if (step == "without-attributes") {
      WithoutAttributes();
    } else if (step == "loop") {
      Loop();
    } else if (step == "converse") {
      Converse();
    } else if (step == "hang-up") {
      HangUp();
    } else if (step == "report" && argc == 3) {
      Report(argv[2]);
    } else if (step == "custom-report") {
      CustomReport();
    } else if (step == "watchdog") {
      WatchdogFed();
    } else if (step == "watchdog-refused") {
      WatchdogRefused();
    } else if (step == "network") {
      Network();
    } else if (step == "memory") {
      Memory();
    } else {
      return 2;
    }
    return 0;
  } catch (const std::exception& e) {
    std::cerr << e.what() << '\n';
    return 1;
  }
}
