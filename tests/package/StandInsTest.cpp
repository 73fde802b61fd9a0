// A program may define functions with the names of the library's: its own are then called, by the library too. Tools
// that watch the library from outside rely on that.
#include <File.h>
#include <IpNet.h>
#include <OpSystem.h>
#include <SystemCalls.h>

#include <fcntl.h>

#include <cerrno>
#include <new>
#include <string>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>

#include "ScriptedIp.h"

namespace {

using Calls = std::vector<std::string>;

Calls seen;
void (*fail)() = nullptr;

/// What comes out of a transfer in which @p failing is thrown.
std::system_error FailureOf(void (*failing)()) {
  const File file("/dev/null", O_RDWR, 0);
  fail = failing;
  try {
    file.PutString("text");
  } catch (const std::system_error& e) {
    fail = nullptr;
    return e;
  }
  fail = nullptr;
  return std::system_error(std::error_code());
}

}  // namespace

void WriteLoop(int /*fd*/, const void* data, unsigned int length) {
  if (fail != nullptr) {
    errno = ENOSPC;
    fail();
  }
  seen.push_back("WriteLoop " + std::string(static_cast<const char*>(data), length));
}

void ReadLoop(int /*fd*/, void* buffer, unsigned int length) {
  seen.push_back("ReadLoop " + std::to_string(length));
  static_cast<char*>(buffer)[0] = 'x';
}

unsigned int IpNet::GetValue(std::string /*text*/, std::string key, unsigned int /*start*/, std::string& value,
                             bool wholeWord) {
  seen.push_back("GetValue " + key + (wholeWord ? " as a word" : ""));
  value = "standing/in";
  return 0;
}

IpNet::Record IpNet::GetValues(std::string text, std::initializer_list<std::string> keys,
                               std::initializer_list<bool> wholeWords) {
  std::string call = "GetValues of " + text + ':';
  for (const std::string& key : keys) {
    call += ' ' + key;
  }
  seen.push_back(call + (wholeWords.size() == 0 ? "" : " as words"));
  return {{"via", "standing in"}};
}

TEST(StandIns, SeeTheTransfersOfAFile) {
  seen.clear();
  unsigned char byte = 0;
  const File file("/dev/null", O_RDWR, 0);
  file.PutString("text");
  file.ReadBytes(&byte, 1);
  EXPECT_EQ(seen, (Calls{"WriteLoop text", "ReadLoop 1"}));
  EXPECT_EQ(byte, 'x');
}

TEST(StandIns, FailInATransferOfAFileWithTheErrorNumberThatIsThereThen) {
  const std::system_error error = FailureOf([] { throw std::system_error(EIO, std::system_category(), "own"); });
  EXPECT_EQ(error.code().value(), ENOSPC);
  EXPECT_STREQ(error.what(), "own: Input/output errorWriteBytes to '/dev/null' failed.: No space left on device");
}

TEST(StandIns, RunOutOfMemoryInATransferOfAFileAsASystemError) {
  const std::system_error error = FailureOf([] { throw std::bad_alloc(); });
  EXPECT_EQ(error.code().value(), ENOSPC);
  EXPECT_STREQ(error.what(), "std::bad_allocWriteBytes to '/dev/null' failed.: No space left on device");
}

TEST(StandIns, PickTheWordsOfAnInterfacesListing) {
  const ScriptedIp ip;
  OpSystem system;
  seen.clear();
  EXPECT_EQ(IpNet(system).GetIfaceInfo("eth0"), (IpNet::Record{{"link", "standing/in"},
                                                               {"ipv4", "standing"},
                                                               {"ipv4pflen", "in"},
                                                               {"ipv6", "standing"},
                                                               {"ipv6pflen", "in"}}));
  EXPECT_EQ(seen, (Calls{"GetValue link/", "GetValue inet as a word", "GetValue inet6 as a word"}));
}

TEST(StandIns, PickTheWordsOfTheDefaultRoute) {
  ScriptedIp ip;
  ip.Answer("-4 route show", "a listing");
  OpSystem system;
  seen.clear();
  EXPECT_EQ(IpNet(system).GetGwInfo(false), (IpNet::Record{{"via", "standing in"}}));
  EXPECT_EQ(seen, (Calls{"GetValues of a listing: default via dev"}));
}
