#include "Page.h"

#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>

namespace {

constexpr std::size_t kWidth = 80;
constexpr std::size_t kIndent = 5;
constexpr std::size_t kLabelWidth = 10;
constexpr std::size_t kTextWidth = kWidth - kIndent - kLabelWidth;

constexpr const char* kBold = "\033[1m";
constexpr const char* kDim = "\033[2m";
constexpr const char* kRed = "\033[31m";
constexpr const char* kCyan = "\033[36m";
constexpr const char* kPlain = "\033[0m";
constexpr const char* kEraseLine = "\r\033[K";

bool progressIsShown = false;

bool IsTerminal() {
  static const bool is = ::isatty(STDOUT_FILENO) == 1;
  return is;
}

bool HasColour() {
  static const bool has = [] {
    const char* const forbidden = std::getenv("NO_COLOR");
    const char* const terminal = std::getenv("TERM");
    const bool isDumb = terminal == nullptr || std::string(terminal) == "dumb";
    return IsTerminal() && !isDumb && (forbidden == nullptr || *forbidden == '\0');
  }();
  return has;
}

std::string Painted(const char* colour, const std::string& text) {
  return HasColour() && !text.empty() ? colour + text + kPlain : text;
}

/// A text that is shown as it came: what a terminal would obey becomes a question mark.
std::string Printable(std::string text) {
  for (char& character : text) {
    if (std::iscntrl(static_cast<unsigned char>(character)) != 0) {
      character = '?';
    }
  }
  return text;
}

/// The line in pieces that fit, broken at blanks where there are any; all but the first are indented.
page::Lines Wrapped(const std::string& line, std::size_t width) {
  const std::string indent = "  ";
  page::Lines pieces;
  std::string rest = Printable(line);
  while (rest.size() > width) {
    const std::size_t blank = rest.rfind(' ', width);
    const bool hasBlank = blank != std::string::npos && blank > indent.size();
    pieces.push_back(rest.substr(0, hasBlank ? blank : width));
    rest = indent + rest.substr(hasBlank ? blank + 1 : width);
  }
  pieces.push_back(rest);
  return pieces;
}

std::string Margin(const std::string& label) {
  const std::size_t gap = label.size() < kLabelWidth ? kLabelWidth - label.size() : 1;
  return std::string(kIndent, ' ') + Painted(kDim, label) + std::string(gap, ' ');
}

void EraseProgress() {
  if (progressIsShown) {
    std::cout << (HasColour() ? kEraseLine : '\r' + std::string(kWidth - 1, ' ') + '\r');
    progressIsShown = false;
  }
}

void PaintedRow(const std::string& label, const page::Lines& lines, const char* colour) {
  EraseProgress();
  std::string margin = Margin(label);
  for (const std::string& line : lines) {
    for (const std::string& piece : Wrapped(line, kTextWidth)) {
      std::cout << margin << (colour == nullptr ? piece : Painted(colour, piece)) << '\n';
      margin = Margin("");
    }
  }
  std::cout.flush();
}

}  // namespace

namespace page {

void Chapter(const std::string& title, const std::string& header) {
  const std::string left = "--- " + title + ' ';
  const std::string right = ' ' + header + " ---";
  std::cout << '\n' << Painted(kBold, left + std::string(kWidth - left.size() - right.size(), '-') + right) << '\n';
}

void Step(const std::string& title) {
  EraseProgress();
  std::cout << "\n   " << Painted(kBold, title) << '\n';
}

void Call(const std::string& code) {
  PaintedRow("call", {code}, kCyan);
}

void Row(const std::string& label, const Lines& lines) {
  PaintedRow(label, lines, nullptr);
}

void Row(const std::string& label, const std::string& text) {
  Row(label, Lines{text});
}

void Progress(const std::string& label, const std::string& text) {
  if (IsTerminal()) {
    EraseProgress();
    std::cout << Margin(label) << text << std::flush;
    progressIsShown = true;
  }
}

void Failure(const std::string& text) {
  PaintedRow("failed", SplitLines(text), kRed);
}

void Note(const std::string& text) {
  EraseProgress();
  std::cout << '\n';
  for (const std::string& piece : Wrapped(text, kWidth)) {
    std::cout << piece << '\n';
  }
  std::cout.flush();
}

std::string Quoted(const std::string& text) {
  return '"' + text + '"';
}

std::string Seconds(long milliseconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f s", static_cast<double>(milliseconds) / 1000);
  return text;
}

std::string Hex(unsigned int word) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08x", word);
  return text;
}

Lines SplitLines(const std::string& text) {
  Lines lines;
  std::istringstream input(text);
  for (std::string line; std::getline(input, line);) {
    if (!line.empty()) {
      lines.push_back(line);
    }
  }
  return lines;
}

}  // namespace page
