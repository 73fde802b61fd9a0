// Words of physical memory: of two reserved pages, of memory that the kernel keeps to itself, and where there is none.
#include <SystemCalls.h>

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include <gtest/gtest.h>

#include "../sys/SysTexts.h"
#include "AnotherProcess.h"
#include "ExpectThrow.h"

namespace {

constexpr unsigned int kWords = 0x80020000;
constexpr unsigned int kLastWordOfThePage = 0x80020FFC;
constexpr unsigned int kKernelsMemory = 0x41000000;
constexpr unsigned int kNothing = 0xA0000000;
constexpr unsigned int kConsoleUart = 0x09000000;

TEST(PhysicalMemory, AWrittenWordIsReadBack) {
  WriteToPhysicalMemoryAddress(kWords + 8, 0x12345678);
  WriteToPhysicalMemoryAddress(kWords + 12, 0xFEDCBA98);
  EXPECT_EQ(ReadFromPhysicalMemoryAddress(kWords + 8), 0x12345678U);
  EXPECT_EQ(ReadFromPhysicalMemoryAddress(kWords + 12), 0xFEDCBA98U);
}

TEST(PhysicalMemory, TheLastWordOfAPageIsReadBack) {
  WriteToPhysicalMemoryAddress(kLastWordOfThePage, 0xCAFE0001);
  WriteToPhysicalMemoryAddress(kLastWordOfThePage + 4, 0xCAFE0002);
  EXPECT_EQ(ReadFromPhysicalMemoryAddress(kLastWordOfThePage), 0xCAFE0001U);
  EXPECT_EQ(ReadFromPhysicalMemoryAddress(kLastWordOfThePage + 4), 0xCAFE0002U);
}

TEST(PhysicalMemory, AnotherProcessSeesTheWordAndAnswers) {
  WriteToPhysicalMemoryAddress(kWords + 16, 1000);
  const int status = StatusOfAnotherProcess([] {
    WriteToPhysicalMemoryAddress(kWords + 20, ReadFromPhysicalMemoryAddress(kWords + 16) + 1);
    return 0;
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(ReadFromPhysicalMemoryAddress(kWords + 20), 1001U);
}

TEST(PhysicalMemory, TheMachineOutsideSeesTheWordAndAnswers) {
  WriteToPhysicalMemoryAddress(kWords + 4, 0);
  WriteToPhysicalMemoryAddress(kWords, 0x5EED1E55);
  unsigned int answer = 0;
  for (int i = 0; i < 300 && answer == 0; ++i) {
    DebugSleep(100);
    answer = ReadFromPhysicalMemoryAddress(kWords + 4);
  }
  EXPECT_EQ(answer, 0x0DDBA115U);
}

TEST(PhysicalMemory, TheKernelsOwnMemoryIsRefused) {
  EXPECT_SYSTEM_ERROR(ReadFromPhysicalMemoryAddress(kKernelsMemory), EPERM, systext::kMapError);
  EXPECT_SYSTEM_ERROR(WriteToPhysicalMemoryAddress(kKernelsMemory, 0), EPERM, systext::kMapError);
}

TEST(PhysicalMemory, AnAddressWhereNothingAnswersEndsTheProcessWithABusError) {
  const int status = StatusOfAnotherProcess([] {
    ReadFromPhysicalMemoryAddress(kNothing);
    return 0;
  });
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGBUS);
}

TEST(PhysicalMemory, AnUnprivilegedProcessIsRefused) {
  const int status = StatusOfAnotherProcess([] {
    BecomeOrdinaryUser();
    EXPECT_SYSTEM_ERROR(ReadFromPhysicalMemoryAddress(kWords), EACCES, systext::kMemoryError);
    return testing::Test::HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(status, 0);
}

TEST(PhysicalMemory, WithoutTheDeviceTheOpeningsErrorIsReported) {
  const int status = StatusOfAnotherProcess([] {
    // An empty folder instead of the devices, for this process alone.
    if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/dev", "tmpfs", 0, nullptr) != 0) {
      return 2;
    }
    EXPECT_SYSTEM_ERROR(ReadFromPhysicalMemoryAddress(kWords), ENOENT, systext::kMemoryError);
    EXPECT_SYSTEM_ERROR(WriteToPhysicalMemoryAddress(kWords, 0), ENOENT, systext::kMemoryError);
    return testing::Test::HasFailure() ? 1 : 0;
  });
  if (WIFEXITED(status) && WEXITSTATUS(status) == 2) {
    GTEST_SKIP() << "the devices can't be hidden here";
  }
  EXPECT_EQ(status, 0);
}

TEST(Guarded, TheRegistersOfADeviceThatHasADriverAreRefused) {
  EXPECT_SYSTEM_ERROR(ReadFromPhysicalMemoryAddress(kConsoleUart), EPERM, systext::kMapError);
}

TEST(Guarded, MemoryThatTheKernelWasToldToLeaveOutIsNot) {
  WriteToPhysicalMemoryAddress(kWords, 0xABCD0123);
  EXPECT_EQ(ReadFromPhysicalMemoryAddress(kWords), 0xABCD0123U);
}

}  // namespace
