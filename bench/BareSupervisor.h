#ifndef BOARDKIT_BENCH_BARESUPERVISOR_H
#define BOARDKIT_BENCH_BARESUPERVISOR_H

/// Goes on in a child, whose TIOCMGET and opens for reading and writing are kept back by a filter and answered here, by
/// no more than what it takes to recognise the file and to answer: that is what a supervised call can't do without.
///
/// The calling process answers until the child ends, and ends with its status then. Only the child returns.
void ContinueSupervised();

#endif
