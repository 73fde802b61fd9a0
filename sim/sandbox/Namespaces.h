#ifndef BOARDKIT_SIM_SANDBOX_NAMESPACES_H
#define BOARDKIT_SIM_SANDBOX_NAMESPACES_H

#include <sys/types.h>

#include <string>

#include "sandbox/Channel.h"
#include "sandbox/Plan.h"

// Root of the machine must not be able to change the machine from inside. That takes two user namespaces: the first
// process has the outer one, with the mounts, and the application the inner one, with the network. In there it has all
// rights but those over the mounts, of which it gets a copy that can't be undone.

/// Starts the first process in namespaces of its own, where the plan has them. There, it returns 0.
/// @param hasUsers says afterwards whether there is a user namespace: where they are forbidden, root's own rights may
/// do.
/// @returns the process, or -1 with errno.
pid_t CloneForPlan(const Plan& plan, bool& hasUsers);

/// For the first process: /dev with the nodes, /run, /proc.
/// @throws NamespacesForbidden, SetupError
void MakeFiles(const Plan& plan, const Channel& simulator);

/// For the application's process, which is not it yet: leaves the network of the first process, and its users.
/// @throws NamespacesForbidden
void LeaveOuterNamespaces(const Plan& plan, bool hasUsers);
/// For the first process, once the application's has done that: users, network and /sys of the board.
/// @returns what has to stay open as long as the board lives.
/// @throws NamespacesForbidden, SetupError
Descriptor MakeInnerNamespaces(const Plan& plan, bool hasUsers, pid_t application, const Channel& simulator);
/// For the application's process, once the first has done that: takes its copy of the mounts, and a host name.
/// @throws NamespacesForbidden
void EnterInnerNamespaces(bool hasUsers);

/// For a process of its own: enters the user namespace of another one, and what it has mounted.
void JoinMounts(pid_t process);
/// For a process of its own: enters the user namespace of another one.
void JoinUsers(pid_t process);

#endif
