// The layouts that are built into every program that uses the library: sizes, and where the members lie. A change here
// is a change of the ABI. Compiled, never run.
#include <cstddef>
#include <deque>
#include <initializer_list>
#include <map>
#include <string>
#include <vector>

#include <termios.h>

// What the headers above declare stays private; what follows opens up.
#define private public  // NOLINT: the members' places are what is looked at
#include <File.h>
#include <IpNet.h>
#include <OpSystem.h>
#include <SerialPort.h>
#include <WatchDog.h>

#pragma GCC diagnostic ignored "-Winvalid-offsetof"  // all of them lie in one piece

// For 64-bit PCs and 32-bit ARM boards only, with the current string of libstdc++.
#if (defined(__x86_64__) || defined(__arm__)) && defined(_GLIBCXX_USE_CXX11_ABI) && _GLIBCXX_USE_CXX11_ABI

/// The value that holds for this architecture.
constexpr std::size_t On(std::size_t pc, std::size_t board) {
  return sizeof(void*) == 8 ? pc : board;
}

static_assert(sizeof(File) == On(80, 56));
static_assert(offsetof(File, m_fd) == 0);
static_assert(offsetof(File, m_flags) == On(16, 12));
static_assert(offsetof(File, m_mode) == On(20, 16));
static_assert(offsetof(File, m_stream) == On(24, 20));
static_assert(offsetof(File, m_name) == On(48, 32));

static_assert(sizeof(WatchDog) == On(48, 36));
static_assert(offsetof(WatchDog, m_interval) == 0);
static_assert(offsetof(WatchDog, m_device) == On(8, 4));
static_assert(offsetof(WatchDog, m_fd) == On(40, 28));
static_assert(offsetof(WatchDog, m_active) == On(44, 32));

static_assert(sizeof(SerialPort) == On(216, 160));
static_assert(offsetof(SerialPort, m_isOpen) == 0);
static_assert(offsetof(SerialPort, m_device) == On(8, 4));
static_assert(offsetof(SerialPort, m_fd) == On(40, 28));
static_assert(offsetof(SerialPort, m_savedSettings) == On(44, 32));
static_assert(offsetof(SerialPort, m_rxBuffer) == On(104, 92));
static_assert(offsetof(SerialPort, m_customBaudRate) == On(184, 132));
static_assert(offsetof(SerialPort, m_baudRate) == On(188, 136));
static_assert(offsetof(SerialPort, m_charSize) == On(192, 140));
static_assert(offsetof(SerialPort, m_parity) == On(196, 144));
static_assert(offsetof(SerialPort, m_stopBits) == On(200, 148));
static_assert(offsetof(SerialPort, m_flowControl) == On(204, 152));
static_assert(offsetof(SerialPort, m_termiosSupported) == On(208, 156));

static_assert(sizeof(OpSystem) == On(8, 4));

// After the table of virtual functions and the reference to the command runner, which has no offset to ask for.
static_assert(sizeof(IpNet) == On(56, 36));
static_assert(offsetof(IpNet, m_debugActive) == On(16, 8));
static_assert(offsetof(IpNet, m_debugOutput) == On(24, 12));

#endif
