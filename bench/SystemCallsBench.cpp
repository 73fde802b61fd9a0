#include "SystemCalls.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "Bare.h"
#include "Benches.h"
#include "Contest.h"
#include "Descriptor.h"
#include "Devices.h"

namespace {

constexpr double kLimit = 1.02;
constexpr long kTurns = 2000;
constexpr int kPipeCapacity = 1024 * 1024;  // bytes: what every user may ask for

struct Length {
  const char* name;
  unsigned int bytes;
  long calls;  // in a batch: some 20 to 50 microseconds
};

constexpr Length kLengths[] = {{"1", 1, 200}, {"512", 512, 150}, {"64KiB", 64 * 1024, 8}};

/// What one contest works on; both contenders use the same memory and the same descriptors.
struct Stage {
  unsigned int bytes = 0;  // of one call
  long calls = 0;
  std::vector<char> buffer;
  std::unique_ptr<Descriptor> input;
  std::unique_ptr<Descriptor> output;
};

std::shared_ptr<Stage> MakeStage(const Length& length) {
  auto stage = std::make_shared<Stage>();
  stage->bytes = length.bytes;
  stage->calls = length.calls;
  stage->buffer.resize(length.bytes);
  return stage;
}

std::shared_ptr<Stage> MakeDeviceStage(const Length& length) {
  auto stage = MakeStage(length);
  stage->input = std::make_unique<Descriptor>(::open("/dev/zero", O_RDONLY | O_CLOEXEC));
  stage->output = std::make_unique<Descriptor>(::open("/dev/null", O_WRONLY | O_CLOEXEC));
  return stage;
}

std::shared_ptr<Stage> MakePipeStage(const Length& length) {
  auto stage = MakeStage(length);
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC) == -1) {
    throw std::system_error(errno, std::system_category(), "no pipe to measure with");
  }
  stage->input = std::make_unique<Descriptor>(ends[0]);
  stage->output = std::make_unique<Descriptor>(ends[1]);

  // One thread writes and reads, so a batch has to fit. Where the capacity stays as it was, the batches are shorter.
  ::fcntl(ends[1], F_SETPIPE_SZ, kPipeCapacity);
  const long capacity = ::fcntl(ends[1], F_GETPIPE_SZ);
  stage->calls = std::clamp(capacity / static_cast<long>(length.bytes), 1L, length.calls);
  return stage;
}

using Call = void (*)(const Stage&, char* buffer);

void Check(bool isComplete) {
  if (!isComplete) {
    throw std::runtime_error("a bare call did not transfer everything");
  }
}

void CallBareWrite(const Stage& stage, char* buffer) {
  Check(BareWrite(stage.output->Get(), buffer, stage.bytes));
}

void CallBareRead(const Stage& stage, char* buffer) {
  Check(BareRead(stage.input->Get(), buffer, stage.bytes));
}

void CallWriteLoop(const Stage& stage, char* buffer) {
  WriteLoop(stage.output->Get(), buffer, stage.bytes);
}

void CallReadLoop(const Stage& stage, char* buffer) {
  ReadLoop(stage.input->Get(), buffer, stage.bytes);
}

void CallNothing(const Stage& /*stage*/, char* /*buffer*/) {}

/// A batch of @p measured calls, with as many calls @p before and @p after it whose time does not count.
template <Call before, Call measured, Call after>
Batch MakeBatch(const std::shared_ptr<Stage>& stage) {
  return [stage] {
    char* const buffer = stage->buffer.data();
    TimeCalls(stage->calls, [&] { before(*stage, buffer); });
    const Seconds time = TimeCalls(stage->calls, [&] { measured(*stage, buffer); });
    TimeCalls(stage->calls, [&] { after(*stage, buffer); });
    return time;
  };
}

template <Call before, Call bare, Call boardkit, Call after>
Contest MakeContest(const std::shared_ptr<Stage>& stage) {
  return {stage->calls, kTurns, kLimit, MakeBatch<before, bare, after>(stage),
          MakeBatch<before, boardkit, after>(stage)};
}

// A register among others, so that an offset within the page is left to be added.
constexpr unsigned int kRegister = 0x11000C;
constexpr unsigned int kRegisterValue = 0x5A17;

template <unsigned int (*read)(unsigned int address)>
Batch MakePhysicalMemoryBatch(long calls, const std::shared_ptr<PhysicalMemory>& memory) {
  return [calls, memory] {
    return TimeCalls(calls, [] {
      if (read(kRegister) != kRegisterValue) {
        throw std::runtime_error("a register did not have the value that was written");
      }
    });
  };
}

Contest MakePhysicalMemoryContest() {
  constexpr long kCalls = 5;
  const auto memory = std::make_shared<PhysicalMemory>(kRegister, kRegisterValue);
  return {kCalls, kTurns, kLimit, MakePhysicalMemoryBatch<BareReadPhysicalMemory>(kCalls, memory),
          MakePhysicalMemoryBatch<ReadFromPhysicalMemoryAddress>(kCalls, memory)};
}

}  // namespace

void RegisterSystemCallsBench(Effort effort) {
  for (const Length& length : kLengths) {
    RegisterContest(std::string("WriteLoop/null/") + length.name, effort, [length] {
      return MakeContest<CallNothing, CallBareWrite, CallWriteLoop, CallNothing>(MakeDeviceStage(length));
    });
  }
  for (const Length& length : kLengths) {
    RegisterContest(std::string("WriteLoop/pipe/") + length.name, effort, [length] {
      return MakeContest<CallNothing, CallBareWrite, CallWriteLoop, CallBareRead>(MakePipeStage(length));
    });
  }
  for (const Length& length : kLengths) {
    RegisterContest(std::string("ReadLoop/zero/") + length.name, effort, [length] {
      return MakeContest<CallNothing, CallBareRead, CallReadLoop, CallNothing>(MakeDeviceStage(length));
    });
  }
  for (const Length& length : kLengths) {
    RegisterContest(std::string("ReadLoop/pipe/") + length.name, effort, [length] {
      return MakeContest<CallBareWrite, CallBareRead, CallReadLoop, CallNothing>(MakePipeStage(length));
    });
  }
  RegisterContest("ReadFromPhysicalMemoryAddress", effort, MakePhysicalMemoryContest);
}
