#ifndef BOARDKIT_SIM_SANDBOX_CALLINGTHREAD_H
#define BOARDKIT_SIM_SANDBOX_CALLINGTHREAD_H

#include <sys/stat.h>
#include <sys/types.h>

#include <string>

#include "Descriptor.h"
#include "sandbox/TrappedCall.h"

/// What the thread that makes a call has open and sees. Usually the same thread makes the next call.
class CallingThread {
 public:
  /// The file of one of its descriptors.
  /// @returns whether there is one.
  bool StatDescriptor(const TrappedCall& call, int descriptor, struct stat& status);
  /// What a name in its folder in /proc leads to.
  /// @returns whether there is something.
  bool StatName(const TrappedCall& call, const std::string& name, struct stat& status);

 private:
  void Meet(const TrappedCall& call);

  pid_t m_number = -1;
  Descriptor m_thread;
  Descriptor m_folder;  // opened when a name is asked for
};

#endif
