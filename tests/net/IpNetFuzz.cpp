// Feeds the parsing and the address helpers with texts that a fuzzer makes up, and compares the parsing with the naive
// statement of its rules. A difference ends the process, which the fuzzer reports with the text.

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include <fuzzer/FuzzedDataProvider.h>

#include "IpNet.h"
#include "NaiveParsing.h"
#include "Require.h"

namespace {

void CheckParsing(FuzzedDataProvider& input) {
  const bool wholeWord = input.ConsumeBool();
  const auto start = input.ConsumeIntegralInRange<unsigned int>(0, 300);
  const std::string first = input.ConsumeRandomLengthString(8);
  const std::string second = input.ConsumeRandomLengthString(8);
  const std::string text = input.ConsumeRemainingBytesAsString();

  std::string value = "untouched";
  std::string expected = "untouched";
  const unsigned int position = IpNet::GetValue(text, first, start, value, wholeWord);
  Require(position == naive::Value(text, first, start, expected, wholeWord));
  Require(value == expected);
  Require(position == IpNet::GetPosOfValue(text, first, start, wholeWord));
  Require(IpNet::GetValues(text, {first, second, "dev"}, {wholeWord}) ==
          naive::Values(text, {first, second, "dev"}, {wholeWord}));
}

void CheckAddresses(FuzzedDataProvider& input) {
  const int prefixLength = input.ConsumeIntegral<int>();
  const std::string text = input.ConsumeRemainingBytesAsString();

  const std::string linkLocal = IpNet::GetLinkLocalAddr(text);
  Require(linkLocal.size() == 25);
  Require(linkLocal.substr(0, 6) == "fe80::");
  Require(linkLocal.find_first_not_of("0123456789abcdef:", 6) == std::string::npos);
  try {
    const std::string net = IpNet::GetIpV4NetAddr(text, prefixLength);
    Require(prefixLength >= 32 ? net == text : net == IpNet::GetIpV4NetAddr(net, prefixLength));
  } catch (const std::invalid_argument&) {
    Require(prefixLength < 32);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  if (input.ConsumeBool()) {
    CheckParsing(input);
  } else {
    CheckAddresses(input);
  }
  return 0;
}
