#ifndef BOARDKIT_SYS_DATAPATH_H
#define BOARDKIT_SYS_DATAPATH_H

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "SystemCalls.h"

/// @file
/// The functions on the data paths, called without the linkage table where the compiler can: the transfer of a single
/// byte takes little longer than its system call, so saving a jump shows. These names are bound when a program starts;
/// all others are bound at their first call, which keeps the start short.

#ifdef __has_attribute
#if __has_attribute(noplt)
#define BOARDKIT_DATA_PATH __attribute__((noplt))
#endif
#endif
#ifndef BOARDKIT_DATA_PATH
#define BOARDKIT_DATA_PATH
#endif

extern "C" {
BOARDKIT_DATA_PATH decltype(::read) read;
BOARDKIT_DATA_PATH decltype(::write) write;
BOARDKIT_DATA_PATH decltype(::ioctl) ioctl;
BOARDKIT_DATA_PATH decltype(::poll) poll;
BOARDKIT_DATA_PATH decltype(std::feof) feof;
BOARDKIT_DATA_PATH decltype(::__errno_location) __errno_location;  // what errno stands for
}

BOARDKIT_DATA_PATH decltype(::WriteLoop) WriteLoop;
BOARDKIT_DATA_PATH decltype(::ReadLoop) ReadLoop;

#undef BOARDKIT_DATA_PATH

#endif
