#ifndef BOARDKIT_CTL_CHECK_H
#define BOARDKIT_CTL_CHECK_H

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>

/// What comes from outside, checked before anything is done with it. Every function returns the value, or throws
/// std::invalid_argument with a phrase for the user: "\"0\" is not a number from 1 to 65535".
namespace check {

/// A number in decimal digits, and nothing else: no sign, no blanks, no 0x.
std::uint64_t Decimal(const std::string& text, std::uint64_t least, std::uint64_t most);

/// A 32-bit number as devmem takes it: 0x80011000, decimal, or octal with a leading 0.
std::uint32_t Word(const std::string& text);

/// The address of a 32-bit word: a multiple of 4.
std::uint32_t WordAddress(const std::string& text);

/// One of a few words, which stand for values.
template <typename Value>
Value OneOf(const std::string& text, const std::map<std::string, Value>& values) {
  if (const auto found = values.find(text); found != values.end()) {
    return found->second;
  }
  std::string names;
  for (const auto& [name, value] : values) {
    names += (names.empty() ? "" : ", ") + name;
  }
  throw std::invalid_argument('"' + text + "\" is not one of " + names);
}

/// Any text that is not empty; @p what it is: "a command".
std::string NotEmpty(const std::string& text, const char* what);

/// The path of a device or file: not empty, and without a NUL or newline.
std::string Path(const std::string& text);

/// The name of a network interface: 1 to 15 letters, digits, or characters of _-.:@ and not "." or "..". Nothing in it
/// has a meaning for a shell, and it does not look like an option.
std::string Interface(const std::string& text);

struct Address {
  std::string text;  // in the canonical form
  bool ipv6 = false;
};
/// An IPv4 or IPv6 address that inet_pton knows.
Address IpAddress(const std::string& text);
/// One that a single host can have: not 0.0.0.0 or ::, and neither multicast nor broadcast.
Address HostAddress(const std::string& text);

struct Network {
  Address address;
  int prefixLength = 0;
};
/// ADDRESS/LENGTH, with a length of 0 to 32, or to 128.
Network IpNetwork(const std::string& text);
/// That of a host.
Network HostNetwork(const std::string& text);

}  // namespace check

#endif
