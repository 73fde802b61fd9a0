#ifndef BOARDKIT_SIM_SANDBOX_USERS_H
#define BOARDKIT_SIM_SANDBOX_USERS_H

#include <sys/types.h>

/// Gives a process in a new user namespace its users and groups: all that there are if root calls, otherwise root and,
/// where they are set up, those of /etc/subuid and /etc/subgid.
/// @throws NamespacesForbidden
void MapUsersOf(pid_t process);

/// Gives a process in a new user namespace the same users and groups as this one has.
/// @throws NamespacesForbidden
void MapSameUsers(pid_t process);

#endif
