#ifndef BOARDKIT_WATCHDOG_H
#define BOARDKIT_WATCHDOG_H

/// @file
/// A hardware watchdog: arm, feed and disarm it.
///
/// @code{.cpp}
/// WatchDog dog(30, argv[1]);  // seconds, device
/// dog.Activate();             // now the board resets unless it is fed
/// for (int round = 0; round < 3; ++round) {
///   DoOneRound();
///   dog.Feed();
/// }
/// dog.Deactivate();
/// @endcode
/// This is a part of `examples/watchdog.cpp`. The handbook has more: @ref watchdog.

#include <string>

#pragma GCC visibility push(default)

/// A hardware watchdog, driven through the kernel's watchdog device.
///
/// @snippet watchdog.cpp use
///
/// Inactive until Activate() has opened the device and set the time-out; from then on the board resets unless Feed() is
/// called in time. Deactivate(), and the destructor, write the magic close character first, so that the driver stops
/// the timer, unless it has @c nowayout set. One object is used by one thread at a time.
///
/// @warning An exception that is caught outside the object's scope, and a return, run the destructor, which disarms:
/// the board does not reset. If a failure is to reset it, end the program by std::_Exit() or std::abort().
/// @warning A driver without the magic close stops the timer at any close, and so when the program crashes or is
/// killed: the board does not reset.
/// @warning If Activate() fails after opening (an interval that the driver refuses), the device stays open and may
/// already be counting; this object can neither feed nor disarm it.
/// @warning Activate() on an active object opens the device a second time and loses the first descriptor. Most drivers
/// allow one opener: the call then fails, the lost descriptor can be neither fed nor closed, and the destructor ends
/// the process.
/// @warning The device is not opened close-on-exec: a child that inherits it keeps the timer running.
class WatchDog {
 public:
  /// Keeps both for Activate(): the time-out in seconds and the path of the device. Nothing is checked or opened.
  WatchDog(int interval, std::string device);

  /// Deactivates. A failure of Deactivate() ends the process, so that a watchdog which could not be stopped does not go
  /// unnoticed.
  ~WatchDog();

  WatchDog(const WatchDog&) = delete;
  WatchDog& operator=(const WatchDog&) = delete;

  /// Opens the device, which starts the timer, and sets the interval.
  /// @throws std::system_error " Could not open watchdog device!" (EBUSY: already open, usually in another process),
  /// with the object as active as before; and what SetInterval() throws, with the device left open.
  void Activate();

  /// Restarts the timer.
  /// @throws std::logic_error "Watchdog not activated".
  /// @throws std::system_error " Could not close watchdog device!" if the driver refuses.
  void Feed();

  /// Asks the driver for a time-out of @p seconds.
  ///
  /// The value is remembered before the driver is asked and kept if the driver refuses. The driver may round it:
  /// GetInterval() returns what it really uses.
  /// @throws std::logic_error "Watchdog interval must be greater than 0 seconds" (nothing changes) or "Could not set
  /// watchdog interval", which is always thrown on a new object.
  void SetInterval(int seconds);

  /// The time-out in seconds that the driver uses.
  /// @throws std::logic_error "Could not retrieve watchdog interval", which is always thrown on a new object.
  int GetInterval() const;

  /// Stops the timer, unless the driver has @c nowayout set, and closes the device; does nothing on an inactive object.
  /// @throws std::system_error " Could write watchdog device!", with the device open, or " Could not close watchdog
  /// device!"; the object stays active. Even after a failed close the descriptor's number is free: what the object does
  /// next fails, or reaches the file that has been given the number since.
  void Deactivate();

 private:
  int m_interval;
  std::string m_device;
  int m_fd = -1;
  bool m_active = false;
};

#pragma GCC visibility pop

#endif
