// Every allocation of every operation fails in turn. The caller must know: a result with missing parts would look
// like a complete one.
#include <File.h>
#include <IpNet.h>
#include <OpSystem.h>
#include <SerialPort.h>
#include <SystemCalls.h>
#include <WatchDog.h>
#include <linuxutils.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <termios.h>

#include <cerrno>
#include <cstddef>
#include <exception>
#include <functional>
#include <locale>
#include <new>
#include <ostream>
#include <string>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>

#include "Allocations.h"
#include "ScriptedIp.h"

namespace {

// Long enough to need an allocation, as texts of no more than 15 characters do not.
const std::string kMissing = "/tmp/there-is-no-file-of-this-name-here";

/// How an operation ended: its result, or its failure.
std::string OutcomeOf(const std::function<std::string()>& operation) {
  errno = 0;  // some failures report whatever failed before
  try {
    return operation();
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& e) {
    return e.what();
  }
}

/// Runs @p operation again and again, each time with the next one of its allocations failing, until none is left.
/// @returns how many there were.
std::size_t FailEachAllocation(const std::string& name, const std::function<std::string()>& operation) {
  // Not counted: what is allocated once in a process.
  const std::string outcome = OutcomeOf(operation);
  for (std::size_t which = 0;; ++which) {
    SCOPED_TRACE(name + ", allocation " + std::to_string(which));
    std::string got;
    bool hasFailed = false;
    bool isTold = false;
    {
      const FailingAllocation failing(which);
      try {
        got = OutcomeOf(operation);
      } catch (const std::bad_alloc&) {
        isTold = true;
      }
      hasFailed = failing.HasFailed();
    }
    if (!hasFailed) {
      EXPECT_EQ(got, outcome);
      return which;
    }
    // A file's transfers reword every failure, this one included.
    const bool isTransfer = name == "FileFailedWrite" || name == "FileFailedRead";
    if (!isTold && !(isTransfer && got.rfind("std::bad_alloc", 0) == 0)) {
      ADD_FAILURE() << "no failure was reported; the operation came to \"" << got << '"';
    }
  }
}

struct Operation {
  const char* name;
  std::function<std::string()> run;
};

void PrintTo(const Operation& operation, std::ostream* stream) {
  *stream << operation.name;
}

struct Grouping : std::numpunct<char> {
  char do_thousands_sep() const override {
    return '\'';
  }
  std::string do_grouping() const override {
    return "\3";
  }
};

SerialPort& Port() {
  static SerialPort port("/dev/ttyS2", true);
  port.SetBaudRate(SerialPort::BAUD_9600);
  return port;
}

std::string Setting(const std::function<void()>& set) {
  set();
  return "done";
}

/// Runs @p operation while this process gets no more descriptors.
std::string WithoutDescriptors(const std::function<void()>& operation) {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit none{0, limit.rlim_max};
  ::setrlimit(RLIMIT_NOFILE, &none);
  try {
    operation();
  } catch (...) {
    ::setrlimit(RLIMIT_NOFILE, &limit);
    throw;
  }
  ::setrlimit(RLIMIT_NOFILE, &limit);
  return "done";
}

/// Runs @p operation on a port that is closed.
std::string OnClosedPort(const std::function<void(SerialPort&)>& operation) {
  SerialPort port("/dev/ttyS0", true);
  port.Close();
  operation(port);
  return "done";
}

const Operation kOperations[] = {
    {"FailedWriteLoop", [] { return Setting([] { WriteLoop(-1, "x", 1); }); }},
    {"FailedReadLoop",
     [] {
       char byte = 0;
       ReadLoop(-1, &byte, 1);
       return std::string(1, byte);
     }},
    {"FailedDebugSleep", [] { return Setting([] { DebugSleep(-1); }); }},
    {"FailedInstallSignalHandler", [] { return Setting([] { InstallSignalHandler(-1, nullptr); }); }},
    {"FailedDeactivateSignal", [] { return Setting([] { DeactivateSignalP(-1); }); }},
    {"FailedSysinfo", [] { return Setting([] { sysinfo_e(reinterpret_cast<struct sysinfo*>(8)); }); }},
    {"FailedMmap", [] { return Setting([] { mmap_e(nullptr, 0, 0, 0, -1, 0); }); }},
    {"FailedMemoryRead", [] { return WithoutDescriptors([] { ReadFromPhysicalMemoryAddress(0x80011000); }); }},
    {"FailedMemoryWrite", [] { return WithoutDescriptors([] { WriteToPhysicalMemoryAddress(0x80011000, 1); }); }},
    {"FailedDlsym", [] { return Setting([] { dlsym_e(RTLD_NEXT, "there_is_no_symbol_of_this_name"); }); }},
    {"DlsymWithoutHandle", [] { return Setting([] { dlsym_e(nullptr, "symbol"); }); }},

    {"FileOpening", [] { return Setting([] { const File file("/proc/self/status", O_RDONLY, 0); }); }},
    {"FileOpeningOfNone", [] { return Setting([] { const File file(kMissing, O_RDONLY, 0); }); }},
    {"FileAdoptingNoStream", [] { return Setting([] { const File file(static_cast<std::FILE*>(nullptr)); }); }},
    {"FileAdopting", [] { return Setting([] { const File file(::open("/proc/self/mountinfo", O_RDONLY)); }); }},
    {"FileExists", [] { return std::to_string(static_cast<int>(File::Exists("/proc/self/status"))); }},
    {"FileReadLink", [] { return File::ReadLink("/proc/self/exe"); }},
    {"FileReadLinkOfNone", [] { return File::ReadLink(kMissing); }},
    {"FileFailedWrite", [] { return Setting([] { File("/dev/full", O_WRONLY, 0).PutString("x"); }); }},
    {"FileFailedRead",
     [] {
       unsigned char byte = 0;
       File("/dev/null", O_RDONLY, 0).ReadBytes(&byte, 1);
       return std::string();
     }},
    {"FileFailedSeek", [] { return std::to_string(File("/dev/null", O_RDONLY, 0).Seek(0, -1)); }},
    {"FileFailedIoctl", [] { return std::to_string(File("/dev/null", O_RDONLY, 0).Ioctl(0)); }},

    {"WatchDogWithoutDevice", [] { return Setting([] { WatchDog(30, kMissing).Activate(); }); }},
    {"WatchDogOnADeviceThatIsNone", [] { return Setting([] { WatchDog(30, "/dev/null").Activate(); }); }},
    {"WatchDogFeedingWhileInactive", [] { return Setting([] { WatchDog(30, kMissing).Feed(); }); }},
    {"WatchDogRefusedInterval", [] { return Setting([] { WatchDog(30, kMissing).SetInterval(0); }); }},
    {"WatchDogFailedInterval", [] { return Setting([] { WatchDog(30, kMissing).SetInterval(30); }); }},
    {"WatchDogUnknownInterval", [] { return std::to_string(WatchDog(30, kMissing).GetInterval()); }},

    {"SerialPortOpening", [] { return Setting([] { const SerialPort port("/dev/ttyS2", true); }); }},
    {"SerialPortOpeningOfNone", [] { return Setting([] { const SerialPort port(kMissing, true); }); }},
    {"SerialPortReport", [] { return Port().ToString(); }},
    {"SerialPortReportWithACustomSpeed",
     [] {
       Port().SetCustomBaudRate(115200);
       std::string report = Port().ToString();
       Port().SetCustomBaudRate(0);
       return report;
     }},
    {"SerialPortReportInALocaleThatGroupsDigits",
     [] {
       // Made once: how often a locale allocates is up to the C++ library.
       static const std::locale grouping(std::locale::classic(), new Grouping);
       const std::locale before = std::locale::global(grouping);
       std::string report;
       std::exception_ptr failure;
       try {
         report = Port().ToString();
       } catch (...) {
         failure = std::current_exception();
       }
       std::locale::global(before);
       if (failure) {
         std::rethrow_exception(failure);
       }
       return report;
     }},
    {"SerialPortReportOfAClosedPort",
     [] {
       SerialPort port("/dev/ttyS0", true);
       port.Close();
       return port.ToString();
     }},
    {"SerialPortOpenedTwice",
     [] {
       return Setting([] {
         Port().Open(SerialPort::BAUD_9600, SerialPort::CHAR_SIZE_8, SerialPort::PARITY_NONE, SerialPort::STOP_BITS_1,
                     SerialPort::FLOW_CONTROL_NONE);
       });
     }},
    {"SerialPortClosedTwice", [] { return OnClosedPort([](SerialPort& port) { port.Close(); }); }},
    {"SerialPortWriteWhileClosed", [] { return OnClosedPort([](SerialPort& port) { port.Write("x"); }); }},
    {"SerialPortReadWhileClosed", [] { return OnClosedPort([](SerialPort& port) { port.ReadOneByte(); }); }},
    {"SerialPortFlushWhileClosed", [] { return OnClosedPort([](SerialPort& port) { port.FlushInput(); }); }},
    {"SerialPortCountingWhileClosed",
     [] { return OnClosedPort([](SerialPort& port) { port.AvailableBytesToRead(); }); }},
    {"SerialPortSpeedWhileClosed",
     [] { return OnClosedPort([](SerialPort& port) { port.SetBaudRate(SerialPort::BAUD_9600); }); }},
    {"SerialPortLoopbackWhileClosed", [] { return OnClosedPort([](SerialPort& port) { port.SetLoopback(true); }); }},
    {"SerialPortReadyToReceiveWhileClosed",
     [] { return OnClosedPort([](SerialPort& port) { port.ReadyForReceive(true); }); }},
    {"SerialPortFlushOfTheOutputWhileClosed",
     [] { return OnClosedPort([](SerialPort& port) { port.FlushOutput(); }); }},
    {"SerialPortFlushOfBothWhileClosed",
     [] { return OnClosedPort([](SerialPort& port) { port.FlushInputAndOutput(); }); }},
    {"SerialPortDrainingWhileClosed",
     [] { return OnClosedPort([](SerialPort& port) { port.ReadAllAvailableData(); }); }},
    {"SerialPortGetSpeedWhileClosed", [] { return OnClosedPort([](SerialPort& port) { port.GetBaudRate(); }); }},
    {"SerialPortCharacterSizeWhileClosed",
     [] { return OnClosedPort([](SerialPort& port) { port.SetCharSize(SerialPort::CHAR_SIZE_8); }); }},
    {"SerialPortGetSettingsWhileClosed",
     [] {
       return OnClosedPort([](SerialPort& port) {
         termios settings{};
         port.GetTheCurrentPortSettings(settings);
       });
     }},
    {"SerialPortDirectReadWhileClosed",
     [] {
       return OnClosedPort([](SerialPort& port) {
         unsigned char byte = 0;
         port.Read(&byte, 1);
       });
     }},
    {"SerialPortRefusedSpeed",
     [] { return Setting([] { Port().SetBaudRate(static_cast<SerialPort::BaudRate>(12345)); }); }},
    {"SerialPortRefusedParity", [] { return Setting([] { Port().SetParity(static_cast<SerialPort::Parity>(3)); }); }},
    {"SerialPortRefusedStopBits",
     [] { return Setting([] { Port().SetNumOfStopBits(static_cast<SerialPort::StopBits>(2)); }); }},
    {"SerialPortRefusedFlowControl",
     [] { return Setting([] { Port().SetFlowControl(static_cast<SerialPort::FlowControl>(3)); }); }},
    {"SerialPortFailedSettings",
     [] {
       return OnClosedPort([](SerialPort& port) { port.SetPortSettings(termios{}, "Invalid something or other."); });
     }},
    {"SerialPortBufferedRead",
     [] {
       SerialPort port("/dev/ttyS0", true);
       port.SetBaudRate(SerialPort::BAUD_115200);
       port.SetLoopback(true);
       port.FlushInputAndOutput();
       const std::string sent = "a text that comes back through the loopback";
       port.Write(sent);
       std::vector<unsigned char> out;
       while (out.size() < sent.size()) {
         port.IsDataReceived(-1);
         port.ReadAllAvailableData();
         std::vector<unsigned char> more;
         port.Read(more, 0);
         out.insert(out.end(), more.begin(), more.end());
       }
       return std::string(out.begin(), out.end());
     }},
    {"SerialPortReadOfTooMuch",
     [] {
       std::vector<unsigned char> out;
       Port().Read(out, 1);
       return std::string();
     }},

    {"ExecCmd", [] { return OpSystem().ExecCmd("echo a line that needs memory", false); }},
    {"FailedExecCmd", [] { return OpSystem().ExecCmd("echo a line that needs memory; false", false); }},
    {"ExecCmdWithoutAPipe",
     [] {
       OpSystem opSystem;
       opSystem.ExecCmd("true", false);  // a sanitizer, too, takes a pipe to look at an object for the first time
       return WithoutDescriptors([&] { opSystem.ExecCmd("true", false); });
     }},

    {"TracebackText", [] { return linuxutils::Traceback().empty() ? "nothing" : "something"; }},
    {"DemangledNestedName", [] { return linuxutils::Demangle("(_ZN10linuxutils9TracebackEi+0x1c)"); }},
    {"DemangledSignature", [] { return linuxutils::Demangle("./program(_Z9WriteLoopiPKvj+0x1c) [0x1234]"); }},
    {"RecursionNote",
     [] {
       std::string text(15, 'x');
       linuxutils::AppendRecurionNote(text, 7);
       return text;
     }},
};

class OutOfMemory : public testing::TestWithParam<Operation> {};

TEST_P(OutOfMemory, IsToldWhicheverAllocationFails) {
  EXPECT_GT(FailEachAllocation(GetParam().name, GetParam().run), 0U);
}

INSTANTIATE_TEST_SUITE_P(Each, OutOfMemory, testing::ValuesIn(kOperations),
                         [](const auto& info) { return std::string(info.param.name); });

class OutOfMemoryNetwork : public testing::Test {
 protected:
  OutOfMemoryNetwork() {
    m_ip.Answer(
        "addr show dev eth0",
        "2: eth0: <UP> mtu 1500\n    link/ether 02:00:00:00:00:01 brd ff:ff:ff:ff:ff:ff\n    inet 192.0.2.10/24 x\n");
    m_ip.Answer("-6 route show", "default via 2001:db8::1 dev eth0 metric 1024 \n");
    m_ip.Answer("-4 route show", "default via 192.0.2.100 dev eth0 \n");
  }

