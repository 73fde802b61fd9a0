#include "IpNet.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <locale>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "../sys/Join.h"
#include "OpSystem.h"

using boardkit::Join;

namespace {

constexpr char kBlank = ' ';
constexpr int kIpV4Bits = 32;

const char* FamilyOption(bool ipv6) {
  return ipv6 ? "-6" : "-4";
}

/// Where the word after the first @p key at or after @p start begins; std::string_view::npos if there is none.
std::size_t FindValue(std::string_view text, std::string_view key, std::size_t start, bool wholeWord) {
  const std::size_t found = text.find(key, start);
  if (found == std::string_view::npos) {
    return found;
  }

  if (wholeWord) {
    // By contract: if the first occurrence fails here, later ones are not tried.
    const std::size_t end = found + key.size();
    if (end >= text.size() || (found > 0 && text[found - 1] != kBlank) || text[end] != kBlank) {
      return std::string_view::npos;
    }
  }

  // By contract: the word's end is searched from the key's first character, so a key with a blank in it ends there.
  const std::size_t blank = text.find(kBlank, found);
  return blank == std::string_view::npos ? blank : text.find_first_not_of(kBlank, blank);
}

/// The word that begins at @p position, a final newline included if it ends the text.
std::string_view WordAt(std::string_view text, std::size_t position) {
  return text.substr(position, text.find(kBlank, position) - position);
}

/// Adds the address and the prefix length that stand after @p key, if both do.
void InsertAddress(IpNet::Record& info, const std::string& text, const char* key, const char* addressKey,
                   const char* prefixKey) {
  std::string word;
  if (IpNet::GetValue(text, key, 0, word, true) == IpNet::npos) {
    return;
  }

  const std::size_t slash = word.find('/');
  if (slash != std::string::npos) {
    info[addressKey] = word.substr(0, slash);
    info[prefixKey] = word.substr(slash + 1);
  }
}

}  // namespace

const unsigned int IpNet::npos;

IpNet::IpNet(OpSystem& opSystem) : m_opSystem(opSystem) {}

IpNet::~IpNet() = default;

IpNet::Record IpNet::GetIfaceInfo(std::string iface) {
  const std::string output = Run("ip addr show dev " + iface);

  Record info;
  std::string link;
  if (GetValue(output, "link/", 0, link, false) != npos) {
    info["link"] = link;
  }
  InsertAddress(info, output, "inet", "ipv4", "ipv4pflen");
  InsertAddress(info, output, "inet6", "ipv6", "ipv6pflen");
  return info;
}

IpNet::Record IpNet::GetGwInfo(bool ipv6) {
  // By contract: these keys need not be whole words.
  return GetValues(Run(Join({"ip ", FamilyOption(ipv6), " route show"})), {"default", "via", "dev"}, {});
}

bool IpNet::SetAddr(std::string iface, std::string addr, int prefixLength, bool ipv6, bool flush) {
  const char* const family = FamilyOption(ipv6);
  const char* const addressKey = ipv6 ? "ipv6" : "ipv4";
  const char* const prefixKey = ipv6 ? "ipv6pflen" : "ipv4pflen";
  std::string prefix = std::to_string(prefixLength);

  Record current = GetIfaceInfo(iface);
  Record wanted;
  wanted[addressKey] = addr;
  wanted[prefixKey] = prefix;
  if (FoundInMap(current, wanted, false)) {
    return false;
  }

  std::string command;
  if (flush) {
    command = Join({"ip ", family, " addr flush dev ", iface});
  } else if (FoundInMap(current, wanted, true)) {
    command = Join({"ip ", family, " addr del ", current[addressKey], "/", current[prefixKey], " dev ", iface});
  }

  if (ipv6 && addr == "::") {
    // By contract: the prefix length that was given does not count here.
    addr = GetLinkLocalAddr(current["link"]);
    prefix = "64";
  }
  if (!addr.empty() && (ipv6 || addr != "0.0.0.0")) {
    // By contract: the newline is there even if nothing is removed; the shell skips the empty line.
    const char* const broadcast = ipv6 ? "" : " brd +";
    command += Join({"\nip ", family, " addr add ", addr, "/", prefix, broadcast, " dev ", iface});
  }

  // By contract: an empty text is run, too.
  Run(command);
  return true;
}

bool IpNet::SetGw(std::string iface, std::string gw, bool ipv6, bool flush) {
  const char* const family = FamilyOption(ipv6);

  Record current = GetGwInfo(ipv6);
  Record wanted;
  wanted["default"] = "via";
  wanted["via"] = gw;
  wanted["dev"] = iface;
  if (FoundInMap(current, wanted, false)) {
    return false;
  }

  std::string command;
  if (flush) {
    command = Join({"ip ", family, " route flush all"});
  } else if (FoundInMap(current, wanted, true)) {
    // By contract: the route goes through the interface that it has, which need not be the new one.
    command = Join({"ip ", family, " route del default via ", current["via"], " dev ", current["dev"]});
  }

  if (!gw.empty() && gw != (ipv6 ? "::" : "0.0.0.0")) {
    // By contract: the newline is always there, as in SetAddr().
    command += Join({"\nip ", family, " route add default via ", gw, " dev ", iface});
  }

  Run(command);
  return true;
}

