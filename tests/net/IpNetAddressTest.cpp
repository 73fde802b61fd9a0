#include <cerrno>
#include <climits>
#include <cstring>
#include <locale>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ExpectThrow.h"
#include "IpNet.h"
#include "ScriptedKernel.h"

namespace {

// --- GetIpV4NetAddr --------------------------------------------------------------------------------------------------

TEST(GetIpV4NetAddr, KeepsTheFirstBitsAndClearsTheOthers) {
  EXPECT_EQ(IpNet::GetIpV4NetAddr("192.168.1.77", 24), "192.168.1.0");
  EXPECT_EQ(IpNet::GetIpV4NetAddr("192.168.1.77", 31), "192.168.1.76");
  EXPECT_EQ(IpNet::GetIpV4NetAddr("192.168.1.77", 0), "0.0.0.0");
}

TEST(GetIpV4NetAddr, HasARightAnswerForEveryPrefixLength) {
  const std::vector<std::string> nets = {
      "0.0.0.0",         "128.0.0.0",       "192.0.0.0",       "224.0.0.0",       "240.0.0.0",       "248.0.0.0",
      "252.0.0.0",       "254.0.0.0",       "255.0.0.0",       "255.128.0.0",     "255.192.0.0",     "255.224.0.0",
      "255.240.0.0",     "255.248.0.0",     "255.252.0.0",     "255.254.0.0",     "255.255.0.0",     "255.255.128.0",
      "255.255.192.0",   "255.255.224.0",   "255.255.240.0",   "255.255.248.0",   "255.255.252.0",   "255.255.254.0",
      "255.255.255.0",   "255.255.255.128", "255.255.255.192", "255.255.255.224", "255.255.255.240", "255.255.255.248",
      "255.255.255.252", "255.255.255.254", "255.255.255.255"};
  ASSERT_EQ(nets.size(), 33U);
  for (std::size_t length = 0; length < nets.size(); ++length) {
    SCOPED_TRACE(length);
    EXPECT_EQ(IpNet::GetIpV4NetAddr("255.255.255.255", static_cast<int>(length)), nets[length]);
  }
}

TEST(GetIpV4NetAddr, NegativeLengthsCountAsZero) {
  for (const int length : {-1, -31, -32, -33, INT_MIN + 31, INT_MIN + 1, INT_MIN}) {
    EXPECT_EQ(IpNet::GetIpV4NetAddr("192.168.1.77", length), "0.0.0.0") << length;
  }
}

TEST(GetIpV4NetAddr, LengthsFrom32OnReturnTheirFirstArgumentUnchecked) {
  for (const int length : {32, 33, 40, INT_MAX}) {
    SCOPED_TRACE(length);
    EXPECT_EQ(IpNet::GetIpV4NetAddr("192.168.1.77", length), "192.168.1.77");
    EXPECT_EQ(IpNet::GetIpV4NetAddr("no address at all", length), "no address at all");
    EXPECT_EQ(IpNet::GetIpV4NetAddr("", length), "");
  }
}

TEST(GetIpV4NetAddr, ANulByteEndsTheAddressThatIsParsed) {
  const std::string address("192.168.1.77\0x", 14);
  EXPECT_EQ(IpNet::GetIpV4NetAddr(address, 24), "192.168.1.0");
  EXPECT_EQ(IpNet::GetIpV4NetAddr(address, 32), address);
}

TEST(GetIpV4NetAddr, AMalformedAddressThrowsTheTextOfWhateverErrnoHolds) {
  for (const char* const address : {"", "192.168.1", "192.168.1.256", "192.168.1.77/24", " 192.168.1.77", "fe80::1"}) {
    SCOPED_TRACE(testing::PrintToString(address));
    for (const int error : {0, ENOENT, EINVAL}) {
      SCOPED_TRACE(ErrorName(error));
      for (const int length : {31, 24, 0, -1, INT_MIN}) {
        SCOPED_TRACE(length);
        const auto call = [&] {
          errno = error;
          IpNet::GetIpV4NetAddr(address, length);
        };
        EXPECT_EXACT_THROW(call(), std::invalid_argument, std::strerror(error));
      }
    }
  }
}

TEST(GetIpV4NetAddr, AResultThatCannotBeFormattedThrowsALogicError) {
  ScriptedKernel kernel;
  kernel.Script("inet_ntop", {Fails(ENOSPC)});

  EXPECT_EXACT_THROW(IpNet::GetIpV4NetAddr("192.168.1.77", 24), std::logic_error,
                     "GetIpV4NetAddr: inet_ntop returns null");

  EXPECT_EQ(kernel.Seen(), (ScriptedKernel::Calls{"inet_ntop(16)"}));
}

// --- GetLinkLocalAddr ------------------------------------------------------------------------------------------------

struct LinkLocalCase {
  const char* name;
  const char* mac;
  const char* address;
};

std::ostream& operator<<(std::ostream& stream, const LinkLocalCase& c) {
  return stream << c.name;
}

const std::vector<LinkLocalCase> kLinkLocalCases = {
    {"TheUniversalBitIsSet", "00:11:22:33:44:55", "fe80::0211:22ff:fe33:4455"},
    {"ASetUniversalBitIsCleared", "02:00:00:00:00:01", "fe80::0000:00ff:fe00:0001"},
    {"UpperCaseDigitsAndHyphensAreRead", "00-1A-2B-3C-4D-5E", "fe80::021a:2bff:fe3c:4d5e"},
    {"AllOtherBitsStay", "ff:ff:ff:ff:ff:ff", "fe80::fdff:ffff:feff:ffff"},
    {"AnEmptyTextCountsAsZeros", "", "fe80::0200:00ff:fe00:0000"},
    {"SingleDigitsAreRead", "0:1:2:3:4:5", "fe80::0201:02ff:fe03:0405"},
    {"BlanksAndNewlinesAreSkipped", "  00 :\n11 : 22:33:44: 55", "fe80::0211:22ff:fe33:4455"},
    {"AnySeparatorWillDo", "00.11_22;33=44+55", "fe80::0211:22ff:fe33:4455"},
    {"LongNumbersAreCutToTheirLowByte", "100:211:322:433:544:655", "fe80::0211:22ff:fe33:4455"},
    {"BlanksDoNotSeparate", "00 11 22 33 44 55", "fe80::0201:02ff:fe03:0405"},
    {"WhatFollowsTheSixthByteIsIgnored", "00:11:22:33:44:55:66 brd", "fe80::0211:22ff:fe33:4455"},
    {"FromTheFirstBadByteOnAllAreZero", "00:11:xx:33:44:55", "fe80::0211:00ff:fe00:0000"},
    {"MissingBytesAreZero", "00:11:22", "fe80::0211:22ff:fe00:0000"},
    {"NoHexadecimalNumberAtAllIsZeros", "\n", "fe80::0200:00ff:fe00:0000"},
    {"WithoutSeparatorsItIsOneLongNumber", "00112233", "fe80::3100:00ff:fe00:0000"},
    {"ANumberTooLongToReadIsAllOnesAndEndsTheReading", "001122334455", "fe80::fd00:00ff:fe00:0000"},
    {"AnIPv4AddressIsReadAsFourBytes", "192.0.2.1", "fe80::9000:02ff:fe01:0000"},
};

class GetLinkLocalAddrTable : public testing::TestWithParam<LinkLocalCase> {};

INSTANTIATE_TEST_SUITE_P(, GetLinkLocalAddrTable, testing::ValuesIn(kLinkLocalCases),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_P(GetLinkLocalAddrTable, Says) {
  EXPECT_EQ(IpNet::GetLinkLocalAddr(GetParam().mac), GetParam().address);
}

TEST(GetLinkLocalAddr, HasARightAnswerForEveryValueOfEveryByte) {
  const std::vector<std::size_t> positions = {6, 8, 11, 18, 21, 23};  // of the six bytes in the address
  for (unsigned int value = 0; value < 256; ++value) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", value);
    for (std::size_t byte = 0; byte < positions.size(); ++byte) {
      std::string mac = "00:00:00:00:00:00";
      mac.replace(byte * 3, 2, digits);
      char shown[3];
      std::snprintf(shown, sizeof shown, "%02x", byte == 0 ? value ^ 2U : value);
      std::string address = "fe80::0200:00ff:fe00:0000";
      address.replace(positions[byte], 2, shown);
      EXPECT_EQ(IpNet::GetLinkLocalAddr(mac), address) << mac;
    }
  }
}

TEST(GetLinkLocalAddr, TheProgramsLocaleDoesNotMatter) {
  struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override {
      return ':';
    }
    std::string do_grouping() const override {
      return "\2";
    }
  };
  const std::locale old = std::locale::global(std::locale(std::locale::classic(), new Grouping));
  EXPECT_EQ(IpNet::GetLinkLocalAddr("00:11:22:33:44:55"), "fe80::0211:22ff:fe33:4455");
  std::locale::global(old);
}

}  // namespace
