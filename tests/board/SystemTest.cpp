// System calls, files and tracebacks on the board's kernel and C library.
#include <File.h>
#include <OpSystem.h>
#include <SystemCalls.h>
#include <linuxutils.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/random.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "../file/FileTexts.h"
#include "../sys/SysTexts.h"
#include "ExpectText.h"
#include "ExpectThrow.h"
#include "JoiningThread.h"

// Names are found for functions that the program exports, so these are not in an unnamed namespace.
namespace sensors {

[[gnu::noinline]] std::string Inner() {
  std::string text = linuxutils::Traceback();
  asm volatile("" ::: "memory");
  return text;
}

[[gnu::noinline]] std::string Outer() {
  std::string text = Inner();
  asm volatile("" ::: "memory");
  return text;
}

}  // namespace sensors

namespace {

TEST(System, TheMemoryIsThatOfTheBoard) {
  struct sysinfo info {};
  sysinfo_e(&info);
  const auto bytes = static_cast<unsigned long long>(info.totalram) * info.mem_unit;
  EXPECT_GT(bytes, 900ULL << 20U);
  EXPECT_LT(bytes, 1088ULL << 20U);
  EXPECT_GT(info.uptime, 0);
}

TEST(System, ASymbolOfTheProgramAndOneThatIsNowhere) {
  void* const program = ::dlopen(nullptr, RTLD_NOW);
  ASSERT_NE(program, nullptr);
  EXPECT_EQ(dlsym_e(program, "_ZN7sensors5OuterB5cxx11Ev"), reinterpret_cast<void*>(&sensors::Outer));
  static_cast<void>(::dlsym(program, "there_is_no_such_function"));
  const std::string loader = ::dlerror();
  EXPECT_EXACT_THROW(dlsym_e(program, "there_is_no_such_function"), std::logic_error,
                     systext::LookupError("there_is_no_such_function", loader));
}

TEST(System, TheThreadIdIsTheKernels) {
  EXPECT_EQ(LinuxGetThreadId(), ::getpid());
  int other = 0;
  JoiningThread([&] { other = LinuxGetThreadId(); }).Join();
  EXPECT_NE(other, ::getpid());
  EXPECT_GT(other, 0);
}

volatile sig_atomic_t signalSeen = 0;
volatile sig_atomic_t senderSeen = 0;

TEST(System, ASignalHandlerGetsTheSignalAndItsSender) {
  InstallSignalHandler(SIGUSR1, [](int signal, siginfo_t* info, void*) {
    signalSeen = signal;
    senderSeen = info->si_pid;
  });
  ::kill(::getpid(), SIGUSR1);
  EXPECT_EQ(signalSeen, SIGUSR1);
  EXPECT_EQ(senderSeen, ::getpid());
}

TEST(System, ADeactivatedSignalWaits) {
  InstallSignalHandler(SIGUSR2, [](int signal, siginfo_t*, void*) { signalSeen = signal; });
  DeactivateSignalP(SIGUSR2);
  ::kill(::getpid(), SIGUSR2);
  EXPECT_NE(signalSeen, SIGUSR2);
  sigset_t pending;
  EXPECT_EQ(::sigpending(&pending), 0);
  EXPECT_EQ(::sigismember(&pending, SIGUSR2), 1);
}

TEST(System, SleepingTakesItsTime) {
  const auto start = std::chrono::steady_clock::now();
  DebugSleep(1050);
  const auto slept = std::chrono::steady_clock::now() - start;
  EXPECT_GE(slept, std::chrono::milliseconds(1050));
  EXPECT_LT(slept, std::chrono::seconds(5));
  EXPECT_SYSTEM_ERROR(DebugSleep(-1), EINVAL, systext::kSleepError);
}

TEST(System, AnOffsetWithTheTopBitSetMapsASparseFile) {
  // The bit pattern of 2 GiB and a page, which as a long is negative here.
  constexpr unsigned long kOffset = 0x80001000;
  const int fd = ::open("/tmp/sparse", O_RDWR | O_CREAT | O_LARGEFILE, 0600);
  ASSERT_NE(fd, -1);
  ASSERT_EQ(::ftruncate64(fd, static_cast<long long>(kOffset) + 4096), 0);
  ASSERT_EQ(::pwrite64(fd, "far", 3, kOffset), 3);

  void* const mapping = mmap_e(nullptr, 4096, PROT_READ, MAP_SHARED, fd, static_cast<long>(kOffset));

  EXPECT_STREQ(static_cast<const char*>(mapping), "far");
  EXPECT_EQ(munmap_a(mapping, 4096), 0);
  ::close(fd);
}

TEST(System, TheTracebackNamesTheProgramsFunctions) {
  const std::string text = sensors::Outer();
  EXPECT_CONTAINS(text, "sensors::Inner");
  EXPECT_CONTAINS(text, "sensors::Outer");
  EXPECT_LT(text.find("sensors::Inner"), text.find("sensors::Outer")) << text;
}

TEST(System, ACommandsOutputAndStatusComeBack) {
  EXPECT_EQ(OpSystem().ExecCmd("uname -m", false), "armv7l\n");
  EXPECT_EXACT_THROW(OpSystem().ExecCmd("echo no; false", false), std::logic_error, "no\n");
}

TEST(Files, AFileOfProcIsReadThoughItsSizeIsZero) {
  const File file("/proc/version", O_RDONLY, 0);
  unsigned char text[6] = {};
  file.ReadBytes(text, 5);
  EXPECT_STREQ(reinterpret_cast<const char*>(text), "Linux");
  EXPECT_EQ(file.Seek(0, SEEK_CUR), 5);
  EXPECT_TRUE(File::Exists("/proc/version"));
}

TEST(Files, AFileOfSysIsReadAndWritten) {
  const char* const path = "/sys/class/net/lo/mtu";
  File(path, O_WRONLY, 0).PutString("16436");
  const File file(path, O_RDONLY, 0);
  unsigned char text[6] = {};
  file.ReadBytes(text, 5);
  EXPECT_STREQ(reinterpret_cast<const char*>(text), "16436");
}

TEST(Files, WhatSysRefusesIsAnErrorOfTheWrite) {
  const File file("/sys/class/net/lo/mtu", O_WRONLY, 0);
  EXPECT_SYSTEM_ERROR(file.PutString("much"), EINVAL,
                      filetext::WriteFailed(systext::kWriteError + ": Invalid argument", "/sys/class/net/lo/mtu"));
}

TEST(Files, DeviceNodesAreReadWrittenAndControlled) {
  const File zero("/dev/zero", O_RDWR, 0);
  unsigned char bytes[4096];
  zero.ReadBytes(bytes, sizeof bytes);
  EXPECT_EQ(bytes[4095], 0);
  zero.WriteBytes(bytes, sizeof bytes);
  EXPECT_SYSTEM_ERROR(zero.Ioctl(RNDZAPENTCNT), ENOTTY, filetext::IoctlFailed("/dev/zero"));
  EXPECT_EQ(File("/dev/urandom", O_RDONLY, 0).Ioctl(RNDRESEEDCRNG), 0);
  EXPECT_SYSTEM_ERROR(File("/dev/full", O_WRONLY, 0).PutString("x"), ENOSPC,
                      filetext::WriteFailed(systext::kWriteError + ": No space left on device", "/dev/full"));
}

TEST(Files, ADescriptorsNameComesFromTheKernel) {
  const File file(::open("/dev/null", O_RDONLY));
  EXPECT_SYSTEM_ERROR(file.PutString("x"), EBADF,
                      filetext::WriteFailed(systext::kWriteError + ": Bad file descriptor", "/dev/null"));
}

}  // namespace
