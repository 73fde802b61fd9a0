#define _GNU_SOURCE
#include <asm/termbits.h>
#include <fcntl.h>
#include <linux/serial.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "probe.h"

/* What a line does besides carrying bytes. */

static struct serial_icounter_struct counts(int fd) {
  struct serial_icounter_struct counts;
  CHECK(ioctl(fd, TIOCGICOUNT, &counts) == 0);
  return counts;
}

static int waiting_output(int fd) {
  int count = -1;
  CHECK(ioctl(fd, TIOCOUTQ, &count) == 0);
  return count;
}

static void drain(int fd) {
  CHECK(ioctl(fd, TCSBRK, 1) == 0);
}

static void set_stops(int fd, tcflag_t input, tcflag_t control, cc_t start, cc_t stop) {
  struct termios settings;
  CHECK(ioctl(fd, TCGETS, &settings) == 0);
  settings.c_iflag = input;
  settings.c_cflag |= control;
  settings.c_cc[VSTART] = start;
  settings.c_cc[VSTOP] = stop;
  CHECK(ioctl(fd, TCSETS, &settings) == 0);
}

static void set_flags(int fd, tcflag_t input, tcflag_t control) {
  set_stops(fd, input, control, 17, 19);
}

static void expect_nothing(int fd) {
  char none;
  CHECK(read_within(fd, 50, &none, 1) == 0);
}

static void expect_bytes(int fd, const char* bytes, size_t size) {
  char got[16];
  read_all(fd, got, size);
  CHECK(memcmp(got, bytes, size) == 0);
}

/* The next open starts anew. The far end is an echo. */
static void last_close(void) {
  int fd = open_tty();
  int exclusive = 0;
  CHECK(ioctl(fd, TIOCEXCL, 0) == 0 && ioctl(fd, TIOCGEXCL, &exclusive) == 0 && exclusive == 1);
  CHECK(open(TTY, O_RDWR | O_NOCTTY) == -1 && errno == EBUSY);
  int copy = dup(fd);
  CHECK(close(fd) == 0 && open(TTY, O_RDWR | O_NOCTTY) == -1 && errno == EBUSY);
  fd = copy;
  /* Somebody else closing it is not the last. */
  CHECK(ioctl(fd, TIOCNXCL, 0) == 0);
  int other = open_tty();
  CHECK(ioctl(fd, TIOCEXCL, 0) == 0);
  write_all(fd, "left", 4);
  struct pollfd wait = {fd, POLLIN, 0};
  CHECK(poll(&wait, 1, 20000) == 1 && close(other) == 0);
  expect_bytes(fd, "le", 2);
  CHECK(ioctl(fd, TCXONC, TCOOFF) == 0);
  write_all(fd, "stopped", 7);
  CHECK(waiting_output(fd) == 7 && close(fd) == 0);
  FOR_EACH_ROUND(i, i < 100) {
    fd = open_tty();
    CHECK(ioctl(fd, TIOCGEXCL, &exclusive) == 0 && exclusive == 0);
    if (i == 0) {
      expect_nothing(fd);
    }
    write_all(fd, "new", 3);
    expect_bytes(fd, "new", 3);
    CHECK(ioctl(fd, TIOCEXCL, 0) == 0 && close(fd) == 0);
  }
}

/* A loop-back plug: what one output does, the inputs see. */
static void plug_lines(void) {
  int fd = open_tty();
  CHECK(lines(fd) == (TIOCM_RTS | TIOCM_DTR | OUT2 | TIOCM_CTS | TIOCM_DSR | TIOCM_CAR));
  set_lines(fd, TIOCM_RTS);
  CHECK(lines(fd) == (TIOCM_RTS | TIOCM_CTS));
  set_lines(fd, TIOCM_DTR);
  CHECK(lines(fd) == (TIOCM_DTR | TIOCM_DSR | TIOCM_CAR));
  set_lines(fd, TIOCM_RTS | TIOCM_DTR);
  write_all(fd, "plug", 4);
  expect_bytes(fd, "plug", 4);
  close(fd);
}

/* CTS off holds the output. It is RTS, over the plug. */
static void hardware_flow(void) {
  int fd = open_tty();
  set_flags(fd, 0, CRTSCTS);
  set_lines(fd, TIOCM_DTR);
  write_all(fd, "held", 4);
  CHECK(waiting_output(fd) == 4);
  expect_nothing(fd);
  set_lines(fd, TIOCM_DTR | TIOCM_RTS);
  expect_bytes(fd, "held", 4);
  CHECK(waiting_output(fd) == 0);
  /* A writer is held up, too. */
  set_lines(fd, TIOCM_DTR);
  static char block[100000];
  CHECK(fcntl(fd, F_SETFL, O_RDWR | O_NONBLOCK) == 0);
  ssize_t total = 0;
  struct pollfd wait = {fd, POLLOUT, 0};
  for (ssize_t part = 0; poll(&wait, 1, 300) == 1 && (part = write(fd, block, sizeof block)) > 0;) {
    total += part;
  }
  CHECK(total >= 4096 && total < 50000);
  CHECK(ioctl(fd, TCFLSH, TCOFLUSH) == 0 && waiting_output(fd) == 0);
  close(fd);
}

