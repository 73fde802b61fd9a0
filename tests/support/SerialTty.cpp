#include "SerialTty.h"

#include <algorithm>
#include <cstring>

#include <gtest/gtest.h>

#include "SerialExtended.h"

namespace {

template <typename Value>
Value FromBytes(const std::string& bytes) {
  Value value{};
  EXPECT_EQ(bytes.size(), sizeof(value));
  std::memcpy(&value, bytes.data(), std::min(bytes.size(), sizeof(value)));
  return value;
}

}  // namespace

tcflag_t ControlFlags(const termios& attributes) {
  const tcflag_t flags = attributes.c_cflag;
  const bool same = (flags & CIBAUD) >> ExtendedAttributes::kInputShift == (flags & CBAUD);
  return same ? flags & ~static_cast<tcflag_t>(CIBAUD) : flags;
}

SerialTty::SerialTty() {
  kernel.Simulate("open", [this](const Question& question) {
    if (question.bytes == kDevice) {
      ++m_opened;
      return Returns(kFd);
    }
    return question.bytes == "/dev/mem" && memory != nullptr ? memory->Open() : Real();
  });
  Simulate("close", [this](const Question&) {
    ++m_closed;
    return Returns(0);
  });
  Simulate("fcntl", [](const Question&) { return Returns(0); });
  Simulate("tcgetattr", [this](const Question&) { return Fills(attributes); });
  Simulate("tcsetattr", [this](const Question& question) {
    attributes = FromBytes<termios>(question.bytes);
    written.push_back(attributes);
    return Returns(0);
  });
  Simulate("tcflush", [this](const Question& question) {
    if (question.bytes != "TCOFLUSH") {
      received.clear();
    }
    return Returns(0);
  });
  Simulate("FIONREAD", [this](const Question&) { return Fills(static_cast<int>(received.size())); });
  Simulate("read", [this](const Question& question) {
    const std::string bytes = received.substr(0, question.count);
    received.erase(0, bytes.size());
    return Gives(bytes);
  });
  Simulate("write", [this](const Question& question) {
    sent += question.bytes;
    return Returns(static_cast<long>(question.bytes.size()));
  });
  Simulate("poll", [this](const Question&) { return Returns(received.empty() ? 0 : 1); });
  Simulate("TIOCMGET", [this](const Question&) { return Fills(modemBits); });
  Simulate("TIOCMSET", [this](const Question& question) {
    modemBits = FromBytes<int>(question.bytes);
    return Returns(0);
  });
  Simulate("TIOCGSERIAL", [this](const Question&) { return Fills(info); });
  Simulate("TCGETS2", [this](const Question&) {
    ExtendedAttributes extended{};
    extended.inputFlags = attributes.c_iflag;
    extended.outputFlags = attributes.c_oflag;
    extended.controlFlags = attributes.c_cflag;
    extended.localFlags = attributes.c_lflag;
    extended.line = attributes.c_line;
    std::copy_n(std::begin(attributes.c_cc), std::size(extended.characters), std::begin(extended.characters));
    extended.inputSpeed = inputSpeed;
    extended.outputSpeed = outputSpeed;
    return Fills(extended);
  });
  Simulate("TCSETS2", [this](const Question& question) {
    const auto extended = FromBytes<ExtendedAttributes>(question.bytes);
    attributes.c_iflag = extended.inputFlags;
    attributes.c_oflag = extended.outputFlags;
    attributes.c_cflag = extended.controlFlags;
    attributes.c_lflag = extended.localFlags;
    attributes.c_line = extended.line;
    std::copy(std::begin(extended.characters), std::end(extended.characters), std::begin(attributes.c_cc));
    inputSpeed = extended.inputSpeed;
    outputSpeed = extended.outputSpeed;
    return Returns(0);
  });
  // Only noted: what computes without the kernel, and requests that nobody expects.
  for (const char* function : {"cfsetispeed", "cfsetospeed", "ioctl", "mmap", "munmap", "nanosleep"}) {
    kernel.Simulate(function, [](const Question&) { return Real(); });
  }
}

bool SerialTty::IsOpen() const {
  return m_opened > m_closed;
}

int SerialTty::Opened() const {
  return m_opened;
}

int SerialTty::Closed() const {
  return m_closed;
}

void SerialTty::ForgetOpen() {
  m_closed = m_opened;
}

void SerialTty::Simulate(const std::string& function, const Simulation& simulation) {
  kernel.Simulate(function, [this, simulation](const Question& question) {
    return question.fd == kFd && IsOpen() ? simulation(question) : Real();
  });
}

SerialRegisters::SerialRegisters(SerialTty& tty) : m_tty(tty) {
  m_tty.memory = this;
}

SerialRegisters::~SerialRegisters() {
  m_tty.memory = nullptr;
}
