#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <exception>
#include <limits>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <system_error>

#include "BusError.h"
#include "Check.h"
#include "Groups.h"
#include "Port.h"
#include "Processes.h"
#include "SerialPorts.h"
#include "Source.h"
#include "Status.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kPutBack =
    "nothing: the line's settings are restored when the program ends, also by SIGINT, SIGTERM, SIGHUP or SIGQUIT. A "
    "driver may drop DTR and RTS then.";

std::string Rate(double perSecond) {
  return Fixed(perSecond, 0) + " B/s";
}

// --- list

int List(Call& call) {
  std::string bare;
  const std::vector<SerialDevice> devices = SerialDevices();
  for (const SerialDevice& device : devices) {
    const auto holders = processes::HoldersOf(device.path);
    Json object = {{"device", device.path},
                   {"driver", device.driver.empty() ? Json() : Json(device.driver)},
                   {"has_uart", device.hasUart ? Json(*device.hasUart) : Json()}};
    processes::AddTo(object, holders);
    call.out.Object("serial_port", object);
    if (device.hasUart == false) {
      bare += ' ' + device.path;
      continue;
    }
    call.out.Line(device.path + std::string(device.path.size() < 16 ? 16 - device.path.size() : 1, ' ') +
                  (device.driver.empty() ? "driver unknown" : device.driver) + ", open by " +
                  processes::InWords(holders));
  }
  if (!bare.empty()) {
    call.out.Say("Nodes without a UART:" + bare);
  }
  if (devices.empty()) {
    call.out.Say("There is no serial port in /dev.");
  }
  return kStatusDone;
}

// --- show

std::string Names(const Json& flags) {
  std::string names;
  for (const auto& [name, isUp] : flags.items()) {
    names += isUp.get<bool>() ? ' ' + name : "";
  }
  return flags.is_null() ? " unknown" : names.empty() ? " none" : names;
}

std::string Numbers(const Json& numbers) {
  std::string text;
  for (const auto& [name, number] : numbers.items()) {
    text += ' ' + name + '=' + number.dump();
  }
  return numbers.is_null() ? " unknown" : text;
}

int Show(const std::string& device, Call& call) {
  const Tty tty(device);
  const Tty::Settings settings = tty.Read();
  const Json lines = tty.ModemLines();
  const Json counters = tty.Counters();
  const Json uart = tty.Uart();
  const auto holders = processes::HoldersOf(device);

  std::string speed = std::to_string(settings.speedBps) + " bit/s";
  if (settings.inputSpeedBps != settings.speedBps) {
    speed += " out, " + std::to_string(settings.inputSpeedBps) + " in";
  }
  call.out.Line(device);
  call.out.Line("  speed        " + speed);
  call.out.Line("  format       " + std::to_string(settings.dataBits) + " data bits, parity " + settings.parity + ", " +
                std::to_string(settings.stopBits) + " stop bit" + (settings.stopBits == 1 ? "" : "s") +
                (settings.isRaw ? ", raw" : ", not raw: lines are edited and echoed by the kernel"));
  call.out.Line("  flow         " + settings.flow);
  call.out.Line("  lines up    " + Names(lines));
  call.out.Line("  counted     " + Numbers(counters));
  call.out.Line("  UART        " + Numbers(uart));
  call.out.Line("  open by      " + processes::InWords(holders));
  Json object = {{"device", device},
                 {"speed_bps", settings.speedBps},
                 {"input_speed_bps", settings.inputSpeedBps},
                 {"data_bits", settings.dataBits},
                 {"parity", settings.parity},
                 {"stop_bits", settings.stopBits},
                 {"flow", settings.flow},
                 {"raw", settings.isRaw},
                 {"lines", lines},
                 {"counters", counters},
                 {"uart", uart}};
  processes::AddTo(object, holders);
  call.out.Object("serial_settings", object);
  return kStatusDone;
}

// --- report

int Report(const LineOptions& line, Call& call) {
  Port port(line, call.out);
  TellBusErrors("serial report", &port.Side());
  const std::string report = port->ToString();
  call.out.Line(report.substr(0, report.find_last_not_of('\n') + 1));
  call.out.Object("serial_report", {{"device", line.device}, {"report", report}});
  return kStatusDone;
}

