/* What a program of the board does, in plain C: each step fails with a sentence. */
#ifndef PROBE_H
#define PROBE_H

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/types.h>

/* Not in the C library's headers. */
#define LOOP 0x8000
#define OUT1 0x2000
#define OUT2 0x4000

#define TTY "/dev/ttyS1"
#define WATCHDOG "/dev/watchdog"

#define CHECK(condition)                                                                \
  do {                                                                                  \
    if (!(condition)) {                                                                 \
      fprintf(stderr, "%s:%d: %s (errno %d)\n", __FILE__, __LINE__, #condition, errno); \
      exit(1);                                                                          \
    }                                                                                   \
  } while (0)

struct step {
  const char* name;
  void (*run)(void);
};

/* Each ends with an empty one. */
extern const struct step kSerialSteps[];
extern const struct step kLineSteps[];
extern const struct step kWatchdogSteps[];
extern const struct step kBoardSteps[];

int open_tty(void);
/* What comes is no longer edited, echoed or obeyed. */
void make_raw(int fd);
/* The modem lines. */
int lines(int fd);
void set_lines(int fd, int bits);
/* 0 also if nothing came. */
ssize_t read_within(int fd, int milliseconds, void* buffer, size_t size);
void read_all(int fd, void* buffer, size_t size);
void write_all(int fd, const void* buffer, size_t size);

/* Obeys the lines of standard input, with a line each. */
void talk(void);

#endif
