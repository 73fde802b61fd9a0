#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <system_error>

#include "Check.h"
#include "Comparison.h"
#include "Groups.h"
#include "Plot.h"
#include "Port.h"
#include "Program.h"
#include "Signals.h"
#include "Status.h"

namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<unsigned char>;

/// The standard speeds from 9600 on: what is tried if nothing else is asked for.
constexpr std::uint32_t kStandardSpeeds[] = {9600,   19200,  38400,   57600,   115200,  230400,  460800,  500000,
                                             576000, 921600, 1000000, 1152000, 1500000, 2000000, 2500000, 3000000};

struct TestArguments {
  LineOptions line;
  std::vector<std::uint32_t> speeds;
  bool isInternal = false;
  std::uint64_t size = 0;  // 0: by the speed
  std::uint64_t turns = 50;
  std::string svg;
};

/// What was measured at one speed.
struct Measurement {
  std::uint32_t speedBps = 0;
  std::uint32_t runsAtBps = 0;
  bool isPossible = true;
  Comparison block;
  double blockSeconds = 0;
  double limit = 0;            // bytes a second that the line can carry
  std::vector<double> turnUs;  // of single bytes
  std::uint64_t turnsLost = 0;
  std::string verdict = "failed";

  double Throughput() const {
    return blockSeconds > 0 ? static_cast<double>(block.received) / blockSeconds : 0;
  }
  double TurnAt(double part) const {
    return turnUs.empty() ? 0 : turnUs[static_cast<std::size_t>(part * static_cast<double>(turnUs.size() - 1))];
  }
};

Bytes PseudoRandom(std::uint64_t size, std::uint32_t seed, SerialPort::CharacterSize bits) {
  std::mt19937 generator(seed);
  constexpr unsigned int kSmallest = 5;
  constexpr unsigned int kSizeStep = SerialPort::CHAR_SIZE_6;
  const unsigned int mask = (1U << (kSmallest + static_cast<unsigned int>(bits) / kSizeStep)) - 1;
  Bytes bytes(static_cast<std::size_t>(size));
  for (unsigned char& byte : bytes) {
    byte = static_cast<unsigned char>(generator() & mask);
  }
  return bytes;
}

/// The line for the time that some bytes take on it, there and back, and for the far end's delay.
int PatienceMs(double limit, double bytes) {
  constexpr double kThinking = 500;
  constexpr double kMs = 1000;
  return static_cast<int>(kThinking + 4 * kMs * bytes / limit);
}

/// Sends a block and takes in what comes back meanwhile, until all has come or nothing comes any more.
void MeasureBlock(Port& port, const TestArguments& arguments, Measurement& measured, Output& out) {
  constexpr double kLead = 0.02;  // seconds that sending may be ahead of what comes back
  constexpr std::size_t kLeastLead = 1024;
  constexpr std::size_t kPiece = 256;
  constexpr std::uint64_t kLeast = 256;
  constexpr std::uint64_t kMost = 65536;
  const auto half = static_cast<std::uint64_t>(measured.limit / 2);
  const std::uint64_t size = arguments.size != 0 ? arguments.size : std::clamp(half, kLeast, kMost);
  Bytes sent = PseudoRandom(size, measured.speedBps, arguments.line.bits);
  const auto lead = std::max(kLeastLead, static_cast<std::size_t>(measured.limit * kLead));
  Bytes received;
  std::size_t position = 0;
  std::size_t given = 0;  // bytes given up for lost: they did not come back in time
  const auto start = Clock::now();
  auto last = start;
  while (signals::Caught() == 0 && received.size() < sent.size() + kPiece) {
    if (position < sent.size() && position < given + received.size() + lead) {
      const std::size_t piece = std::min(kPiece, sent.size() - position);
      port->Write(sent.data() + position, static_cast<unsigned int>(piece));
      position += piece;
      if (port->AvailableBytesToRead() == 0) {
        continue;
      }
    } else if (received.size() >= sent.size()) {
      // All has come; what comes now was doubled.
      constexpr int kAfterMs = 20;
      if (!port.WaitForData(kAfterMs)) {
        break;
      }
    } else if (!port.WaitForData(PatienceMs(measured.limit, static_cast<double>(lead)))) {
      if (position == sent.size() || received.empty()) {
        break;
      }
      given = position - received.size();
      continue;
    }
    const Bytes bytes = port.Read();
    received.insert(received.end(), bytes.begin(), bytes.end());
    last = Clock::now();
    out.Progress(std::min<std::uint64_t>(received.size(), size), size, "B");
  }
  measured.blockSeconds = std::chrono::duration<double>(last - start).count();
  sent.resize(position);
  measured.block = Compare(sent, received);
}

