// The serial port: set up, text and a block through its loopback and to its far end, time-out, report.
#include <SerialPort.h>
#include <SystemCalls.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Chapters.h"
#include "Clock.h"
#include "Page.h"

namespace {

using Bytes = std::vector<unsigned char>;

constexpr long kBaud = 115200;
constexpr int kSilenceMs = 3000;  // after that, nothing more is expected

// On its way at a time: more than a receiver holds would be lost, as there is no flow control.
constexpr std::size_t kPieceSize = 2048;
constexpr std::size_t kWindow = 4096;
constexpr std::size_t kBlockSize = 1048576;

std::string Crc32(const Bytes& bytes) {
  std::uint32_t crc = 0xFFFFFFFF;
  for (const unsigned char byte : bytes) {
    crc ^= byte;
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc >> 1U) ^ ((crc & 1U) != 0 ? 0xEDB88320U : 0U);
    }
  }
  return page::Hex(~crc);
}

/// Bytes without a pattern that a line could repeat by mistake: another one for each seed.
Bytes MakeBlock(std::uint32_t seed) {
  Bytes block(kBlockSize);
  for (unsigned char& byte : block) {
    seed = seed * 1664525U + 1013904223U;
    byte = static_cast<unsigned char>(seed >> 24U);
  }
  return block;
}

std::string AsText(const Bytes& bytes) {
  return std::string(bytes.begin(), bytes.end());
}

std::string Settings(const SerialPort& port) {
  const char* const parities[] = {"even parity", "odd parity", "no parity"};
  const unsigned int speed = SerialPort::BaudRateToPrintableNumber(static_cast<unsigned int>(port.GetBaudRate()));
  const int dataBits = 5 + port.GetCharSize() / SerialPort::CHAR_SIZE_6;
  const int stopBits = port.GetNumOfStopBits() == SerialPort::STOP_BITS_1 ? 1 : 2;
  return std::to_string(speed) + " baud, " + std::to_string(dataBits) + " data bits, " + parities[port.GetParity()] +
         ", stop bits: " + std::to_string(stopBits);
}

/// Waits until the driver holds so many bytes.
/// @returns how many it holds when they are there, or when it has taken too long.
std::size_t Await(const SerialPort& port, std::size_t count) {
  const Clock clock;
  while (static_cast<std::size_t>(port.AvailableBytesToRead()) < count && clock.Milliseconds() < kSilenceMs) {
    DebugSleep(1);
  }
  return static_cast<std::size_t>(port.AvailableBytesToRead());
}

void ShowTimeOut(const SerialPort& port) {
  constexpr int kTimeOutMs = 250;
  page::Step("Wait for something to read, where nothing comes");
  page::Call("port.IsDataReceived(" + std::to_string(kTimeOutMs) + ")");
  const Clock clock;
  const bool received = port.IsDataReceived(kTimeOutMs);
  page::Row("result",
            std::string(received ? "true" : "false") + ", after " + std::to_string(clock.Milliseconds()) + " ms");
}

/// Bytes that are there are read straight from the device.
Bytes ReadDirectly(SerialPort& port, std::size_t most) {
  Bytes bytes(std::min(most, static_cast<std::size_t>(port.AvailableBytesToRead())));
  port.Read(bytes.data(), static_cast<unsigned int>(bytes.size()));
  return bytes;
}

/// Bytes that are there are moved to the receive buffer, and all of it is taken from there.
Bytes ReadThroughBuffer(SerialPort& port) {
  port.ReadAllAvailableData();
  Bytes bytes;
  port.Read(bytes, 0);
  return bytes;
}

using Receive = std::function<Bytes(std::size_t most)>;

/// Sends a block and takes in meanwhile what comes back.
/// @returns how long that took, in milliseconds.
long SendBlock(SerialPort& port, const Bytes& block, const Receive& receive) {
  Bytes received;
  std::size_t sent = 0;
  std::size_t shown = 0;
  const Clock clock;
  while (received.size() < block.size()) {
    while (sent < block.size() && sent - received.size() <= kWindow - kPieceSize) {
      port.Write(block.data() + sent, kPieceSize);
      sent += kPieceSize;
    }
    if (!port.IsDataReceived(kSilenceMs)) {
      break;
    }
    const Bytes bytes = receive(sent - received.size());
    if (bytes.empty()) {
      break;
    }
    received.insert(received.end(), bytes.begin(), bytes.end());
    if (received.size() / (kBlockSize / 64) != shown) {
      shown = received.size() / (kBlockSize / 64);
      page::Progress("received", std::to_string(received.size() / 1024) + " of " + std::to_string(block.size() / 1024) +
                                     " KiB  [" + std::string(shown / 2, '#') + std::string(32 - shown / 2, '.') + ']');
    }
  }
  const long time = clock.Milliseconds();
  page::Row("sent", std::to_string(sent) + " bytes, CRC-32 " + Crc32(Bytes(block.data(), block.data() + sent)));
  page::Row("received", std::to_string(received.size()) + " bytes, CRC-32 " + Crc32(received) + ", after " +
                            (time < 1000 ? std::to_string(time) + " ms" : page::Seconds(time)));
  if (received != block) {
    throw std::runtime_error("What came back is not what was sent.");
  }
  page::Row("compared", "equal, byte for byte");
  return time;
}

