// A file whose name is learned from the kernel, and what failures tell of it.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <File.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <system_error>
#include <vector>

#include "Chapters.h"
#include "Page.h"

namespace {

/// A file for the time of the chapter.
class Scratch {
 public:
  Scratch() : m_fd(::mkstemp(m_path)) {
    if (m_fd == -1) {
      throw std::system_error(errno, std::system_category(), std::string("A file like ") + m_path);
    }
  }

  ~Scratch() {
    ::unlink(m_path);
  }

  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  /// For a File, which closes it.
  int Descriptor() const {
    return m_fd;
  }

 private:
  char m_path[24] = "/tmp/board-tour-XXXXXX";
  int m_fd;
};

}  // namespace

void ShowFiles() {
  const Scratch scratch;
  page::Step("Adopt an open descriptor; write, go back, and read");
  page::Call("File file(" + std::to_string(scratch.Descriptor()) + ")");
  const File file(scratch.Descriptor());
  const std::string text = "kept in a file";
  page::Call("file.PutString(" + page::Quoted(text) + ")");
  file.PutString(text);
  page::Call("file.Seek(0, SEEK_SET)");
  page::Row("result", std::to_string(file.Seek(0, SEEK_SET)));
  std::vector<unsigned char> buffer(text.size());
  const auto length = static_cast<unsigned int>(buffer.size());
  page::Call("file.ReadBytes(buffer, " + std::to_string(length) + ")");
  file.ReadBytes(buffer.data(), length);
  page::Row("buffer", page::Quoted(std::string(buffer.begin(), buffer.end())));

  page::Step("Its name, which only the kernel knew; every failure tells it");
  const std::string link = "/proc/self/fd/" + std::to_string(scratch.Descriptor());
  page::Call("File::ReadLink(" + page::Quoted(link) + ")");
  page::Row("result", page::Quoted(File::ReadLink(link)));
  page::Call("file.Ioctl(TIOCEXCL)");
  try {
    file.Ioctl(TIOCEXCL);
  } catch (const std::exception& e) {
    page::Row("throws", page::Quoted(e.what()));
  }
}
