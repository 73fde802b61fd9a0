#include <linux/serial.h>

#include <algorithm>
#include <iterator>
#include <sstream>
#include <utility>
#include <vector>

#include "SetupError.h"
#include "Text.h"
#include "devices/line/SerialLine.h"
#include "sandbox/PrivateDev.h"

namespace {

class SerialLineKind : public DeviceKind {
 public:
  SerialLineKind() {
    m_info.type = PORT_16550A;
    m_info.baud_base = 3906250;
    m_info.xmit_fifo_size = 64;
    m_info.flags = 0x10000040;
    m_info.irq = 42;
    // As those of a driver, in hundredths of a second.
    m_info.close_delay = 50;
    m_info.closing_wait = 3000;
  }

  std::vector<Option> Options() override {
    return {{"--tty", "PATH[=FAR]", "A serial port, and its far end (/dev/ttyS1=echo)", true,
             [this](const std::string& text) { TakeTty(text); }},
            {"--pace", "", "Let bytes take the time that the speed requires", false,
             [this](const std::string& /*none*/) { m_isPaced = true; }},
            {"--serial-info", "FIVE,NUMBERS",
             "Answer to TIOCGSERIAL: base, FIFO size, flags, irq,\ndivisor (3906250,64,0x10000040,42,0)", false,
             [this](const std::string& text) { TakeInfo(text); }},
            {"--uart", "BASE[:STRIDE]", "The first port's registers (0x80011000:4)", false,
             [this](const std::string& text) { TakeUart(text); }}};
  }

  std::vector<Node> Nodes() const override {
    std::vector<Node> nodes;
    for (const auto& [path, farEnd] : Ttys()) {
      // /sys names the first port by its registers, the others by their numbers.
      const std::string place = nodes.empty() ? Hex(m_uart.base).substr(2) : std::to_string(nodes.size());
      std::string name = path.substr(std::string("/dev/").size());
      std::replace(name.begin(), name.end(), '/', '!');
      nodes.push_back({path, Node::Kind::kTerminal, 0, "", SystemEntry{"tty", name, place + ".serial", "serial8250"}});
    }
    return nodes;
  }

  TrappedRequests Requests() const override {
    return SerialRequests::Numbers();
  }

  Devices Make(const Backplane& backplane) const override {
    Devices devices;
    for (const auto& [path, farEnd] : Ttys()) {
      SerialLine::Traits traits;
      traits.farEnd = farEnd;
      traits.info = m_info;
      traits.info.line = static_cast<int>(devices.size());
      traits.uart = devices.empty() ? std::make_optional(m_uart) : std::nullopt;
      traits.isPaced = m_isPaced;
      devices.push_back(std::make_unique<SerialLine>(path, traits, backplane));
    }
    return devices;
  }

 private:
  using Tty = std::pair<std::string, FarEndMaker>;

  std::vector<Tty> Ttys() const {
    return m_ttys.empty() ? std::vector<Tty>{{"/dev/ttyS1", ParseFarEnd("echo")}} : m_ttys;
  }

  void TakeTty(const std::string& text) {
    const auto [path, farEnd] = Cut(text, '=');
    m_ttys.emplace_back(CheckedNode("--tty", path), ParseFarEnd(path == text ? "echo" : farEnd));
  }

  void TakeInfo(const std::string& text) {
    int* const fields[] = {&m_info.baud_base, &m_info.xmit_fifo_size, &m_info.flags, &m_info.irq,
                           &m_info.custom_divisor};
    std::vector<std::string> numbers;
    std::istringstream list(text);
    for (std::string number; std::getline(list, number, ',');) {
      numbers.push_back(number);
    }
    if (numbers.size() != std::size(fields)) {
      throw SetupError("--serial-info needs five numbers: BAUD_BASE,FIFO_SIZE,FLAGS,IRQ,DIVISOR.");
    }
    for (std::size_t i = 0; i < numbers.size(); ++i) {
      *fields[i] = static_cast<int>(NumberOf("--serial-info", numbers[i]));
    }
  }

  void TakeUart(const std::string& text) {
    const auto [base, stride] = Cut(text, ':');
    m_uart.base = NumberOf("--uart", base);
    m_uart.stride = base == text ? m_uart.stride : NumberOf("--uart", stride);
    if (m_uart.stride == 0) {
      throw SetupError("--uart needs a stride: the distance of the registers in bytes.");
    }
  }

  std::vector<Tty> m_ttys;
  serial_struct m_info{};
  UartPlace m_uart;
  bool m_isPaced = false;
};

}  // namespace

std::unique_ptr<DeviceKind> MakeSerialLineKind() {
  return std::make_unique<SerialLineKind>();
}