void IpNet::SetDebugState(bool active) {
  m_debugActive = active;
}

bool IpNet::IsDebugActive() const {
  return m_debugActive;
}

void IpNet::ClearDebug() {
  m_debugOutput.clear();
}

std::string IpNet::GetDebugOutput() const {
  // By contract: what was traced earlier is hidden, not cleared, while the trace is off.
  return m_debugActive ? m_debugOutput : std::string();
}

std::string IpNet::GetIpV4NetAddr(std::string address, int prefixLength) {
  if (prefixLength >= kIpV4Bits) {
    // By contract: unchecked.
    return address;
  }

  in_addr net{};
  if (::inet_pton(AF_INET, address.c_str(), &net) != 1) {
    // By contract: a malformed address leaves errno alone, so the message is that of whatever failed before.
    throw std::invalid_argument(std::strerror(errno));
  }

  const std::uint32_t mask = prefixLength <= 0 ? 0 : ~std::uint32_t{0} << (kIpV4Bits - prefixLength);
  net.s_addr &= htonl(mask);
  char text[INET_ADDRSTRLEN];
  if (::inet_ntop(AF_INET, &net, text, sizeof text) == nullptr) {
    throw std::logic_error("GetIpV4NetAddr: inet_ntop returns null");
  }
  return text;
}

std::string IpNet::GetLinkLocalAddr(std::string mac) {
  constexpr std::size_t kMacBytes = 6;
  // By contract: no text is refused; from the first part on that is no number, all bytes are 0.
  std::istringstream input(mac);
  input.imbue(std::locale::classic());
  input >> std::hex;
  unsigned int bytes[kMacBytes] = {};
  for (std::size_t i = 0; i < kMacBytes; ++i) {
    if (i > 0) {
      char separator = '\0';
      input >> separator;
    }
    input >> bytes[i];
  }

  constexpr unsigned int kUniversalLocalBit = 0x02;
  const unsigned int identifier[] = {
      bytes[0] ^ kUniversalLocalBit, bytes[1], bytes[2], 0xFF, 0xFE, bytes[3], bytes[4], bytes[5]};
  std::string address = "fe80::";
  for (std::size_t i = 0; i < std::size(identifier); ++i) {
    if (i > 0 && i % 2 == 0) {
      address += ':';
    }
    constexpr char kDigits[] = "0123456789abcdef";
    address += kDigits[identifier[i] >> 4 & 0xFU];
    address += kDigits[identifier[i] & 0xFU];
  }
  return address;
}

unsigned int IpNet::GetPosOfValue(std::string text, std::string key, unsigned int start, bool wholeWord) {
  return static_cast<unsigned int>(FindValue(text, key, start, wholeWord));
}

unsigned int IpNet::GetValue(std::string text, std::string key, unsigned int start, std::string& value,
                             bool wholeWord) {
  const std::size_t position = FindValue(text, key, start, wholeWord);
  if (position != std::string_view::npos) {
    value = WordAt(text, position);
  }
  return static_cast<unsigned int>(position);
}

IpNet::Record IpNet::GetValues(std::string text, std::initializer_list<std::string> keys,
                               std::initializer_list<bool> wholeWords) {
  Record values;
  std::size_t position = 0;
  std::size_t index = 0;
  for (const std::string& key : keys) {
    const bool wholeWord = index < wholeWords.size() && wholeWords.begin()[index];
    const std::size_t found = FindValue(text, key, position, wholeWord);
    if (found == std::string_view::npos) {
      // By contract: a key that is missing makes the next one begin at the text's start again.
      position = 0;
    } else {
      // By contract: the next key is searched from this value's first character, so the value may be that key.
      values.try_emplace(key, WordAt(text, found));
      position = found;
    }
    ++index;
  }
  return values;
}

bool IpNet::FoundInMap(Record& map, Record& entries, bool keysOnly) {
  return std::all_of(entries.begin(), entries.end(), [&](const Record::value_type& entry) {
    const auto found = map.find(entry.first);
    return found != map.end() && (keysOnly || found->second == entry.second);
  });
}

std::string IpNet::Run(const std::string& command) {
  if (m_debugActive) {
    // In one piece: if memory runs out, the trace stays as it was.
    m_debugOutput += command + '\n';
  }
  // By contract: this is OpSystem's own command runner, even if a derived class overrides it.
  return m_opSystem.OpSystem::ExecCmd(command, false);
}
