#include "ScriptedKernel.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <gtest/gtest.h>

namespace {

// One a thread: the tests' other threads keep the real functions.
thread_local ScriptedKernel* activeKernel = nullptr;

template <typename Function>
Function* RealFunction(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

std::string Quoted(const std::string& text) {
  return '"' + text + '"';
}

}  // namespace

Answer Returns(long result) {
  return {result, 0, {}, false};
}

Answer Fails(int error) {
  return {-1, error, {}, false};
}

Answer Gives(const std::string& bytes) {
  return {static_cast<long>(bytes.size()), 0, bytes, false};
}

Answer Real() {
  return {0, 0, {}, true};
}

ScriptedKernel::ScriptedKernel() : m_outer(activeKernel) {
  activeKernel = this;
}

ScriptedKernel::~ScriptedKernel() {
  activeKernel = m_outer;
  for (const auto& [function, answers] : m_scripts) {
    EXPECT_EQ(answers.size(), 0U) << "answers of " << function << "() that nobody asked for";
  }
}

ScriptedKernel& ScriptedKernel::Script(const std::string& function, const std::vector<Answer>& answers) {
  for (const Answer& answer : answers) {
    m_scripts[function].push(answer);
  }
  return *this;
}

ScriptedKernel& ScriptedKernel::Watch(const std::string& function) {
  m_watched[function] = true;
  return *this;
}

const ScriptedKernel::Calls& ScriptedKernel::Seen() const {
  return m_seen;
}

Answer ScriptedKernel::Next(const std::string& function, const std::string& arguments) {
  // The tests' own bookkeeping below must not reach the script.
  ScriptedKernel* const kernel = activeKernel;
  if (kernel == nullptr) {
    return Real();
  }
  activeKernel = nullptr;
  Answer answer = Real();
  const auto script = kernel->m_scripts.find(function);
  if (script != kernel->m_scripts.end() || kernel->m_watched.count(function) != 0) {
    kernel->m_seen.push_back(function + '(' + arguments + ')');
  }
  if (script != kernel->m_scripts.end()) {
    if (script->second.empty()) {
      ADD_FAILURE() << "one call too many: " << kernel->m_seen.back();
      answer = Fails(EIO);
    } else {
      answer = script->second.front();
      script->second.pop();
    }
  }
  activeKernel = kernel;
  return answer;
}

// --- The functions themselves
// -------------------------------------------------------------------------------------------
//
// Arguments are written down only while a kernel is active: without one, a call costs one thread-local read more.

extern "C" {

ssize_t write(int fd, const void* data, size_t count) {
  static auto* const real = RealFunction<ssize_t(int, const void*, size_t)>("write");
  if (activeKernel == nullptr) {
    return real(fd, data, count);
  }
  const std::string bytes(static_cast<const char*>(data), count);
  const Answer answer = ScriptedKernel::Next("write", std::to_string(fd) + ", " + Quoted(bytes));
  if (answer.real) {
    return real(fd, data, count);
  }
  errno = answer.error;
  return answer.result;
}

ssize_t read(int fd, void* buffer, size_t count) {
  static auto* const real = RealFunction<ssize_t(int, void*, size_t)>("read");
  if (activeKernel == nullptr) {
    return real(fd, buffer, count);
  }
  const Answer answer = ScriptedKernel::Next("read", std::to_string(fd) + ", " + std::to_string(count));
  if (answer.real) {
    return real(fd, buffer, count);
  }
  std::memcpy(buffer, answer.bytes.data(), answer.bytes.size());
  errno = answer.error;
  return answer.result;
}

int nanosleep(const timespec* request, timespec* remaining) {
  static auto* const real = RealFunction<int(const timespec*, timespec*)>("nanosleep");
  if (activeKernel == nullptr) {
    return real(request, remaining);
  }
  const Answer answer = ScriptedKernel::Next(
      "nanosleep", std::to_string(request->tv_sec) + " s, " + std::to_string(request->tv_nsec) + " ns");
  if (answer.real) {
    return real(request, remaining);
  }
  if (answer.error == EINTR) {
    // A scripted interruption comes after half of every field.
    *remaining = {request->tv_sec / 2, request->tv_nsec / 2};
  }
  errno = answer.error;
  return static_cast<int>(answer.result);
}

FILE* popen(const char* command, const char* mode) {
  static auto* const real = RealFunction<FILE*(const char*, const char*)>("popen");
  const Answer answer =
      activeKernel == nullptr ? Real() : ScriptedKernel::Next("popen", Quoted(command) + ", " + Quoted(mode));
  if (answer.real) {
    return real(command, mode);
  }
  errno = answer.error;
  return nullptr;
}

int pclose(FILE* pipe) {
  static auto* const real = RealFunction<int(FILE*)>("pclose");
  const Answer answer = activeKernel == nullptr ? Real() : ScriptedKernel::Next("pclose", "");
  // The pipe is closed in any case: only the status is scripted.
  const int status = real(pipe);
  if (answer.real) {
    return status;
  }
  errno = answer.error;
  return static_cast<int>(answer.result);
}

const char* inet_ntop(int family, const void* address, char* text, socklen_t size) {
  static auto* const real = RealFunction<const char*(int, const void*, char*, socklen_t)>("inet_ntop");
  const Answer answer = activeKernel == nullptr ? Real() : ScriptedKernel::Next("inet_ntop", std::to_string(size));
  if (answer.real) {
    return real(family, address, text, size);
  }
  errno = answer.error;
  return nullptr;
}

}  // extern "C"
