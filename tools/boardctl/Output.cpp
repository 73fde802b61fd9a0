#include "Output.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>
#include <system_error>

#include "Signals.h"

namespace {

constexpr int kSchema = 1;

bool IsSet(const char* variable) {
  const char* const value = std::getenv(variable);
  return value != nullptr && *value != '\0';
}

bool IsTerminal(int fd) {
  const char* const terminal = std::getenv("TERM");
  return ::isatty(fd) == 1 && terminal != nullptr && std::string_view(terminal) != "dumb";
}

/// "1.2 KiB", "3.4 MiB".
std::string Amount(double bytes) {
  static constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB"};
  constexpr double kStep = 1024;
  std::size_t unit = 0;
  while (bytes >= kStep && unit + 1 < std::size(kUnits)) {
    bytes /= kStep;
    ++unit;
  }
  return Fixed(bytes, unit == 0 ? 0 : 1) + ' ' + kUnits[unit];
}

/// @p text with a question mark for each control character that is not @p kept, those of UTF-8 included.
std::string WithoutControls(const std::string& text, std::string_view kept) {
  constexpr unsigned char kDelete = 0x7F;
  constexpr unsigned char kFurtherLead = 0xC2;  // of U+0080 to U+009F, which some terminals obey, too
  constexpr unsigned char kFurtherEnd = 0xA0;
  std::string clean;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : '\0');
    if (byte == kFurtherLead && next > kDelete && next < kFurtherEnd) {
      clean += '?';
      ++i;
    } else {
      const bool isControl = byte < ' ' || byte == kDelete;
      clean += isControl && kept.find(text[i]) == std::string_view::npos ? '?' : text[i];
    }
  }
  return clean;
}

/// What may be several lines, or a table.
std::string Harmless(const std::string& text) {
  return WithoutControls(text, "\n\t");
}

}  // namespace

Output::Output(Options options)
    : m_options(options),
      m_showsProgress(!options.quiet && IsTerminal(STDERR_FILENO)),
      m_isTerminal(::isatty(STDOUT_FILENO) == 1),
      m_showsColour(IsTerminal(STDOUT_FILENO) && !IsSet("NO_COLOR")) {}

void Output::Line(const std::string& line, Style style) {
  if (!m_options.json) {
    const bool isBold = style == kBold && m_showsColour;
    Write(isBold ? "\x1b[1m" + Harmless(line) + "\x1b[0m\n" : Harmless(line) + '\n');
  }
}

void Output::Object(const char* kind, const Json& members) {
  if (!m_options.json) {
    return;
  }
  Json object = {{"schema", kSchema}, {"kind", kind}};
  object.update(members);
  Write(object.dump(-1, ' ', true, Json::error_handler_t::replace) + '\n');
}

void Output::Bytes(const void* data, std::size_t size) {
  Write(std::string_view(static_cast<const char*>(data), size));
}

void Output::CheckReader() {
  pollfd reader{STDOUT_FILENO, 0, 0};
  if (::poll(&reader, 1, 0) == 1 && (reader.revents & (POLLERR | POLLHUP)) != 0) {
    throw OutputClosed();
  }
}

bool Output::WaitWhileRead(int milliseconds) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::milliseconds(milliseconds);
  while (signals::Caught() == 0) {
    CheckReader();
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    if (left <= 0) {
      return true;
    }
    pollfd either[] = {{STDOUT_FILENO, 0, 0}, {signals::Descriptor(), POLLIN, 0}};
    ::poll(either, std::size(either), static_cast<int>(left));
  }
  return false;
}

void Output::Say(const std::string& words) {
  if (!m_options.quiet) {
    Warn(words);
  }
}

void Output::Warn(const std::string& words) {
  HideProgress();
  // If this fails, there is nobody left to report it to.
  WriteAll(STDERR_FILENO, Harmless(words) + '\n', m_waits);
}

