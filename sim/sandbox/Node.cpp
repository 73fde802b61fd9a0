#include "sandbox/Node.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "sandbox/Errors.h"
#include "sandbox/Mounts.h"

namespace {

constexpr mode_t kRootsOwn = 0600;  // as on a board
constexpr mode_t kRootsAndGroups = 0660;

/// A master whose slave can be opened.
Descriptor OpenMaster(const char* ptmx) {
  Descriptor master(::open(ptmx, O_RDWR | O_NOCTTY | O_CLOEXEC));
  int unlocked = 0;
  if (!master || ::ioctl(master.Get(), TIOCSPTLCK, &unlocked) == -1) {
    return Descriptor();
  }
  return master;
}

/// As on a board, the members of a group may open it: the one for serial ports or, without such, root's.
void GiveToGroup(const std::string& port) {
  const group* const members = ::getgrnam("dialout");
  [[maybe_unused]] const bool isTheirs =
      members != nullptr && ::chown(port.c_str(), static_cast<uid_t>(-1), members->gr_gid) == 0;
  ::chmod(port.c_str(), kRootsAndGroups);
}

/// A terminal of the private /dev, under a name there.
Descriptor MakeTerminal(const std::string& path) {
  Descriptor master = OpenMaster("/dev/pts/ptmx");
  Require(static_cast<bool>(master), "the terminal for " + path + " can't be opened");
  unsigned int number = 0;
  ::ioctl(master.Get(), TIOCGPTN, &number);
  Require(Bind("/dev/pts/" + std::to_string(number), path), path + " can't be mounted");
  GiveToGroup(path);
  return master;
}

/// A FIFO's reading end.
Descriptor OpenReader(const std::string& path) {
  return Descriptor(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
}

/// A FIFO without a name. (Not a pipe: only with a FIFO does a reader learn each time that the last writer has gone.)
Descriptor MakeNamelessFifo() {
  const char* folder = std::getenv("TMPDIR");
  std::string place = std::string(folder == nullptr ? "/tmp" : folder) + "/boardsim-XXXXXX";
  Require(::mkdtemp(place.data()) != nullptr, place + " can't be made");
  const std::string name = place + "/watchdog";
  const bool made = ::mkfifo(name.c_str(), kRootsOwn) == 0;
  Descriptor fifo = OpenReader(name);
  const int error = errno;
  ::unlink(name.c_str());
  ::rmdir(place.c_str());
  errno = error;
  Require(made && fifo, name + " can't be made");
  return fifo;
}

void SetSize(const Descriptor& file, const Node& node) {
  Require(file && ::ftruncate(file.Get(), node.size) == 0, node.path + " can't be made");
}

}  // namespace

Descriptor MakeNode(const Node& node) {
  if (node.kind == Node::Kind::kTerminal) {
    MakeEmptyFile(node.path);
    return MakeTerminal(node.path);
  }
  MakeFoldersFor(node.path);
  if (node.kind == Node::Kind::kFifo) {
    Require(::mkfifo(node.path.c_str(), kRootsOwn) == 0, node.path + " can't be made");
    Require(node.otherName.empty() || ::link(node.path.c_str(), node.otherName.c_str()) == 0,
            node.otherName + " can't be made");
    return OpenReader(node.path);
  }
  Descriptor file(::open(node.path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kRootsOwn));
  SetSize(file, node);
  return file;
}

Descriptor RenewNode(const std::string& path) {
  ::umount2(path.c_str(), MNT_DETACH);
  return MakeTerminal(path);
}

Descriptor MakeNamelessNode(const Node& node) {
  switch (node.kind) {
    case Node::Kind::kTerminal: {
      Descriptor master = OpenMaster("/dev/ptmx");
      Require(static_cast<bool>(master), "the terminal for " + node.path + " can't be opened");
      return master;
    }
    case Node::Kind::kFifo:
      return MakeNamelessFifo();
    case Node::Kind::kFile:
      break;
  }
  Descriptor file(::memfd_create("node", MFD_CLOEXEC));
  SetSize(file, node);
  return file;
}
