#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/sysinfo.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "AnotherProcess.h"
#include "ExpectText.h"
#include "ExpectThrow.h"
#include "Hexadecimal.h"
#include "JoiningThread.h"
#include "Lists.h"
#include "MemoryStandIn.h"
#include "OpenDescriptors.h"
#include "ScriptedKernel.h"
#include "SysTexts.h"
#include "SystemCalls.h"

namespace {

using Calls = ScriptedKernel::Calls;

const auto pageSize = static_cast<unsigned int>(::getpagesize());

/// Only physical memory is opened meanwhile, and no descriptor may leak.
class PhysicalMemory : public testing::Test {
 protected:
  PhysicalMemory() {
    m_kernel.Simulate("open", [this](const Question& question) {
      return question.bytes == "/dev/mem" ? m_memory.Open() : Fails(ENOENT);
    });
    // Once a script's answers are used up, the C library answers.
    for (const char* function : {"mmap", "munmap", "close"}) {
      m_kernel.Simulate(function, [](const Question&) { return Real(); });
    }
    m_kernel.Watch("read").Watch("write").Watch("lseek");
  }
  ~PhysicalMemory() override {
    EXPECT_EQ(OpenDescriptors(), m_descriptors);
  }

  const MemoryStandIn m_memory;
  ScriptedKernel m_kernel;

