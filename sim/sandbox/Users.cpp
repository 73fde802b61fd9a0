#include "sandbox/Users.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "Descriptor.h"
#include "ExitStatus.h"
#include "sandbox/Errors.h"

namespace {

std::string Folder(pid_t process) {
  return "/proc/" + std::to_string(process) + '/';
}

bool TryWrite(const std::string& path, const std::string& text) {
  const Descriptor file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
  return file && ::write(file.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

void Write(const std::string& path, const std::string& text) {
  Require<NamespacesForbidden>(TryWrite(path, text), path + " can't be written");
}

/// A map under which all that exist here have the same numbers.
/// @param name "uid_map" or "gid_map".
std::string SameNumbers(const char* name) {
  std::ifstream own(std::string("/proc/self/") + name);
  std::string map;
  std::string outside;
  for (std::string first, count; own >> first >> outside >> count;) {
    map += first + ' ';
    map += first + ' ' + count + '\n';
  }
  return map;
}

/// A range of numbers that an ordinary user has been given.
struct Range {
  std::string first;
  std::string count;
};

/// @param path "/etc/subuid" or "/etc/subgid", whose lines are "USER:FIRST:COUNT".
/// @returns the first of the user's ranges; empty if there is none.
Range SubordinateRange(const char* path) {
  const std::string number = std::to_string(::geteuid());
  const passwd* const user = ::getpwuid(::geteuid());
  const std::string name = user == nullptr ? number : user->pw_name;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    std::istringstream fields(line);
    std::string who;
    Range range;
    if (std::getline(fields, who, ':') && (who == name || who == number) && std::getline(fields, range.first, ':') &&
        std::getline(fields, range.count)) {
      return range;
    }
  }
  return {};
}

/// Runs a program without its output.
/// @returns whether it succeeded.
bool Run(const std::vector<std::string>& words) {
  const pid_t child = ::fork();
  if (child == 0) {
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    const Descriptor nowhere(::open("/dev/null", O_RDWR | O_CLOEXEC));
    for (int standard = STDIN_FILENO; standard <= STDERR_FILENO; ++standard) {
      ::dup2(nowhere.Get(), standard);
    }
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string& word : words) {
      arguments.push_back(const_cast<char*>(word.c_str()));  // NOLINT(cppcoreguidelines-pro-type-const-cast)
    }
    arguments.push_back(nullptr);
    ::execvp(arguments.front(), arguments.data());
    ::_exit(kStatusNotFound);
  }
  int status = -1;
  while (child != -1 && ::waitpid(child, &status, 0) == -1 && errno == EINTR) {
  }
  return status == 0;
}

/// An ordinary user becomes root, and has the other users that the machine has given him.
/// @returns whether there are others.
bool MapSubordinates(pid_t process, const char* tool, const char* ranges, id_t own) {
  const Range range = SubordinateRange(ranges);
  return !range.first.empty() &&
         Run({tool, std::to_string(process), "0", std::to_string(own), "1", "1", range.first, range.count});
}

}  // namespace

void MapUsersOf(pid_t process) {
  const std::string folder = Folder(process);
  if (::geteuid() == 0 && TryWrite(folder + "uid_map", SameNumbers("uid_map"))) {
    Write(folder + "gid_map", SameNumbers("gid_map"));
    return;
  }
  if (!MapSubordinates(process, "newuidmap", "/etc/subuid", ::geteuid())) {
    Write(folder + "uid_map", "0 " + std::to_string(::geteuid()) + " 1");
  }
  if (!MapSubordinates(process, "newgidmap", "/etc/subgid", ::getegid())) {
    Write(folder + "setgroups", "deny");
    Write(folder + "gid_map", "0 " + std::to_string(::getegid()) + " 1");
  }
}

void MapSameUsers(pid_t process) {
  const std::string folder = Folder(process);
  Write(folder + "uid_map", SameNumbers("uid_map"));
  Write(folder + "gid_map", SameNumbers("gid_map"));
}