  static std::string Text(const IpNet::Record& record) {
    std::string text;
    for (const auto& [key, value] : record) {
      text += key + '=' + value + ' ';
    }
    return text;
  }

  ScriptedIp m_ip;
  OpSystem m_opSystem;
};

TEST_F(OutOfMemoryNetwork, IsToldWhicheverAllocationOfAQueryOrAChangeFails) {
  const Operation operations[] = {
      {"GetIfaceInfo", [&] { return Text(IpNet(m_opSystem).GetIfaceInfo("eth0")); }},
      {"GetGwInfo", [&] { return Text(IpNet(m_opSystem).GetGwInfo(false)); }},
      {"SetAddr",
       [&] {
         return std::to_string(static_cast<int>(IpNet(m_opSystem).SetAddr("eth0", "192.0.2.77", 24, false, false)));
       }},
      {"SetAddrToLinkLocal",
       [&] { return std::to_string(static_cast<int>(IpNet(m_opSystem).SetAddr("eth0", "::", 64, true, true))); }},
      {"SetGw",
       [&] { return std::to_string(static_cast<int>(IpNet(m_opSystem).SetGw("eth0", "192.0.2.177", false, false))); }},
      {"SetGwOfIpV6WithAFlush",
       [&] { return std::to_string(static_cast<int>(IpNet(m_opSystem).SetGw("eth0", "2001:db8::177", true, true))); }},
      {"GetValue",
       [] {
         std::string value;
         IpNet::GetValue("a text with a-word-that-is-long-enough", "with", 0, value, true);
         return value;
       }},
      {"GetPosOfValue",
       [] { return std::to_string(IpNet::GetPosOfValue("a text with a-word-that-is-long-enough", "with", 0, true)); }},
      {"GetDebugOutput",
       [&] {
         IpNet net(m_opSystem);
         net.SetDebugState(true);
         net.GetGwInfo(false);
         return net.GetDebugOutput();
       }},
      {"GetValues", [] { return Text(IpNet::GetValues("with a-word-that-is-long-enough", {"with"}, {true})); }},
      {"GetLinkLocalAddr", [] { return IpNet::GetLinkLocalAddr("02:00:00:00:00:01"); }},
      {"GetIpV4NetAddr", [] { return IpNet::GetIpV4NetAddr("192.0.2.10.and.much.more", 24); }},
  };
  for (const Operation& operation : operations) {
    EXPECT_GT(FailEachAllocation(operation.name, operation.run), 0U) << operation.name;
  }
}

TEST_F(OutOfMemoryNetwork, LeavesTheDebugTraceWholeAndAlive) {
  const std::string name = "eth0-with-a-long-name-behind-it";
  const std::string line = "ip addr show dev " + name + '\n';
  // Where in a line the text has to grow depends on how long it is already.
  for (const int earlierLines : {0, 1, 2, 3}) {
    bool hasFailed = true;
    for (std::size_t which = 0; hasFailed; ++which) {
      SCOPED_TRACE(std::to_string(earlierLines) + " lines, allocation " + std::to_string(which));
      IpNet net(m_opSystem);
      net.SetDebugState(true);
      for (int i = 0; i < earlierLines; ++i) {
        net.GetIfaceInfo(name);
      }
      const std::string before = net.GetDebugOutput();
      bool isTold = false;
      {
        const FailingAllocation failing(which);
        try {
          net.GetIfaceInfo(name);
        } catch (const std::bad_alloc&) {
          isTold = true;
        }
        hasFailed = failing.HasFailed();
      }
      EXPECT_EQ(isTold, hasFailed);
      const std::string trace = net.GetDebugOutput();
      EXPECT_TRUE(trace == before || trace == before + line) << trace;
      net.GetIfaceInfo(name);
      EXPECT_EQ(net.GetDebugOutput(), trace + line);
    }
  }
}

}  // namespace
