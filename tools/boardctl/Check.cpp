#include "Check.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <limits>
#include <stdexcept>

namespace {

[[noreturn]] void Refuse(const std::string& text, const std::string& what) {
  throw std::invalid_argument('"' + text + "\" is not " + what);
}

/// Reads the digits of @p text in base @p base; false if there are none, other characters, or more than 64 bits.
bool Read(const std::string& digits, unsigned int base, std::uint64_t& number) {
  number = 0;
  for (const char character : digits) {
    const char* const all = "0123456789abcdef";
    const char lower = character >= 'A' && character <= 'F' ? static_cast<char>(character - 'A' + 'a') : character;
    const char* const at = lower == '\0' ? nullptr : std::strchr(all, lower);
    if (at == nullptr || at - all >= static_cast<std::ptrdiff_t>(base)) {
      return false;
    }
    const auto digit = static_cast<std::uint64_t>(at - all);
    if (number > (std::numeric_limits<std::uint64_t>::max() - digit) / base) {
      return false;
    }
    number = number * base + digit;
  }
  return !digits.empty();
}

bool IsLetterOrDigit(char character) {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
         (character >= '0' && character <= '9');
}

}  // namespace

namespace check {

std::uint64_t Decimal(const std::string& text, std::uint64_t least, std::uint64_t most) {
  std::uint64_t number = 0;
  if (!Read(text, 10, number) || number < least || number > most) {
    Refuse(text, "a number from " + std::to_string(least) + " to " + std::to_string(most));
  }
  return number;
}

std::uint32_t Word(const std::string& text) {
  std::uint64_t number = 0;
  const bool isPrefixed = text.size() > 1 && text[0] == '0';
  const bool isHexadecimal = isPrefixed && (text[1] == 'x' || text[1] == 'X');
  const bool isRead = isHexadecimal ? Read(text.substr(2), 16, number) : Read(text, isPrefixed ? 8 : 10, number);
  if (!isRead || number > std::numeric_limits<std::uint32_t>::max()) {
    Refuse(text, "a 32-bit number (such as 0x80011000, decimal, or octal with a leading 0)");
  }
  return static_cast<std::uint32_t>(number);
}

std::uint32_t WordAddress(const std::string& text) {
  const std::uint32_t address = Word(text);
  if (address % sizeof address != 0) {
    Refuse(text, "the address of a 32-bit word: a multiple of 4");
  }
  return address;
}

std::string NotEmpty(const std::string& text, const char* what) {
  if (text.empty()) {
    Refuse(text, what);
  }
  return text;
}

std::string Path(const std::string& text) {
  if (text.empty() || text.find('\n') != std::string::npos) {
    Refuse(text, "a path");
  }
  return text;
}

std::string Interface(const std::string& text) {
  constexpr std::size_t kLongest = 15;
  bool isClean = !text.empty() && text.size() <= kLongest && text != "." && text != ".." && text[0] != '-';
  for (const char character : text) {
    isClean =
        isClean && character != '\0' && (IsLetterOrDigit(character) || std::strchr("_-.:@", character) != nullptr);
  }
  if (!isClean) {
    Refuse(text, "the name of an interface: 1 to 15 letters, digits or _ - . : @");
  }
  return text;
}

Address IpAddress(const std::string& text) {
  unsigned char bytes[sizeof(in6_addr)];
  // The C library's text would end at a NUL, and ours would not.
  const bool isWhole = text.find('\0') == std::string::npos;
  for (const int family : {AF_INET, AF_INET6}) {
    if (isWhole && ::inet_pton(family, text.c_str(), bytes) == 1) {
      char canonical[INET6_ADDRSTRLEN];
      ::inet_ntop(family, bytes, canonical, sizeof canonical);
      return {canonical, family == AF_INET6};
    }
  }
  Refuse(text, "an IPv4 or IPv6 address");
}

Address HostAddress(const std::string& text) {
  const Address address = IpAddress(text);
  bool isForHosts = false;
  if (address.ipv6) {
    in6_addr bytes{};
    ::inet_pton(AF_INET6, address.text.c_str(), &bytes);
    isForHosts = !IN6_IS_ADDR_UNSPECIFIED(&bytes) && !IN6_IS_ADDR_MULTICAST(&bytes);
  } else {
    in_addr bytes{};
    ::inet_pton(AF_INET, address.text.c_str(), &bytes);
    isForHosts = bytes.s_addr != INADDR_ANY && ntohl(bytes.s_addr) < INADDR_UNSPEC_GROUP;
  }
  if (!isForHosts) {
    Refuse(text, "the address of a host");
  }
  return address;
}

Network IpNetwork(const std::string& text) {
  constexpr unsigned int kIpv4Bits = 32;
  constexpr unsigned int kIpv6Bits = 128;
  const std::size_t slash = text.find('/');
  if (slash == std::string::npos) {
    Refuse(text, "an address with its prefix length, such as 192.0.2.10/24");
  }
  const Address address = IpAddress(text.substr(0, slash));
  std::uint64_t length = 0;
  const unsigned int most = address.ipv6 ? kIpv6Bits : kIpv4Bits;
  if (!Read(text.substr(slash + 1), 10, length) || length > most) {
    Refuse(text.substr(slash + 1), "a prefix length from 0 to " + std::to_string(most));
  }
  return {address, static_cast<int>(length)};
}

Network HostNetwork(const std::string& text) {
  const Network network = IpNetwork(text);
  HostAddress(network.address.text);
  return network;
}

}  // namespace check
