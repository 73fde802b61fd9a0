// Proves that a word of physical memory is accessed by one instruction, and by one of 32 bits.
//
// The word lies on pages that nobody may touch. Each touch is a SIGSEGV, which gives its address; the page is then
// opened for a single step of the processor and closed again by the SIGTRAP after it. So completed steps are accesses,
// and the touched pages show where an access begins and ends. A program of its own, since checkers that emulate
// instructions cannot single-step.

#include <signal.h>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <functional>
#include <vector>

#include <gtest/gtest.h>

#include "ScriptedKernel.h"
#include "SystemCalls.h"

#if defined(__x86_64__) || defined(__i386__)

namespace {

constexpr std::size_t kPage = 4096;  // bytes
constexpr unsigned int kBase = 0x80011000;
constexpr greg_t kSingleStep = 0x100;  // the processor's trap flag

char* pages = nullptr;                  // two
std::array<std::size_t, 16> touches{};  // offsets of the first bytes that could not be accessed
volatile sig_atomic_t touched = 0;
volatile sig_atomic_t steps = 0;

void Close() {
  ::mprotect(pages, 2 * kPage, PROT_NONE);
}

void OnTouch(int, siginfo_t* information, void* context) {
  const auto offset = static_cast<std::size_t>(static_cast<char*>(information->si_addr) - pages);
  if (offset >= 2 * kPage || touched == static_cast<int>(touches.size())) {
    ::_exit(99);
  }
  touches[static_cast<std::size_t>(touched)] = offset;
  touched = touched + 1;
  // One page at a time, so that an access that touches both shows.
  ::mprotect(pages + offset / kPage * kPage, kPage, PROT_READ | PROT_WRITE);
  static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL] |= kSingleStep;
}

void OnStep(int, siginfo_t*, void* context) {
  steps = steps + 1;
  Close();
  static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL] &= ~kSingleStep;
}

struct Seen {
  int accesses = 0;
  std::vector<std::size_t> touches;
};

class SingleAccess : public testing::Test {
 protected:
  SingleAccess() {
    pages = static_cast<char*>(::mmap(nullptr, 2 * kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    EXPECT_NE(pages, MAP_FAILED);
    struct sigaction action {};
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = OnTouch;
    EXPECT_EQ(::sigaction(SIGSEGV, &action, &m_onSegv), 0);
    action.sa_sigaction = OnStep;
    EXPECT_EQ(::sigaction(SIGTRAP, &action, &m_onTrap), 0);
  }
  ~SingleAccess() override {
    EXPECT_EQ(::sigaction(SIGSEGV, &m_onSegv, nullptr), 0);
    EXPECT_EQ(::sigaction(SIGTRAP, &m_onTrap, nullptr), 0);
    ::munmap(pages, 2 * kPage);
  }

  static Seen Watch(const std::function<void()>& function) {
    touched = 0;
    steps = 0;
    Close();
    function();
    ::mprotect(pages, 2 * kPage, PROT_READ | PROT_WRITE);
    return {steps, {touches.begin(), touches.begin() + touched}};
  }

  /// The same with the pages as the physical ones from kBase on.
  static Seen WatchPhysical(const std::function<void()>& function) {
    ScriptedKernel kernel;
    kernel.Script("open", {Returns(71)}).Script("close", {Returns(0)}).Script("munmap", {Returns(0)});
    kernel.Script("mmap", {Returns(static_cast<long>(reinterpret_cast<std::intptr_t>(pages)))});
    return Watch(function);
  }

  static void SetWord(std::size_t offset, std::uint32_t value) {
    std::memcpy(pages + offset, &value, sizeof(value));
  }
  static std::uint32_t Word(std::size_t offset) {
    std::uint32_t value = 0;
    std::memcpy(&value, pages + offset, sizeof(value));
    return value;
  }

 private:
  struct sigaction m_onSegv {};
  struct sigaction m_onTrap {};
};

using Offsets = std::vector<std::size_t>;

TEST_F(SingleAccess, TheWatchSeesEveryAccessAndItsPages) {
  const Seen twice = Watch([] {
    auto* const word = reinterpret_cast<volatile std::uint32_t*>(pages + 8);
    static_cast<void>(*word);
    *word = 1;
  });
  EXPECT_EQ(twice.accesses, 2);
  EXPECT_EQ(twice.touches, (Offsets{8, 8}));

  const Seen halves = Watch([] {
    auto* const half = reinterpret_cast<volatile std::uint16_t*>(pages + kPage - 2);
    half[0] = 1;
    half[1] = 2;
  });
  EXPECT_EQ(halves.accesses, 2);
  EXPECT_EQ(halves.touches, (Offsets{kPage - 2, kPage}));
}

TEST_F(SingleAccess, AReadIsOneAccess) {
  for (const unsigned int offset : {0U, 4U, 0x10U, 0xFFCU}) {
    SCOPED_TRACE(offset);
    SetWord(offset, 0xDEADBEEF);
    unsigned int value = 0;

    const Seen seen = WatchPhysical([&] { value = ReadFromPhysicalMemoryAddress(kBase + offset); });

    EXPECT_EQ(value, 0xDEADBEEF);
    EXPECT_EQ(seen.accesses, 1);
    // From the word's first byte on; for the last word of the page this also says that it ends there.
    EXPECT_EQ(seen.touches, Offsets{offset});
  }
}

TEST_F(SingleAccess, AWriteIsOneAccessThatReadsNothing) {
  for (const unsigned int offset : {0U, 4U, 0x10U, 0xFFCU}) {
    SCOPED_TRACE(offset);
    SetWord(offset, 0x01010101);

    const Seen seen = WatchPhysical([&] { WriteToPhysicalMemoryAddress(kBase + offset, 0xDEADBEEF); });

    EXPECT_EQ(Word(offset), 0xDEADBEEF);
    EXPECT_EQ(seen.accesses, 1);
    EXPECT_EQ(seen.touches, Offsets{offset});
  }
}

TEST_F(SingleAccess, AWordAcrossTwoPagesIsOneAccessThatTouchesBoth) {
  for (const unsigned int offset : {0xFFDU, 0xFFEU, 0xFFFU}) {
    SCOPED_TRACE(offset);
    SetWord(offset, 0xDEADBEEF);
    unsigned int value = 0;

    const Seen read = WatchPhysical([&] { value = ReadFromPhysicalMemoryAddress(kBase + offset); });
    const Seen written = WatchPhysical([&] { WriteToPhysicalMemoryAddress(kBase + offset, 0x12345678); });

    EXPECT_EQ(value, 0xDEADBEEF);
    EXPECT_EQ(Word(offset), 0x12345678U);
    // The fourth byte of the first of them lies on the second page: no narrower access gets there.
    EXPECT_EQ(read.accesses, 1);
    EXPECT_EQ(read.touches, (Offsets{offset, kPage}));
    EXPECT_EQ(written.accesses, 1);
    EXPECT_EQ(written.touches, (Offsets{offset, kPage}));
  }
}

}  // namespace

#else

TEST(SingleAccess, AWordIsAccessedByOneInstruction) {
  GTEST_SKIP() << "no single steps on this processor";
}

#endif
