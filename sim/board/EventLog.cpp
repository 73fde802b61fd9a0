#include "board/EventLog.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "SetupError.h"

EventLog::EventLog(const std::string& path)
    : m_file(path == "-" ? ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)
                         : ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0666)),
      m_path(path) {
  if (!m_file) {
    throw SetupError("the log " + path + " can't be written", errno);
  }
  // A full disk is better noticed now than after the application has begun.
  if (const int error = TryWrite("board", "start"); error != 0) {
    throw SetupError("the log " + path + " can't be written", error);
  }
}

void EventLog::Write(const std::string& device, const std::string& event) {
  if (!m_file) {
    return;
  }
  if (const int error = TryWrite(device, event); error != 0) {
    std::fprintf(stderr, "boardsim: the log %s ends here: %s\n", m_path.c_str(), std::strerror(error));
    m_file.Close();
  }
}

int EventLog::TryWrite(const std::string& device, const std::string& event) const {
  const std::chrono::duration<double> since = std::chrono::steady_clock::now() - m_start;
  char time[32];
  std::snprintf(time, sizeof time, "%.6f ", since.count());
  // Each line in a single call: somebody may be reading along.
  const std::string line = time + device + ' ' + event + '\n';
  for (std::string_view rest = line; !rest.empty();) {
    const ssize_t written = ::write(m_file.Get(), rest.data(), rest.size());
    if (written == -1) {
      return errno;
    }
    // If not all was written, the next call fails and gives the reason.
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}
