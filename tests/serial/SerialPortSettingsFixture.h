#ifndef BOARDKIT_TESTS_SERIALPORTSETTINGSFIXTURE_H
#define BOARDKIT_TESTS_SERIALPORTSETTINGSFIXTURE_H

#include <termios.h>

#include <cstddef>

#include <gtest/gtest.h>

#include "SerialPort.h"
#include "SerialPortFixture.h"
#include "SerialTty.h"

/// What a port remembers, as the report's reopening applies it.
struct Remembered {
  SerialPort::BaudRate baudRate;
  int charSize;
  SerialPort::Parity parity;
  SerialPort::StopBits stopBits;
  SerialPort::FlowControl flowControl;

  bool operator==(const Remembered& other) const {
    return baudRate == other.baudRate && charSize == other.charSize && parity == other.parity &&
           stopBits == other.stopBits && flowControl == other.flowControl;
  }
};

inline constexpr Remembered kDefaults = {SerialPort::BAUD_9600, SerialPort::CHAR_SIZE_8, SerialPort::PARITY_NONE,
                                         SerialPort::STOP_BITS_1, SerialPort::FLOW_CONTROL_NONE};

class SettingsTest : public SerialTtyTest {
 protected:
  // In every flags field, a mixture of bits that no setter is about: they must stay.
  static constexpr tcflag_t kOtherInput = IGNBRK | IUCLC;
  static constexpr tcflag_t kOtherControl = CLOCAL | CREAD | HUPCL;
  static constexpr tcflag_t kOtherOutput = OPOST | OLCUC;
  static constexpr tcflag_t kOtherLocal = ISIG | TOSTOP;

  /// Reopens @p port, and reads from the attributes that are written meanwhile what it remembers.
  Remembered RememberedBy(SerialPort& port) {
    const SerialRegisters registers(m_tty);
    m_tty.written.clear();
    port.ToString();

    // Closing, opening, then the five setters.
    constexpr std::size_t kWritten = 7;
    EXPECT_EQ(m_tty.written.size(), kWritten);
    m_tty.written.resize(kWritten);
    const termios& speed = m_tty.written[2];
    const termios& size = m_tty.written[3];
    const termios& parity = m_tty.written[4];
    const termios& stopBits = m_tty.written[5];
    const termios& flow = m_tty.written[6];
    const bool odd = (parity.c_cflag & PARODD) != 0;
    Remembered remembered{};
    remembered.baudRate = static_cast<SerialPort::BaudRate>(speed.c_cflag & CBAUD);
    remembered.charSize = static_cast<int>(size.c_cflag & CSIZE);
    remembered.parity = (parity.c_cflag & PARENB) == 0 ? SerialPort::PARITY_NONE
                        : odd                          ? SerialPort::PARITY_ODD
                                                       : SerialPort::PARITY_EVEN;
    remembered.stopBits = (stopBits.c_cflag & CSTOPB) != 0 ? SerialPort::STOP_BITS_2 : SerialPort::STOP_BITS_1;
    remembered.flowControl = (flow.c_cflag & CRTSCTS) != 0 ? SerialPort::FLOW_CONTROL_HARDWARE
                             : (flow.c_iflag & IXON) != 0  ? SerialPort::FLOW_CONTROL_SOFTWARE
                                                           : SerialPort::FLOW_CONTROL_NONE;
    return remembered;
  }

  /// Gives the device @p input and @p control besides bits that no setter is about.
  void SetFlags(tcflag_t input, tcflag_t control) {
    m_tty.attributes = termios{};
    m_tty.attributes.c_iflag = kOtherInput | input;
    m_tty.attributes.c_oflag = kOtherOutput;
    m_tty.attributes.c_cflag = kOtherControl | control;
    m_tty.attributes.c_lflag = kOtherLocal;
    m_tty.attributes.c_cc[VTIME] = 12;
  }

  void ExpectFlags(tcflag_t input, tcflag_t control) {
    EXPECT_EQ(m_tty.attributes.c_iflag, kOtherInput | input);
    EXPECT_EQ(m_tty.attributes.c_oflag, kOtherOutput);
    EXPECT_EQ(ControlFlags(m_tty.attributes), kOtherControl | control);
    EXPECT_EQ(m_tty.attributes.c_lflag, kOtherLocal);
    EXPECT_EQ(m_tty.attributes.c_cc[VTIME], 12);
  }

  /// The calls of a setter.
  const Calls m_changing = {"tcgetattr(70)", "tcsetattr(70, TCSANOW)"};
};

#endif
