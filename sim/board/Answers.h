#ifndef BOARDKIT_SIM_BOARD_ANSWERS_H
#define BOARDKIT_SIM_BOARD_ANSWERS_H

#include <sys/stat.h>

#include <filesystem>

#include "devices/Device.h"
#include "sandbox/CallingThread.h"
#include "sandbox/TrappedCall.h"

/// Finds the device that a supervised system call means, and lets it answer. The kernel answers all others.
class Answers {
 public:
  /// @param devices outlive it.
  /// @param namespaces whether the devices lie under their names; otherwise opens are answered with descriptors.
  Answers(const Devices& devices, bool namespaces) : m_devices(devices), m_namespaces(namespaces) {}

  void Give(const TrappedCall& call);

 private:
  void GiveIoctl(const TrappedCall& call);
  void TellOfForeignProgram(const TrappedCall& call);
  bool MayBeOfDevice(const TrappedCall::Opening& opening) const;
  void GiveFtruncate(const TrappedCall& call);
  void GiveOpen(const TrappedCall& call);
  bool MayOpen(const TrappedCall& call, const struct stat& file, int flags);
  void HandOut(const TrappedCall& call, const TrappedCall::Opening& opening, Device& device) const;
  Device* DeviceMeant(const TrappedCall& call, const std::filesystem::path& path, struct stat& status);
  Device* DeviceBehind(const TrappedCall& call);

  const Devices& m_devices;
  bool m_namespaces;
  bool m_hasTold = false;
  CallingThread m_caller;
};

#endif
