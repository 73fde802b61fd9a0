// Prints the diagnostic report of a serial port: serial-report /dev/ttyS1
//
// Needs root, because the report reads the UART's registers through /dev/mem.
#include <SerialPort.h>

#include <exception>
#include <iostream>

int main(int argc, char* argv[]) {
  if (argc != 2) {
    std::cerr << "Usage: serial-report DEVICE\n";
    return 2;
  }
  try {
    SerialPort port(argv[1], true);
    try {
      port.SetBaudRate(SerialPort::BAUD_115200);
      std::cout << port.ToString();
      port.Close();
      std::cout << port.ToString();
      return 0;
    } catch (const std::exception& e) {
      // Report it before the port goes: a line that can't be closed ends the program.
      std::cerr << "serial-report: " << e.what() << '\n';
      return 1;
    }
  } catch (const std::exception& e) {
    std::cerr << "serial-report: " << e.what() << '\n';
    return 1;
  }
}
