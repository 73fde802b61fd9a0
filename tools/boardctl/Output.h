#ifndef BOARDKIT_CTL_OUTPUT_H
#define BOARDKIT_CTL_OUTPUT_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

/// Keys stay in the order in which they are put in.
using Json = nlohmann::ordered_json;

/// Nobody reads the results any more: the verb cleans up and ends without a word.
class OutputClosed : public std::exception {};

/// What a verb prints: results on standard output, as text or as JSON, words about them on standard error. Of all but
/// Bytes(), a terminal gets no control characters: much of it comes from outside.
class Output {
 public:
  enum Style { kPlain, kBold };  // bold only on a terminal that shows colours

  struct Options {
    bool json = false;
    bool quiet = false;
  };
  explicit Output(Options options);

  /// While it lives, words for which there is no room are dropped, not waited for: for those who must be in time.
  class InTime {
   public:
    explicit InTime(Output& out) : m_out(out) {
      m_out.m_waits = false;
    }
    ~InTime() {
      m_out.m_waits = true;
    }
    InTime(const InTime&) = delete;
    InTime& operator=(const InTime&) = delete;

   private:
    Output& m_out;
  };

  bool IsJson() const {
    return m_options.json;
  }

  /// A line of the result as text, at once; nothing with --json.
  void Line(const std::string& line, Style style = kPlain);
  /// A line of the result as JSON: {"schema":1,"kind":@p kind, and @p members}; nothing without --json. Every key is
  /// always there, what is not known is null. Text that is not UTF-8 is replaced, and what is not ASCII is escaped.
  void Object(const char* kind, const Json& members);
  /// Bytes of the result as they are, in both cases.
  void Bytes(const void* data, std::size_t size);

  /// Ends a verb that waits long, if nobody reads the results any more. @throws OutputClosed.
  static void CheckReader();
  /// Waits for @p milliseconds, or until a signal comes: false then. @throws OutputClosed as soon as
  /// nobody reads the results any more.
  static bool WaitWhileRead(int milliseconds);

  /// A line about the result, on standard error; nothing with --quiet.
  void Say(const std::string& words);
  /// A line on standard error, also with --quiet: what went wrong, or may harm.
  void Warn(const std::string& words);

  /// Shows how far something has come, in one line that is written over: only on a terminal and without --quiet.
  /// @p total 0 means that it is not known.
  void Progress(std::uint64_t done, std::uint64_t total, const char* unit);
  /// Takes the progress line away.
  void EndProgress();

 private:
  void Write(std::string_view text);
  void ShowProgress(const std::string& line) const;
  void HideProgress();

  Options m_options;
  bool m_showsProgress;
  bool m_isTerminal;
  bool m_showsColour;
  bool m_waits = true;
  bool m_isStarted = false;  // with the progress
  bool m_isVisible = false;  // its line
  std::chrono::steady_clock::time_point m_start;
  std::chrono::steady_clock::time_point m_shown;
};

/// Writes all of @p text. Where nobody reads, it waits until somebody does or a signal comes, or not at all.
/// False if something is left, and errno says why: EINTR after a signal, EAGAIN without waiting.
bool WriteAll(int fd, std::string_view text, bool waits = true);
/// "0x80011000".
std::string Hexadecimal(std::uint32_t word);
/// Bytes as hexadecimal digits, two each, without anything between them.
std::string HexadecimalBytes(const unsigned char* data, std::size_t size);
/// @p text from outside as one line without control characters: they are shown as question marks.
std::string Printable(const std::string& text);
/// A number with @p decimals digits after the point.
std::string Fixed(double number, int decimals);
/// What is not known is null.
Json OrNull(const std::string& text);
Json OrNull(const std::optional<std::string>& text);
double SecondsSince(std::chrono::steady_clock::time_point start);
/// The time in the format of RFC 3339, in UTC: "2026-01-31T12:00:00.000Z".
std::string Timestamp(std::chrono::system_clock::time_point time);

#endif