 private:
  std::set<int> m_descriptors = OpenDescriptors();
};

std::vector<unsigned int> Places() {
  const unsigned int lastPage = UINT_MAX / pageSize;
  std::vector<unsigned int> addresses;
  for (const unsigned int page : {0U, 1U, 0x80011000U / pageSize, lastPage}) {
    for (const unsigned int offset : {0U, 4U, 0x10U, pageSize - 36, pageSize - 32, pageSize - 31, pageSize - 4}) {
      addresses.push_back(page * pageSize + offset);
    }
    if (page != lastPage) {
      addresses.push_back(page * pageSize + pageSize - 1);
    }
  }
  return addresses;
}

// --- One word of physical memory -------------------------------------------------------------------------------------

TEST_F(PhysicalMemory, AReadOpensMapsUnmapsAndCloses) {
  for (const unsigned int address : Places()) {
    SCOPED_TRACE(Hexadecimal(address));
    m_memory.Set(address, 0x12345678U ^ address);

    EXPECT_EQ(ReadFromPhysicalMemoryAddress(address), 0x12345678U ^ address);

    const unsigned int offset = address % pageSize;
    EXPECT_EQ(m_kernel.SeenNow(), MemoryStandIn::CallsFor(address - offset, offset + 32));
    m_memory.Set(address, 0);
  }
}

TEST_F(PhysicalMemory, AWriteTakesTheSameCalls) {
  for (const unsigned int address : Places()) {
    SCOPED_TRACE(Hexadecimal(address));

    WriteToPhysicalMemoryAddress(address, 0x87654321U ^ address);

    const unsigned int offset = address % pageSize;
    EXPECT_EQ(m_kernel.SeenNow(), MemoryStandIn::CallsFor(address - offset, offset + 32));
    EXPECT_EQ(m_memory.Get(address), 0x87654321U ^ address);
    m_memory.Set(address, 0);
  }
}

TEST_F(PhysicalMemory, AWordCloseToTheEndOfAPageMapsTwo) {
  if (pageSize != 4096) {
    GTEST_SKIP() << "the numbers are those of pages of 4096 bytes";
  }
  ReadFromPhysicalMemoryAddress(0x1FFC);
  EXPECT_EQ(m_kernel.SeenNow(), MemoryStandIn::CallsFor(0x1000, 0x101C));
  ReadFromPhysicalMemoryAddress(0x1FFF);
  EXPECT_EQ(m_kernel.SeenNow(), MemoryStandIn::CallsFor(0x1000, 0x101F));
  ReadFromPhysicalMemoryAddress(0x80011000);
  EXPECT_EQ(m_kernel.SeenNow(), MemoryStandIn::CallsFor(0x80011000, 0x20));
  ReadFromPhysicalMemoryAddress(0xFFFFFFFC);
  EXPECT_EQ(m_kernel.SeenNow(), MemoryStandIn::CallsFor(0xFFFFF000, 0x101C));
}

TEST_F(PhysicalMemory, AWriteLeavesTheNeighboursAlone) {
  for (const unsigned int address : {0x2000U, 0x2004U, 0x80011000U, 2 * pageSize - 4}) {
    SCOPED_TRACE(Hexadecimal(address));
    m_memory.Set(address - 4, 0x11111111);
    m_memory.Set(address, 0x22222222);
    m_memory.Set(address + 4, 0x33333333);

    WriteToPhysicalMemoryAddress(address, 0xFFFFFFFF);

    EXPECT_EQ(m_memory.Get(address - 4), 0x11111111U);
    EXPECT_EQ(m_memory.Get(address), 0xFFFFFFFFU);
    EXPECT_EQ(m_memory.Get(address + 4), 0x33333333U);
    EXPECT_EQ(ReadFromPhysicalMemoryAddress(address), 0xFFFFFFFFU);
  }
}

TEST_F(PhysicalMemory, NothingIsKeptBetweenTheCalls) {
  m_memory.Set(0x1000, 1);
  EXPECT_EQ(ReadFromPhysicalMemoryAddress(0x1000), 1U);
  m_memory.Set(0x1000, 2);
  EXPECT_EQ(ReadFromPhysicalMemoryAddress(0x1000), 2U);

  const Calls all = MemoryStandIn::CallsFor(0x1000 - 0x1000 % pageSize, 0x1000 % pageSize + 32);
  EXPECT_EQ(m_kernel.Seen(), all + all);
}

TEST_F(PhysicalMemory, ADeviceThatCannotBeOpenedThrowsTheSameTextForReadingAndWriting) {
  for (const int error : {EACCES, EPERM, ENOENT, EMFILE}) {
    SCOPED_TRACE(ErrorName(error));
    m_kernel.Script("open", {Fails(error), Fails(error)});

    EXPECT_SYSTEM_ERROR(ReadFromPhysicalMemoryAddress(0x1000), error, systext::kMemoryError);
    EXPECT_SYSTEM_ERROR(WriteToPhysicalMemoryAddress(0x1000, 1), error, systext::kMemoryError);

    EXPECT_EQ(m_kernel.SeenNow(), (Calls{"open(\"/dev/mem\", 0x2)", "open(\"/dev/mem\", 0x2)"}));
  }
}

TEST_F(PhysicalMemory, AMappingThatIsRefusedThrowsAndClosesTheDevice) {
  for (const int error : {EPERM, EINVAL, ENOMEM}) {
    SCOPED_TRACE(ErrorName(error));
    m_kernel.Script("mmap", {Fails(error), Fails(error)});

    EXPECT_SYSTEM_ERROR(ReadFromPhysicalMemoryAddress(pageSize), error, systext::kMapError);
    EXPECT_SYSTEM_ERROR(WriteToPhysicalMemoryAddress(pageSize, 1), error, systext::kMapError);

    const Calls all = MemoryStandIn::CallsFor(pageSize, 32);
    EXPECT_EQ(m_kernel.SeenNow(), (Calls{all[0], all[1], all[3], all[0], all[1], all[3]}));
  }
}

TEST_F(PhysicalMemory, AFailedCloseBehindARefusedMappingDoesNotHideIt) {
  m_kernel.Script("mmap", {Fails(EPERM)}).Script("close", {Fails(EIO)});

  EXPECT_SYSTEM_ERROR(ReadFromPhysicalMemoryAddress(pageSize), EPERM, systext::kMapError);

  ::close(MemoryStandIn::kFd);
}

TEST_F(PhysicalMemory, FailuresToUnmapAndToCloseAreIgnored) {
  m_memory.Set(0x1004, 0xCAFE);
  // A mapping that the test can remove, since the tested code believes that it could not.
  void* const words = ::mmap(nullptr, pageSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(words, MAP_FAILED);
  const Answer mapped = Returns(static_cast<long>(reinterpret_cast<std::intptr_t>(words)));
  m_kernel.SeenNow();
  m_kernel.Script("mmap", {mapped, mapped});
  m_kernel.Script("munmap", {Fails(EINVAL), Fails(EINVAL)});
  m_kernel.Script("close", {Fails(EIO), Fails(EIO)});

  EXPECT_NO_THROW(WriteToPhysicalMemoryAddress(pageSize + 4, 0xCAFE));
  EXPECT_EQ(ReadFromPhysicalMemoryAddress(pageSize + 4), 0xCAFEU);

  const Calls all = MemoryStandIn::CallsFor(pageSize, 36);
  EXPECT_EQ(m_kernel.SeenNow(), all + all);
  ::close(MemoryStandIn::kFd);
  EXPECT_EQ(::munmap(words, pageSize), 0);
}

TEST_F(PhysicalMemory, ThreadsDoNotDisturbEachOther) {
  // Each has a kernel, and so a descriptor number, of its own.
  const auto work = [this](unsigned int address, int fd) {
    ScriptedKernel kernel;
    kernel.Simulate("open", [this, fd](const Question&) { return m_memory.Open(fd); });
    for (unsigned int i = 0; i < 500; ++i) {
      WriteToPhysicalMemoryAddress(address, i);
      ASSERT_EQ(ReadFromPhysicalMemoryAddress(address), i);
    }
  };
  ASSERT_EQ(m_memory.Get(0x3000), 0U);

  JoiningThread other([&] { work(0x3004, MemoryStandIn::kFd + 1); });
  work(0x3000, MemoryStandIn::kFd + 2);
  other.Join();

  EXPECT_EQ(m_memory.Get(0x3000), 499U);
  EXPECT_EQ(m_memory.Get(0x3004), 499U);
}

TEST(RealPhysicalMemory, IsOutOfReachWithoutPrivilege) {
  constexpr int kOpen = 2;
  const int status = StatusOfAnotherProcess([] {
    BecomeOrdinaryUser();
    const int fd = ::open("/dev/mem", O_RDWR);
    const int error = errno;
    if (fd != -1) {
      return kOpen;
    }
    EXPECT_TRUE(error == EACCES || error == EPERM || error == ENOENT) << ErrorName(error);
    EXPECT_SYSTEM_ERROR(ReadFromPhysicalMemoryAddress(0x1000), error, systext::kMemoryError);
    EXPECT_SYSTEM_ERROR(WriteToPhysicalMemoryAddress(0x1000, 0), error, systext::kMemoryError);
    return HasFailure() ? 1 : 0;
  });
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == kOpen) {
    GTEST_SKIP() << "everybody may open /dev/mem here";
  }
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

// --- sysinfo ---------------------------------------------------------------------------------------------------------

TEST(SysinfoE, FillsTheStructure) {
  struct sysinfo info {};
  struct sysinfo expected {};
  ASSERT_EQ(::sysinfo(&expected), 0);

  sysinfo_e(&info);

  EXPECT_EQ(info.totalram, expected.totalram);
  EXPECT_EQ(info.mem_unit, expected.mem_unit);
  EXPECT_GE(info.uptime, expected.uptime);
  EXPECT_GT(info.procs, 0U);
}

TEST(SysinfoE, AFailureThrowsWithItsNumber) {
  struct sysinfo info {};
  ScriptedKernel kernel;
  kernel.Script("sysinfo", {Fails(EFAULT), {1, EPERM, {}, false}});

  EXPECT_SYSTEM_ERROR(sysinfo_e(&info), EFAULT, systext::kSysinfoError);
  EXPECT_SYSTEM_ERROR(sysinfo_e(&info), EPERM, systext::kSysinfoError);  // not 0, and not -1
}

// --- mmap and munmap -------------------------------------------------------------------------------------------------

TEST(MmapE, HandsItsArgumentsOn) {
  ScriptedKernel kernel;
  kernel.Script("mmap", {Returns(0x7000), Returns(0x7000), Returns(0)});
  int anchor = 0;

  EXPECT_EQ(mmap_e(nullptr, 12345, PROT_READ | PROT_WRITE, MAP_SHARED, 9, 0x3000), reinterpret_cast<void*>(0x7000));
  EXPECT_EQ(mmap_e(&anchor, UINT_MAX, PROT_EXEC, MAP_PRIVATE | MAP_FIXED, -1, 1), reinterpret_cast<void*>(0x7000));
  EXPECT_EQ(mmap_e(nullptr, 0, PROT_NONE, 0, 0, 0), nullptr);  // MAP_FAILED alone is a failure

  EXPECT_EQ(kernel.Seen(),
            (Calls{"mmap(anywhere, 0x3039, PROT_READ | PROT_WRITE, MAP_SHARED, 9, 0x3000)",
                   "mmap(at an address, 0xffffffff, 4, 18, -1, 0x1)", "mmap(anywhere, 0x0, 0, 0, 0, 0x0)"}));
}

TEST(MmapE, ANegativeOffsetKeepsItsBits) {
  ScriptedKernel kernel;
  kernel.Script("mmap", {Returns(0x7000), Returns(0x7000)});

  mmap_e(nullptr, 1, PROT_READ, MAP_SHARED, 9, -4096);
  mmap_e(nullptr, 1, PROT_READ, MAP_SHARED, 9, LONG_MIN);

  // Widened as unsigned where a file's offset has more bits than a long.
  const Calls expected = {
      "mmap(anywhere, 0x1, 1, MAP_SHARED, 9, " + Hexadecimal(static_cast<unsigned long>(-4096L)) + ")",
      "mmap(anywhere, 0x1, 1, MAP_SHARED, 9, " + Hexadecimal(static_cast<unsigned long>(LONG_MIN)) + ")"};
  EXPECT_EQ(kernel.Seen(), expected);
}

TEST(MmapE, MapsAFile) {
  std::FILE* const file = std::tmpfile();
  ASSERT_NE(file, nullptr);
  ASSERT_EQ(::ftruncate(::fileno(file), 2L * pageSize), 0);
  ASSERT_EQ(::pwrite(::fileno(file), "second", 6, pageSize), 6);

  void* const mapping = mmap_e(nullptr, 6, PROT_READ, MAP_PRIVATE, ::fileno(file), static_cast<long>(pageSize));

  EXPECT_EQ(std::memcmp(mapping, "second", 6), 0);
  EXPECT_EQ(munmap_a(mapping, 6), 0);
  std::fclose(file);
}

TEST(MmapE, FailuresThrowWithTheirNumbers) {
  EXPECT_SYSTEM_ERROR(mmap_e(nullptr, 0, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0), EINVAL, systext::kMapError);
  EXPECT_SYSTEM_ERROR(mmap_e(nullptr, 1, PROT_READ, MAP_PRIVATE, -1, 0), EBADF, systext::kMapError);
  EXPECT_SYSTEM_ERROR(mmap_e(nullptr, 1, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 1), EINVAL, systext::kMapError);
}

TEST(MunmapA, UnmapsAndReturnsTheResult) {
  ScriptedKernel kernel;
  void* const mapping = mmap_e(nullptr, 3 * pageSize, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  kernel.Watch("munmap");

  EXPECT_EQ(munmap_a(mapping, 3 * pageSize), 0);

  EXPECT_EQ(kernel.Seen(), (Calls{"munmap(" + Hexadecimal(3ULL * pageSize) + ")"}));
  // What was released can be mapped again.
  EXPECT_EQ(::mmap(mapping, 3 * pageSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0),
            mapping);
  EXPECT_EQ(::munmap(mapping, 3 * pageSize), 0);
}

TEST(MunmapA, AFailureIsTheResult) {
  ScriptedKernel kernel;
  kernel.Script("munmap", {Fails(ENOMEM), Returns(5)});

  EXPECT_EQ(munmap_a(nullptr, 1), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(munmap_a(nullptr, 1), 5);
}

TEST(MunmapA, AnAddressInTheMiddleOfAPageIsRefused) {
  char* const mapping = static_cast<char*>(mmap_e(nullptr, pageSize, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));

  errno = 0;
  EXPECT_NO_THROW(EXPECT_EQ(munmap_a(mapping + 1, pageSize), -1));
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(munmap_a(mapping, 0), -1);

  EXPECT_EQ(munmap_a(mapping, pageSize), 0);
}

// --- dlsym -----------------------------------------------------------------------------------------------------------

class DlsymE : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(m_handle, nullptr) << ::dlerror();
  }
  ~DlsymE() override {
    ::dlclose(m_handle);
  }

  void* const m_handle = ::dlopen(BOARDKIT_TEST_SYMBOLS, RTLD_NOW | RTLD_LOCAL);
};

TEST_F(DlsymE, ASymbolHasItsAddress) {
  auto* const function = reinterpret_cast<int (*)()>(dlsym_e(m_handle, "boardkit_test_function"));
  EXPECT_EQ(function(), 42);
  EXPECT_EQ(*static_cast<int*>(dlsym_e(m_handle, "boardkit_test_variable")), 7);
}

TEST_F(DlsymE, NullArgumentsAreRefusedTheHandleFirst) {
  EXPECT_EXACT_THROW(dlsym_e(nullptr, "x"), std::invalid_argument, systext::kNoHandle);
  EXPECT_EXACT_THROW(dlsym_e(nullptr, nullptr), std::invalid_argument, systext::kNoHandle);
  EXPECT_EXACT_THROW(dlsym_e(RTLD_DEFAULT, "malloc"), std::invalid_argument, systext::kNoHandle);
  EXPECT_EXACT_THROW(dlsym_e(m_handle, nullptr), std::invalid_argument, systext::kNoSymbol);
}

TEST_F(DlsymE, AMissingSymbolThrowsWithTheLoadersText) {
  ASSERT_EQ(::dlsym(m_handle, "no_such_symbol"), nullptr);
  const std::string loader = ::dlerror();
  ASSERT_PRED_FORMAT2(ContainsText, loader, "undefined symbol: no_such_symbol");

  EXPECT_EXACT_THROW(dlsym_e(m_handle, "no_such_symbol"), std::logic_error,
                     systext::LookupError("no_such_symbol", loader));
  EXPECT_EQ(::dlerror(), nullptr);  // its text was taken
}

TEST_F(DlsymE, TheEmptyNameIsMissingLikeAnyOther) {
  static_cast<void>(::dlsym(m_handle, ""));
  const std::string loader = ::dlerror();

  EXPECT_EXACT_THROW(dlsym_e(m_handle, ""), std::logic_error, systext::LookupError("", loader));
}

TEST_F(DlsymE, ASymbolWhoseValueIsNullThrowsASystemErrorThatMeansNothing) {
  for (const int error : {0, ENOTTY}) {
    SCOPED_TRACE(ErrorName(error));
    errno = error;
    EXPECT_SYSTEM_ERROR(dlsym_e(m_handle, "boardkit_test_null"), error, systext::NullSymbol("boardkit_test_null"));
  }
}

TEST_F(DlsymE, AnOlderErrorIsForgotten) {
  ASSERT_EQ(::dlsym(m_handle, "no_such_symbol"), nullptr);  // and its error waits
  EXPECT_NE(dlsym_e(m_handle, "boardkit_test_function"), nullptr);

  ASSERT_EQ(::dlsym(m_handle, "no_such_symbol"), nullptr);
  errno = 0;
  EXPECT_SYSTEM_ERROR(dlsym_e(m_handle, "boardkit_test_null"), 0, systext::NullSymbol("boardkit_test_null"));
  EXPECT_EQ(::dlerror(), nullptr);
}

TEST_F(DlsymE, AsksForTheErrorOnceBeforeAndOnceBehind) {
  static_cast<void>(::dlsym(m_handle, "no_such_symbol"));
  const std::string loader = ::dlerror();
  ScriptedKernel kernel;
  kernel.Watch("dlerror");

  dlsym_e(m_handle, "boardkit_test_function");
  EXPECT_EQ(kernel.SeenNow(), (Calls{"dlerror()", "dlerror()"}));
  EXPECT_EXACT_THROW(dlsym_e(m_handle, "no_such_symbol"), std::logic_error,
                     systext::LookupError("no_such_symbol", loader));
  EXPECT_EQ(kernel.SeenNow(), (Calls{"dlerror()", "dlerror()"}));
  EXPECT_EXACT_THROW(dlsym_e(nullptr, "x"), std::invalid_argument, systext::kNoHandle);
  EXPECT_EQ(kernel.SeenNow(), Calls{});
}

TEST_F(DlsymE, ThePseudoHandleOfTheNextObjectIsNotRefused) {
  EXPECT_NE(dlsym_e(RTLD_NEXT, "malloc"), nullptr);
}

}  // namespace