// --- send

struct SendArguments {
  LineOptions line;
  std::string file = "-";
  bool isHex = false;
};

/// Bytes from hexadecimal digits, two each; blanks may stand between bytes. It keeps half a byte for the next piece.
class HexReader {
 public:
  std::vector<unsigned char> Read(const std::vector<unsigned char>& text) {
    std::vector<unsigned char> bytes;
    for (const unsigned char character : text) {
      const int digit = DigitOf(character);
      const bool isBlank = character == ' ' || character == '\t' || character == '\n' || character == '\r';
      if (digit < 0 && (!isBlank || m_half != kNone)) {
        throw std::runtime_error(
            "The input is not hexadecimal: two digits per byte, with or without blanks between bytes");
      }
      if (isBlank) {
        continue;
      }
      if (m_half != kNone) {
        bytes.push_back(static_cast<unsigned char>(m_half * 16 + digit));
        m_half = kNone;
      } else {
        m_half = digit;
      }
    }
    return bytes;
  }
  void End() const {
    if (m_half != kNone) {
      throw std::runtime_error("The input is not hexadecimal: its last byte has one digit");
    }
  }

 private:
  static constexpr int kNone = -1;

  static int DigitOf(unsigned char character) {
    if (character >= '0' && character <= '9') {
      return character - '0';
    }
    const int lower = character | 0x20;
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : kNone;
  }

  int m_half = kNone;  // the first digit of a byte
};

/// Waits until the driver takes more: a blocked writer could not say so. False if a signal comes first.
bool WaitForRoom(const Port& port, Standstill& standstill) {
  while (signals::Caught() == 0 && !port.Side().HasRoom(Standstill::kLookMs)) {
    standstill.Look(port.Side().Waiting());
  }
  return signals::Caught() == 0;
}

/// How far sending has come.
struct Sending {
  std::uint64_t total = 0;    // bytes of the input; 0 if that is not known
  std::uint64_t read = 0;     // of these
  std::uint64_t written = 0;  // bytes given to the port: of hexadecimal input, fewer

  /// @p waiting: how many of the written bytes the driver has not sent yet.
  void Show(std::uint32_t waiting, Output& out) const {
    const std::uint64_t unsent = std::min<std::uint64_t>(waiting, written);
    out.Progress(written == 0 ? 0 : read - read * unsent / written, total, "B");
  }
};

/// Waits until what was written is on the line, and shows how far it has come.
void WaitUntilSent(const Port& port, const Sending& sending, Standstill& standstill, Output& out) {
  while (signals::Caught() == 0) {
    const std::uint32_t waiting = port.Side().Waiting();
    if (waiting == 0 && port.Side().Drain()) {
      return;
    }
    sending.Show(waiting, out);
    standstill.Look(waiting);
    signals::Wait(Standstill::kLookMs);
  }
}

/// How many of the written bytes have certainly not been sent. Unknown for a line that was hung up.
std::uint64_t Unsent(const Port& port) {
  // A writer may add bytes after the signal discarded those before: they wait in the driver until the end.
  try {
    return std::uint64_t{signals::DiscardsOutput::Bytes()} + port.Side().Waiting();
  } catch (const std::system_error&) {
    return signals::DiscardsOutput::Bytes();
  }
}

/// Sends all of @p source; what it has written so far counts also when that fails.
void SendAll(Source& source, Port& port, bool isHex, Sending& sending, Output& out) {
  HexReader hex;
  Standstill standstill(out);
  for (;;) {
    std::vector<unsigned char> bytes = source.Read();
    if (bytes.empty()) {
      break;
    }
    const std::size_t size = bytes.size();
    if (isHex) {
      bytes = hex.Read(bytes);
    }
    if (!WaitForRoom(port, standstill)) {
      break;
    }
    port->Write(bytes.data(), static_cast<unsigned int>(bytes.size()));
    sending.read += size;
    sending.written += bytes.size();
    sending.Show(0, out);
  }
  if (isHex && signals::Caught() == 0) {
    hex.End();
  }
  WaitUntilSent(port, sending, standstill, out);
}

