#ifndef BOARDKIT_TESTS_NETWORKNAMESPACE_H
#define BOARDKIT_TESTS_NETWORKNAMESPACE_H

#include <string>

/// Makes the process the root user of a user namespace of its own. Only possible while it has one thread.
/// @returns why the machine does not allow it, or an empty text.
std::string EnterUserNamespace();

/// Moves the calling thread, and with it the commands that it runs, into a fresh network of its own: nothing but a
/// loopback interface that is down.
///
/// The first call also makes the process the root user of a user namespace of its own, so that no rights are needed.
/// There is no way back: a program that calls this never touches the machine's own network again. A network that was
/// entered before goes away, interfaces and all.
/// @returns why the machine does not allow it, or an empty text.
std::string EnterFreshNetwork();

#endif
