/* What a program of the board does, in plain C: each step is named on the command line, and fails with a sentence. */
#include <errno.h>
#include <fcntl.h>
#include <linux/watchdog.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <termios.h>
#include <unistd.h>

#define LOOP 0x8000

#define CHECK(condition)                                                                         \
  do {                                                                                           \
    if (!(condition)) {                                                                          \
      fprintf(stderr, "probe: line %d: %s (errno %d)\n", __LINE__, #condition, errno);           \
      exit(1);                                                                                   \
    }                                                                                            \
  } while (0)

static int open_tty(void) {
  int fd = open("/dev/ttyS1", O_RDWR | O_NOCTTY);
  CHECK(fd != -1);
  return fd;
}

static int lines(int fd) {
  int bits = 0;
  CHECK(ioctl(fd, TIOCMGET, &bits) == 0);
  return bits;
}

static void set_lines(int fd, int bits) {
  CHECK(ioctl(fd, TIOCMSET, &bits) == 0);
}

static ssize_t read_within(int fd, int milliseconds, void* buffer, size_t size) {
  struct pollfd wait = {fd, POLLIN, 0};
  return poll(&wait, 1, milliseconds) == 1 ? read(fd, buffer, size) : 0;
}

static void modem(void) {
  int fd = open_tty();
  int copy = dup(fd);
  CHECK(copy != -1);
  CHECK((lines(fd) & (TIOCM_RTS | TIOCM_DTR)) == (TIOCM_RTS | TIOCM_DTR));
  set_lines(copy, LOOP | TIOCM_RTS);
  CHECK(lines(fd) == (LOOP | TIOCM_RTS | TIOCM_CTS));
  set_lines(fd, LOOP | TIOCM_DTR | 0x4000);
  CHECK(lines(fd) == (LOOP | TIOCM_DTR | 0x4000 | TIOCM_DSR | TIOCM_CAR));
  CHECK(ioctl(fd, TIOCMGET, (void*)8) == -1 && errno == EFAULT);
}

/* With nobody at the far end, what was written before the loop is lost, and what is written in it comes back. */
static void loop(void) {
  int fd = open_tty();
  for (int i = 0; i < 10000; ++i) {
    char sent = (char)i;
    char got[2] = {0};
    char lost = 'x';
    CHECK(write(fd, &lost, 1) == 1);
    set_lines(fd, LOOP);
    CHECK(write(fd, &sent, 1) == 1);
    set_lines(fd, 0);
    CHECK(read_within(fd, 2000, got, sizeof got) == 1 && got[0] == sent);
  }
  char none;
  CHECK(read_within(fd, 50, &none, 1) == 0);
}

static void echo(void) {
  int fd = open_tty();
  char got[8] = {0};
  CHECK(write(fd, "hello", 5) == 5);
  CHECK(read_within(fd, 2000, got, sizeof got) == 5 && memcmp(got, "hello", 5) == 0);
}

static void settings(void) {
  int fd = open_tty();
  struct termios wanted;
  struct termios got;
  CHECK(tcgetattr(fd, &wanted) == 0);
  wanted.c_cflag = (wanted.c_cflag & ~(tcflag_t)(CSIZE | CSTOPB)) | CS7 | PARENB | CSTOPB;
  CHECK(cfsetspeed(&wanted, B9600) == 0 && tcsetattr(fd, TCSANOW, &wanted) == 0 && tcgetattr(fd, &got) == 0);
  CHECK((got.c_cflag & (CSIZE | PARENB | CSTOPB)) == (CS7 | PARENB | CSTOPB));

  int mem = open("/dev/mem", O_RDWR);
  CHECK(mem != -1);
  volatile uint32_t* uart = mmap(NULL, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, mem, 0x80011000);
  CHECK(uart != MAP_FAILED);
  CHECK(uart[0] == 0x197 && uart[1] == 0 && uart[3] == 0x1e);
  uart[3] |= 0x80;
  CHECK(tcsetattr(fd, TCSANOW, &wanted) == 0);
  CHECK(uart[3] == 0x1e);
  CHECK(cfsetspeed(&wanted, B0) == 0 && tcsetattr(fd, TCSANOW, &wanted) == 0);
  CHECK((lines(fd) & (TIOCM_RTS | TIOCM_DTR)) == 0);
}

static void memory(void) {
  int mem = open("/dev/mem", O_RDWR);
  CHECK(mem != -1);
  volatile uint32_t* last = mmap(NULL, 8192, PROT_READ | PROT_WRITE, MAP_SHARED, mem, 0xFFFFF000);
  CHECK(last != MAP_FAILED);
  last[1023] = 0x12345678;
  CHECK(last[1023] == 0x12345678 && last[1024] == 0);
}

static int open_watchdog(void) {
  return open("/dev/watchdog", O_RDWR);
}

static void watchdog(void) {
  int fd = open_watchdog();
  int seconds = 7;
  CHECK(fd != -1);
  CHECK(open_watchdog() == -1 && errno == EBUSY);
  CHECK(ioctl(fd, WDIOC_SETTIMEOUT, &seconds) == 0 && seconds == 7);
  seconds = 0;
  CHECK(ioctl(fd, WDIOC_SETTIMEOUT, &seconds) == -1 && errno == EINVAL);
  seconds = 65536;
  CHECK(ioctl(fd, WDIOC_SETTIMEOUT, &seconds) == -1 && errno == EINVAL);
  CHECK(ioctl(fd, WDIOC_GETTIMEOUT, &seconds) == 0 && seconds == 7);
  CHECK(ioctl(fd, WDIOC_KEEPALIVE, 0) == 0);
  CHECK(write(fd, "V", 1) == 1 && close(fd) == 0);
  for (int i = 0; i < 100; ++i) {
    fd = open_watchdog();
    CHECK(fd != -1 && write(fd, "V", 1) == 1 && close(fd) == 0);
  }
}

static void stopped(void) {
  int fd = open_watchdog();
  int seconds = 1;
  CHECK(fd != -1 && ioctl(fd, WDIOC_SETTIMEOUT, &seconds) == 0);
  for (int i = 0; i < 4; ++i) {
    usleep(400000);
    CHECK(ioctl(fd, WDIOC_KEEPALIVE, 0) == 0);
  }
  CHECK(write(fd, "V", 1) == 1 && close(fd) == 0);
  usleep(1300000);
}

/* Leaves a daemon that would print, and starves. */
static void starved(void) {
  int fd = open_watchdog();
  int seconds = 1;
  CHECK(fd != -1 && ioctl(fd, WDIOC_SETTIMEOUT, &seconds) == 0);
  if (fork() == 0) {
    setsid();
    close(fd);
    sleep(2);
    puts("the daemon lives");
    exit(0);
  }
  CHECK(write(fd, "V", 1) == 1 && write(fd, "x", 1) == 1 && close(fd) == 0);
  sleep(10);
}

int main(int argc, char** argv) {
  static const struct {
    const char* name;
    void (*run)(void);
  } kSteps[] = {{"modem", modem},   {"loop", loop},         {"echo", echo},       {"settings", settings},
                {"memory", memory}, {"watchdog", watchdog}, {"stopped", stopped}, {"starved", starved}};
  for (size_t i = 0; argc == 2 && i < sizeof kSteps / sizeof kSteps[0]; ++i) {
    if (strcmp(argv[1], kSteps[i].name) == 0) {
      kSteps[i].run();
      return 0;
    }
  }
  return 2;
}
