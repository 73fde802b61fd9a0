// The report of a port on the board's own UART: first with the kernel's driver on it, then with nothing but the
// registers' values.
#include <SerialPort.h>
#include <SystemCalls.h>

#include <fcntl.h>
#include <linux/serial.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "ExpectText.h"
#include "SerialExtended.h"

namespace {

constexpr unsigned int kLineControl = 0x8001100C;
constexpr unsigned int kDivisorLatchAccess = 0x80;

serial_struct DriverOf(const char* device) {
  serial_struct driver{};
  const int fd = ::open(device, O_RDWR | O_NOCTTY | O_NONBLOCK);
  EXPECT_EQ(::ioctl(fd, TIOCGSERIAL, &driver), 0);
  ::close(fd);
  return driver;
}

/// What the kernel reports about the driver; the kernel chooses the interrupt's number.
std::string DriverLines(const char* device) {
  const serial_struct driver = DriverOf(device);
  std::ostringstream lines;
  lines << "Baud Base:     " << driver.baud_base << "\nFIFO Size:     " << driver.xmit_fifo_size << "\nFlags:       0x"
        << std::hex << driver.flags << "\nIRQ:           " << driver.irq << "\nDivisor:       0\n";
  return lines.str();
}

class Report : public testing::Test {
 protected:
  static constexpr const char* kDevice = "/dev/ttyS2";

  static void ExpectTextAt(SerialPort::BaudRate speed, const std::string& registers) {
    SerialPort port(kDevice, true);
    port.SetBaudRate(speed);
    port.SetFlowControl(SerialPort::FLOW_CONTROL_NONE);
    const unsigned int shown = SerialPort::BaudRateToPrintableNumber(speed);
    const std::string decimal = std::to_string(shown);
    EXPECT_EQ(port.ToString(), "Device:    /dev/ttyS2\nOutput Baudrate: " + decimal + "\nInput  Baudrate: " + decimal +
                                   "\nFlowcontrol: None\n" + DriverLines(kDevice) + registers);
  }
};

TEST_F(Report, TheDriverHasTheBoardsValues) {
  const serial_struct driver = DriverOf(kDevice);
  EXPECT_EQ(driver.baud_base, 3906250);
  EXPECT_EQ(driver.xmit_fifo_size, 64);
}

TEST_F(Report, AFastLineHasADivisorOfOneByteAndItsRealSpeed) {
  ExpectTextAt(SerialPort::BAUD_115200, "Line Register: 0x13\nDivisor Latch: 22\nReal baud rate: 114890\n");
}

TEST_F(Report, ASlowLineHasADivisorOfTwoBytesThatArePutTogetherAsWords) {
  ExpectTextAt(SerialPort::BAUD_9600, "Line Register: 0x13\nDivisor Latch: 100000097\nReal baud rate: 0.000909495\n");
}

TEST_F(Report, TheFastestSpeedIsShownAsASlowerOneButItsDivisorIsReal) {
  ExpectTextAt(SerialPort::BAUD_3000000, "Line Register: 0x13\nDivisor Latch: 1\nReal baud rate: 3.90625e+06\n");
}

TEST_F(Report, TheDriverClearsTheAccessBitWhenThePortIsOpenedAgain) {
  SerialPort port(kDevice, true);
  port.SetBaudRate(SerialPort::BAUD_115200);
  port.ToString();

  EXPECT_EQ(ReadFromPhysicalMemoryAddress(kLineControl) & kDivisorLatchAccess, 0U);
}

TEST_F(Report, ACustomSpeedStandsInTheReportAndOutlastsIt) {
  SerialPort port(kDevice, true);
  port.SetCustomBaudRate(250000);

  const std::string text = port.ToString();

  EXPECT_EQ(text,
            std::string("Device:    /dev/ttyS2\nCustom Output Baudrate: 250000\nCustom  Baudrate:       250000\n") +
                "Flowcontrol: None\n" + DriverLines(kDevice) +
                "Line Register: 0x13\nDivisor Latch: 10\nReal baud rate: 244141\n");
  const int fd = ::open(kDevice, O_RDWR | O_NOCTTY | O_NONBLOCK);
  EXPECT_EQ(GetExtendedAttributes(fd).outputSpeed, 250000U);
  EXPECT_EQ(GetExtendedAttributes(fd).inputSpeed, 250000U);
  ::close(fd);
}

TEST_F(Report, TheReportOfAClosedPortHasOneLineMore) {
  SerialPort port(kDevice, true);
  port.Close();
  EXPECT_EQ(port.ToString(), "Device:    /dev/ttyS2\nnot opened yet!\n");
}

TEST(Presets, TheReportReadsTheRegistersWhicheverDeviceThePortIsOn) {
  SerialPort port("/dev/ttyS0", true);
  port.SetBaudRate(SerialPort::BAUD_9600);
  port.SetFlowControl(SerialPort::FLOW_CONTROL_HARDWARE);

  EXPECT_EQ(port.ToString(),
            "Device:    /dev/ttyS0\nOutput Baudrate: 9600\nInput  Baudrate: 9600\nFlowcontrol: Hardware\n" +
                DriverLines("/dev/ttyS0") + "Line Register: 0x3\nDivisor Latch: 197\nReal baud rate: 9597.67\n");
}

TEST(Presets, WithoutADriverOnTheUartTheAccessBitStays) {
  SerialPort port("/dev/ttyS0", true);
  port.SetBaudRate(SerialPort::BAUD_9600);
  port.ToString();

  EXPECT_EQ(ReadFromPhysicalMemoryAddress(kLineControl), 0x83U);
  WriteToPhysicalMemoryAddress(kLineControl, 0x3);
}

TEST(Presets, ADivisorOfZeroMakesAnInfiniteSpeed) {
  constexpr unsigned int kDivisorLatchLow = 0x80011000;
  WriteToPhysicalMemoryAddress(kDivisorLatchLow, 0);
  SerialPort port("/dev/ttyS0", true);
  port.SetBaudRate(SerialPort::BAUD_9600);
  const std::string text = port.ToString();

  EXPECT_CONTAINS(text, "Divisor Latch: 0\nReal baud rate: inf\n");
}

}  // namespace