/* TCIOFF sends an XOFF, which stops the port's own output by the plug. */
static void software_flow(void) {
  int fd = open_tty();
  set_flags(fd, IXON, 0);
  CHECK(ioctl(fd, TCXONC, TCIOFF) == 0);
  write_all(fd, "held", 4);
  expect_nothing(fd);
  CHECK(waiting_output(fd) == 4);
  CHECK(ioctl(fd, TCXONC, TCION) == 0);
  expect_bytes(fd, "held", 4);
  /* Without IXON they are bytes like any others. */
  set_flags(fd, 0, 0);
  write_all(fd, "\023\021", 2);
  expect_bytes(fd, "\023\021", 2);
  /* By its own request. */
  CHECK(ioctl(fd, TCXONC, TCOOFF) == 0);
  write_all(fd, "own", 3);
  expect_nothing(fd);
  CHECK(waiting_output(fd) == 3 && ioctl(fd, TCXONC, TCOON) == 0);
  expect_bytes(fd, "own", 3);
  CHECK(ioctl(fd, TCXONC, 17) == -1 && errno == EINVAL);
  /* Without such characters, zero bytes stop nothing, and none are sent. */
  set_stops(fd, IXON, 0, _POSIX_VDISABLE, _POSIX_VDISABLE);
  write_all(fd, "\0on", 3);
  expect_bytes(fd, "\0on", 3);
  CHECK(ioctl(fd, TCXONC, TCIOFF) == 0 && ioctl(fd, TCXONC, TCION) == 0);
  expect_nothing(fd);
  close(fd);
}

/* Whether this process's first thread is in that request, and so has made it before any that follows. */
static int is_in_request(unsigned long request) {
  char path[64];
  char text[128];
  snprintf(path, sizeof path, "/proc/self/task/%d/syscall", getpid());
  int file = open(path, O_RDONLY);
  CHECK(file != -1);
  ssize_t size = read(file, text, sizeof text - 1);
  close(file);
  CHECK(size > 0);
  text[size] = '\0';
  long number = -1;
  unsigned long wanted = 0;
  return sscanf(text, "%ld %*x %lx", &number, &wanted) == 2 && number == SYS_ioctl && wanted == request;
}

static void* move_lines(void* argument) {
  int fd = *(int*)argument;
  while (!is_in_request(TIOCMIWAIT)) {
    usleep(1000);
  }
  set_lines(fd, TIOCM_RTS);
  return NULL;
}

static void on_alarm(int signal) {
  (void)signal;
}

/* Waits for a line to move, counts that, and is interrupted by signals. */
static void modem_wait(void) {
  int fd = open_tty();
  struct serial_icounter_struct before = counts(fd);
  pthread_t mover;
  CHECK(pthread_create(&mover, NULL, move_lines, &fd) == 0);
  CHECK(ioctl(fd, TIOCMIWAIT, TIOCM_DSR | TIOCM_RNG) == 0);
  CHECK(pthread_join(mover, NULL) == 0);
  struct serial_icounter_struct after = counts(fd);
  CHECK(after.dsr == before.dsr + 1 && after.dcd == before.dcd + 1 && after.cts == before.cts);
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = on_alarm;
  CHECK(sigaction(SIGALRM, &action, NULL) == 0);
  /* Again and again: the first one may come before the request. */
  struct itimerval often = {{0, 20000}, {0, 20000}};
  struct itimerval never = {{0, 0}, {0, 0}};
  CHECK(setitimer(ITIMER_REAL, &often, NULL) == 0);
  CHECK(ioctl(fd, TIOCMIWAIT, TIOCM_CAR) == -1 && errno == EINTR);
  CHECK(setitimer(ITIMER_REAL, &never, NULL) == 0);
  write_all(fd, "count", 5);
  expect_bytes(fd, "count", 5);
  CHECK(counts(fd).tx == after.tx + 5 && counts(fd).rx == after.rx + 5);
  /* What has been written just now, too. */
  FOR_EACH_ROUND(i, i < 100) {
    write_all(fd, "x", 1);
    CHECK(counts(fd).tx == after.tx + 6 + (int)i);
  }
  close(fd);
}

