#ifndef BOARDKIT_SIM_SANDBOX_NETWORK_H
#define BOARDKIT_SIM_SANDBOX_NETWORK_H

#include <string>

#include "Descriptor.h"

enum class Net { kPrivate, kNone, kHost };

/// Makes the interfaces of the board in a network namespace of the calling process, which must be the first process of
/// its pid namespace, and their peers, which answer, in another one.
///
/// Called in the namespace of the peers; afterwards the caller is in the board's.
/// @returns the namespace of the peers, which lives as long as the descriptor.
/// @throws SetupError
Descriptor MakePrivateNetwork();

/// A network with nothing but the loopback interface, in the namespace of the caller.
/// @throws SetupError
void MakeEmptyNetwork();

/// The other end's name of an interface of the board; empty if there is none of that name.
std::string PeerOf(const std::string& interface);

/// Runs `ip` with commands, one a line.
/// @throws SetupError with the first line that it complains of.
void RunIp(const std::string& commands);

#endif