/// Sends single bytes, each when the one before has come back.
void MeasureTurns(Port& port, const TestArguments& arguments, Measurement& measured) {
  constexpr std::uint64_t kGiveUp = 3;  // of a line that answers no more
  constexpr double kMicroseconds = 1e6;
  const Bytes sent = PseudoRandom(arguments.turns, measured.speedBps + 1, arguments.line.bits);
  for (const unsigned char byte : sent) {
    if (signals::Caught() != 0 || measured.turnsLost == kGiveUp) {
      break;
    }
    port->FlushInput();
    const auto start = Clock::now();
    port->Write(&byte, 1);
    const bool hasCome = port.WaitForData(PatienceMs(measured.limit, 2));
    const Bytes come = hasCome ? port.Read() : Bytes();
    if (come.empty() || come.front() != byte) {
      measured.turnsLost += signals::Caught() == 0 ? 1U : 0U;
      continue;
    }
    measured.turnUs.push_back(SecondsSince(start) * kMicroseconds);
  }
  std::sort(measured.turnUs.begin(), measured.turnUs.end());
}

void Measure(Port& port, const TestArguments& arguments, std::uint32_t speed, Measurement& measured, Output& out) {
  measured.speedBps = speed;
  measured.isPossible = port.SetSpeed(speed);
  measured.runsAtBps = port.Side().Read().speedBps;
  measured.limit = static_cast<double>(speed) / arguments.line.BitsPerByte();
  if (!measured.isPossible) {
    measured.verdict = "not possible";
    return;
  }
  port->FlushInputAndOutput();
  MeasureBlock(port, arguments, measured, out);
  if (measured.block.received != 0 && signals::Caught() == 0) {
    MeasureTurns(port, arguments, measured);
  }
  out.EndProgress();
  const bool isGood = measured.block.bitErrors + measured.block.lost + measured.block.doubled + measured.turnsLost == 0;
  measured.verdict = signals::Caught() != 0         ? "stopped"
                     : measured.block.received == 0 ? "silent"
                     : isGood                       ? "good"
                                                    : "errors";
}

/// A cell of the table, flush right.
std::string Cell(const std::string& text, std::size_t width) {
  return (text.size() < width ? std::string(width - text.size(), ' ') : " ") + text;
}

std::string RowOf(const std::vector<std::string>& cells) {
  static constexpr std::size_t kWidths[] = {8, 8, 6, 6, 8, 9, 7, 9, 9};
  std::string row;
  for (std::size_t i = 0; i < cells.size(); ++i) {
    row += i < std::size(kWidths) ? Cell(cells[i], kWidths[i]) : "  " + cells[i];
  }
  return row;
}

std::string RowOf(const Measurement& measured) {
  if (!measured.isPossible) {
    return RowOf({std::to_string(measured.speedBps), "-", "-", "-", "-", "-", "-", "-", "-", measured.verdict});
  }
  constexpr double kPercent = 100;
  const Comparison& block = measured.block;
  const bool hasTurns = !measured.turnUs.empty();
  return RowOf({std::to_string(measured.speedBps), std::to_string(block.received), std::to_string(block.bitErrors),
                std::to_string(block.lost), std::to_string(block.doubled), Fixed(measured.Throughput(), 0),
                Fixed(kPercent * measured.Throughput() / measured.limit, 0) + " %",
                hasTurns ? Fixed(measured.TurnAt(0.5), 0) : "-", hasTurns ? Fixed(measured.TurnAt(1), 0) : "-",
                measured.verdict});
}

