// Sends back every line that arrives on a serial port: serial-echo /dev/ttyS1 115200
#include <SerialPort.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

namespace {

void Echo(SerialPort& port) {
  constexpr int kIdleMs = 10000;
  std::string line;
  while (port.IsDataReceived(kIdleMs)) {
    port.ReadAllAvailableData();
    std::vector<unsigned char> bytes;
    port.Read(bytes, 0);
    for (const unsigned char byte : bytes) {
      line += static_cast<char>(byte);
      if (byte == '\n') {
        port.Write(line);
        std::cout << line << std::flush;
        line.clear();
      }
    }
  }
}

}  // namespace

int main(int argc, char* argv[]) {
  if (argc != 3) {
    std::cerr << "Usage: serial-echo DEVICE BITS_PER_SECOND\nEnds after 10 seconds without a byte.\n";
    return 2;
  }
  const auto speed = SerialPort::ConversionToBaudrateEnum(static_cast<int>(std::strtol(argv[2], nullptr, 10)));
  if (speed == SerialPort::BAUD_0) {
    std::cerr << "serial-echo: " << argv[2] << " is no standard speed from 9600 on\n";
    return 2;
  }
  try {
    SerialPort port(argv[1], true);
    try {
      port.SetBaudRate(speed);
      port.SetFlowControl(SerialPort::FLOW_CONTROL_NONE);
      Echo(port);
      port.Close();
      return 0;
    } catch (const std::exception& e) {
      // Report it before the port goes: a line that was hung up can't be closed, which ends the program.
      std::cerr << "serial-echo: " << e.what() << '\n';
      return 1;
    }
  } catch (const std::exception& e) {
    std::cerr << "serial-echo: " << e.what() << '\n';
    return 1;
  }
}
