#include "devices/ends/StreamEnd.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace {

constexpr std::size_t kQueueSize = 65536;  // bytes

}  // namespace

StreamEnd::StreamEnd(std::string device, EventLog& log)
    : m_device(std::move(device)), m_log(log), m_queue(kQueueSize) {}

pollfd StreamEnd::Interest(bool listening) const {
  const int events = (listening ? POLLIN : 0) | (HasToDeliver() ? POLLOUT : 0);
  return {m_stream.Get(), static_cast<short>(events), 0};
}

void StreamEnd::Send(std::string_view bytes) {
  if (!m_stream) {
    return;
  }
  if (!m_queue.Append(bytes)) {
    m_log.Write(m_device, "overrun far-end dropped=" + std::to_string(m_queue.Dropped()));
  }
  Deliver();
}

void StreamEnd::Deliver() {
  if (m_stream && m_queue.Deliver(m_stream.Get()) != 0) {
    // Nobody hears it. Reading tells whether somebody is there still, after his last words.
    m_queue.Clear();
  }
}

std::size_t StreamEnd::Receive(char* buffer, std::size_t size) {
  const ssize_t got = ::read(m_stream.Get(), buffer, size);
  if (m_stream && (got == 0 || (got == -1 && errno != EAGAIN && errno != EINTR))) {
    m_log.Write(m_device, "far-end gone");
    m_stream.Close();
    m_queue.Clear();
  }
  return got > 0 ? static_cast<std::size_t>(got) : 0;
}

void StreamEnd::Use(Descriptor stream) {
  m_stream = std::move(stream);
  ::fcntl(m_stream.Get(), F_SETFL, ::fcntl(m_stream.Get(), F_GETFL) | O_NONBLOCK);
}
