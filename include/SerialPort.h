#ifndef BOARDKIT_SERIALPORT_H
#define BOARDKIT_SERIALPORT_H

/// @file
/// A serial line in raw mode, restored on close.
///
/// @code{.cpp}
/// SerialPort port(argv[1], true);  // opens the device
/// port.SetBaudRate(SerialPort::BAUD_115200);
/// port.SetFlowControl(SerialPort::FLOW_CONTROL_NONE);
/// port.SetParity(SerialPort::PARITY_EVEN);  // after the flow control
/// port.Write("status?\n");
/// if (port.IsDataReceived(1000)) {  // milliseconds
///   std::cout << "first byte: " << port.ReadOneByte() << '\n';
/// }
/// port.Close();  // in the destructor, a failure ends the process
/// @endcode
/// This is a part of `examples/serial-port.cpp`. The handbook has more: @ref serial-port.

#include <termios.h>

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#pragma GCC visibility push(default)

/// A serial line in raw mode, whose settings are restored on close. Transfers block.
///
/// @snippet serial-port.cpp use
///
/// The port is open from construction on; Close() and Open() may follow each other. Opening saves the device's terminal
/// attributes, closing restores them. The object remembers the line settings last applied for ToString(), which reopens
/// the port.
///
/// For a device without terminal attributes the constructor's second argument is false: then none are read or written,
/// setters only remember, and getters return zeros. Such a device must still accept a flush of its input, and the
/// modem-control requests for closing: a regular file cannot be opened this way.
///
/// Every failure is a `std::system_error` with the current `errno`, unless an operation says otherwise. Operations that
/// need an open port throw "Serial port not open." on a closed one, unless they say otherwise. One object is used by
/// one thread at a time.
///
/// @warning Opening is neither exclusive (another process may open the device too) nor close-on-exec (children inherit
/// the descriptor).
/// @warning A device without modem lines (an ordinary pseudo-terminal), and a line that was hung up (an unplugged
/// adapter), cannot be closed: Close() throws, and the destructor, which closes an open port, then ends the process,
/// also after that exception was caught. To go on, never destroy such an object, and open the line with a new one.
/// @warning Close() repeats an interrupted `close`, although Linux has released the descriptor's number by then: in a
/// program with several threads, that number may belong to another file.
class SerialPort {
 public:
  /// Line speeds; the values are the kernel's speed codes.
  enum BaudRate : int {
    BAUD_0 = 0,
    BAUD_50 = 1,
    BAUD_75 = 2,
    BAUD_110 = 3,
    BAUD_134 = 4,
    BAUD_150 = 5,
    BAUD_200 = 6,
    BAUD_300 = 7,
    BAUD_600 = 8,
    BAUD_1200 = 9,
    BAUD_1800 = 10,
    BAUD_2400 = 11,
    BAUD_4800 = 12,
    BAUD_9600 = 13,
    BAUD_19200 = 14,
    BAUD_38400 = 15,
    BAUD_57600 = 4097,
    BAUD_115200 = 4098,
    BAUD_230400 = 4099,
    BAUD_460800 = 4100,
    BAUD_500000 = 4101,
    BAUD_576000 = 4102,
    BAUD_921600 = 4103,
    BAUD_1000000 = 4104,
    BAUD_1152000 = 4105,
    BAUD_1500000 = 4106,
    BAUD_2000000 = 4107,
    BAUD_2500000 = 4108,
    BAUD_3000000 = 4109
  };

  /// Data bits; the values are the kernel's size bits.
  enum CharacterSize : int { CHAR_SIZE_5 = 0, CHAR_SIZE_6 = 16, CHAR_SIZE_7 = 32, CHAR_SIZE_8 = 48 };

  /// Which parity bit is sent and checked.
  enum Parity : int { PARITY_EVEN = 0, PARITY_ODD = 1, PARITY_NONE = 2 };

  /// How many stop bits end a character.
  enum StopBits : int { STOP_BITS_1 = 0, STOP_BITS_2 = 1 };

  /// Who may stop the sender: the RTS and CTS lines, the XON and XOFF characters, or nobody.
  enum FlowControl : int { FLOW_CONTROL_HARDWARE = 0, FLOW_CONTROL_SOFTWARE = 1, FLOW_CONTROL_NONE = 2 };

  /// Opens @p device as OpenSerialPortDevice() does; if that fails, nothing stays open, but the line may stay raw.
  SerialPort(const std::string& device, bool termiosSupported);

  /// Closes an open port. A failure of Close() ends the process: the line was left in a wrong state.
  ~SerialPort();

  SerialPort(const SerialPort&) = delete;
  SerialPort& operator=(const SerialPort&) = delete;

  /// @name Life
  /// @{

