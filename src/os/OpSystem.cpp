#include "OpSystem.h"

#include <cstdio>
#include <stdexcept>

#include "../sys/SystemError.h"

using boardkit::ThrowSystemError;

namespace {

constexpr int kPieceSize = 512;  // bytes, the terminating NUL included

}  // namespace

OpSystem::~OpSystem() = default;

// By contract: the flag has no effect.
std::string OpSystem::ExecCmd(std::string command, bool /*unused*/) {
  // By contract: the suffix is appended to the text, so it redirects the last command only.
  command += " 2>&1";
  std::FILE* const pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) {
    ThrowSystemError("popen failed");
  }

  // By contract: no guard closes the pipe. Should memory run out here it stays open; closing it would wait for the
  // command.
  std::string output;
  char piece[kPieceSize];
  // By contract: a NUL byte cuts the piece in which it stands, and an error ends the reading like the end of the
  // output.
  while (std::fgets(piece, kPieceSize, pipe) != nullptr) {
    output += piece;
  }

  const int status = ::pclose(pipe);
  if (status < 0) {
    ThrowSystemError("pclose failed");
  }
  if (status > 0) {
    throw std::logic_error(output);
  }
  return output;
}
