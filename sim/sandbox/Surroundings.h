#ifndef BOARDKIT_SIM_SANDBOX_SURROUNDINGS_H
#define BOARDKIT_SIM_SANDBOX_SURROUNDINGS_H

// What of the machine the board must not have, made in the mount namespace of the caller.

/// A /run of the board's own: files that tell who has what, and locks, are not the machine's. Where programs outside
/// are reached through it, they still are.
/// @throws NamespacesForbidden
void MountPrivateRun();

/// A /proc of the board's own processes. What of it is the machine's can't be written, and some not be read.
/// @throws NamespacesForbidden
void MountPrivateProc();

/// Gives the settings of the network back, which are the board's own if the network is.
void AllowNetworkSettings();

/// Shows the interfaces of the caller's network in /sys. Everything else there is the machine's, and not to be written.
/// @returns whether the mount was allowed.
bool MountSystemFiles();

/// Keeps the machine's own /sys from being written.
/// @throws NamespacesForbidden
void ProtectSystemFiles();

#endif
