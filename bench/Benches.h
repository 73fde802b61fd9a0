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

/// What the library adds to the start of a program.
void RegisterStartBench();

/// The simulator's cases, where it is built.
void RegisterSimBench(Effort effort);

/// Takes requests for batches from the standard input until it ends. What the program becomes on the simulated board,
/// and beside it.
/// @returns the exit status.
int RunSimWorker();

/// The option under which RunSimWorker() is reached.
constexpr char kSimWorkerOption[] = "--sim-worker";

/// Runs @p command through OpSystem in a process that does nothing else, and prints the highest memory use of this
/// process and the length of the output, both in bytes. What the program becomes when it starts itself anew.
/// @returns the exit status.
int PrintPeakMemory(const char* command);

/// The option under which PrintPeakMemory() is reached.
constexpr char kPeakMemoryOption[] = "--print-peak-memory";

#endif
