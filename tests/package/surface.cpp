// Uses everything that the headers declare, so that linking it shows that nothing is missing from the library. Never
// called.

#include <File.h>
#include <IpNet.h>
#include <OpSystem.h>
#include <SerialPort.h>
#include <SystemCalls.h>
#include <WatchDog.h>
#include <linuxutils.h>

namespace surface {

void UseFreeFunctions() {
  WriteLoop(1, "", 0);
  ReadLoop(0, nullptr, 0);
  DebugSleep(0);
  InstallSignalHandler(0, nullptr);
  DeactivateSignalP(0);
  GetProcSchedPolicyName(0);
  LinuxGetThreadId();
  WriteToPhysicalMemoryAddress(0, ReadFromPhysicalMemoryAddress(0));
  sysinfo_e(nullptr);
  munmap_a(mmap_e(nullptr, 0, 0, 0, -1, 0), 0);
  dlsym_e(nullptr, nullptr);
  std::string text = linuxutils::Demangle("");
  linuxutils::AppendRecurionNote(text, 0);
  linuxutils::Traceback(0);
  linuxutils::Traceback();
}

void UseFile() {
  File byPath("", 0, 0);
  File byStream(static_cast<std::FILE*>(nullptr));
  File byDescriptor(-1);
  byPath.Init();
  File::Exists("");
  byPath.GetFileHandle();
  byPath.EndOfFile();
  byPath.WriteBytes(nullptr, 0);
  byPath.PutString("");
  byPath.ReadBytes(nullptr, 0);
  File::ReadLink("");
  byPath.Seek(0, 0);
  byPath.Ioctl(0);
}

void UseWatchDog() {
  WatchDog dog(0, "");
  dog.Activate();
  dog.Feed();
  dog.SetInterval(dog.GetInterval());
  dog.Deactivate();
}

void UseSerialPort() {
  SerialPort port("", false);
  port.OpenSerialPortDevice();
  port.Open(port.GetBaudRate(), port.GetCharSize(), port.GetParity(), port.GetNumOfStopBits(), port.GetFlowControl());
  port.IsOpen();
  port.Close();
  port.SetBaudRate(SerialPort::ConversionToBaudrateEnum(0));
  port.SetCustomBaudRate(port.GetCustomBaudRate());
  port.SetCharSize(SerialPort::CHAR_SIZE_8);
  port.SetParity(SerialPort::PARITY_NONE);
  port.SetNumOfStopBits(SerialPort::STOP_BITS_1);
  port.SetFlowControl(SerialPort::FLOW_CONTROL_NONE);
  port.SetLoopback(false);
  port.ReadyForReceive(false);
  SerialPort::BaudRateToPrintableNumber(0);
  termios settings;
  port.GetTheCurrentPortSettings(settings);
  port.SetPortSettings(settings, "");
  port.Write(nullptr, 0);
  port.Write("");
  port.Read(nullptr, 0);
  port.ReadOneByte();
  port.IsDataReceived(0);
  port.ReadAllAvailableData();
  port.IsDataAvailable();
  std::vector<unsigned char> bytes;
  port.Read(bytes, 0);
  port.AvailableBytesToRead();
  port.FlushInput();
  port.FlushOutput();
  port.FlushInputAndOutput();
  port.ToString();
}

void UseIpNet() {
  OpSystem os;
  os.ExecCmd("", false);
  IpNet net(os);
  IpNet::Record record = net.GetIfaceInfo("");
  record = net.GetGwInfo(false);
  net.SetAddr("", "", 0, false, false);
  net.SetGw("", "", false, false);
  net.SetDebugState(net.IsDebugActive());
  net.ClearDebug();
  std::string text = net.GetDebugOutput();
  IpNet::GetIpV4NetAddr("", 0);
  IpNet::GetLinkLocalAddr("");
  IpNet::GetPosOfValue("", "", IpNet::npos, false);
  IpNet::GetValue("", "", 0, text, false);
  IpNet::GetValues("", {}, {});
  IpNet::FoundInMap(record, record, false);
}

}  // namespace surface
