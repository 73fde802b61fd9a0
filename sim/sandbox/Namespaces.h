#ifndef BOARDKIT_SIM_SANDBOX_NAMESPACES_H
#define BOARDKIT_SIM_SANDBOX_NAMESPACES_H

#include <sys/types.h>

#include <string>

#include "sandbox/Channel.h"
#include "sandbox/Plan.h"

/// Who the user is outside, and whether he is root inside by a user namespace.
struct UserMap {
  uid_t user;
  gid_t group;
  bool isMapped;
};

/// Starts a process in new namespaces, where the plan has them. There, it returns 0.
/// @param users says afterwards whether there is a user namespace: where they are forbidden, root's own rights may do.
/// @returns the process, or -1 with errno.
pid_t CloneForPlan(const Plan& plan, UserMap& users);

/// Makes the surroundings of the plan in the new namespaces of the calling process: /dev, /proc, /sys, the network.
/// @returns what has to stay open as long as the board lives.
/// @throws NamespacesForbidden, SetupError
Descriptor EnterSurroundings(const Plan& plan, const UserMap& users, const Channel& channel);

/// For a process of its own: enters namespaces of another one, "mnt" or "user", and that of its user before.
void JoinNamespaces(pid_t process, const std::string& kind);

#endif
