#ifndef BOARDKIT_SIM_SANDBOX_PRIVATEDEV_H
#define BOARDKIT_SIM_SANDBOX_PRIVATEDEV_H

#include <string>

/// Mounts a /dev with what every program needs, in the mount namespace of the caller.
/// @throws NamespacesForbidden
void MountPrivateDev();

/// The path for a device: below /dev, and not one that every program needs as it is.
/// @throws SetupError
std::string CheckedNode(const std::string& option, const std::string& path);

#endif
