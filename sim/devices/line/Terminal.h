#ifndef BOARDKIT_SIM_DEVICES_LINE_TERMINAL_H
#define BOARDKIT_SIM_DEVICES_LINE_TERMINAL_H

#include <asm/termbits.h>

#include <cstddef>

#include "Descriptor.h"
#include "devices/OpenWatch.h"

/// The pseudo-terminal that the application has as its port, from the master's side.
///
/// Nobody else has it open: all opens and closes that it reports are the application's.
class Terminal {
 public:
  /// Gives it the attributes of a port that was never set.
  /// @throws SetupError
  explicit Terminal(Descriptor master);

  /// Does not block.
  int Get() const {
    return m_master.Get();
  }
  /// Readable after opens.
  int Events() const {
    return m_opens.Get();
  }
  const FileId& Id() const {
    return m_id;
  }
  /// Its minor number, the application's side.
  unsigned int Number() const;
  struct Use {
    bool isOpened;  // since the last time
    bool isClosed;  // now
  };
  Use TakeOpens() const;
  /// Its other side; none with errno.
  Descriptor Open(int flags) const;

  const termios2& Settings() const {
    return m_settings;
  }
  /// @returns 0 or the error number.
  int Set(const termios2& settings);

  /// Discards what the application has not read.
  void DropInput() const;
  /// How much of it there is: in lines, where it is read in lines.
  std::size_t Unread() const;
  /// Sends SIGINT, as a break does.
  void Interrupt() const;

 private:
  Descriptor m_master;
  FileId m_id;
  termios2 m_settings{};
  OpenWatch m_opens;
};

#endif
