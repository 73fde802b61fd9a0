#ifndef BOARDKIT_SIM_SANDBOX_RIGHTS_H
#define BOARDKIT_SIM_SANDBOX_RIGHTS_H

/// Lets this process, and all that it starts, have as much of real-time priority, nice and locked memory as it may.
/// That has to be done outside: rights of a user namespace do not count there.
void RaiseLimits();

/// For root where there is no user namespace: nothing that the calling process starts will have rights over what is the
/// machine's: its mounts, modules, clock, raw devices.
/// @param network whether the network is the machine's as well.
/// @throws SetupError
void DropRightsOverMachine(bool network);

#endif
