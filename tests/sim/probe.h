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

#define CHECK(condition)                            \
  do {                                              \
    if (!(condition)) {                             \
      check_failed(__FILE__, __LINE__, #condition); \
    }                                               \
  } while (0)

/* Takes the index of each element of an array in turn, and lets CHECK show it. */
#define FOR_EACH_CASE(index, array) FOR_TOLD(index, index < sizeof(array) / sizeof(array)[0], #array)

/* Counts from 0 on for as long as the condition holds, and lets CHECK show it. */
#define FOR_EACH_ROUND(index, condition) FOR_TOLD(index, condition, "round")

#define FOR_TOLD(index, condition, name) \
  for (size_t index = 0; (current_case = index, current_cases = (condition) ? name : NULL) != NULL; ++index)

/* The array's name, or NULL outside of such a loop, and the index. */
extern const char* current_cases;
extern size_t current_case;

_Noreturn void check_failed(const char* file, int line, const char* condition);

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

/* In seconds. */
double now(void);

/* Obeys the lines of standard input, with a line each. */
void talk(void);

#endif
