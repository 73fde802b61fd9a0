#ifndef BOARDKIT_SIM_UNIXSOCKET_H
#define BOARDKIT_SIM_UNIXSOCKET_H

#include <sys/un.h>

#include <string>

/// The address of that name.
/// @throws SetupError with those words if the name is too long.
sockaddr_un MakeUnixAddress(const std::string& path, const std::string& what);

/// Removes the socket of a killed simulator, at which nobody answers any more. (Not a file, which is
/// not ours.)
void RemoveStaleSocket(const std::string& path);

#endif
