#include "OpSystem.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>

#include "Bare.h"
#include "Benches.h"
#include "Contest.h"

namespace {

constexpr double kShortLimit = 1.03;
constexpr double kLongLimit = 1.05;
constexpr double kMemoryLimit = 2.2;

constexpr std::size_t kOutputSize = std::size_t{64} * 1024 * 1024;  // bytes
constexpr std::size_t kFirstLineLength = 252;  // bytes; doubled 18 times, a little less than the output

/// A file of lines of some 80 bytes, as a log has them, which is removed at the end.
///
/// A string that grows doubles its capacity, beginning with the first line's length. With this one it has to do so for
/// the last time just before the end, when old and new memory together are as large as they can be for this output.
class LogFile {
 public:
  LogFile() {
    std::string path = std::filesystem::temp_directory_path() / "boardkit-bench-XXXXXX";
    const int fd = ::mkstemp(path.data());
    if (fd == -1) {
      throw std::system_error(errno, std::system_category(), "no temporary file to measure with");
    }
    ::close(fd);
    m_path = path;

    std::ofstream file(m_path, std::ios::binary);
    file << std::string(kFirstLineLength - 1, '-') << '\n';
    std::size_t size = kFirstLineLength;
    for (unsigned int i = 0; size < kOutputSize; ++i) {
      char line[128];
      std::snprintf(line, sizeof line, "Jan 11 06:25:%02u board boardd[%u]: channel %u: %u bytes received, none lost\n",
                    i / 1000 % 60, 300 + i % 50, i % 8, i * 37 % 100000);
      std::string text = line;
      text.insert(text.size() - 1, i % 12, '.');
      text.resize(std::min(text.size(), kOutputSize - size));
      file << text;
      size += text.size();
    }
    if (!file.flush()) {
      std::filesystem::remove(m_path);
      throw std::runtime_error("could not write a temporary file to measure with");
    }
  }
  ~LogFile() {
    std::error_code ignored;
    std::filesystem::remove(m_path, ignored);
  }

  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  std::string Command() const {
    return "cat '" + m_path + "'";
  }

 private:
  std::string m_path;
};

void Check(const std::string& output, std::size_t size) {
  if (output.size() != size) {
    throw std::runtime_error("a command printed " + std::to_string(output.size()) + " bytes instead of " +
                             std::to_string(size));
  }
}

Batch MakeBareBatch(const std::string& command, std::size_t outputSize) {
  return [bareCommand = command + " 2>&1", outputSize] {
    return TimeCalls(1, [&] { Check(BareExec(bareCommand.c_str()), outputSize); });
  };
}

Batch MakeBoardkitBatch(const std::string& command, std::size_t outputSize) {
  return [command, outputSize] { return TimeCalls(1, [&] { Check(OpSystem().ExecCmd(command, false), outputSize); }); };
}

Contest MakeShortContest() {
  constexpr long kTurns = 500;
  return {1, kTurns, kShortLimit, MakeBareBatch("true", 0), MakeBoardkitBatch("true", 0)};
}

Contest MakeLongContest() {
  constexpr long kTurns = 20;
  const auto file = std::make_shared<LogFile>();
  return {1, kTurns, kLongLimit, [file, batch = MakeBareBatch(file->Command(), kOutputSize)] { return batch(); },
          [file, batch = MakeBoardkitBatch(file->Command(), kOutputSize)] { return batch(); }};
}

/// The highest memory use of a process that only collects the output, against the output's length.
///
/// The process begins anew: a mere fork would inherit what the earlier cases left behind, pages as well as the
/// allocator's habits.
Amounts MeasureMemory() {
  const LogFile file;
  int ends[2] = {-1, -1};
  if (::pipe(ends) == -1) {
    throw std::system_error(errno, std::system_category(), "no pipe for the result");
  }
  const pid_t child = ::fork();
  if (child == 0) {
    ::dup2(ends[1], STDOUT_FILENO);
    ::close(ends[0]);
    ::close(ends[1]);
    const char program[] = "/proc/self/exe";
    ::execl(program, program, kPeakMemoryOption, file.Command().c_str(), static_cast<char*>(nullptr));
    ::_exit(EXIT_FAILURE);
  }
  ::close(ends[1]);
  char text[64] = "";
  const ssize_t length = ::read(ends[0], text, sizeof text - 1);
  ::close(ends[0]);
  int status = -1;
  ::waitpid(child, &status, 0);

  std::istringstream result(length > 0 ? text : "");
  double peak = 0;
  double size = 0;
  if (status != 0 || !(result >> peak >> size) || size != static_cast<double>(kOutputSize)) {
    throw std::runtime_error("the process whose memory is measured failed");
  }
  return {Unit::kByte, Measure::kRatio, kMemoryLimit, size, peak};
}

/// The most memory that this process has had at once so far, in bytes.
double PeakMemory() {
  std::ifstream status("/proc/self/status");
  std::string word;
  double kibibytes = 0;
  while (status >> word) {
    if (word == "VmHWM:" && status >> kibibytes) {
      return kibibytes * 1024;
    }
  }
  throw std::runtime_error("the system does not report the peak memory of a process");
}

}  // namespace

void RegisterOpSystemBench(Effort effort) {
  RegisterContest("ExecCmd/true", effort, MakeShortContest);
  RegisterContest("ExecCmd/64MiB", effort, MakeLongContest);
  RegisterAmounts("ExecCmd/64MiB/memory", MeasureMemory);
}

int PrintPeakMemory(const char* command) {
  const std::string output = OpSystem().ExecCmd(command, false);
  std::cout << std::fixed << PeakMemory() << ' ' << output.size() << std::endl;
  return EXIT_SUCCESS;
}
