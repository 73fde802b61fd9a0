#ifndef BOARDKIT_TESTS_LISTS_H
#define BOARDKIT_TESTS_LISTS_H

#include <string>
#include <vector>

/// One list of texts after the other.
inline std::vector<std::string> operator+(std::vector<std::string> first, const std::vector<std::string>& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

#endif
