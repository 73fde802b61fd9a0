#ifndef BOARDKIT_SYS_DATAPATH_H
#define BOARDKIT_SYS_DATAPATH_H

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "SystemCalls.h"

/// @file
/// The functions on the data paths, called without the linkage table where the compiler supports it: the transfer of a
/// single byte takes little longer than its system call, so saving a jump shows. These names are bound when a program
/// starts; all others are bound at their first call, which keeps the start short.

#if defined(__GNUC__) && __has_attribute(noplt)

extern "C" {
[[gnu::noplt]] decltype(::read) read;
[[gnu::noplt]] decltype(::write) write;
[[gnu::noplt]] decltype(::ioctl) ioctl;
[[gnu::noplt]] decltype(::poll) poll;
[[gnu::noplt]] decltype(std::feof) feof;
[[gnu::noplt]] decltype(::__errno_location) __errno_location;  // what errno stands for
}

[[gnu::noplt]] decltype(::WriteLoop) WriteLoop;
[[gnu::noplt]] decltype(::ReadLoop) ReadLoop;

#endif

#endif
