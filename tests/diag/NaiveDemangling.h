#ifndef BOARDKIT_TESTS_NAIVEDEMANGLING_H
#define BOARDKIT_TESTS_NAIVEDEMANGLING_H

#include <cxxabi.h>

#include <cstdlib>
#include <string>
#include <vector>

/// The rules of readable names and of the traceback stated a second time, character by character and without the C
/// library's scanning, as the reference for generated texts.
namespace naive {

constexpr std::size_t kLongestWord = 127;

inline bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

inline bool IsBlank(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

/// The first way: lengths and names, up to an 'E' or the end.
inline bool NestedName(const std::string& symbol, std::string& result) {
  result = "";
  std::size_t i = 0;
  while (true) {
    while (i < symbol.size() && !IsDigit(symbol[i])) {
      ++i;
    }
    if (i == symbol.size()) {
      return false;
    }
    std::size_t length = 0;
    while (i < symbol.size() && IsDigit(symbol[i])) {
      length = length * 10 + static_cast<std::size_t>(symbol[i] - '0');
      // Too many stays too many.
      length = length > 1000000 ? 1000000 : length;
      ++i;
    }
    for (std::size_t k = 0; k < length; ++k) {
      if (i == symbol.size()) {
        return false;
      }
      result += symbol[i];
      ++i;
    }
    if (i == symbol.size() || symbol[i] == 'E') {
      return true;
    }
    result += "::";
  }
}

/// The second way: what stands between the first '_' after the first '(' and a ')' or '+', for the language's own
/// demangler.
inline bool Signature(const std::string& symbol, std::string& result) {
  std::size_t i = 0;
  while (i < symbol.size() && symbol[i] != '(') {
    ++i;
  }
  if (i == 0) {
    return false;
  }
  while (i < symbol.size() && symbol[i] != '_') {
    ++i;
  }
  std::string word;
  while (i < symbol.size() && symbol[i] != ')' && symbol[i] != '+' && word.size() < kLongestWord) {
    word += symbol[i];
    ++i;
  }
  if (word.empty()) {
    return false;
  }
  char* const text = abi::__cxa_demangle(word.c_str(), nullptr, nullptr, nullptr);
  if (text == nullptr) {
    return false;
  }
  result = text;
  std::free(text);
  return true;
}

/// The third way: the first word, or everything.
inline std::string FirstWord(const std::string& symbol) {
  std::size_t i = 0;
  while (i < symbol.size() && IsBlank(symbol[i])) {
    ++i;
  }
  std::string word;
  while (i < symbol.size() && !IsBlank(symbol[i]) && word.size() < kLongestWord) {
    word += symbol[i];
    ++i;
  }
  return word.empty() ? symbol : word;
}

inline std::string Demangle(const std::string& symbol) {
  std::string result;
  if (NestedName(symbol, result) || Signature(symbol, result)) {
    return result;
  }
  return FirstWord(symbol);
}

/// The traceback of all captured @p lines, the traceback's own first.
inline std::string Traceback(const std::vector<std::string>& lines, int skip) {
  std::string result = "\nTraceback:";
  std::size_t i = skip < 0 ? 0 : static_cast<std::size_t>(skip) + 1;
  while (i < lines.size()) {
    std::size_t alike = 1;
    while (i + alike < lines.size() && lines[i + alike].substr(0, 200) == lines[i].substr(0, 200)) {
      ++alike;
    }
    result += "\n" + Demangle(lines[i]);
    if (alike > 1) {
      result += " repeats " + std::to_string(alike - 1) + " times!";
    }
    i += alike;
  }
  return result + "\n";
}

}  // namespace naive

#endif
