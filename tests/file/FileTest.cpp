#include "File.h"

#include <fcntl.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "../sys/SysTexts.h"
#include "Allocations.h"
#include "AnotherProcess.h"
#include "ExpectThrow.h"
#include "FileTexts.h"
#include "OpenDescriptors.h"
#include "ScriptedKernel.h"
#include "TemporaryFolder.h"

namespace {

using Calls = ScriptedKernel::Calls;

static_assert(!std::is_copy_constructible_v<File> && !std::is_copy_assignable_v<File>,
              "who would close what it holds?");
static_assert(!std::is_move_constructible_v<File> && !std::is_move_assignable_v<File>, "a file has no empty state");
static_assert(!std::is_convertible_v<int, File> && !std::is_convertible_v<std::FILE*, File>, "adopting is said aloud");
static_assert(std::is_constructible_v<File, int> && std::is_constructible_v<File, std::FILE*>);
static_assert(!std::is_polymorphic_v<File>);
static_assert(std::is_nothrow_destructible_v<File>);

bool IsOpen(int fd) {
  return ::fcntl(fd, F_GETFD, 0) != -1;
}

std::string Contents(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// What @p file reads, as a text.
std::string Read(const File& file, unsigned int length) {
  std::string text(length, '.');
  file.ReadBytes(reinterpret_cast<unsigned char*>(text.data()), length);
  return text;
}

void Write(const File& file, const std::string& text) {
  file.WriteBytes(reinterpret_cast<const unsigned char*>(text.data()), static_cast<unsigned int>(text.size()));
}

/// The test's own folder, and a check that no descriptor is left behind.
class FileTest : public testing::Test {
 protected:
  void TearDown() override {
    EXPECT_EQ(OpenDescriptors(), m_descriptors);
  }

  std::string Path(const std::string& name) const {
    return m_folder.Path() / name;
  }
  std::string Make(const std::string& name, const std::string& contents) const {
    std::ofstream(Path(name)) << contents;
    return Path(name);
  }

 private:
  TemporaryFolder m_folder{"file-test"};
  std::set<int> m_descriptors = OpenDescriptors();
};

using FileOpening = FileTest;
using FileAdopting = FileTest;
using FileReleasing = FileTest;
using FileStream = FileTest;
using FileTransfer = FileTest;
using FileLinks = FileTest;
using FileExists = FileTest;
using FileSeek = FileTest;
using FileIoctl = FileTest;

// --- From a path -----------------------------------------------------------------------------------------------------

TEST_F(FileOpening, APathIsOpenedWithItsFlagsAndIsTheName) {
  const std::string path = Make("there", "0123456789");
  ScriptedKernel kernel;
  kernel.Watch("open").Watch("readlink").Watch("fdopen");
  const int fd = NextDescriptor();

  const File file(path, O_RDWR | O_APPEND, 0);

  EXPECT_EQ(kernel.Seen(), (Calls{"open(\"" + path + "\", 0x402)", "fdopen(" + std::to_string(fd) + ", \"rb\")"}));
  EXPECT_EQ(::fcntl(fd, F_GETFL) & (O_ACCMODE | O_APPEND), O_RDWR | O_APPEND);
  EXPECT_EQ(Read(file, 4), "0123");
}

TEST_F(FileOpening, ANewFileGetsThePermissionBitsOfTheMode) {
  const mode_t mask = ::umask(0);
  { const File file(Path("new"), O_CREAT | O_EXCL | O_RDWR, 0614); }
  ::umask(mask);

  struct stat status {};
  ASSERT_EQ(::stat(Path("new").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0614U);
}

TEST_F(FileOpening, ARelativePathIsTheNameAsItIs) {
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(std::filesystem::path(Make("there", "")).parent_path());
  {
    const File file("there", O_RDONLY, 0);
    EXPECT_SYSTEM_ERROR(file.Seek(-1, SEEK_SET), EINVAL, filetext::SeekFailed("there"));
  }
  std::filesystem::current_path(before);
}

TEST_F(FileOpening, AMissingFileThrowsEnoentWithItsPath) {
  const std::string path = Path("missing");

  EXPECT_SYSTEM_ERROR(File(path, O_RDONLY, 0), ENOENT, filetext::OpenFailed(path));
  EXPECT_EXACT_THROW(File("/missing", O_RDONLY, 0), std::system_error,
                     filetext::OpenFailed("/missing") + ": No such file or directory");
}

TEST_F(FileOpening, TheErrorNumberIsTheFailedCallsEvenIfAllocatingTheMessageChangesErrno) {
  const std::string path = Make("there", "");
  const File file(path, O_RDONLY, 0);
  const ErrnoChangingAllocations changing;

  EXPECT_SYSTEM_ERROR(File(Path("missing"), O_RDONLY, 0), ENOENT, filetext::OpenFailed(Path("missing")));
  EXPECT_SYSTEM_ERROR(File::ReadLink(path), EINVAL, filetext::ReadLinkFailed(path));
  EXPECT_SYSTEM_ERROR(file.Seek(-1, SEEK_SET), EINVAL, filetext::SeekFailed(path));
  EXPECT_SYSTEM_ERROR(file.Ioctl(TIOCMGET), ENOTTY, filetext::IoctlFailed(path));
}

TEST_F(FileOpening, OtherReasonsThrowWithTheirNumbers) {
  const std::string path = Make("there", "");
  const std::string folder = std::filesystem::path(path).parent_path();

  EXPECT_SYSTEM_ERROR(File(path, O_CREAT | O_EXCL | O_RDWR, 0600), EEXIST, filetext::OpenFailed(path));
  EXPECT_SYSTEM_ERROR(File(folder, O_RDWR, 0), EISDIR, filetext::OpenFailed(folder));
  EXPECT_SYSTEM_ERROR(File(path + "/below", O_RDONLY, 0), ENOTDIR, filetext::OpenFailed(path + "/below"));
}

TEST_F(FileOpening, TheEmptyPathIsOpenedLikeAnyOther) {
  ScriptedKernel kernel;
  kernel.Watch("open");

  EXPECT_SYSTEM_ERROR(File("", O_RDONLY, 0), ENOENT, filetext::OpenFailed(""));

  EXPECT_EQ(kernel.Seen(), (Calls{"open(\"\", 0x0)"}));
}

TEST_F(FileOpening, AFailedOpenClosesNothing) {
  for (const int error : {EACCES, EMFILE, EINTR}) {
    SCOPED_TRACE(ErrorName(error));
    ScriptedKernel kernel;
    kernel.Script("open", {Fails(error)}).Watch("close").Watch("fclose").Watch("fdopen");

    EXPECT_SYSTEM_ERROR(File("/dev/null", O_RDWR, 0), error, filetext::OpenFailed("/dev/null"));

    EXPECT_EQ(kernel.Seen(), (Calls{"open(\"/dev/null\", 0x2)"}));
  }
}

TEST_F(FileOpening, InitOfACompleteObjectDoesNothing) {
  const std::string path = Make("there", "0123456789");
  const int fd = NextDescriptor();
  File byPath(path, O_RDONLY, 0);
  File byDescriptor(::open(path.c_str(), O_RDONLY));
  File byStream(std::fopen(path.c_str(), "r"));
  ASSERT_EQ(Read(byPath, 2), "01");
  ScriptedKernel kernel;
  for (const char* function : {"open", "close", "readlink", "fdopen", "fclose", "lseek"}) {
    kernel.Watch(function);
  }

  for (const auto& [origin, file] :
       {std::pair("a path", &byPath), {"a descriptor", &byDescriptor}, {"a stream", &byStream}}) {
    SCOPED_TRACE(origin);
    std::FILE* const stream = file->GetFileHandle();
    file->Init();
    EXPECT_EQ(file->GetFileHandle(), stream);
  }

  EXPECT_EQ(kernel.Seen(), Calls{});
  EXPECT_EQ(Read(byPath, 2), "23");
  EXPECT_TRUE(IsOpen(fd));
}

// --- From a descriptor or a stream -----------------------------------------------------------------------------------

TEST_F(FileAdopting, ADescriptorGetsItsNameFromTheKernel) {
  const std::string path = Make("there", "0123456789");
  const int fd = ::open(path.c_str(), O_RDONLY);
  ScriptedKernel kernel;
  kernel.Watch("open").Watch("readlink").Watch("fdopen");

  const File file(fd);

  const std::string number = std::to_string(fd);
  EXPECT_EQ(kernel.Seen(),
            (Calls{"readlink(\"/proc/self/fd/" + number + "\", 1024)", "fdopen(" + number + ", \"rb\")"}));
  EXPECT_EQ(Read(file, 3), "012");
  EXPECT_SYSTEM_ERROR(file.Seek(-1, SEEK_SET), EINVAL, filetext::SeekFailed(path));
}

TEST_F(FileAdopting, AStreamIsKeptAndItsDescriptorUsed) {
  const std::string path = Make("there", "0123456789");
  std::FILE* const stream = std::fopen(path.c_str(), "r+");
  const std::string number = std::to_string(::fileno(stream));
  ScriptedKernel kernel;
  kernel.Watch("open").Watch("readlink").Watch("fdopen");

  const File file(stream);

  EXPECT_EQ(kernel.Seen(), (Calls{"readlink(\"/proc/self/fd/" + number + "\", 1024)"}));
  EXPECT_EQ(file.GetFileHandle(), stream);
  EXPECT_EQ(Read(file, 3), "012");
  Write(file, "xyz");
  EXPECT_EQ(Contents(path), "012xyz6789");
  EXPECT_SYSTEM_ERROR(file.Seek(-1, SEEK_SET), EINVAL, filetext::SeekFailed(path));
}

TEST_F(FileAdopting, EveryKindOfFileHasAName) {
  std::array<int, 2> pipe{};
  ASSERT_EQ(::pipe(pipe.data()), 0);
  std::array<int, 2> sockets{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sockets.data()), 0);
  int master = -1;
  int slave = -1;
  std::array<char, 64> terminal{};
  ASSERT_EQ(::openpty(&master, &slave, terminal.data(), nullptr, nullptr), 0);
  const std::string deleted = Make("deleted", "");
  const int fd = ::open(deleted.c_str(), O_RDONLY);
  std::filesystem::remove(deleted);

  // A failure shows the name: none of these can seek, and the deleted one cannot seek before its start.
  struct Named {
    int fd;
    std::string beginning;  // of its name
    int error;
  };
  const std::vector<Named> expected = {{pipe[0], "pipe:[", ESPIPE},
                                       {pipe[1], "pipe:[", ESPIPE},
                                       {sockets[0], "socket:[", ESPIPE},
                                       {slave, terminal.data(), ESPIPE},
                                       {fd, deleted + " (deleted)", EINVAL}};
  for (const Named& named : expected) {
    SCOPED_TRACE(named.beginning);
    const std::string name = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(named.fd));
    EXPECT_EQ(name.substr(0, named.beginning.size()), named.beginning);
    const File file(named.fd);
    EXPECT_SYSTEM_ERROR(file.Seek(-1, SEEK_SET), named.error, filetext::SeekFailed(name));
  }
  ::close(sockets[1]);
  ::close(master);
}

TEST_F(FileAdopting, MinusOneOpensTheEmptyName) {
  ScriptedKernel kernel;
  kernel.Watch("open").Watch("close").Watch("readlink");

  EXPECT_SYSTEM_ERROR(File(-1), ENOENT, filetext::OpenFailed(""));

  EXPECT_EQ(kernel.Seen(), (Calls{"open(\"\", 0x0)"}));
}

TEST_F(FileAdopting, ANullStreamIsADescriptorOfNone) {
  ScriptedKernel kernel;
  kernel.Watch("open").Watch("close").Watch("fclose").Watch("readlink");

  EXPECT_SYSTEM_ERROR(File(static_cast<std::FILE*>(nullptr)), ENOENT, filetext::OpenFailed(""));

  EXPECT_EQ(kernel.Seen(), (Calls{"open(\"\", 0x0)"}));
}

TEST_F(FileAdopting, AStreamWithoutADescriptorIsClosedAloneAndOpensTheEmptyName) {
  char memory[8] = {};
  std::FILE* const stream = ::fmemopen(memory, sizeof memory, "r+");
  ASSERT_NE(stream, nullptr);
  ScriptedKernel kernel;
  kernel.Watch("open").Watch("close").Watch("fclose").Watch("readlink");

  EXPECT_SYSTEM_ERROR(File{stream}, ENOENT, filetext::OpenFailed(""));

  EXPECT_EQ(kernel.Seen(), (Calls{"open(\"\", 0x0)", "fclose()"}));
}

TEST_F(FileAdopting, ARenamedFileKeepsTheNameThatItHadAtFirst) {
  const std::string path = Make("there", "");
  const File byPath(path, O_RDONLY, 0);
  File byDescriptor(::open(path.c_str(), O_RDONLY));
  std::filesystem::rename(path, Path("elsewhere"));
  byDescriptor.Init();

  EXPECT_SYSTEM_ERROR(byPath.Seek(-1, SEEK_SET), EINVAL, filetext::SeekFailed(path));
  EXPECT_SYSTEM_ERROR(byDescriptor.Seek(-1, SEEK_SET), EINVAL, filetext::SeekFailed(path));
}

TEST_F(FileAdopting, ADescriptorThatIsNotOpenHasNoLinkAndIsClosedAllTheSame) {
  const int fd = NextDescriptor();
  const std::string number = std::to_string(fd);
  ScriptedKernel kernel;
  kernel.Watch("close").Watch("fdopen");

  EXPECT_SYSTEM_ERROR(File{fd}, ENOENT, filetext::ReadLinkFailed("/proc/self/fd/" + number));

  EXPECT_EQ(kernel.Seen(), (Calls{"close(" + number + ")"}));
}

TEST_F(FileAdopting, ALinkThatCannotBeReadClosesTheDescriptor) {
  const int fd = ::open("/dev/null", O_RDWR);
  const std::string number = std::to_string(fd);
  ScriptedKernel kernel;
  kernel.Script("readlink", {Fails(EACCES)}).Watch("close").Watch("fclose").Watch("fdopen");

  EXPECT_SYSTEM_ERROR(File{fd}, EACCES, filetext::ReadLinkFailed("/proc/self/fd/" + number));

  EXPECT_EQ(kernel.Seen(), (Calls{"readlink(\"/proc/self/fd/" + number + "\", 1024)", "close(" + number + ")"}));
  EXPECT_FALSE(IsOpen(fd));
}

TEST_F(FileAdopting, ALinkThatCannotBeReadClosesTheStreamAndThenItsDescriptor) {
  std::FILE* const stream = std::fopen("/dev/null", "r");
  const int fd = ::fileno(stream);
  const std::string number = std::to_string(fd);
  ScriptedKernel kernel;
  kernel.Script("readlink", {Fails(EACCES)}).Watch("close").Watch("fclose");

  EXPECT_SYSTEM_ERROR(File{stream}, EACCES, filetext::ReadLinkFailed("/proc/self/fd/" + number));

  EXPECT_EQ(kernel.Seen(),
            (Calls{"readlink(\"/proc/self/fd/" + number + "\", 1024)", "fclose()", "close(" + number + ")"}));
  EXPECT_FALSE(IsOpen(fd));
}

TEST_F(FileAdopting, AnEmptyLinkLeavesAnEmptyName) {
  const int fd = ::open(Make("there", "").c_str(), O_RDONLY);
  ScriptedKernel kernel;
  kernel.Script("readlink", {Returns(0)});

  const File file(fd);

  EXPECT_SYSTEM_ERROR(file.Seek(-1, SEEK_SET), EINVAL, filetext::SeekFailed(""));
}

// --- Release ---------------------------------------------------------------------------------------------------------

TEST_F(FileReleasing, TheStreamIsClosedAndThenTheDescriptorASecondTime) {
  const std::string path = Make("there", "");
  const auto byPath = [&] { return std::make_unique<File>(path, O_RDWR, 0); };
  const auto byDescriptor = [&] { return std::make_unique<File>(::open(path.c_str(), O_RDWR)); };
  const auto byStream = [&] { return std::make_unique<File>(std::fopen(path.c_str(), "r+")); };
  const auto check = [&](const auto& make) {
    const int fd = NextDescriptor();
    auto file = make();
    std::vector<bool> openAtClose;
    ScriptedKernel kernel;
    kernel.Watch("fclose").Simulate("close", [&](const Question& question) {
      openAtClose.push_back(IsOpen(question.fd));
      return Real();
    });

    file.reset();

    EXPECT_EQ(kernel.Seen(), (Calls{"fclose()", "close(" + std::to_string(fd) + ")"}));
    EXPECT_EQ(openAtClose, std::vector<bool>{false});
    EXPECT_FALSE(IsOpen(fd));
  };
  check(byPath);
  check(byDescriptor);
  check(byStream);
}

TEST_F(FileReleasing, WithoutAStreamTheDescriptorIsClosedOnce) {
  const std::string path = Make("there", "");
  const int fd = NextDescriptor();
  auto file = std::make_unique<File>(path, O_WRONLY, 0);
  ScriptedKernel kernel;
  kernel.Watch("fclose").Watch("close");

  file.reset();

  EXPECT_EQ(kernel.Seen(), (Calls{"close(" + std::to_string(fd) + ")"}));
  EXPECT_FALSE(IsOpen(fd));
}

TEST_F(FileReleasing, FailuresAreIgnored) {
  const std::string path = Make("there", "");
  auto file = std::make_unique<File>(path, O_RDWR, 0);
  ScriptedKernel kernel;
  kernel.Script("fclose", {Fails(ENOSPC)}).Script("close", {Fails(EIO)});

  EXPECT_NO_THROW(file.reset());
}

TEST_F(FileReleasing, WhatTheStreamStillHoldsIsWrittenBeforeTheDescriptorGoes) {
  const std::string path = Make("there", "");
  {
    const File file(std::fopen(path.c_str(), "r+"));
    ASSERT_EQ(std::fputs("kept back", file.GetFileHandle()), 1);
    ASSERT_EQ(Contents(path), "");
  }
  EXPECT_EQ(Contents(path), "kept back");
}

// --- The stream ------------------------------------------------------------------------------------------------------

TEST_F(FileStream, IsForReadingWhateverTheFlags) {
  const std::string path = Make("there", "abc");
  for (const int flags : {O_RDONLY, O_RDWR, O_RDWR | O_APPEND}) {
    SCOPED_TRACE(flags);
    const File file(path, flags, 0);
    ASSERT_NE(file.GetFileHandle(), nullptr);
    EXPECT_EQ(std::fgetc(file.GetFileHandle()), 'a');
    EXPECT_EQ(std::fputc('x', file.GetFileHandle()), EOF);
  }
}

TEST_F(FileStream, AWriteOnlyFileHasNone) {
  const std::string path = Make("there", "");
  const File byPath(path, O_WRONLY, 0);
  const File byDescriptor(::open(path.c_str(), O_WRONLY));

  EXPECT_EQ(byPath.GetFileHandle(), nullptr);
  EXPECT_EQ(byDescriptor.GetFileHandle(), nullptr);
  EXPECT_FALSE(byPath.EndOfFile());
  byPath.PutString("works");
  EXPECT_EQ(Contents(path), "works");
}

TEST_F(FileStream, AFailedFdopenIsNoErrorAndIsTriedAgainByInit) {
  const std::string path = Make("there", "abc");
  ScriptedKernel kernel;
  kernel.Script("fdopen", {Fails(ENOMEM), Fails(ENOMEM), Real()});
  File file(path, O_RDONLY, 0);

  EXPECT_EQ(file.GetFileHandle(), nullptr);
  EXPECT_FALSE(file.EndOfFile());
  EXPECT_EQ(Read(file, 2), "ab");
  file.Init();
  EXPECT_EQ(file.GetFileHandle(), nullptr);
  file.Init();
  EXPECT_NE(file.GetFileHandle(), nullptr);
}

TEST_F(FileStream, WithoutOneTheEndIsThatOfTheDescriptor) {
  std::array<int, 2> pipe{};
  ASSERT_EQ(::pipe(pipe.data()), 0);
  ::close(pipe[1]);
  ScriptedKernel kernel;
  kernel.Script("fdopen", {Fails(ENOMEM)}).Script("readlink", {Gives("/the/pipe")});
  const File file(pipe[0]);

  errno = ENOTTY;
  EXPECT_SYSTEM_ERROR(Read(file, 1), ENOTTY, filetext::ReadFailed(systext::kReadEnd, "/the/pipe"));
}

TEST_F(FileStream, OnceItHasMetTheEndReadBytesFailsWithWhateverErrnoHolds) {
  const std::string path = Make("there", "abc");
  const File file(path, O_RDONLY, 0);
  std::array<char, 10> buffer{};
  ASSERT_EQ(std::fread(buffer.data(), 1, 3, file.GetFileHandle()), 3U);
  EXPECT_FALSE(file.EndOfFile());
  ASSERT_EQ(std::fgetc(file.GetFileHandle()), EOF);
  EXPECT_TRUE(file.EndOfFile());
  ASSERT_EQ(file.Seek(0, SEEK_SET), 0);
  ScriptedKernel kernel;
  kernel.Watch("read");

  for (const int error : {0, ENOTTY, EINTR}) {
    SCOPED_TRACE(ErrorName(error));
    errno = error;
    EXPECT_SYSTEM_ERROR(Read(file, 1), error, filetext::EndOfFile(path));
  }
  errno = 0;
  EXPECT_SYSTEM_ERROR(Read(file, 0), 0, filetext::EndOfFile(path));
  EXPECT_EQ(kernel.Seen(), Calls{});

  // The indicator is the stream's own, which Seek() does not know.
  EXPECT_TRUE(file.EndOfFile());
  std::clearerr(file.GetFileHandle());
  EXPECT_EQ(Read(file, 3), "abc");
}

// --- Bytes -----------------------------------------------------------------------------------------------------------

TEST_F(FileTransfer, AllBytesGoThroughTheDescriptor) {
  const std::string path = Path("new");
  const std::string all = [] {
    std::string text;
    for (int i = 0; i < 256; ++i) {
      text += static_cast<char>(i);
    }
    return text;
  }();
  const File file(path, O_CREAT | O_RDWR, 0600);

  Write(file, all);
  file.PutString(std::string("\0text\0", 6));
  file.PutString("");
  Write(file, "");

  EXPECT_EQ(Contents(path), all + std::string("\0text\0", 6));
  EXPECT_EQ(file.Seek(0, SEEK_SET), 0);
  EXPECT_EQ(Read(file, 256), all);
  EXPECT_EQ(Read(file, 0), "");
  EXPECT_EQ(Read(file, 6), std::string("\0text\0", 6));
}

TEST_F(FileTransfer, TheLoopsContinueAndRepeat) {
  const std::string path = Make("there", "");
  const File file(path, O_RDWR, 0);
  ScriptedKernel kernel;
  kernel.Script("write", {Returns(2), Fails(EINTR), Returns(2)});
  kernel.Script("read", {Gives("ab"), Fails(EAGAIN), Gives("cd")});

  file.PutString("0123");

  EXPECT_EQ(Read(file, 4), "abcd");
}

TEST_F(FileTransfer, NothingToWriteDoesNotTouchTheDescriptor) {
  const File file(Make("there", ""), O_RDONLY, 0);
  ScriptedKernel kernel;
  kernel.Watch("write");

  file.PutString("");
  file.WriteBytes(nullptr, 0);

  EXPECT_EQ(kernel.Seen(), Calls{});
}

TEST_F(FileTransfer, AFailedWriteThrowsBothTextsWithoutASeparator) {
  const std::string path = Make("there", "");
  const File file(path, O_RDWR, 0);
  for (const int error : {EIO, ENOSPC, EPIPE}) {
    SCOPED_TRACE(ErrorName(error));
    ScriptedKernel kernel;
    kernel.Script("write", {Returns(1), Fails(error), Fails(error)});
    const std::string text = filetext::WriteFailed(systext::kWriteError + ": " + std::strerror(error), path);

    EXPECT_SYSTEM_ERROR(Write(file, "abc"), error, text);
    EXPECT_SYSTEM_ERROR(file.PutString("abc"), error, text);
  }
}

TEST_F(FileTransfer, APipeWithoutReaderThrowsEpipe) {
  std::array<int, 2> pipe{};
  ASSERT_EQ(::pipe(pipe.data()), 0);
  ::close(pipe[0]);
  ScriptedKernel kernel;
  kernel.Script("readlink", {Gives("/tmp/out")});
  const File file(pipe[1]);
  auto* const before = std::signal(SIGPIPE, SIG_IGN);

  EXPECT_EXACT_THROW(file.PutString("x"), std::system_error,
                     filetext::WriteFailed(systext::kWriteError + ": Broken pipe", "/tmp/out") + ": Broken pipe");

  std::signal(SIGPIPE, before);
}

TEST_F(FileTransfer, AWriteWithoutProgressBecomesASystemErrorWithWhateverErrnoHolds) {
  const std::string path = Make("there", "");
  const File file(path, O_RDWR, 0);
  for (const int error : {0, ENOSPC}) {
    SCOPED_TRACE(ErrorName(error));
    ScriptedKernel kernel;
    kernel.Script("write", {{0, error, {}, false}});

    EXPECT_SYSTEM_ERROR(file.PutString("x"), error, filetext::WriteFailed(systext::kWriteStuck, path));
  }
}

TEST_F(FileTransfer, WhatIsNoStandardExceptionPassesThroughAsItIs) {
  struct Foreign {
    int number;
  };
  const File file(Make("there", "abc"), O_RDWR, 0);
  const auto thrownBy = [](const char* function, const auto& call) {
    ScriptedKernel kernel;
    kernel.Simulate(function, [](const Question&) -> Answer { throw Foreign{7}; });
    try {
      call();
    } catch (const Foreign& foreign) {
      return foreign.number;
    }
    return 0;
  };

  EXPECT_EQ(thrownBy("write", [&] { Write(file, "x"); }), 7);
  EXPECT_EQ(thrownBy("write", [&] { file.PutString("x"); }), 7);
  EXPECT_EQ(thrownBy("read", [&] { Read(file, 1); }), 7);
}

TEST_F(FileTransfer, ReadingTenBytesOfFourThrowsAndTheDescriptorIsBehindThem) {
  const std::string path = Make("there", "0123");
  const File file(path, O_RDONLY, 0);
  std::string buffer(10, '.');

  for (const int error : {0, ENOTTY}) {
    SCOPED_TRACE(ErrorName(error));
    ASSERT_EQ(file.Seek(0, SEEK_SET), 0);
    errno = error;
    EXPECT_SYSTEM_ERROR(file.ReadBytes(reinterpret_cast<unsigned char*>(buffer.data()), 10), error,
                        filetext::ReadFailed(systext::kReadEnd, path));
  }

  EXPECT_EQ(buffer, "0123......");
  EXPECT_EQ(file.Seek(0, SEEK_CUR), 4);
  EXPECT_FALSE(file.EndOfFile());
}

TEST_F(FileTransfer, AFailedReadThrowsBothTextsWithoutASeparator) {
  const std::string path = Make("there", "");
  const File file(path, O_RDWR, 0);
  for (const int error : {EIO, EISDIR, EBADF}) {
    SCOPED_TRACE(ErrorName(error));
    ScriptedKernel kernel;
    kernel.Script("read", {Gives("a"), Fails(error)});

    EXPECT_SYSTEM_ERROR(Read(file, 3), error,
                        filetext::ReadFailed(systext::kReadError + ": " + std::strerror(error), path));
  }
}

TEST_F(FileTransfer, AWriteOnlyFileCannotBeRead) {
  const std::string path = Make("there", "abc");
  const File file(path, O_WRONLY, 0);

  EXPECT_SYSTEM_ERROR(Read(file, 1), EBADF,
                      filetext::ReadFailed(systext::kReadError + ": " + std::strerror(EBADF), path));
}

TEST_F(FileTransfer, ATerminalIsReadAndWritten) {
  int master = -1;
  int slave = -1;
  ASSERT_EQ(::openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
  {
    const File file(slave);
    ASSERT_EQ(::write(master, "in\n", 3), 3);
    EXPECT_EQ(Read(file, 3), "in\n");
    file.PutString("out");
    const File other(master);
    EXPECT_EQ(Read(other, 7), "in\r\nout");
  }
  EXPECT_FALSE(IsOpen(master));
  EXPECT_FALSE(IsOpen(slave));
}

// --- Links -----------------------------------------------------------------------------------------------------------

TEST_F(FileLinks, TheTargetIsReadAsItStands) {
  const std::string link = Path("link");
  std::filesystem::create_symlink("../no such \xff file/", link);

  EXPECT_EQ(File::ReadLink(link), "../no such \xff file/");
}

TEST_F(FileLinks, AtMost1024BytesOfTheTargetAreRead) {
  for (const std::size_t length : {1U, 255U, 1022U, 1023U, 1024U, 1025U, 2000U}) {
    SCOPED_TRACE(length);
    const std::string target(length, 'x');
    const std::string link = Path("to" + std::to_string(length));
    std::filesystem::create_symlink(target, link);

    EXPECT_EQ(File::ReadLink(link), target.substr(0, 1024));
  }
}

TEST_F(FileLinks, TheKernelIsAskedFor1024Bytes) {
  for (const std::size_t length : {0U, 1023U, 1024U, 1025U}) {
    SCOPED_TRACE(length);
    ScriptedKernel kernel;
    kernel.Script("readlink", {Gives(std::string(length, 'y'))});

    EXPECT_EQ(File::ReadLink("/a/link"), std::string(length, 'y').substr(0, 1024));

    EXPECT_EQ(kernel.Seen(), (Calls{"readlink(\"/a/link\", 1024)"}));
  }
}

TEST_F(FileLinks, TheTargetEndsAtItsFirstZeroByte) {
  ScriptedKernel kernel;
  kernel.Script("readlink", {Gives(std::string("ab\0cd", 5)), Gives(std::string("\0cd", 3)),
                             Gives(std::string(1023, 'z') + std::string("\0z", 2))});

  EXPECT_EQ(File::ReadLink("/a/link"), "ab");
  EXPECT_EQ(File::ReadLink("/a/link"), "");
  EXPECT_EQ(File::ReadLink("/a/link"), std::string(1023, 'z'));
}

TEST_F(FileLinks, FailuresThrowWithFailedTwice) {
  const std::string path = Make("there", "");

  EXPECT_SYSTEM_ERROR(File::ReadLink(Path("missing")), ENOENT, filetext::ReadLinkFailed(Path("missing")));
  EXPECT_SYSTEM_ERROR(File::ReadLink(path), EINVAL, filetext::ReadLinkFailed(path));
  EXPECT_SYSTEM_ERROR(File::ReadLink(""), ENOENT, filetext::ReadLinkFailed(""));
  EXPECT_EXACT_THROW(File::ReadLink("/missing"), std::system_error,
                     filetext::ReadLinkFailed("/missing") + ": No such file or directory");
}

// --- Exists ----------------------------------------------------------------------------------------------------------

TEST_F(FileExists, MeansThatItCanBeRead) {
  const std::string path = Make("there", "");
  std::filesystem::create_symlink("nowhere", Path("dangling"));
  std::filesystem::create_symlink("there", Path("link"));

  EXPECT_TRUE(File::Exists(path));
  EXPECT_TRUE(File::Exists(Path("link")));
  EXPECT_TRUE(File::Exists("/dev/null"));
  EXPECT_TRUE(File::Exists(std::filesystem::path(path).parent_path()));  // a folder can be opened, too
  EXPECT_FALSE(File::Exists(Path("dangling")));
  EXPECT_FALSE(File::Exists(Path("missing")));
}

TEST_F(FileExists, TheEmptyPathDoesNot) {
  EXPECT_FALSE(File::Exists(""));
}

TEST_F(FileExists, AFileWithoutReadPermissionDoesNotExist) {
  const std::string path = Make("there", "");
  ASSERT_EQ(::chmod(path.c_str(), 0), 0);
  std::filesystem::permissions(std::filesystem::path(path).parent_path(), std::filesystem::perms::all);

  const int status = StatusOfAnotherProcess([&] {
    BecomeOrdinaryUser();
    EXPECT_FALSE(File::Exists(path));
    return HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(status, 0);
}

TEST_F(FileExists, LeavesNothingOpen) {
  const auto before = OpenDescriptors();

  EXPECT_TRUE(File::Exists("/dev/null"));

  EXPECT_EQ(OpenDescriptors(), before);
}

// --- Seek ------------------------------------------------------------------------------------------------------------

TEST_F(FileSeek, MovesTheDescriptorAndReturnsItsOffset) {
  const std::string path = Make("there", "0123456789");
  const File file(path, O_RDONLY, 0);

  EXPECT_EQ(file.Seek(0, SEEK_END), 10);
  EXPECT_EQ(file.Seek(-4, SEEK_CUR), 6);
  EXPECT_EQ(Read(file, 2), "67");
  EXPECT_EQ(file.Seek(3, SEEK_SET), 3);
  EXPECT_EQ(Read(file, 2), "34");
  EXPECT_EQ(file.Seek(100, SEEK_SET), 100);
}

TEST_F(FileSeek, TheStreamDoesNotKnow) {
  const std::string path = Make("there", "0123456789");
  const File file(path, O_RDONLY, 0);
  ASSERT_EQ(std::fgetc(file.GetFileHandle()), '0');  // and nine more, ahead

  EXPECT_EQ(file.Seek(5, SEEK_SET), 5);

  EXPECT_EQ(std::fgetc(file.GetFileHandle()), '1');
  EXPECT_EQ(Read(file, 1), "5");
}

TEST_F(FileSeek, HandsItsArgumentsOn) {
  const int fd = NextDescriptor();
  const File file(Make("there", ""), O_RDONLY, 0);
  ScriptedKernel kernel;
  kernel.Script("lseek", {Returns(7), Returns(0), Returns(-2)});
  const std::string number = std::to_string(fd);

  EXPECT_EQ(file.Seek(-3, 9), 7);
  EXPECT_EQ(file.Seek(2, SEEK_END), 0);
  EXPECT_EQ(file.Seek(0, SEEK_SET), -2);  // -1 alone is a failure

  EXPECT_EQ(kernel.Seen(),
            (Calls{"lseek(" + number + ", -3, 9)", "lseek(" + number + ", 2, 2)", "lseek(" + number + ", 0, 0)"}));
}

TEST_F(FileSeek, OffsetsBehindFourGigabytesWorkWhereALongCanHoldThem) {
  const std::string path = Path("sparse");
  const File file(path, O_CREAT | O_RDWR, 0600);
  if constexpr (sizeof(long) == 8) {
    constexpr auto kFar = static_cast<long>(std::int64_t{5} << 30U);
    EXPECT_EQ(file.Seek(kFar, SEEK_SET), kFar);
    file.PutString("far");
    EXPECT_EQ(file.Seek(0, SEEK_END), kFar + 3);
    EXPECT_EQ(file.Seek(-3, SEEK_CUR), kFar);
    EXPECT_EQ(Read(file, 3), "far");
  } else {
    EXPECT_EQ(file.Seek(2147483647L, SEEK_SET), 2147483647L);
  }
}

#if __SIZEOF_LONG__ == 4
TEST_F(FileSeek, AnOffsetThatALongCannotHoldThrowsEoverflow) {
  const std::string path = Path("new");
  const int fd = NextDescriptor();
  const File file(path, O_CREAT | O_RDWR, 0600);
  const std::string text = filetext::SeekFailed(path);
  ASSERT_EQ(file.Seek(LONG_MAX, SEEK_SET), LONG_MAX);

  // Cut to 32 bits, these would be the most negative number, -1 and a small one.
  std::int64_t expected = LONG_MAX;
  for (const long step : {1L, LONG_MAX, 7L}) {
    SCOPED_TRACE(step);
    errno = ENOTTY;
    EXPECT_SYSTEM_ERROR(file.Seek(step, SEEK_CUR), EOVERFLOW, text);
    expected += step;
    if (sizeof(off_t) == sizeof(expected)) {
      EXPECT_EQ(::lseek64(fd, 0, SEEK_CUR), expected);
    }
  }

  EXPECT_EQ(file.Seek(0, SEEK_SET), 0);
}
#endif

TEST_F(FileSeek, FailuresThrowWithFailedTwice) {
  const std::string path = Make("there", "");
  const File file(path, O_RDONLY, 0);

  EXPECT_SYSTEM_ERROR(file.Seek(-1, SEEK_SET), EINVAL, filetext::SeekFailed(path));
  EXPECT_SYSTEM_ERROR(file.Seek(0, 99), EINVAL, filetext::SeekFailed(path));

  std::array<int, 2> pipe{};
  ASSERT_EQ(::pipe(pipe.data()), 0);
  ::close(pipe[1]);
  ScriptedKernel kernel;
  kernel.Script("readlink", {Gives("/the/pipe")});
  const File piped(pipe[0]);
  EXPECT_EXACT_THROW(piped.Seek(0, SEEK_CUR), std::system_error, filetext::SeekFailed("/the/pipe") + ": Illegal seek");
}

// --- Ioctl -----------------------------------------------------------------------------------------------------------

TEST_F(FileIoctl, ReturnsTheResultAndHandsTheRequestOn) {
  const int fd = NextDescriptor();
  const File file("/dev/null", O_RDWR, 0);
  ScriptedKernel kernel;
  kernel.Script("ioctl", {Returns(0), Returns(5), Returns(-2)});

  EXPECT_EQ(file.Ioctl(0x1234), 0);
  EXPECT_EQ(file.Ioctl(0x1234, 1), 5);
  EXPECT_EQ(file.Ioctl(static_cast<int>(0x80001234U), 1), -2);  // -1 alone is a failure

  const std::string number = std::to_string(fd);
  EXPECT_EQ(kernel.Seen(), (Calls{"ioctl(" + number + ", 0x1234)", "ioctl(" + number + ", 0x1234)",
                                  "ioctl(" + number + ", 0x80001234)"}));
}

#if defined(__x86_64__) || defined(__arm__)
TEST_F(FileIoctl, TheThirdArgumentIsTheListOfArgumentsItself) {
  const int fd = NextDescriptor();
  const File file("/dev/null", O_RDWR, 0);
  const int bits = 0x1234;
  ScriptedKernel kernel;
  kernel.Script("TIOCMSET", {Returns(0)});

  EXPECT_EQ(file.Ioctl(TIOCMSET, &bits), 0);

#ifdef __x86_64__
  // It begins with the number of register bytes in use: those of the object's address and of the request.
  const unsigned int expected = 2 * sizeof(long);
#else
  // It is just the address of the first argument, which is itself an address.
  const auto expected = reinterpret_cast<std::uintptr_t>(&bits);
#endif
  std::ostringstream call;
  call << "TIOCMSET(" << fd << ", 0x" << std::hex << expected << ')';
  EXPECT_EQ(kernel.Seen(), Calls{call.str()});
}
#endif

TEST_F(FileIoctl, ARequestWithoutArgumentWorksOnATerminal) {
  int master = -1;
  int slave = -1;
  std::array<char, 64> name{};
  ASSERT_EQ(::openpty(&master, &slave, name.data(), nullptr, nullptr), 0);
  const File terminal(slave);
  const File other(master);

  EXPECT_EQ(terminal.Ioctl(TIOCEXCL), 0);

  int exclusive = 0;
  EXPECT_EQ(::ioctl(slave, TIOCGEXCL, &exclusive), 0);
  EXPECT_EQ(exclusive, 1);
  EXPECT_EQ(terminal.Ioctl(TIOCNXCL), 0);
}

TEST_F(FileIoctl, ThePointerThatIsGivenIsNotWhereTheKernelWrites) {
  std::array<int, 2> pipe{};
  ASSERT_EQ(::pipe(pipe.data()), 0);
  ASSERT_EQ(::write(pipe[1], "abc", 3), 3);
  ::close(pipe[1]);
  const File file(pipe[0]);
  int available = -1;

  // The kernel answers, into the list of arguments.
  EXPECT_EQ(file.Ioctl(FIONREAD, &available), 0);

  EXPECT_EQ(available, -1);
}

TEST_F(FileIoctl, ThePointerThatIsGivenIsNotWhereTheKernelReads) {
  std::array<int, 2> pipe{};
  ASSERT_EQ(::pipe(pipe.data()), 0);
  ::close(pipe[1]);
  const File file(pipe[0]);
  const int off = 0;

  // The first word of the list of arguments is not 0, while the one that the caller means is.
  EXPECT_EQ(file.Ioctl(FIONBIO, &off), 0);

  EXPECT_EQ(::fcntl(pipe[0], F_GETFL) & O_NONBLOCK, O_NONBLOCK);
}

TEST_F(FileIoctl, ANumberThatIsGivenDoesNotReachTheKernel) {
  int master = -1;
  int slave = -1;
  std::array<char, 64> name{};
  ASSERT_EQ(::openpty(&master, &slave, name.data(), nullptr, nullptr), 0);
  const File terminal(slave);
  const File other(master);
  ASSERT_EQ(::ioctl(slave, TCFLSH, 0), 0);

  // No queue has the address of the list as its number.
  EXPECT_SYSTEM_ERROR(terminal.Ioctl(TCFLSH, 0), EINVAL, filetext::IoctlFailed(name.data()));
}

TEST_F(FileIoctl, FailuresThrowWithFailedTwice) {
  const File file("/dev/null", O_RDWR, 0);

  EXPECT_SYSTEM_ERROR(file.Ioctl(TIOCEXCL), ENOTTY, filetext::IoctlFailed("/dev/null"));
  EXPECT_EXACT_THROW(file.Ioctl(TIOCEXCL), std::system_error,
                     filetext::IoctlFailed("/dev/null") + ": Inappropriate ioctl for device");
}

}  // namespace
