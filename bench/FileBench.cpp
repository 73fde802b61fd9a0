#include "File.h"

#include <fcntl.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Bare.h"
#include "Benches.h"
#include "Contest.h"
#include "Descriptor.h"

namespace {

constexpr long kTurns = 2000;

struct Length {
  const char* name;
  unsigned int bytes;
  long calls;  // in a batch: some 20 to 50 microseconds
  double writeLimit;
  double readLimit;  // of a byte it is the wider one: there are two calls on the way to a system call that costs little
};

constexpr Length kLengths[] = {{"1", 1, 200, 1.03, 1.05}, {"64KiB", 64 * 1024, 8, 1.03, 1.03}};

/// What one contest works on; both contenders have the same memory and a descriptor each.
struct Stage {
  Stage(const char* device, int flags, unsigned int length)
      : file(device, flags, 0), bare(::open(device, flags | O_CLOEXEC)), buffer(length) {}

  File file;
  Descriptor bare;
  std::vector<unsigned char> buffer;
};

void Check(bool isComplete) {
  if (!isComplete) {
    throw std::runtime_error("a bare call did not transfer everything");
  }
}

template <typename Bare, typename Boardkit>
Contest MakeContest(const char* device, int flags, const Length& length, double limit, Bare bare, Boardkit boardkit) {
  const auto stage = std::make_shared<Stage>(device, flags, length.bytes);
  const auto makeBatch = [stage, length](auto call) {
    return [stage, length, call] {
      unsigned char* const buffer = stage->buffer.data();
      return TimeCalls(length.calls, [&] { call(*stage, buffer, length.bytes); });
    };
  };
  return {length.calls, kTurns, limit, makeBatch(bare), makeBatch(boardkit)};
}

Contest MakeWriteContest(const Length& length) {
  return MakeContest(
      "/dev/null", O_WRONLY, length, length.writeLimit,
      [](const Stage& stage, const unsigned char* data, unsigned int count) {
        Check(BareWrite(stage.bare.Get(), data, count));
      },
      [](const Stage& stage, const unsigned char* data, unsigned int count) { stage.file.WriteBytes(data, count); });
}

Contest MakeReadContest(const Length& length) {
  return MakeContest(
      "/dev/zero", O_RDONLY, length, length.readLimit,
      [](const Stage& stage, unsigned char* buffer, unsigned int count) {
        Check(BareRead(stage.bare.Get(), buffer, count));
      },
      [](const Stage& stage, unsigned char* buffer, unsigned int count) { stage.file.ReadBytes(buffer, count); });
}

}  // namespace

void RegisterFileBench(Effort effort) {
  for (const Length& length : kLengths) {
    RegisterContest(std::string("File/WriteBytes/") + length.name, effort,
                    [length] { return MakeWriteContest(length); });
  }
  for (const Length& length : kLengths) {
    RegisterContest(std::string("File/ReadBytes/") + length.name, effort, [length] { return MakeReadContest(length); });
  }
}