int Send(const SendArguments& arguments, Call& call) {
  Source source(arguments.file);
  Sending sending;
  sending.total = source.Size();
  Port port(arguments.line, call.out);
  const auto start = Clock::now();
  std::exception_ptr failure;
  try {
    SendAll(source, port, arguments.isHex, sending, call.out);
  } catch (const std::exception&) {
    failure = std::current_exception();
  }

  const double seconds = SecondsSince(start);
  const bool isSignalled = signals::Caught() != 0;
  const bool isWhole = !failure && !isSignalled;
  const std::uint64_t unsent = isWhole ? 0 : Unsent(port);
  const std::uint64_t sent = sending.written - std::min(unsent, sending.written);
  const double rate = seconds > 0 ? static_cast<double>(sent) / seconds : 0;
  const bool isUnknown = sending.total == 0 || arguments.isHex;  // how many they should be
  call.out.Line((isWhole   ? "sent "
                 : failure ? "failed: sent at most "
                           : "stopped: sent at most ") +
                std::to_string(sent) + " bytes" + (isWhole || isUnknown ? "" : " of " + std::to_string(sending.total)) +
                " in " + Fixed(seconds, 2) + " s, " + Rate(rate));
  call.out.Object("serial_send", {{"device", arguments.line.device},
                                  {"speed_bps", arguments.line.speedBps},
                                  {"size_bytes", sent},
                                  {"t_s", seconds},
                                  {"ended", failure   ? "failure"
                                            : isWhole ? "whole"
                                                      : "signal"}});
  if (failure) {
    std::rethrow_exception(failure);
  }
  if (!isWhole) {
    call.out.Warn("boardctl: what was not sent yet was discarded; the line's settings are restored");
  }
  return kStatusDone;
}

// --- receive

enum class Stamps { kNone, kRelative, kAbsolute };

struct ReceiveArguments {
  LineOptions line;
  std::uint64_t count = 0;
  std::string until;
  std::uint64_t idleMs = 0;
  bool isHex = false;
  Stamps stamps = Stamps::kNone;
};

/// Shows received bytes: as they are, or in lines with their time, or as hexadecimal digits.
class Printer {
 public:
  Printer(const ReceiveArguments& arguments, Output& out) : m_arguments(arguments), m_out(out), m_start(Clock::now()) {}

  void Print(const std::vector<unsigned char>& bytes) {
    if (m_out.IsJson()) {
      m_out.Object("serial_data", {{"time", Timestamp(std::chrono::system_clock::now())},
                                   {"t_s", SecondsSince(m_start)},
                                   {"hex", HexadecimalBytes(bytes.data(), bytes.size())},
                                   {"text", std::string(bytes.begin(), bytes.end())}});
      return;
    }
    constexpr std::size_t kInLine = 16;
    std::string text;
    for (const unsigned char byte : bytes) {
      if (m_inLine == 0) {
        text += Stamp();
      }
      text += m_arguments.isHex ? (m_inLine == 0 ? "" : " ") + HexadecimalBytes(&byte, 1)
                                : std::string(1, static_cast<char>(byte));
      ++m_inLine;
      if (m_arguments.isHex ? m_inLine == kInLine : byte == '\n') {
        text += m_arguments.isHex ? "\n" : "";
        m_inLine = 0;
      }
    }
    m_out.Bytes(text.data(), text.size());
  }

  /// Ends a line that has not ended; bytes as they are stay so.
  void End() {
    const bool isPlain = !m_arguments.isHex && m_arguments.stamps == Stamps::kNone;
    if (m_inLine != 0 && !isPlain) {
      m_out.Line("");
    }
  }

 private:
  std::string Stamp() const {
    constexpr int kMicroseconds = 6;
    switch (m_arguments.stamps) {
      case Stamps::kRelative:
        return '+' + Fixed(SecondsSince(m_start), kMicroseconds) + "  ";
      case Stamps::kAbsolute:
        return Timestamp(std::chrono::system_clock::now()) + "  ";
      default:
        return "";
    }
  }

  const ReceiveArguments& m_arguments;
  Output& m_out;
  Clock::time_point m_start;
  std::size_t m_inLine = 0;
};

