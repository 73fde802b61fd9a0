#ifndef BOARDKIT_FILE_H
#define BOARDKIT_FILE_H

/// @file
/// An open file whose error messages contain its name.
///
/// @code{.cpp}
/// const File file("example.txt", O_RDWR | O_CREAT | O_TRUNC, 0644);
/// file.PutString("21.5");
///
/// unsigned char text[4];
/// file.Seek(0, SEEK_SET);
/// file.ReadBytes(text, sizeof text);  // all four, or an exception
/// @endcode
/// This is a part of `examples/files.cpp`. The handbook has more: @ref handbook-files.

#include <cstdio>
#include <string>

#pragma GCC visibility push(default)

/// An open file: a descriptor, a stream on the same file, and the file's name, which every error message contains.
///
/// @snippet files.cpp use
///
/// It is constructed from a path, which it opens, or from a descriptor or a stream, which it adopts, asking the kernel
/// for the name. The destructor closes both. Bytes go through the descriptor; the stream is only for reading, and does
/// not notice what goes through the descriptor.
///
/// Every failure is a `std::system_error`. The members are const, but move the file's offset: one object is used by one
/// thread at a time.
///
/// @warning The destructor closes the stream and then the descriptor, whose number the stream has just closed: in a
/// program with several threads, that number may belong to another file by then.
class File {
 public:
  /// Opens @p path with the flags of `open` and, where it creates the file, the permission bits @p mode.
  /// @throws std::system_error "Open for '<path>' failed.".
  File(const std::string& path, int flags, unsigned int mode);

  /// Adopts @p stream and its descriptor, and takes the name from `/proc/self/fd`. If that fails, the stream is closed.
  /// @throws std::system_error "Open for '' failed." for a null stream, and what ReadLink() throws.
  explicit File(std::FILE* stream);

  /// Adopts @p fd and takes the name from `/proc/self/fd`. If that fails, the descriptor is closed.
  /// @throws std::system_error "Open for '' failed." for -1, and what ReadLink() throws.
  explicit File(int fd);

  /// Closes the stream, if any, and then the descriptor. Never throws.
  ~File();

  File(const File&) = delete;
  File& operator=(const File&) = delete;

  /// Completes the object; every constructor calls it. A later call only tries again to get a stream or a name that
  /// was not available before.
  void Init();

  /// True if @p path can be opened for reading, which the function tries: a directory counts as existing, a file that
  /// the caller may not read as missing, and a FIFO without a writer blocks.
  static bool Exists(const std::string& path);

  /// The stream, which the object keeps; null if there is none, as on a write-only descriptor.
  std::FILE* GetFileHandle() const;

  /// True if a read through the stream has met the end; false without a stream. Reads through the descriptor never set
  /// this.
  bool EndOfFile() const;

  /// Writes all @p length bytes.
  /// @throws std::system_error with the message of WriteLoop(), directly followed by "WriteBytes to '<name>' failed.".
  void WriteBytes(const unsigned char* data, unsigned int length) const;
  /// Writes the bytes of @p text, with nothing added; of texts of 4 GiB and more only the size modulo 4 GiB.
  void PutString(const std::string& text) const;

  /// Reads exactly @p length bytes.
  /// @throws std::system_error "End of file reached for '<name>'." (its error number means nothing) if EndOfFile(),
  /// else with the message of ReadLoop(), directly followed by "ReadBytes from '<name>' failed.".
  void ReadBytes(unsigned char* buffer, unsigned int length) const;

  /// The target of the symbolic link @p path, at most 1024 bytes of it.
  /// @throws std::system_error "ReadLink failed for '<path>' failed.".
  static std::string ReadLink(const std::string& path);

  /// Moves the descriptor's offset, in bytes, as `lseek` does and returns it. The stream does not notice.
  /// @throws std::system_error "Seeking failed for '<name>' failed." (EOVERFLOW: the new offset does not fit into a
  /// `long` of 32 bits; the descriptor has moved there nevertheless).
  long Seek(long offset, int whence) const;

  /// Controls the device with @p request and returns the result of `ioctl`.
  ///
  /// The third argument that `ioctl` gets is the list of the variable arguments itself, not the first of them. This
  /// suits only requests without an argument: one that answers overwrites the list and the stack behind it.
  /// @throws std::system_error "IO Control failed for '<name>' failed.".
  int Ioctl(int request, ...) const;

 private:
  /// Owns a value, unless it is the one that means none, until it is replaced or destroyed.
  template <typename T>
  class Handle {
   public:
    Handle(T value, T none, int (*release)(T));
    ~Handle() {
      Replace(m_none);
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    void Replace(T value);
    const T& Get() const {
      return m_value;
    }

   private:
    T m_value;
    T m_none;
    int (*m_release)(T);
  };

  Handle<int> m_fd;
  int m_flags;
  unsigned int m_mode;
  Handle<std::FILE*> m_stream;
  std::string m_name;
};

#pragma GCC visibility pop

#endif
