#ifndef BOARDKIT_SIM_SANDBOX_USERS_H
#define BOARDKIT_SIM_SANDBOX_USERS_H

#include <sys/types.h>

/// Gives a process in a new user namespace the users and groups that there are to be: to root's all that there are, to
/// those of an ordinary user root, and the ones of /etc/subuid and /etc/subgid where these are set up.
/// @throws NamespacesForbidden
void MapUsersOf(pid_t process);

/// Gives a process in a new user namespace the same users and groups as this one has.
/// @throws NamespacesForbidden
void MapSameUsers(pid_t process);

#endif
