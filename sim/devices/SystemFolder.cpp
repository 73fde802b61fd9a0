#include "devices/SystemFolder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

void SystemFolder::Write(const std::string& name, const std::string& text) {
  if (!m_folder) {
    return;
  }
  constexpr mode_t kReadable = 0444;
  File& file = m_files[name];
  if (!file.descriptor) {
    file.descriptor =
        Descriptor(::openat(m_folder.Get(), name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kReadable));
    ::fchmod(file.descriptor.Get(), kReadable);  // whatever the user's own files are like
  } else if (file.text == text) {
    return;
  }
  file.text = text;
  // In this order, a reader meanwhile finds the old number or the new one, perhaps without its end of line.
  const std::string line = text + '\n';
  [[maybe_unused]] const bool isWritten =
      ::pwrite(file.descriptor.Get(), line.data(), line.size(), 0) == static_cast<ssize_t>(line.size()) &&
      ::ftruncate(file.descriptor.Get(), static_cast<off_t>(line.size())) == 0;
}
