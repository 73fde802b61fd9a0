#ifndef BOARDKIT_TESTS_SERIALTEXTS_H
#define BOARDKIT_TESTS_SERIALTEXTS_H

#include <string>

/// What the failures of a serial port say, stated a second time: programs compare these texts.
namespace serialtext {

inline const std::string kAlreadyOpen = "Serial port already open.";
inline const std::string kNotOpen = "Serial port not open.";
inline std::string OpenFailed(const std::string& device) {
  return "Open Serial Port '" + device + "' failed?";
}
inline const std::string kSaveFailed = "Save the current settings for serial port failed?";
inline const std::string kWriteFailed = "Write new settings failed?";
inline const std::string kFlushFailed = "Flush of the input buffer failed?";
inline std::string CloseFailed(const std::string& device) {
  return "SerialPort::Close(): Setting the attributes of the serial port '" + device + "' failed?";
}

inline const std::string kGetFailed = "Get the current port settings failed?";
/// @p setting is what the setter itself says.
inline std::string SetFailed(const std::string& device, const std::string& setting) {
  return "SerialPort::SetPortSettings(): Setting the attributes of the serial port '" + device + "' failed?" + setting;
}
inline const std::string kUnsupported = "Unsupported baud rate.";
inline const std::string kInvalidSize = "Invalid character size setting.";
inline const std::string kInvalidParity = "Invalid parity setting.";
inline const std::string kInvalidStopBits = "Invalid number of stop bits.";
inline const std::string kInvalidFlowControl = "Invalid flow control.";

inline const std::string kLoopbackGetFailed = " SetLoopback TIOCMGET failed!";
inline const std::string kLoopbackSetFailed = " SetLoopback TIOCMSET failed!";
inline const std::string kModemGetFailed = "TIOCMGET failed?";
inline const std::string kModemSetFailed = "TIOCMSET failed?";
inline const std::string kInformationFailed = " TIOCGSERIAL failed!";

inline const std::string kWriteError = "Error writing to file descriptor: ";
inline const std::string kWriteStuck = "Error writing to file descriptor. writtenCount <= 0.";
inline const std::string kReadError = "Error reading from file descriptor: ";
inline const std::string kReadEnd = "SerialPort ReadCount 0";
inline const std::string kTooFewBuffered = "SerialPort::Read: more bytes asked for than are buffered.";
inline const std::string kPollFailed = "SerialPort::IsDataReceived: poll() failed!";
inline const std::string kFionreadFailed = "SerialPort::ReadAllAvailableData: FIONREAD failed!";
inline const std::string kFlushInputFailed = "SerialPort::FlushInput: tcflush() failed!";
inline const std::string kFlushOutputFailed = "SerialPort::FlushOutput: tcflush() failed!";
inline const std::string kFlushBothFailed = "SerialPort::FlushInputAndOutput: tcflush() failed!";

}  // namespace serialtext

#endif