void Tell(const Measurement& measured, const TestArguments& arguments, Output& out) {
  Json turns;
  if (!measured.turnUs.empty()) {
    turns = {{"count", measured.turnUs.size()}, {"lost", measured.turnsLost},   {"min", measured.TurnAt(0)},
             {"median", measured.TurnAt(0.5)},  {"p99", measured.TurnAt(0.99)}, {"max", measured.TurnAt(1)}};
  }
  out.Object("serial_test", {{"device", arguments.line.device},
                             {"speed_bps", measured.speedBps},
                             {"runs_at_bps", measured.runsAtBps},
                             {"verdict", measured.verdict},
                             {"sent_bytes", measured.block.sent},
                             {"received_bytes", measured.block.received},
                             {"bit_errors", measured.block.bitErrors},
                             {"lost_bytes", measured.block.lost},
                             {"doubled_bytes", measured.block.doubled},
                             {"throughput_bytes_per_s", measured.Throughput()},
                             {"limit_bytes_per_s", measured.limit},
                             {"turnaround_us", turns}});
  if (measured.turnUs.empty()) {
    return;
  }
  out.Line(std::to_string(measured.speedBps) + " bit/s: turn-around of " + std::to_string(measured.turnUs.size()) +
           " single bytes");
  for (const std::string& row : plot::Histogram(measured.turnUs, "us")) {
    out.Line(row);
  }
}

void Draw(const std::vector<Measurement>& all, const TestArguments& arguments) {
  std::vector<std::string> labels;
  plot::Series throughput{"measured", "#0b6bcb", {}};
  plot::Series limit{"the line's own limit", "#777777", {}, true};
  plot::Series median{"median", "#b3261e", {}};
  plot::Series least{"least", "#1b7f3b", {}, true};
  plot::Series most{"most", "#8a5a00", {}, true};
  for (const Measurement& measured : all) {
    labels.push_back(std::to_string(measured.speedBps));
    throughput.values.push_back(measured.Throughput());
    limit.values.push_back(measured.limit);
    median.values.push_back(measured.TurnAt(0.5));
    least.values.push_back(measured.TurnAt(0));
    most.values.push_back(measured.TurnAt(1));
  }
  const std::string svg = plot::Svg("Line test of " + arguments.line.device, "speed in bits per second", labels,
                                    {{"Throughput", "bytes per second", {throughput, limit}},
                                     {"Turn-around of single bytes", "microseconds", {median, least, most}}});
  const int fd = ::open(arguments.svg.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC, 0666);
  if (fd == -1 || !WriteAll(fd, svg)) {
    throw std::system_error(errno, std::generic_category(), "The picture " + arguments.svg + " can't be written");
  }
  ::close(fd);
}

