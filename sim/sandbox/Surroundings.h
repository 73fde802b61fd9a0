#ifndef BOARDKIT_SIM_SANDBOX_SURROUNDINGS_H
#define BOARDKIT_SIM_SANDBOX_SURROUNDINGS_H

// What of the machine the board must not have, made in the mount namespace of the caller.

/// A /run of the board's own: files that say who uses what, and locks, are not the machine's. Where programs outside
/// are reached through it, they still are.
/// @throws NamespacesForbidden
void MountPrivateRun();

/// A /proc of the board's own processes. The machine's part of it can't be written, and some of it not read.
/// @throws NamespacesForbidden
void MountPrivateProc();

/// Makes the settings of the network writable again, which are the board's own if the network is.
void AllowNetworkSettings();

/// Shows the interfaces of the caller's network in /sys. Everything else there is the machine's, and not to be written.
/// @returns whether the mount was allowed.
bool MountSystemFiles();

/// Keeps the machine's own /sys from being written.
/// @throws NamespacesForbidden
void ProtectSystemFiles();

#endif
