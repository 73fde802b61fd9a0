// Prints what comes on a line until "q" comes: reopen /dev/ttyS1
//
// When an adapter was unplugged and is back, it opens the line again. Without a board: boardsim -- reopen /dev/ttyS1
#include <SerialPort.h>
#include <SystemCalls.h>

#include <exception>
#include <iostream>
#include <memory>

namespace {

// [abandon]
// The destructor of a port that can't be closed would end the process.
struct CloseOrAbandon {
  void operator()(SerialPort* port) const {
    try {
      if (port->IsOpen()) {
        port->Close();
      }
    } catch (const std::exception& e) {
      std::cerr << "left behind:" << e.what() << '\n';
      return;
    }
    delete port;
  }
};
using Port = std::unique_ptr<SerialPort, CloseOrAbandon>;
// [abandon]

/// Returns at "q"; throws if the line fails.
void PrintUntilQ(const char* device) {
  // [reopen]
  Port port(new SerialPort(device, true));
  // [reopen]
  port->SetBaudRate(SerialPort::BAUD_115200);
  std::cout << "open" << std::endl;
  for (char byte = 0; byte != 'q';) {
    byte = static_cast<char>(port->ReadOneByte());
    std::cout << byte << std::endl;
  }
}

}  // namespace

int main(int argc, char* argv[]) {
  if (argc != 2) {
    std::cerr << "Usage: reopen DEVICE\n";
    return 2;
  }
  for (;;) {
    try {
      PrintUntilQ(argv[1]);
      return 0;
    } catch (const std::exception& e) {
      std::cerr << "reopen:" << e.what() << '\n';
      DebugSleep(500);
    }
  }
}
