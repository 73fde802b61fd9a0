#ifndef BOARDKIT_EXAMPLES_CHAPTERS_H
#define BOARDKIT_EXAMPLES_CHAPTERS_H

#include <string>

// One chapter each, in the source of the same name. A chapter that can't go on throws.

void ShowSerialPort(const std::string& device);
/// @param address of a word of physical memory, as text; empty for none.
void ShowMemory(const std::string& address);
void ShowWatchdog(const std::string& device);
/// Arms the watchdog and stops feeding it: comes back, with an exception, only where the board is not reset.
void StarveWatchdog(const std::string& device);
/// @param interface that is changed and put back; empty for none.
void ShowNetwork(const std::string& interface);
void ShowCommands();
void ShowFiles();
void ShowSystem();
void ShowSignals();
void ShowThreads();
void ShowTraceback();

#endif