/// Whether @p text has come; then it is what @p bytes end with. @p last holds what it may have begun in.
bool EndsWithText(const std::string& text, std::string& last, std::vector<unsigned char>& bytes) {
  const std::size_t before = last.size();
  last.append(bytes.begin(), bytes.end());
  const std::size_t at = last.find(text);
  if (at != std::string::npos) {
    bytes.resize(at + text.size() - before);
  }
  last.erase(0, last.size() - std::min(last.size(), text.size() - 1));
  return at != std::string::npos;
}

std::string WhyEnded(const std::string& ended, const std::string& silent) {
  if (ended == "idle") {
    return silent;
  }
  if (ended == "count") {
    return "all bytes have come";
  }
  if (ended == "failure") {
    return "receiving failed";
  }
  return ended == "until" ? "the text has arrived" : "a signal came; the line's settings are restored";
}

/// Takes in what comes; what has been @p received so far counts also when that fails. Returns what ended it.
std::string ReceiveAll(Port& port, const ReceiveArguments& arguments, Printer& printer, std::uint64_t& received,
                       Output& out) {
  const bool showsProgress = ::isatty(STDOUT_FILENO) == 0;  // else it would appear amid what is received
  std::string last;                                         // as much as the text that is waited for can begin in
  std::string ended;
  while (ended.empty()) {
    const int wait = arguments.idleMs == 0 ? INT_MAX : static_cast<int>(arguments.idleMs);
    if (!port.WaitForData(wait)) {
      return signals::Caught() != 0 ? "signal" : "idle";
    }
    std::vector<unsigned char> bytes = port.Read();
    if (bytes.empty()) {
      continue;
    }
    if (arguments.count != 0 && bytes.size() >= arguments.count - received) {
      bytes.resize(static_cast<std::size_t>(arguments.count - received));
      ended = "count";
    }
    if (!arguments.until.empty() && EndsWithText(arguments.until, last, bytes)) {
      ended = "until";
    }
    received += bytes.size();
    printer.Print(bytes);
    if (showsProgress) {
      out.Progress(received, arguments.count, "B");
    }
  }
  return ended;
}

int Receive(const ReceiveArguments& arguments, Call& call) {
  Port port(arguments.line, call.out);
  Printer printer(arguments, call.out);
  const auto start = Clock::now();
  std::uint64_t received = 0;
  std::string ended = "failure";
  std::exception_ptr failure;
  try {
    ended = ReceiveAll(port, arguments, printer, received, call.out);
  } catch (const OutputClosed&) {
    throw;
  } catch (const std::exception&) {
    failure = std::current_exception();
  }
  printer.End();

  const double seconds = SecondsSince(start);
  call.out.Object("serial_receive", {{"device", arguments.line.device},
                                     {"speed_bps", arguments.line.speedBps},
                                     {"size_bytes", received},
                                     {"t_s", seconds},
                                     {"ended", ended}});
  const bool isMissed = ended == "idle" && (arguments.count != 0 || !arguments.until.empty());
  const std::string silent = "the far end was silent for " + std::to_string(arguments.idleMs) + " ms";
  if (isMissed) {
    throw std::runtime_error(
        silent + " after " + std::to_string(received) + " bytes" +
        (arguments.count == 0 ? ", and the text did not arrive" : " of " + std::to_string(arguments.count)));
  }
  call.out.Say("boardctl: received " + std::to_string(received) + " bytes in " + Fixed(seconds, 2) +
               " s: " + WhyEnded(ended, silent));
  if (failure) {
    std::rethrow_exception(failure);
  }
  return kStatusDone;
}

constexpr const char* kNoTerminal = "For a conversation by keyboard, use a terminal program such as picocom or tio.";

void AddSend(Program& program, CLI::App& group) {
  const auto arguments = std::make_shared<SendArguments>();
  static const std::string kDetails =
      std::string(
          "It ends when all has gone out on the line. A signal discards what has not, and says so. "
          "Only what is received gets time stamps: see serial receive --timestamps. ") +
      kNoTerminal;
  CLI::App& verb = program.AddVerb(&group,
                                   {"send", "Sends a file, or standard input", "DEVICE [FILE] [OPTION]...", "",
                                    kDetails.c_str(), "serial send /dev/ttyS1 firmware.bin --speed 921600", kPutBack},
                                   [arguments](Call& call) { return Send(*arguments, call); });
  AddDevice(verb, arguments->line.device);
  AddArgument(verb, "FILE", "", arguments->file, check::Path, "the bytes; - or nothing for standard input");
  AddSpeed(verb, arguments->line);
  AddFormat(verb, arguments->line);
  AddFlag(verb, "--hex", arguments->isHex, "FILE has hexadecimal digits, two per byte: 48 65 6C");
}

