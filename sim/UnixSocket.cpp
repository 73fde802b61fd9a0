#include "UnixSocket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "Descriptor.h"
#include "SetupError.h"

sockaddr_un MakeUnixAddress(const std::string& path, const std::string& what) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    throw SetupError(what, ENAMETOOLONG);
  }
  path.copy(address.sun_path, path.size());
  return address;
}

void RemoveStaleSocket(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) == -1 || !S_ISSOCK(status.st_mode)) {
    return;
  }
  const sockaddr_un address = MakeUnixAddress(path, path);
  const Descriptor probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (::connect(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1 &&
      errno == ECONNREFUSED) {
    ::unlink(path.c_str());
  }
}
