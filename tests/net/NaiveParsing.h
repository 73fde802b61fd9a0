#ifndef BOARDKIT_TESTS_NAIVEPARSING_H
#define BOARDKIT_TESTS_NAIVEPARSING_H

#include <map>
#include <string>
#include <vector>

/// The rules of IpNet's parsing stated a second time, character by character and without regard to speed, as the
/// reference for generated texts.
namespace naive {

constexpr unsigned int kMiss = 4294967295U;

inline bool StandsAt(const std::string& text, const std::string& key, unsigned int position) {
  for (unsigned int i = 0; i < key.size(); ++i) {
    if (position + i >= text.size() || text[position + i] != key[i]) {
      return false;
    }
  }
  return true;
}

inline unsigned int PosOfValue(const std::string& text, const std::string& key, unsigned int start, bool wholeWord) {
  unsigned int p = start;
  while (p <= text.size() && !StandsAt(text, key, p)) {
    ++p;
  }
  if (p > text.size()) {
    return kMiss;
  }
  if (wholeWord) {
    const bool valueCanFollow = p + key.size() < text.size();
    const bool freeBefore = p == 0 || text[p - 1] == ' ';
    if (!valueCanFollow || !freeBefore || text[p + key.size()] != ' ') {
      return kMiss;
    }
  }
  unsigned int v = p;
  while (v < text.size() && text[v] != ' ') {
    ++v;
  }
  while (v < text.size() && text[v] == ' ') {
    ++v;
  }
  return v < text.size() ? v : kMiss;
}

inline unsigned int Value(const std::string& text, const std::string& key, unsigned int start, std::string& value,
                          bool wholeWord) {
  const unsigned int v = PosOfValue(text, key, start, wholeWord);
  if (v != kMiss) {
    value = "";
    for (unsigned int i = v; i < text.size() && text[i] != ' '; ++i) {
      value += text[i];
    }
  }
  return v;
}

inline std::map<std::string, std::string> Values(const std::string& text, const std::vector<std::string>& keys,
                                                 const std::vector<bool>& wholeWords) {
  std::map<std::string, std::string> values;
  unsigned int position = 0;
  for (unsigned int i = 0; i < keys.size(); ++i) {
    std::string value;
    const unsigned int v = Value(text, keys[i], position, value, i < wholeWords.size() && wholeWords[i]);
    if (v == kMiss) {
      position = 0;
      continue;
    }
    if (values.count(keys[i]) == 0) {
      values[keys[i]] = value;
    }
    position = v;
  }
  return values;
}

}  // namespace naive

#endif
