#include "sandbox/Files.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include "Descriptor.h"
#include "sandbox/Errors.h"

void MakeFoldersFor(const std::string& path) {
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    ::mkdir(path.substr(0, slash).c_str(), kFolderMode);
  }
}

void MakeEmptyFile(const std::string& path) {
  MakeFoldersFor(path);
  const Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, kNodeMode));
  Require(static_cast<bool>(file), path + " can't be made");
}

bool Bind(const std::string& source, const std::string& target) {
  return ::mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) == 0;
}