/* By the plug, the port hears its own breaks. */
static void breaks(void) {
  int fd = open_tty();
  int before = counts(fd).brk;
  CHECK(ioctl(fd, TIOCSBRK, 0) == 0 && ioctl(fd, TIOCCBRK, 0) == 0);
  expect_bytes(fd, "\0", 1);
  CHECK(ioctl(fd, TCSBRK, 0) == 0);
  expect_bytes(fd, "\0", 1);
  CHECK(ioctl(fd, TCSBRKP, 1) == 0);
  expect_bytes(fd, "\0", 1);
  CHECK(counts(fd).brk == before + 3);
  set_flags(fd, PARMRK, 0);
  CHECK(ioctl(fd, TCSBRK, 0) == 0);
  expect_bytes(fd, "\377\0\0", 3);
  write_all(fd, "\377a", 2);
  expect_bytes(fd, "\377\377a", 3);
  set_flags(fd, IGNBRK, 0);
  CHECK(ioctl(fd, TCSBRK, 0) == 0);
  expect_nothing(fd);
  /* Held up during one. */
  CHECK(ioctl(fd, TIOCSBRK, 0) == 0);
  write_all(fd, "after", 5);
  expect_nothing(fd);
  CHECK(ioctl(fd, TIOCCBRK, 0) == 0);
  expect_bytes(fd, "after", 5);
  close(fd);
  /* Whoever has it as the controlling terminal is interrupted. */
  pid_t child = fork();
  CHECK(child != -1);
  if (child == 0) {
    CHECK(setsid() != -1);
    fd = open_tty();
    CHECK(ioctl(fd, TIOCSCTTY, 0) == 0);
    set_flags(fd, BRKINT, 0);
    CHECK(ioctl(fd, TCSBRK, 0) == 0);
    sleep(20);
    _exit(1);
  }
  int status = 0;
  CHECK(waitpid(child, &status, 0) == child && WIFSIGNALED(status) && WTERMSIG(status) == SIGINT);
}

/* Bytes take their time: 960 a second. */
static void slow(void) {
  static char block[96];
  int fd = open_tty();
  double start = now();
  write_all(fd, block, sizeof block);
  /* Unless this process has slept for as long. */
  CHECK(waiting_output(fd) > 0 || now() - start >= 0.099);
  unsigned int state = 1;
  CHECK(ioctl(fd, TIOCSERGETLSR, &state) == 0 && (state == 0 || now() - start >= 0.099));
  drain(fd);
  CHECK(now() - start >= 0.099 && waiting_output(fd) == 0);
  CHECK(ioctl(fd, TIOCSERGETLSR, &state) == 0 && state == TIOCSER_TEMT);
  read_all(fd, block, sizeof block);
  /* Settings that wait for it. */
  start = now();
  write_all(fd, block, sizeof block);
  struct termios settings;
  CHECK(ioctl(fd, TCGETS, &settings) == 0 && ioctl(fd, TCSETSW, &settings) == 0 && now() - start >= 0.099);
  read_all(fd, block, sizeof block);
  /* A break, too. */
  start = now();
  CHECK(ioctl(fd, TCSBRK, 0) == 0 && now() - start >= 0.249);
  /* A wait that a signal interrupts goes on where its handler says so. */
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = on_alarm;
  static const int kFlags[] = {0, SA_RESTART};
  FOR_EACH_CASE(i, kFlags) {
    action.sa_flags = kFlags[i];
    CHECK(sigaction(SIGALRM, &action, NULL) == 0);
    struct itimerval soon = {{0, 0}, {0, 20000}};
    int result;
    do {
      start = now();
      write_all(fd, block, sizeof block);
      CHECK(setitimer(ITIMER_REAL, &soon, NULL) == 0);
      result = ioctl(fd, TCSBRK, 1);
      CHECK(result == 0 ? now() - start >= 0.099 : kFlags[i] == 0 && errno == EINTR);
      drain(fd);
      /* The signal may have come before the request, which then waits to its end. */
    } while (result == 0 && kFlags[i] == 0);
  }
  /* A writer waits, and may lose patience. */
  static char much[100000];
  CHECK(fcntl(fd, F_SETFL, O_RDWR | O_NONBLOCK) == 0);
  struct pollfd wait = {fd, POLLOUT, 0};
  while (poll(&wait, 1, 50) == 1 && write(fd, much, sizeof much) > 0) {
  }
  CHECK(waiting_output(fd) >= 4096 && ioctl(fd, TCFLSH, TCIOFLUSH) == 0 && waiting_output(fd) == 0);
  close(fd);
}

const struct step kLineSteps[] = {{"last-close", last_close},
                                  {"plug-lines", plug_lines},
                                  {"hardware-flow", hardware_flow},
                                  {"software-flow", software_flow},
                                  {"modem-wait", modem_wait},
                                  {"breaks", breaks},
                                  {"slow", slow},
                                  {NULL, NULL}};
