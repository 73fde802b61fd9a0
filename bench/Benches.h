#ifndef BOARDKIT_BENCH_BENCHES_H
#define BOARDKIT_BENCH_BENCHES_H

#include "Contest.h"

/// @file
/// The cases, by the header that they measure.

void RegisterSystemCallsBench(Effort effort);
void RegisterFileBench(Effort effort);
void RegisterWatchDogBench(Effort effort);
void RegisterSerialPortBench(Effort effort);
void RegisterLinuxutilsBench(Effort effort);
void RegisterOpSystemBench(Effort effort);
void RegisterIpNetBench(Effort effort);

/// Runs @p command through OpSystem in a process that does nothing else, and prints the highest memory use of this
/// process and the length of the output, both in bytes. What the program becomes when it starts itself anew.
/// @returns the exit status.
int PrintPeakMemory(const char* command);

/// The option under which PrintPeakMemory() is reached.
constexpr char kPeakMemoryOption[] = "--print-peak-memory";

#endif
