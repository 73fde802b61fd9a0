#ifndef BOARDKIT_TESTS_HEXADECIMAL_H
#define BOARDKIT_TESTS_HEXADECIMAL_H

#include <sstream>
#include <string>

inline std::string Hexadecimal(unsigned long long number) {
  std::ostringstream text;
  text << "0x" << std::hex << number;
  return text.str();
}

#endif
