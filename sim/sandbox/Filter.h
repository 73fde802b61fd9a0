#ifndef BOARDKIT_SIM_SANDBOX_FILTER_H
#define BOARDKIT_SIM_SANDBOX_FILTER_H

#include <vector>

#include "Descriptor.h"

/// The requests, by ioctl, that the simulator has to answer.
using TrappedRequests = std::vector<unsigned int>;

/// Keeps back system calls of the calling process, and of all that it starts: those requests, and opens that may be
/// of a device.
/// @param devicesExist whether the devices lie under their names: then programs need not be kept from making files
/// there, or from opening the machine's own.
/// @returns where the calls arrive, or none with errno.
Descriptor InstallFilter(const TrappedRequests& requests, bool devicesExist);

/// The architecture whose programs are supervised, as the kernel's audit numbers it.
unsigned int SupervisedArchitecture();

// What only newer kernels have:
bool CanKeepSignalsBack();
bool CanHandOverDescriptors(const Descriptor& listener);

#endif
