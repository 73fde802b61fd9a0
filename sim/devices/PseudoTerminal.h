#ifndef BOARDKIT_SIM_DEVICES_PSEUDOTERMINAL_H
#define BOARDKIT_SIM_DEVICES_PSEUDOTERMINAL_H

#include "Descriptor.h"

/// Opens the other side of a pseudo-terminal's master and makes it a plain line: 9600 baud, 8 bits, no echo.
///
/// A fresh one echoes and edits, and would send the application's own bytes back to it.
/// @returns the descriptor, or none with errno.
Descriptor OpenRawSlave(const Descriptor& master);

#endif
