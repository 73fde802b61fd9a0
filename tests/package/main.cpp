// A client that calls into every part of the library: what a consumer project builds. surface.cpp goes with it.

#include <File.h>
#include <IpNet.h>
#include <OpSystem.h>
#include <SerialPort.h>
#include <SystemCalls.h>
#include <WatchDog.h>
#include <linuxutils.h>

#include <fcntl.h>

#include <iostream>
#include <stdexcept>

namespace {

int failures = 0;

void Check(bool condition, const char* what) {
  if (!condition) {
    std::cerr << "wrong: " << what << '\n';
    ++failures;
  }
}

/// What @p action throws; types and texts must survive the way out of the shared object.
template <typename Exception, typename Action>
std::string Thrown(Action action) {
  try {
    action();
  } catch (const Exception& e) {
    return e.what();
  }
  return "nothing";
}

}  // namespace

int main() {
  OpSystem os;
  IpNet net(os);
  const unsigned int* const miss = &IpNet::npos;  // by address: the constant is there for C++11 too
  Check(os.ExecCmd("echo text", false) == "text\n", "ExecCmd");
  Check(Thrown<std::logic_error>([&] { os.ExecCmd("echo failed; false", false); }) == "failed\n", "a failing command");
  Check(IpNet::GetPosOfValue("a b", "b", 0, false) == *miss, "npos");
  Check(IpNet::GetIpV4NetAddr("192.0.2.77", 24) == "192.0.2.0", "GetIpV4NetAddr");
  Check(!net.IsDebugActive(), "IsDebugActive");
  Check(Thrown<std::logic_error>([] { WatchDog(1, "").Feed(); }) == "Watchdog not activated", "WatchDog");
  Check(SerialPort::ConversionToBaudrateEnum(115200) == SerialPort::BAUD_115200, "SerialPort");
  Check(Thrown<std::system_error>([] { DebugSleep(-1); }) == "Error sleeping: : Invalid argument", "DebugSleep");
  Check(Thrown<std::system_error>([] {
          File("/no/such/file", O_RDONLY, 0);
        }).find("Open for '/no/such/file' failed.") == 0,
        "File");
  Check(linuxutils::Traceback(100) == "\nTraceback:\n", "Traceback");
  return failures;
}
