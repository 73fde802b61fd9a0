#ifndef BOARDKIT_IPNET_H
#define BOARDKIT_IPNET_H

/// @file
/// Addresses and default gateways through the ip tool.
///
/// @code{.cpp}
/// OpSystem system;
/// IpNet net(system);
/// for (const auto& entry : net.GetIfaceInfo(iface)) {
///   std::cout << entry.first << " = " << entry.second << '\n';
/// }
/// @endcode
/// This is a part of `examples/ip-configuration.cpp`. The handbook has more: @ref ip-configuration.

#include <initializer_list>
#include <map>
#include <string>

class OpSystem;

#pragma GCC visibility push(default)

/// The addresses of network interfaces and the default gateways, read and changed through the `ip` tool.
///
/// @snippet ip-configuration.cpp use
///
/// A query runs one command and picks words out of its output. A change queries first, does nothing if everything is
/// already as requested, and otherwise runs one shell text of up to two commands. There is no rollback: if the second
/// command fails, the first may have taken effect; if the first fails and the second does not, only standard error
/// shows it. Names and addresses go into the commands as they are given, without quoting or checks.
///
/// One object is used by one thread at a time, and callers that change the same interface or route must serialise their
/// calls. Every query and change throws what OpSystem::ExecCmd() throws: `std::logic_error` with the tool's own words
/// if `ip` fails, `std::system_error` if it cannot be run.
class IpNet {
 public:
  /// What `ip` printed, by key. Values are text, as printed; prefix lengths, too.
  using Record = std::map<std::string, std::string>;

  /// The position that means "not found": all 32 bits set.
  ///
  /// Compare positions with this constant. `std::string::npos` is wider on 64-bit hosts, so a position never equals it
  /// there.
  static const unsigned int npos = 0xFFFFFFFFU;

  /// Runs all commands through @p opSystem, which must outlive this object. OpSystem's own ExecCmd() is called, even
  /// if a derived class overrides it.
  explicit IpNet(OpSystem& opSystem);
  virtual ~IpNet();

  IpNet(const IpNet&) = delete;
  IpNet& operator=(const IpNet&) = delete;

  /// The hardware address ("link") and the first IPv4 ("ipv4", "ipv4pflen") and IPv6 ("ipv6", "ipv6pflen") address and
  /// prefix length that `ip addr show dev` lists for @p iface. What is not listed has no key.
  ///
  /// Only the first occurrence of "inet" and of "inet6" counts: on an interface whose name contains "inet", or that has
  /// IPv6 addresses alone, there are no IPv4 keys. An address with a peer has no keys either where `ip` prints it
  /// without a prefix length.
  Record GetIfaceInfo(std::string iface);

  /// The words after "default", "via" and "dev" in the routes that `ip route show` lists, of IPv6 or of IPv4.
  ///
  /// For a default route through a gateway these are "via", the gateway and the interface; of several such routes, the
  /// first one's. Without a default route the key "default" is missing, and the other two describe some other route.
  Record GetGwInfo(bool ipv6);

  /// Gives @p iface the address @p addr with @p prefixLength, in the family that @p ipv6 selects.
  ///
  /// First, all addresses of the family are removed if @p flush is set, else the one that GetIfaceInfo() reports.
  /// Special values of @p addr: "" (and "0.0.0.0" for IPv4) only removes; "::" for IPv6 sets the link-local address
  /// that belongs to the hardware address, always with prefix length 64, and even if it is set already.
  /// @returns false, having changed nothing, if GetIfaceInfo() reports the requested address and prefix length already;
  /// else true, also where there was nothing to remove.
  bool SetAddr(std::string iface, std::string addr, int prefixLength, bool ipv6, bool flush);

  /// Makes @p gw, reached through @p iface, the default gateway of the family that @p ipv6 selects.
  ///
  /// First, `ip route flush all` removes all default routes of the family if @p flush is set; else what is removed is
  /// the route that GetGwInfo() reports if it has all three keys: without a default route through a gateway that is
  /// nothing, or a wrong one. An empty @p gw, "0.0.0.0" for IPv4 and "::" for IPv6 only remove.
  /// @returns false, having changed nothing, if the first default route is the requested one already; else true, also
  /// where there was nothing to remove.
  bool SetGw(std::string iface, std::string gw, bool ipv6, bool flush);

  /// Switches the debug trace on or off: while it is on, every command text is appended to it, each followed by a
  /// newline, before the command runs. The text collected so far stays.
  void SetDebugState(bool active);
  /// Whether the debug trace is on; it is off at first.
  bool IsDebugActive() const;

  /// Empties the debug trace; it stays on or off.
  void ClearDebug();

  /// The debug trace, or nothing while it is off.
  std::string GetDebugOutput() const;

  /// The network address of the dotted-quad @p address: its first @p prefixLength bits, the others 0. Lengths below 0
  /// count as 0; for lengths from 32 on, @p address is returned unchecked.
  /// @throws std::invalid_argument if @p address is malformed; its message is the text of the current `errno`, which
  /// may have nothing to do with it.
  /// @throws std::logic_error "GetIpV4NetAddr: inet_ntop returns null" if the result cannot be formatted.
  static std::string GetIpV4NetAddr(std::string address, int prefixLength);

  /// The IPv6 link-local address of a hardware address (modified EUI-64), in 25 characters with all leading zeros:
  /// "00:11:22:33:44:55" gives "fe80::0211:22ff:fe33:4455". Any one character that is neither white space nor a
  /// hexadecimal digit separates, and of longer numbers the low byte counts. From the first byte that is no hexadecimal
  /// number on, all bytes count as 0 (one of more than 32 bits as ff); nothing is thrown.
  static std::string GetLinkLocalAddr(std::string mac);

  /// @name Parsing
  /// A text may have several lines, but only the space character separates words: newlines do not end a word. Positions
  /// are byte offsets; texts are shorter than 4 GiB.
  /// @{

  /// The position of the word after the first occurrence of @p key in @p text at or after @p start, or npos.
  ///
  /// A key inside a longer word stands for the rest of that word, unless @p wholeWord is set: then the occurrence must
  /// be followed by a space, and follow one unless it begins the text. Later occurrences are not looked at. A key
  /// with a space in it ends at that space, and an empty one occurs at @p start.
  static unsigned int GetPosOfValue(std::string text, std::string key, unsigned int start, bool wholeWord);

  /// Puts the word that GetPosOfValue() finds into @p value and returns its position; at npos, @p value is unchanged.
  static unsigned int GetValue(std::string text, std::string key, unsigned int start, std::string& value,
                               bool wholeWord);

  /// The words after @p keys, by key, each searched from the previous key's value on (or, if that was not found, from
  /// the start of @p text). Keys that are not found are missing from the result; of a repeated key the first value
  /// counts. Missing @p wholeWords count as false.
  static Record GetValues(std::string text, std::initializer_list<std::string> keys,
                          std::initializer_list<bool> wholeWords);

  /// True if @p map has every key of @p entries and, unless @p keysOnly is set, the same values. Changes neither.
  static bool FoundInMap(Record& map, Record& entries, bool keysOnly);

  /// @}

 private:
  std::string Run(const std::string& command);

  OpSystem& m_opSystem;
  bool m_debugActive = false;
  std::string m_debugOutput;
};

#pragma GCC visibility pop

#endif
