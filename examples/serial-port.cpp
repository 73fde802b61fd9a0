// Sends a line and waits a second for an answer: serial-port /dev/ttyS1
//
// Needs access to the device (the group dialout). Without a board: boardsim -- serial-port /dev/ttyS1
#include <SerialPort.h>

#include <exception>
#include <iostream>

int main(int argc, char* argv[]) {
  if (argc != 2) {
    std::cerr << "Usage: serial-port DEVICE\n";
    return 2;
  }
  try {
    // [use]
    SerialPort port(argv[1], true);  // opens the device
    port.SetBaudRate(SerialPort::BAUD_115200);
    port.SetFlowControl(SerialPort::FLOW_CONTROL_NONE);
    port.SetParity(SerialPort::PARITY_EVEN);  // after the flow control
    port.Write("status?\n");
    if (port.IsDataReceived(1000)) {  // milliseconds
      std::cout << "first byte: " << port.ReadOneByte() << '\n';
    }
    port.Close();  // in the destructor, a failure ends the process
    // [use]
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "serial-port: " << e.what() << '\n';
    return 1;
  }
}
