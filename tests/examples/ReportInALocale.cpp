// Prints a port's report while the program's global locale groups digits by dots: report-in-a-locale DEVICE
#include <SerialPort.h>

#include <iostream>
#include <locale>
#include <string>

namespace {

struct Grouping : std::numpunct<char> {
  char do_thousands_sep() const override {
    return '.';
  }
  std::string do_grouping() const override {
    return "\3";
  }
};

}  // namespace

int main(int, char* argv[]) {
  std::locale::global(std::locale(std::locale::classic(), new Grouping));
  SerialPort port(argv[1], true);
  port.SetBaudRate(SerialPort::BAUD_115200);
  std::cout << port.ToString();
  port.Close();
}
