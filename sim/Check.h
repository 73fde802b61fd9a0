#ifndef BOARDKIT_SIM_CHECK_H
#define BOARDKIT_SIM_CHECK_H

#include "board/Signals.h"

/// Prints what this machine allows of the board, and the remedy for each "no".
/// @returns whether it allows all of it.
bool PrintCheck(const Signals::State& signals);

#endif
