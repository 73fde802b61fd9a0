#include "Bare.h"

#include <unistd.h>

#include <cstdio>
#include <stdexcept>

bool BareWrite(int fd, const void* data, std::size_t length) {
  return ::write(fd, data, length) == static_cast<ssize_t>(length);
}

bool BareRead(int fd, void* buffer, std::size_t length) {
  return ::read(fd, buffer, length) == static_cast<ssize_t>(length);
}

std::string BareExec(const char* command) {
  std::FILE* const pipe = ::popen(command, "r");
  if (pipe == nullptr) {
    throw std::runtime_error("the bare popen failed");
  }

  std::string output;
  char piece[512];
  while (std::fgets(piece, sizeof piece, pipe) != nullptr) {
    output += piece;
  }

  if (::pclose(pipe) != 0) {
    throw std::runtime_error("the bare command failed: " + output);
  }
  return output;
}

std::size_t BareFind(std::string text, std::string_view key) {
  return std::string_view(text).find(key);
}
