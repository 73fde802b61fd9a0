#include "devices/ends/StreamEnd.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

StreamEnd::StreamEnd(std::string device, EventLog& log) : m_device(std::move(device)), m_log(log) {}

pollfd StreamEnd::Interest(bool listening, bool sending) const {
  const int events = (listening ? POLLIN : 0) | (sending ? POLLOUT : 0);
  // poll() reports a hang-up even if no events are asked for, and only reading ends that: then wait for nothing.
  return {events != 0 ? m_stream.Get() : -1, static_cast<short>(events), 0};
}

std::size_t StreamEnd::Send(std::string_view bytes) {
  const ssize_t written = m_stream ? ::write(m_stream.Get(), bytes.data(), bytes.size()) : -1;
  if (written >= 0) {
    return static_cast<std::size_t>(written);
  }
  // If nobody is there, the bytes are lost. Reading, after the last of what was sent, shows whether somebody is.
  return m_stream && (errno == EAGAIN || errno == EINTR) ? 0 : bytes.size();
}

std::size_t StreamEnd::Receive(char* buffer, std::size_t size) {
  const ssize_t got = ::read(m_stream.Get(), buffer, size);
  if (m_stream && (got == 0 || (got == -1 && errno != EAGAIN && errno != EINTR))) {
    m_log.Write(m_device, "far-end gone");
    m_stream.Close();
    Gone();
  }
  return got > 0 ? static_cast<std::size_t>(got) : 0;
}

void StreamEnd::Use(Descriptor stream) {
  m_stream = std::move(stream);
  ::fcntl(m_stream.Get(), F_SETFL, ::fcntl(m_stream.Get(), F_GETFL) | O_NONBLOCK);
}
