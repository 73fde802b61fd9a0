#include "File.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <exception>
#include <fstream>

#include "../sys/DataPath.h"
#include "../sys/SystemError.h"
#include "SystemCalls.h"

using boardkit::ThrowSystemError;

namespace {

constexpr int kNoDescriptor = -1;
constexpr std::size_t kLinkSize = 1024;  // bytes of a link's target that are read
constexpr std::size_t kProcNameSize = 100;

bool HasMetEnd(std::FILE* stream) {
  return stream != nullptr && std::feof(stream) != 0;
}

}  // namespace

template <typename T>
File::Handle<T>::Handle(T value, T none, int (*release)(T)) : m_value(value), m_none(none), m_release(release) {}

template <typename T>
void File::Handle<T>::Replace(T value) {
  if (value != m_value && m_value != m_none) {
    m_release(m_value);
  }
  m_value = value;
}

File::File(const std::string& path, int flags, unsigned int mode)
    : m_fd(kNoDescriptor, kNoDescriptor, ::close),
      m_flags(flags),
      m_mode(mode),
      m_stream(nullptr, nullptr, std::fclose),
      m_name(path) {
  Init();
}

File::File(std::FILE* stream)
    : m_fd(stream == nullptr ? kNoDescriptor : ::fileno(stream), kNoDescriptor, ::close),
      m_flags(0),
      m_mode(0),
      m_stream(stream, nullptr, std::fclose) {
  Init();
}

File::File(int fd) : m_fd(fd, kNoDescriptor, ::close), m_flags(0), m_mode(0), m_stream(nullptr, nullptr, std::fclose) {
  Init();
}

// By contract: the members are destroyed in this order: the name, the stream with fclose, and then the descriptor with
// close, although fclose has closed it already.
File::~File() = default;

void File::Init() {
  // By contract: -1, a null stream's number too, stands for a file to be opened, whose name may be empty; and children
  // inherit what is opened.
  if (m_fd.Get() == kNoDescriptor) {
    m_fd.Replace(::open(m_name.c_str(), m_flags, m_mode));
    if (m_fd.Get() == kNoDescriptor) {
      ThrowSystemError({"Open for '", m_name, "' failed."});
    }
  }

  if (m_name.empty()) {
    char link[kProcNameSize] = {};
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", m_fd.Get());
    m_name = ReadLink(link);
  }

  if (m_stream.Get() == nullptr) {
    // By contract: for reading, whatever the descriptor was opened for; if that is refused, there is no stream.
    m_stream.Replace(::fdopen(m_fd.Get(), "rb"));
  }
}

bool File::Exists(const std::string& path) {
  // By contract: it is opened, so one that may not be read does not exist.
  return !path.empty() && std::ifstream(path).is_open();
}

std::FILE* File::GetFileHandle() const {
  return m_stream.Get();
}

bool File::EndOfFile() const {
  return HasMetEnd(m_stream.Get());
}

void File::WriteBytes(const unsigned char* data, unsigned int length) const {
  try {
    WriteLoop(m_fd.Get(), data, length);
  } catch (const std::exception& e) {
    // By contract: no separator between the two texts. Every failure is reworded, std::bad_alloc too, and gets the
    // number that errno holds here, whatever its own was.
    ThrowSystemError({e.what(), "WriteBytes to '", m_name, "' failed."});
  }
}

void File::PutString(const std::string& text) const {
  // By contract: of a length that does not fit into 32 bits, the low ones count.
  WriteBytes(reinterpret_cast<const unsigned char*>(text.data()), static_cast<unsigned int>(text.size()));
}

void File::ReadBytes(unsigned char* buffer, unsigned int length) const {
  // By contract: the stream's indicator is tested, although the bytes come through the descriptor. The end was met
  // earlier, so the error number is whatever errno happens to hold.
  if (HasMetEnd(m_stream.Get())) {
    ThrowSystemError({"End of file reached for '", m_name, "'."});
  }

  try {
    ReadLoop(m_fd.Get(), buffer, length);
  } catch (const std::exception& e) {
    // By contract: composed as in WriteBytes().
    ThrowSystemError({e.what(), "ReadBytes from '", m_name, "' failed."});
  }
}

std::string File::ReadLink(const std::string& path) {
  char target[kLinkSize] = {};
  if (::readlink(path.c_str(), target, sizeof target) == -1) {
    // By contract: the word "failed" appears twice.
    ThrowSystemError({"ReadLink failed for '", path, "' failed."});
  }
  // A target as long as the buffer ends without a NUL.
  return std::string(target, ::strnlen(target, sizeof target));
}

long File::Seek(long offset, int whence) const {
  const off_t position = ::lseek(m_fd.Get(), offset, whence);
  const auto told = static_cast<long>(position);
  // Where off_t is wider than long, an offset that does not fit fails as it does in an lseek with a narrow off_t.
  if (position == -1 || told != position) {
    // By contract: here, too, the word "failed" appears twice.
    ThrowSystemError(position == -1 ? errno : EOVERFLOW, {"Seeking failed for '", m_name, "' failed."});
  }
  return told;
}

int File::Ioctl(int request, ...) const {
  std::va_list arguments;
  va_start(arguments, request);
  // By contract: the argument list itself is passed on, not the first argument in it.
  const int result = ::ioctl(m_fd.Get(), static_cast<unsigned int>(request), arguments);
  va_end(arguments);

  if (result == -1) {
    // By contract: "failed" twice, as above.
    ThrowSystemError({"IO Control failed for '", m_name, "' failed."});
  }
  return result;
}