void Output::Progress(std::uint64_t done, std::uint64_t total, const char* unit) {
  constexpr auto kPause = std::chrono::milliseconds(100);  // what the eye follows
  if (!m_showsProgress) {
    return;
  }
  const auto now = std::chrono::steady_clock::now();
  if (!m_isStarted) {
    m_start = now;
    m_isStarted = true;
  } else if (now - m_shown < kPause && done != total) {
    return;
  }
  m_shown = now;
  m_isVisible = true;

  const double seconds = std::chrono::duration<double>(now - m_start).count();
  const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0;
  const bool isBytes = std::string_view(unit) == "B";
  const auto amount = [&](double number) { return isBytes ? Amount(number) : Fixed(number, 0) + ' ' + unit; };
  std::string line = amount(static_cast<double>(done));
  if (total != 0) {
    constexpr std::uint64_t kWidth = 30;
    const auto filled = static_cast<std::size_t>(std::min(done, total) * kWidth / total);
    line = '[' + std::string(filled, '#') + std::string(kWidth - filled, '.') + "] " +
           std::to_string(std::min(done, total) * 100 / total) + " %  " + line + " of " +
           amount(static_cast<double>(total));
  }
  line += "  " + amount(rate) + "/s";
  if (total != 0 && rate > 0) {
    line += "  " + Fixed(static_cast<double>(total - std::min(done, total)) / rate, 0) + " s left";
  }
  ShowProgress(line);
}

void Output::EndProgress() {
  HideProgress();
  m_isStarted = false;
}

void Output::HideProgress() {
  if (m_isVisible) {
    ShowProgress("");
    m_isVisible = false;
  }
}

/// Writes it over what stands there. A terminal that is stopped does not hold up what goes on.
void Output::ShowProgress(const std::string& line) const {
  WriteAll(STDERR_FILENO, '\r' + line + "\x1b[K", false);
}

void Output::Write(std::string_view text) {
  if (m_isTerminal) {
    HideProgress();
  }
  // Unbuffered: a line is there as soon as it is known, in a pipe too.
  if (!WriteAll(STDOUT_FILENO, text)) {
    if (errno == EPIPE || errno == EINTR) {
      throw OutputClosed();
    }
    throw std::system_error(errno, std::generic_category(), "Standard output can't be written");
  }
}

bool WriteAll(int fd, std::string_view text, bool waits) {
  while (!text.empty()) {
    pollfd either[] = {{fd, POLLOUT, 0}, {signals::Descriptor(), POLLIN, 0}};
    if (::poll(either, std::size(either), waits ? -1 : 0) == -1 && errno != EINTR) {
      return false;
    }
    if (either[0].revents == 0 && either[1].revents == 0 && waits) {
      continue;
    }
    if (either[0].revents == 0) {
      errno = waits ? EINTR : EAGAIN;
      return false;
    }
    // So much fits where there is room: the writing itself does not wait.
    const ssize_t written = ::write(fd, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
    if (written == -1 && errno != EINTR && errno != EAGAIN) {
      return false;
    }
    text.remove_prefix(written == -1 ? 0 : static_cast<std::size_t>(written));
  }
  return true;
}

std::string Hexadecimal(std::uint32_t word) {
  char text[sizeof "0x00000000"];
  std::snprintf(text, sizeof text, "0x%08X", word);
  return text;
}

std::string HexadecimalBytes(const unsigned char* data, std::size_t size) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  for (std::size_t i = 0; i < size; ++i) {
    text += kDigits[data[i] >> 4U];
    text += kDigits[data[i] & 0xFU];
  }
  return text;
}

std::string Printable(const std::string& text) {
  return WithoutControls(text, "");
}

std::string Fixed(double number, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, number);
  return text;
}

Json OrNull(const std::string& text) {
  return text.empty() ? Json() : Json(text);
}

Json OrNull(const std::optional<std::string>& text) {
  return text ? Json(*text) : Json();
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

std::string Timestamp(std::chrono::system_clock::time_point time) {
  const auto milliseconds =
      std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count() % 1000;
  const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm parts{};
  ::gmtime_r(&seconds, &parts);
  char text[64];
  const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(text + length, sizeof text - length, ".%03dZ", static_cast<int>(milliseconds));
  return text;
}
