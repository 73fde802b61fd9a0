#ifndef BOARDKIT_CTL_BUS_ERROR_H
#define BOARDKIT_CTL_BUS_ERROR_H

class Tty;

/// From here on, an access to an address where nothing answers ends the program as a failure of @p verb, with the
/// catalogue's cause and remedy. The settings of @p line, which lives as long, are restored before.
void TellBusErrors(const char* verb, const Tty* line = nullptr);

#endif