void AddReceive(Program& program, CLI::App& group) {
  constexpr std::uint64_t kLongestMs = std::uint64_t{24} * 3600 * 1000;
  const auto arguments = std::make_shared<ReceiveArguments>();
  static const std::string kDetails =
      std::string(
          "It ends at the first of --count, --until and --idle, or at a signal, and says at which. If the far end "
          "falls "
          "silent (--idle) before what --count or --until asks for has come, the status is 1. ") +
      kNoTerminal;
  CLI::App& verb = program.AddVerb(&group,
                                   {"receive", "Prints what comes in", "DEVICE [OPTION]...", "", kDetails.c_str(),
                                    "serial receive /dev/ttyS1 --until login: --idle 5000", kPutBack},
                                   [arguments](Call& call) { return Receive(*arguments, call); });
  AddLine(verb, arguments->line);
  AddArgument(
      verb, "--count", "N", arguments->count,
      [](const std::string& text) { return check::Decimal(text, 1, std::numeric_limits<std::uint64_t>::max()); },
      "end after N bytes");
  AddArgument(
      verb, "--until", "TEXT", arguments->until,
      [](const std::string& text) { return check::NotEmpty(text, "a text to wait for"); }, "end when TEXT has arrived");
  AddArgument(
      verb, "--idle", "MS", arguments->idleMs,
      [](const std::string& text) { return check::Decimal(text, 1, kLongestMs); },
      "end when nothing has arrived for MS milliseconds");
  AddFlag(verb, "--hex", arguments->isHex, "as hexadecimal digits, 16 bytes per line");
  static const std::map<std::string, Stamps> kStamps = {{"relative", Stamps::kRelative},
                                                        {"absolute", Stamps::kAbsolute}};
  AddArgument(
      verb, "--timestamps", "KIND", arguments->stamps,
      [](const std::string& text) { return check::OneOf(text, kStamps); },
      "before each line the time its first byte came: relative (seconds since the start) or absolute");
}

}  // namespace

void AddSerial(Program& program) {
  CLI::App& group = program.AddGroup("serial", "serial ports: list, show, report, send, receive, test");
  program.AddVerb(&group,
                  {"list", "Lists the serial ports, their drivers and who has them open", "[OPTION]...", "",
                   "No port is opened. Only root sees the programs of other users.", "serial list",
                   "nothing; no device is opened."},
                  List);

  const auto device = std::make_shared<std::string>();
  CLI::App& show = program.AddVerb(
      &group,
      {"show", "Shows a port's settings, modem lines and counters", "DEVICE [OPTION]...", "",
       "The settings stay as they are, but opening a port raises DTR and RTS, which some devices take for a reset.",
       "serial show /dev/ttyS1", "nothing. A driver may drop DTR and RTS when the program ends."},
      [device](Call& call) { return Show(*device, call); });
  AddDevice(show, *device);

  const auto line = std::make_shared<LineOptions>();
  CLI::App& report = program.AddVerb(
      &group,
      {"report", "Prints the library's diagnostic report of a port", "DEVICE [OPTION]...",
       "THE REGISTERS OF THE BOARD'S UART ARE TOUCHED, whichever port DEVICE is; what that UART receives meanwhile is "
       "lost.",
       "It needs root and /dev/mem. From the flags on, numbers are hexadecimal, but for the last line.",
       "serial report /dev/ttyS1",
       "nothing: the line's settings are restored. But if DEVICE is not on the board's own UART, that UART's access "
       "bit stays set, and its data registers are hidden until its driver sets the line up anew."},
      [line](Call& call) { return Report(*line, call); });
  AddLine(report, *line);

  AddSend(program, group);
  AddReceive(program, group);
  AddSerialTest(program, group);
}