void ShowLoopback(SerialPort& port) {
  page::Step("Connect transmitter and receiver in the UART; the direct path");
  const std::string text = "Nobody else hears this.";
  const auto length = static_cast<unsigned int>(text.size());
  page::Call("port.SetLoopback(true)");
  port.SetLoopback(true);
  page::Call("port.Write(" + page::Quoted(text) + ")");
  port.Write(text);
  if (Await(port, length) < length) {
    throw std::runtime_error("The loopback brings nothing back.");
  }
  page::Call("port.Read(buffer, " + std::to_string(length) + ")");
  Bytes buffer(length);
  port.Read(buffer.data(), length);
  page::Row("buffer", page::Quoted(AsText(buffer)));
  if (AsText(buffer) != text) {
    throw std::runtime_error("What came back is not what was sent.");
  }

  page::Step("A block of 1 MiB through the loopback; the buffered path");
  page::Call("port.Write(block + sent, 2048)");
  page::Call("port.ReadAllAvailableData(); port.Read(bytes, 0)");
  const long time = SendBlock(port, MakeBlock(1), [&](std::size_t) { return ReadThroughBuffer(port); });

  constexpr long kBitsPerByte = 10;  // with the start and the stop bit
  const long lineTime = static_cast<long>(1000LL * kBitsPerByte * kBlockSize / kBaud);
  // None is faster than its bits.
  if (time < lineTime - lineTime / 10) {
    page::Row("mind", "this line is not a real one, which would take " + page::Seconds(lineTime));
  }
}

void ShowFarEnd(SerialPort& port) {
  page::Step("Text to the far end");
  const std::string text = "Is anybody there?";
  page::Call("port.SetLoopback(false)");
  port.SetLoopback(false);
  port.FlushInput();
  page::Call("port.Write(" + page::Quoted(text) + ")");
  port.Write(text);
  Bytes answer;
  Await(port, text.size());
  while (answer.size() < text.size() && port.AvailableBytesToRead() > 0) {
    answer.push_back(port.ReadOneByte());
  }
  page::Call("port.ReadOneByte(), " + std::to_string(answer.size()) + " times");
  page::Row("read", page::Quoted(AsText(answer)));
  if (AsText(answer) != text) {
    page::Row("so", "the far end does not echo: no block is sent to it");
    return;
  }
  page::Row("so", "the far end echoes");

  page::Step("Another block of 1 MiB to the far end and back; the direct path");
  page::Call("port.Write(block + sent, 2048)");
  page::Call("port.Read(buffer, port.AvailableBytesToRead())");
  SendBlock(port, MakeBlock(2), [&](std::size_t most) { return ReadDirectly(port, most); });
}

void ShowPort(SerialPort& port, const std::string& device) {
  page::Step("Set it up: 115200 8N1; the getters ask the device");
  page::Call("SerialPort port(" + page::Quoted(device) + ", true)");
  page::Row("getters", Settings(port));
  page::Call("port.SetBaudRate(SerialPort::BAUD_115200)");
  port.SetBaudRate(SerialPort::BAUD_115200);
  page::Call("port.SetNumOfStopBits(SerialPort::STOP_BITS_1)");
  port.SetNumOfStopBits(SerialPort::STOP_BITS_1);
  page::Call("port.SetFlowControl(SerialPort::FLOW_CONTROL_NONE)");
  port.SetFlowControl(SerialPort::FLOW_CONTROL_NONE);
  page::Row("getters", Settings(port));

  ShowTimeOut(port);
  ShowLoopback(port);
  ShowFarEnd(port);

  page::Step("The report; line register and latch are read from the UART's memory");
  page::Call("port.ToString()");
  page::Row("result", page::SplitLines(port.ToString()));
  page::Row("mind", "from the flags to the latch, all numbers are hexadecimal");

  page::Step("Close it");
  page::Call("port.Close(); port.IsOpen()");
  port.Close();
  page::Row("result", port.IsOpen() ? "true" : "false");
}

}  // namespace

void ShowSerialPort(const std::string& device) {
  std::unique_ptr<SerialPort> port(new SerialPort(device, true));
  try {
    ShowPort(*port, device);
  } catch (const std::exception&) {
    // A line that was hung up, or that has no modem lines, can't be closed, and its destructor would end the program.
    try {
      port->Close();
    } catch (const std::exception&) {
      static_cast<void>(port.release());
    }
    throw;
  }
}
