#include "devices/ends/PtyEnd.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "SetupError.h"
#include "devices/PseudoTerminal.h"

PtyEnd::PtyEnd(const std::string& device, const std::string& link, EventLog& log) : StreamEnd(device, log) {
  Descriptor master(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
  if (!master || ::grantpt(master.Get()) == -1 || ::unlockpt(master.Get()) == -1) {
    throw SetupError("the far end of " + device + " gets no pseudo-terminal", errno);
  }
  m_slave = OpenRawSlave(master);
  if (!m_slave) {
    throw SetupError("the far end of " + device + " can't be opened", errno);
  }

  char name[64];
  if (const int error = ::ptsname_r(master.Get(), name, sizeof name); error != 0) {
    throw SetupError("the far end of " + device + " has no name", error);
  }
  Use(std::move(master));
  if (link.empty()) {
    std::fprintf(stderr, "boardsim: the far end of %s is %s\n", device.c_str(), name);
    return;
  }
  // What a killed simulator has left behind points nowhere.
  if (struct stat status{};
      ::lstat(link.c_str(), &status) == 0 && S_ISLNK(status.st_mode) && ::access(link.c_str(), F_OK) == -1) {
    ::unlink(link.c_str());
  }
  if (::symlink(name, link.c_str()) == -1) {
    throw SetupError("the far end of " + device + " can't be linked as " + link, errno);
  }
  m_link = link;
}

PtyEnd::~PtyEnd() {
  if (!m_link.empty()) {
    ::unlink(m_link.c_str());
  }
}