int Test(const TestArguments& arguments, Call& call) {
  const bool isAsked = !arguments.speeds.empty();
  const std::vector<std::uint32_t> speeds =
      isAsked ? arguments.speeds : std::vector<std::uint32_t>(std::begin(kStandardSpeeds), std::end(kStandardSpeeds));
  std::vector<Measurement> all;
  std::exception_ptr failure;  // reported after all that was measured
  {
    // Opened at a speed that every UART makes.
    LineOptions line = arguments.line;
    line.speedBps = kStandardSpeeds[0];
    Port port(line, call.out);
    if (arguments.isInternal) {
      port->SetLoopback(true);
    }
    for (const std::uint32_t speed : speeds) {
      if (signals::Caught() != 0 || failure) {
        break;
      }
      call.out.Say("boardctl: " + std::to_string(speed) + " bit/s");
      all.emplace_back();
      try {
        Measure(port, arguments, speed, all.back(), call.out);
      } catch (const OutputClosed&) {
        throw;
      } catch (const std::exception&) {
        failure = std::current_exception();
        call.out.EndProgress();
      }
      Tell(all.back(), arguments, call.out);
    }
  }

  call.out.Line(RowOf({"bit/s", "bytes", "bits", "lost", "doubled", "B/s", "limit", "turn us", "max us", ""}),
                Output::kBold);
  std::uint32_t fastest = 0;
  std::size_t good = 0;
  std::size_t tried = 0;
  for (const Measurement& measured : all) {
    call.out.Line(RowOf(measured));
    // A speed that the UART does not have is no fault of the line, unless it was asked for.
    tried += measured.isPossible || isAsked ? 1U : 0U;
    if (measured.verdict == "good") {
      ++good;
      fastest = std::max(fastest, measured.speedBps);
    }
  }
  if (std::any_of(all.begin(), all.end(), [](const Measurement& measured) {
        constexpr double kTolerance = 1.1;
        return measured.Throughput() > kTolerance * measured.limit;
      })) {
    call.out.Say("boardctl: bytes came faster than a real line could carry them");
  }
  const bool isPassed = good == tried && good != 0 && signals::Caught() == 0;
  call.out.Object("serial_verdict", {{"device", arguments.line.device},
                                     {"far_end", arguments.isInternal ? "loop" : "echo"},
                                     {"passed", isPassed},
                                     {"speeds_good", good},
                                     {"speeds_tried", tried},
                                     {"fastest_good_bps", fastest == 0 ? Json() : Json(fastest)}});
  call.out.Line(std::string("Verdict: ") + (isPassed ? "" : "failed, ") + "good at " + std::to_string(good) + " of " +
                std::to_string(tried) + " speeds" +
                (fastest == 0 ? "" : ", the fastest good one is " + std::to_string(fastest) + " bit/s"));
  if (!arguments.svg.empty()) {
    Draw(all, arguments);
  }
  if (failure) {
    std::rethrow_exception(failure);
  }
  if (fastest == 0 && signals::Caught() == 0) {
    call.out.Warn(arguments.isInternal
                      ? "boardctl: nothing came back: does this UART have a loop?"
                      : "boardctl: nothing came back intact: connect TX to RX, or a far end that echoes at that speed");
  }
  return isPassed ? kStatusDone : kStatusFailed;
}

std::vector<std::uint32_t> ParseSpeeds(const std::string& text) {
  std::vector<std::uint32_t> speeds;
  std::size_t begin = 0;
  while (begin <= text.size()) {
    const std::size_t end = std::min(text.find(',', begin), text.size());
    speeds.push_back(ParseSpeed(text.substr(begin, end - begin)));
    begin = end + 1;
  }
  return speeds;
}

}  // namespace

void AddSerialTest(Program& program, CLI::App& group) {
  constexpr std::uint64_t kMostBytes = std::uint64_t{16} * 1024 * 1024;
  constexpr std::uint64_t kMostTurns = 100000;
  const auto arguments = std::make_shared<TestArguments>();
  CLI::App& verb = program.AddVerb(
      &group,
      {"test", "Tests a line: errors, throughput, turn-around", "DEVICE [OPTION]...", "",
       "It sends to a far end that sends everything back: a plug that connects TX and RX, or a program at the same "
       "speed. At each speed it sends a block of pseudo-random bytes and takes in what comes back (bit errors, lost "
       "and doubled bytes, throughput against the line's own limit), and then single bytes (turn-around). Standard "
       "speeds that the UART cannot make are skipped. The status is 1 unless all is good.",
       "serial test /dev/ttyS1 --speeds 9600,115200 --svg line.svg",
       "nothing: the line's settings are restored and the loop is switched off when the program ends, also by "
       "SIGINT, SIGTERM, SIGHUP or SIGQUIT. A driver may drop DTR and RTS then."},
      [arguments](Call& call) { return Test(*arguments, call); });
  AddDevice(verb, arguments->line.device);
  AddArgument(verb, "--speeds", "LIST", arguments->speeds, ParseSpeeds,
              "bits per second, with commas between them (default: the standard ones from 9600 on)");
  AddFlag(verb, "--loop", arguments->isInternal,
          "over the UART's internal loop: what is connected neither gets nor sends anything");
  AddArgument(
      verb, "--size", "N", arguments->size, [](const std::string& text) { return check::Decimal(text, 1, kMostBytes); },
      "bytes in the block (default: half a second's)");
  AddArgument(
      verb, "--turns", "N", arguments->turns,
      [](const std::string& text) { return check::Decimal(text, 1, kMostTurns); },
      "how many single bytes (default 50)");
  AddArgument(verb, "--svg", "FILE", arguments->svg, check::Path,
              "plot throughput and turn-around against speed into FILE");
  AddFormat(verb, arguments->line);
}