  /// Opens the device in raw mode, saves its attributes, and discards what it holds.
  ///
  /// The speed is 0 until it is set, which drops DTR and RTS on a real line. Waits until pending output is sent.
  /// @throws std::system_error "Serial port already open."; "Open Serial Port '<device>' failed?", "Save the current
  /// settings for serial port failed?", "Write new settings failed?" or "Flush of the input buffer failed?", with the
  /// port closed; what FlushInputAndOutput() and ReadAllAvailableData() throw, with the port left open.
  void OpenSerialPortDevice();

  /// Opens the device and applies the five settings in this order, and a custom speed instead of @p baudRate.
  ///
  /// Setting the flow control makes the line raw once more, so after this call the device runs with 8 data bits and
  /// without parity, whatever you pass: call SetCharSize() and SetParity() afterwards.
  /// @throws what OpenSerialPortDevice() and the setters throw; a setter's failure leaves the port open with the
  /// settings applied so far.
  void Open(BaudRate baudRate, CharacterSize charSize, Parity parity, StopBits stopBits, FlowControl flowControl);

  /// True from opening (even if its last steps failed) until Close() succeeds.
  bool IsOpen() const;

  /// Switches the loopback off, restores the saved attributes and closes. The receive buffer stays.
  /// @throws what SetLoopback() throws, and std::system_error "SerialPort::Close(): Setting the attributes of the
  /// serial port '<device>' failed?"; the port then stays open. A failing `close` is ignored.
  void Close();

  /// @}
  /// @name Line settings
  /// Setters change the device first and remember the value after success, getters ask the device. All of them throw
  /// what GetTheCurrentPortSettings() throws, the setters also what SetPortSettings() throws.
  /// @{

  /// Sets both directions to @p baudRate. Does nothing at all while a custom speed is set.
  /// @throws std::system_error "Unsupported baud rate.", and what SetPortSettings() throws.
  void SetBaudRate(BaudRate baudRate);
  /// The input speed; 4096, which is none of the enum, while a custom speed is set. Does not check for open.
  BaudRate GetBaudRate() const;

  /// Sets both directions to any speed in bits per second and keeps it over Close() and Open(); 0 forgets it and
  /// applies the remembered BaudRate again, as SetBaudRate() does. On a device without terminal attributes it is only
  /// remembered. The driver may round, or keep the old speed: ask GetBaudRate().
  /// @throws std::system_error "Unsupported baud rate." if the driver refuses, and for 0 what SetBaudRate() throws;
  /// what is remembered does not change.
  void SetCustomBaudRate(std::uint32_t bitsPerSecond);
  /// The remembered custom speed in bits per second; 0 means none.
  std::uint32_t GetCustomBaudRate() const;

  /// Sets the number of data bits. @p charSize is not checked: any value is ORed into the control flags.
  /// @throws std::system_error of SetPortSettings(), with "Invalid character size setting." after its text.
  void SetCharSize(CharacterSize charSize);
  /// The device's data bits; CHAR_SIZE_5 where attributes are not supported.
  CharacterSize GetCharSize() const;

  /// Sets the parity bit and the check of it; no parity ignores faulty characters.
  /// @throws std::invalid_argument "Invalid parity setting." outside the enum; nothing changes.
  void SetParity(Parity parity);
  /// The device's parity.
  Parity GetParity() const;

  /// Sets the number of stop bits.
  /// @throws std::invalid_argument "Invalid number of stop bits." outside the enum; nothing changes.
  void SetNumOfStopBits(StopBits stopBits);
  /// The device's stop bits.
  StopBits GetNumOfStopBits() const;

  /// Makes the line raw (8 data bits, no parity) and sets its flow control.
  /// @throws std::invalid_argument "Invalid flow control." outside the enum; nothing changes.
  void SetFlowControl(FlowControl flowControl);
  /// Hardware or none: software flow control is never reported.
  FlowControl GetFlowControl() const;

  /// Connects the transmitter to the receiver inside the UART.
  /// @throws std::system_error " SetLoopback TIOCMGET failed!" or " SetLoopback TIOCMSET failed!".
  void SetLoopback(bool on);

  /// Raises or drops the RTS line. A closed port fails in the system call.
  /// @throws std::system_error "TIOCMGET failed?" or "TIOCMSET failed?".
  void ReadyForReceive(bool ready);

  /// The code of a speed in bits per second, for the standard speeds from 9600 on; BAUD_0 for all others.
  static BaudRate ConversionToBaudrateEnum(int bitsPerSecond);
  /// The bits per second of a speed code; 0 for unknown ones. BAUD_2500000 gives 1500000 and BAUD_3000000 2000000.
  static unsigned int BaudRateToPrintableNumber(unsigned int code);

  /// Reads the device's attributes; leaves @p settings alone where they are not supported. Does not check for open.
  /// @throws std::system_error "Get the current port settings failed?".
  void GetTheCurrentPortSettings(termios& settings) const;
  /// Writes the device's attributes at once; does nothing where they are not supported. Does not check for open.
  /// @throws std::system_error "SerialPort::SetPortSettings(): Setting the attributes of the serial port '<device>'
  /// failed?", followed directly by @p context.
  void SetPortSettings(const termios& settings, const std::string& context);

