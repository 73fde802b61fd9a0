#ifndef BOARDKIT_SIM_SANDBOX_SYSTEMENTRIES_H
#define BOARDKIT_SIM_SANDBOX_SYSTEMENTRIES_H

#include <string>
#include <utility>
#include <vector>

#include "Descriptor.h"
#include "sandbox/Node.h"

/// Makes /sys show the board's ports and watchdogs instead of the machine's: a folder for each, without files yet.
///
/// For the first process, in which /sys can't be written any more.
/// @param classes that have nothing but the nodes in them, which may be nothing at all.
/// @returns the folders, by the nodes' paths. Through these they can be filled, through /sys only be read.
/// @throws NamespacesForbidden
std::vector<std::pair<std::string, Descriptor>> MakeSystemEntries(const std::vector<Node>& nodes,
                                                                  const std::vector<std::string>& classes);

#endif
