#ifndef BOARDKIT_SIM_BOARD_ANSWERS_H
#define BOARDKIT_SIM_BOARD_ANSWERS_H

#include "devices/Device.h"
#include "sandbox/TrappedCall.h"

/// Finds the device that a supervised system call means, and lets it answer. All others the kernel answers.
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
  void GiveFtruncate(const TrappedCall& call) const;
  void GiveOpen(const TrappedCall& call) const;
  Device* DeviceBehind(const TrappedCall& call) const;

  const Devices& m_devices;
  bool m_namespaces;
  bool m_hasTold = false;
};

#endif
