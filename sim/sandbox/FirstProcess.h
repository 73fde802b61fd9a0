#ifndef BOARDKIT_SIM_SANDBOX_FIRSTPROCESS_H
#define BOARDKIT_SIM_SANDBOX_FIRSTPROCESS_H

#include <sys/types.h>

#include "board/Signals.h"
#include "sandbox/Channel.h"
#include "sandbox/Plan.h"

/// What the first process inside does once the simulator has made it: it makes the application's surroundings,
/// starts it, waits for its end, and ends all others with it.
/// @param hasUsers whether it is in a user namespace.
[[noreturn]] void RunFirstProcess(const Plan& plan, bool hasUsers, const Channel& channel,
                                  const Signals::State& signals);

/// Ends every process below this one. Those whose parents die become children of this one.
void EndDescendants();

#endif
