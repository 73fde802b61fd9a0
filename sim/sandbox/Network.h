#ifndef BOARDKIT_SIM_SANDBOX_NETWORK_H
#define BOARDKIT_SIM_SANDBOX_NETWORK_H

#include <string>

#include "Descriptor.h"

enum class Net { kPrivate, kNone, kHost };

/// Makes the interfaces of the board in one network namespace, and their peers, which answer, in another one.
///
/// For the first process of a pid namespace. Afterwards it is in the board's.
/// @param peers the namespace that it is in.
/// @throws SetupError
void MakePrivateNetwork(const Descriptor& peers, const Descriptor& board);

/// A network with nothing but the loopback interface. Afterwards the caller is in it.
/// @throws SetupError
void MakeEmptyNetwork(const Descriptor& board);

/// The other end's name of an interface of the board; empty if there is none of that name.
std::string PeerOf(const std::string& interface);

/// Runs `ip` with commands, one per line.
/// @throws SetupError with the first line of its complaint.
void RunIp(const std::string& commands);

#endif
