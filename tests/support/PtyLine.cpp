#include "PtyLine.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <gtest/gtest.h>

namespace {

std::string NameOfNearEnd(int farEnd) {
  std::array<char, 64> name{};
  EXPECT_EQ(::ptsname_r(farEnd, name.data(), name.size()), 0);
  return name.data();
}

int BytesWaiting(int fd) {
  int count = 0;
  EXPECT_EQ(::ioctl(fd, FIONREAD, &count), 0);
  return count;
}

}  // namespace

PtyLine::PtyLine() : m_farEnd(::posix_openpt(O_RDWR | O_NOCTTY)), m_givenUp(::eventfd(0, 0)) {
  EXPECT_NE(m_farEnd, -1) << std::strerror(errno);
  EXPECT_NE(m_givenUp, -1) << std::strerror(errno);
  // So that nothing blocks in a transfer, where giving up would go unnoticed.
  EXPECT_EQ(::fcntl(m_farEnd, F_SETFL, O_NONBLOCK), 0);
  EXPECT_EQ(::grantpt(m_farEnd), 0);
  EXPECT_EQ(::unlockpt(m_farEnd), 0);
  m_device = NameOfNearEnd(m_farEnd);
  m_nearEnd = ::open(m_device.c_str(), O_RDWR | O_NOCTTY);
  EXPECT_NE(m_nearEnd, -1) << m_device;
}

PtyLine::~PtyLine() {
  ::close(m_nearEnd);
  ::close(m_givenUp);
  HangUp();
}

const std::string& PtyLine::Device() const {
  return m_device;
}

int PtyLine::NearEnd() const {
  return m_nearEnd;
}

void PtyLine::Send(const std::string& bytes) const {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    WaitFor(POLLOUT);
    const ssize_t written = ::write(m_farEnd, bytes.data() + sent, bytes.size() - sent);
    ASSERT_GT(written, 0) << std::strerror(errno);
    sent += static_cast<std::size_t>(written);
  }
}

void PtyLine::SendAndWait(const std::string& bytes) const {
  const int expected = BytesWaiting(m_nearEnd) + static_cast<int>(bytes.size());
  Send(bytes);
  for (int tries = 0; tries < 10000 && BytesWaiting(m_nearEnd) < expected; ++tries) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(BytesWaiting(m_nearEnd), expected);
}

std::string PtyLine::Receive(std::size_t count) const {
  std::string bytes(count, '\0');
  std::size_t received = 0;
  while (received < count) {
    WaitFor(POLLIN);
    const ssize_t got = ::read(m_farEnd, bytes.data() + received, count - received);
    EXPECT_GT(got, 0) << std::strerror(errno);
    if (got <= 0) {
      break;
    }
    received += static_cast<std::size_t>(got);
  }
  return bytes;
}

void PtyLine::HangUp() {
  if (m_farEnd != -1) {
    ::close(m_farEnd);
    m_farEnd = -1;
  }
}

void PtyLine::GiveUp() const {
  EXPECT_EQ(::eventfd_write(m_givenUp, 1), 0);
}

void PtyLine::WaitFor(short events) const {
  std::array<pollfd, 2> waiting = {{{m_farEnd, events, 0}, {m_givenUp, POLLIN, 0}}};
  EXPECT_GT(::poll(waiting.data(), waiting.size(), -1), 0) << std::strerror(errno);
}

PtyModem::PtyModem() {
  kernel.Simulate("TIOCMGET", [this](const Question&) { return Fills(bits); });
  kernel.Simulate("TIOCMSET", [this](const Question& question) {
    std::memcpy(&bits, question.bytes.data(), sizeof(bits));
    return Returns(0);
  });
}
