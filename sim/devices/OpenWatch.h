#ifndef BOARDKIT_SIM_DEVICES_OPENWATCH_H
#define BOARDKIT_SIM_DEVICES_OPENWATCH_H

#include "Descriptor.h"

/// Reports opens of a terminal, of which its master is not notified.
class OpenWatch {
 public:
  /// @param terminal need not stay open.
  /// @throws SetupError
  explicit OpenWatch(const Descriptor& terminal);
  ~OpenWatch();
  OpenWatch(const OpenWatch&) = delete;
  OpenWatch& operator=(const OpenWatch&) = delete;

  /// Readable after an open.
  int Get() const {
    return m_events.Get();
  }
  /// Forgets the events until now.
  /// @returns whether there was an open among them.
  bool Take() const;

 private:
  Descriptor m_events;
};

/// Whether a terminal has been open and no longer is.
bool IsHungUp(const Descriptor& master);

#endif