  /// @}
  /// @name Data, straight to and from the device
  /// @{

  /// Writes all @p count bytes. Repeats at once what was interrupted or refused for the moment; may block without
  /// limit.
  /// @throws std::system_error "Serial port not open.", "Error writing to file descriptor: " or "Error writing to file
  /// descriptor. writtenCount <= 0."; bytes written before stay written.
  void Write(const void* data, unsigned int count);
  /// Writes the bytes of @p text, as above; of texts of 4 GiB and more only the size modulo 4 GiB.
  void Write(const std::string& text);

  /// Reads exactly @p count bytes into @p buffer, which is written to in spite of its type, and may block without
  /// limit. Does not check for open.
  /// @throws std::system_error "Error reading from file descriptor: ", or "SerialPort ReadCount 0" at the end of file,
  /// as after a hang-up; bytes read before stay in @p buffer.
  void Read(const void* buffer, unsigned int count);
  /// Reads one byte and may block without limit; throws as Read() does.
  unsigned char ReadOneByte();

  /// Waits up to @p timeoutMs milliseconds (negative: without limit) until there is something to read, or the line is
  /// hung up.
  /// @returns false at the time-out, and on a closed port.
  /// @throws std::system_error "SerialPort::IsDataReceived: poll() failed!", with EINTR too.
  bool IsDataReceived(int timeoutMs) const;

  /// @}
  /// @name Data through the receive buffer
  /// @{

  /// Moves the bytes that the driver holds now into the receive buffer. Does not check for open.
  /// @throws std::system_error "SerialPort::ReadAllAvailableData: FIONREAD failed!"; a failing read just ends it.
  void ReadAllAvailableData();
  /// True if the receive buffer holds something; the device is not asked.
  bool IsDataAvailable() const;
  /// Moves @p count bytes, or all if @p count is 0, from the receive buffer into @p out, whose content is replaced.
  /// @throws std::system_error "Serial port not open."
  /// @throws std::invalid_argument "SerialPort::Read: more bytes asked for than are buffered."; they stay, and @p out
  /// is empty.
  void Read(std::vector<unsigned char>& out, unsigned int count);

  /// @}
  /// @name What the driver holds
  /// None of these checks for open.
  /// @{

  /// The number of bytes that the driver has received.
  /// @throws std::system_error "SerialPort::ReadAllAvailableData: FIONREAD failed!" (the text is shared).
  int AvailableBytesToRead() const;
  /// Discards what the driver has received.
  /// @throws std::system_error "SerialPort::FlushInput: tcflush() failed!".
  void FlushInput() const;
  /// Discards what the driver has not sent yet.
  /// @throws std::system_error "SerialPort::FlushOutput: tcflush() failed!".
  void FlushOutput() const;
  /// Discards what the driver has received and what it has not sent yet, and then what was received meanwhile.
  /// @throws std::system_error "SerialPort::FlushInputAndOutput: tcflush() failed!".
  void FlushInputAndOutput() const;

  /// @}
  /// @name Diagnosis
  /// @{

  /// A report of several lines: the device, its speeds, flow control and driver information, and the registers of the
  /// board's UART, read from physical memory whichever device this is. From the flags on, numbers are hexadecimal,
  /// except in the last line. Of a divisor of 256 and more (at low speeds), the report joins the two bytes as 32-bit
  /// words and shows a wrong divisor and speed.
  ///
  /// Reading the divisor latch changes the UART's line control register, so the port is closed and opened again with
  /// the remembered settings: the receive buffer is lost. Of a closed port the report is the device and "not opened
  /// yet!".
  /// @throws what GetTheCurrentPortSettings() throws and std::system_error " TIOCGSERIAL failed!", with nothing
  /// changed; what the physical memory functions throw, with the port open and perhaps the divisor-latch access bit
  /// left set; what Close() and Open() throw, with the port as these leave it.
  std::string ToString();

  /// @}

 private:
  void RequireOpen() const;
  void ApplyBaudRate(BaudRate baudRate);
  void ApplyCustomBaudRate(std::uint32_t bitsPerSecond);
  static void ReadExactly(int fd, void* buffer, unsigned int count);

  bool m_isOpen = false;
  std::string m_device;
  int m_fd = -1;
  termios m_savedSettings{};
  std::deque<std::uint8_t> m_rxBuffer;
  std::uint32_t m_customBaudRate = 0;
  BaudRate m_baudRate = BAUD_9600;
  CharacterSize m_charSize = CHAR_SIZE_8;
  Parity m_parity = PARITY_NONE;
  StopBits m_stopBits = STOP_BITS_1;
  FlowControl m_flowControl = FLOW_CONTROL_NONE;
  bool m_termiosSupported;
};

#pragma GCC visibility pop

#endif
