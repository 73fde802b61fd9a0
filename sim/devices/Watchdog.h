#ifndef BOARDKIT_SIM_DEVICES_WATCHDOG_H
#define BOARDKIT_SIM_DEVICES_WATCHDOG_H

#include <memory>
#include <optional>
#include <string>

#include "devices/Device.h"

/// A hardware watchdog: the reading end of the FIFO that the application has as its device.
///
/// Opening arms it, written bytes or a request feed it, and a close stops it only if the last write had a 'V' in it.
class Watchdog : public Device {
 public:
  /// What the options say of it.
  struct Traits {
    bool noWayOut = false;  // once started, nothing stops it
  };

  Watchdog(const std::string& path, const Traits& traits, const Backplane& backplane);

  /// @param descriptor any one of the FIFO.
  void Attach(Descriptor descriptor) override;
  void Tell(SystemFolder folder) override;
  bool Is(const FileId& file) const override;
  /// Arms it, unless an earlier close has left it counting.
  /// @throws RequestError EBUSY: somebody else has it.
  void Opened() override;
  void NotOpened() override;
  bool IsCalled(const std::string& name) const override;
  bool HandsOut(int /*flags*/) const override {
    return true;
  }
  /// One that keeps writes separate, and from which nothing can be read.
  Descriptor Open(int flags) const override;
  void Request(const TrappedCall& call) override;
  /// Resets the board if nobody has stopped it.
  void Finish() override;

 private:
  /// Takes what was written, and the close after it.
  void Look();
  /// When it resets the board, unless something happens before.
  std::optional<Clock::time_point> Deadline() const;
  void Expire();
  void Reset(const std::string& circumstance);
  std::string State() const;
  void Begin();
  void Reopen();
  void Arm();
  void Feed(const char* how);
  void Stop();
  unsigned int Status();
  void SetTimeout(const TrappedCall& call);
  void SetPretimeout(const TrappedCall& call);
  void SetOptions(const TrappedCall& call);
  int SecondsLeft() const;
  std::optional<Clock::time_point> NextSecond() const;
  /// Shows its state in /sys.
  void TellState();

  const Traits m_traits;
  const Backplane m_backplane;
  EventLog& m_log;
  Descriptor m_fifo;
  FileId m_id;
  Descriptor m_reader;
  bool m_isOpen = false;
  bool m_isArmed = false;
  bool m_wasArmed = false;  // before it was opened
  bool m_maySleep = false;  // the magic byte was in the last write
  bool m_goesOn = false;    // what comes next may belong to the last write, too
  bool m_isFed = false;     // since the status was asked for
  bool m_isWarned = false;  // of the reset, since it was fed
  int m_timeout = 0;        // seconds
  int m_pretimeout = 0;     // seconds before the reset; 0: none
  unsigned int m_bootStatus = 0;
  Clock::time_point m_fed;
  SystemFolder m_told;
  int m_toldLeft = 0;  // seconds
  EventLoop::Registration m_readerRegistration;
  EventLoop::Registration m_deadlineRegistration;
  EventLoop::Registration m_tellRegistration;
};

std::unique_ptr<DeviceKind> MakeWatchdogKind();

#endif
