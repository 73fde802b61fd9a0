// A client that uses every public header and calls into every part of the library: what a consumer project builds.

#include <IpNet.h>
#include <OpSystem.h>
#include <SystemCalls.h>

#include <stdexcept>

int main() {
  OpSystem os;
  IpNet net(os);
  const unsigned int* const miss = &IpNet::npos;  // by address: the constant is there for C++11 too
  DebugSleep(1);
  try {
    os.ExecCmd("echo failed; false", false);
    return 1;
  } catch (const std::logic_error& e) {
    if (std::string(e.what()) != "failed\n") {
      return 2;
    }
  }
  return IpNet::GetPosOfValue("a b", "b", 0, false) == *miss && IpNet::GetIpV4NetAddr("192.0.2.77", 24) == "192.0.2.0" &&
                 !net.IsDebugActive()
             ? 0
             : 3;
}
