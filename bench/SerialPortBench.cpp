#include "SerialPort.h"

#include <fcntl.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Bare.h"
#include "Benches.h"
#include "Contest.h"
#include "Descriptor.h"
#include "Devices.h"

namespace {

constexpr double kLimit = 1.02;
constexpr double kBufferLimit = 1.05;
constexpr long kTurns = 2000;
constexpr long kLongTurns = 100;

/// A batch is made of pieces. What a piece needs is prepared before it, and what it leaves is removed after
/// it, both outside of the measured time: a terminal holds little and would block.
struct Size {
  const char* name;
  unsigned int bytes;  // of one call
  long calls;          // of one piece
  long pieces;
};

constexpr unsigned int kWritten = 4096;
constexpr unsigned int kRead = Terminal::kReceiveCapacity;

constexpr Size kWrites[] = {{"1", 1, 200, 1}, {"4KiB", kWritten, 1, 16}};
constexpr Size kReads[] = {{"1", 1, 200, 1}, {"4095", kRead, 1, 16}};
constexpr Size kPolls = {"", 0, 200, 1};
constexpr Size kBufferedRead = {"", kRead, 1, 1};

/// What both contenders work on: one terminal, opened by each and made raw by the port, and the same memory.
struct Stage {
  Stage() : bare(::open(terminal.Name().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC)), port(terminal.Name(), true) {}

  Terminal terminal;
  Descriptor bare;
  SerialPort port;
  std::vector<unsigned char> bytes = std::vector<unsigned char>(std::max(kWritten, kRead));
};

void Check(bool isAsExpected) {
  if (!isAsExpected) {
    throw std::runtime_error("a call on the terminal did not give what it should");
  }
}

void DoNothing(const Stage& /*stage*/, std::size_t /*count*/) {}

void Fill(const Stage& stage, std::size_t count) {
  stage.terminal.Fill(stage.bare.Get(), count);
}

void Drain(const Stage& stage, std::size_t count) {
  stage.terminal.Drain(count);
}

using Preparation = void (*)(const Stage& stage, std::size_t count);
using Call = void (*)(Stage& stage, unsigned int count);

template <Preparation before, Call call, Preparation after>
Batch MakeBatch(const std::shared_ptr<Stage>& stage, const Size& size) {
  return [stage, size] {
    const std::size_t count = static_cast<std::size_t>(size.calls) * size.bytes;
    Seconds time{};
    for (long piece = 0; piece < size.pieces; ++piece) {
      before(*stage, count);
      time += TimeCalls(size.calls, [&] { call(*stage, size.bytes); });
      after(*stage, count);
    }
    return time;
  };
}

template <Preparation before, Call bare, Call boardkit, Preparation after>
Contest MakeContest(const std::shared_ptr<Stage>& stage, const Size& size, long turns, double limit) {
  return {size.calls * size.pieces, turns, limit, MakeBatch<before, bare, after>(stage, size),
          MakeBatch<before, boardkit, after>(stage, size)};
}

void CallBareWrite(Stage& stage, unsigned int count) {
  Check(BareWrite(stage.bare.Get(), stage.bytes.data(), count));
}

void CallWrite(Stage& stage, unsigned int count) {
  stage.port.Write(stage.bytes.data(), count);
}

void CallBareRead(Stage& stage, unsigned int count) {
  Check(BareRead(stage.bare.Get(), stage.bytes.data(), count));
}

void CallRead(Stage& stage, unsigned int count) {
  stage.port.Read(stage.bytes.data(), count);
}

void CallBareReadAvailable(Stage& stage, unsigned int count) {
  Check(BareReadAvailable(stage.bare.Get(), stage.bytes) && stage.bytes.size() == count);
}

void CallReadBuffered(Stage& stage, unsigned int count) {
  stage.port.ReadAllAvailableData();
  stage.port.Read(stage.bytes, 0);
  Check(stage.bytes.size() == count);
}

template <bool expected>
void CallBarePoll(Stage& stage, unsigned int /*count*/) {
  Check(BarePoll(stage.bare.Get(), 0) == expected);
}

template <bool expected>
void CallIsDataReceived(Stage& stage, unsigned int /*count*/) {
  Check(stage.port.IsDataReceived(0) == expected);
}

template <bool expected>
Contest MakePollContest() {
  const auto stage = std::make_shared<Stage>();
  if (expected) {
    Fill(*stage, 1);
  }
  return MakeContest<DoNothing, CallBarePoll<expected>, CallIsDataReceived<expected>, DoNothing>(stage, kPolls, kTurns,
                                                                                                 kLimit);
}

}  // namespace

void RegisterSerialPortBench(Effort effort) {
  for (const Size& size : kWrites) {
    RegisterContest(std::string("SerialPort/Write/") + size.name, effort, [size] {
      return MakeContest<DoNothing, CallBareWrite, CallWrite, Drain>(std::make_shared<Stage>(), size, kTurns, kLimit);
    });
  }
  for (const Size& size : kReads) {
    RegisterContest(std::string("SerialPort/Read/") + size.name, effort, [size] {
      return MakeContest<Fill, CallBareRead, CallRead, DoNothing>(std::make_shared<Stage>(), size, kTurns, kLimit);
    });
  }
  RegisterContest("SerialPort/ReadBuffered/4095", effort, [] {
    return MakeContest<Fill, CallBareReadAvailable, CallReadBuffered, DoNothing>(
        std::make_shared<Stage>(), kBufferedRead, kLongTurns, kBufferLimit);
  });
  RegisterContest("SerialPort/IsDataReceived/no", effort, MakePollContest<false>);
  RegisterContest("SerialPort/IsDataReceived/yes", effort, MakePollContest<true>);
}
