#define _GNU_SOURCE
#include <asm/termbits.h>
#include <fcntl.h>
#include <linux/serial.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "probe.h"

#define READY (TIOCM_CTS | TIOCM_DSR | TIOCM_CAR)
#define OPENED (TIOCM_RTS | TIOCM_DTR | OUT2)

void make_raw(int fd) {
  struct termios settings;
  CHECK(ioctl(fd, TCGETS, &settings) == 0);
  settings.c_iflag = settings.c_oflag = settings.c_lflag = 0;
  settings.c_cc[VMIN] = 1;
  settings.c_cc[VTIME] = 0;
  CHECK(ioctl(fd, TCSETS, &settings) == 0);
}

int open_tty(void) {
  int fd = open(TTY, O_RDWR | O_NOCTTY);
  CHECK(fd != -1);
  make_raw(fd);
  return fd;
}

int lines(int fd) {
  int bits = 0;
  CHECK(ioctl(fd, TIOCMGET, &bits) == 0);
  return bits;
}

void set_lines(int fd, int bits) {
  CHECK(ioctl(fd, TIOCMSET, &bits) == 0);
}

ssize_t read_within(int fd, int milliseconds, void* buffer, size_t size) {
  struct pollfd wait = {fd, POLLIN, 0};
  return poll(&wait, 1, milliseconds) == 1 ? read(fd, buffer, size) : 0;
}

void read_all(int fd, void* buffer, size_t size) {
  for (size_t done = 0; done < size;) {
    ssize_t got = read_within(fd, 20000, (char*)buffer + done, size - done);
    CHECK(got > 0);
    done += (size_t)got;
  }
}

void write_all(int fd, const void* buffer, size_t size) {
  for (size_t done = 0; done < size;) {
    ssize_t written = write(fd, (const char*)buffer + done, size - done);
    CHECK(written > 0);
    done += (size_t)written;
  }
}

static struct termios get(int fd) {
  struct termios settings;
  CHECK(ioctl(fd, TCGETS, &settings) == 0);
  return settings;
}

static struct termios2 get2(int fd) {
  struct termios2 settings;
  CHECK(ioctl(fd, TCGETS2, &settings) == 0);
  return settings;
}

static volatile uint32_t* uart(void) {
  int mem = open("/dev/mem", O_RDWR);
  CHECK(mem != -1);
  volatile uint32_t* registers = mmap(NULL, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, mem, 0x80011000);
  CHECK(registers != MAP_FAILED);
  close(mem);
  return registers;
}

/* The far end is an echo, which is there. */
static void modem(void) {
  int fd = open_tty();
  CHECK(lines(fd) == (OPENED | READY));
  int bits = TIOCM_RTS;
  CHECK(ioctl(fd, TIOCMBIC, &bits) == 0 && lines(fd) == (TIOCM_DTR | OUT2 | READY));
  bits = TIOCM_RTS | OUT1;
  CHECK(ioctl(fd, TIOCMBIS, &bits) == 0 && lines(fd) == (OPENED | OUT1 | READY));
  /* The inputs are not the program's to set. */
  set_lines(fd, TIOCM_RNG | TIOCM_DTR);
  CHECK(lines(fd) == (TIOCM_DTR | READY));
  bits = READY;
  CHECK(ioctl(fd, TIOCMBIC, &bits) == 0 && lines(fd) == (TIOCM_DTR | READY));
  bits = TIOCM_RNG;
  CHECK(ioctl(fd, TIOCMBIS, &bits) == 0 && lines(fd) == (TIOCM_DTR | READY));
  set_lines(fd, 0);
  CHECK(lines(fd) == READY);
  /* The next open raises. */
  CHECK(close(fd) == 0);
  fd = open_tty();
  CHECK(lines(fd) == (OPENED | READY));
  close(fd);
}

static void mirror(void) {
  int fd = open_tty();
  set_lines(fd, LOOP);
  CHECK(lines(fd) == LOOP);
  set_lines(fd, LOOP | TIOCM_RTS);
  CHECK(lines(fd) == (LOOP | TIOCM_RTS | TIOCM_CTS));
  set_lines(fd, LOOP | TIOCM_DTR);
  CHECK(lines(fd) == (LOOP | TIOCM_DTR | TIOCM_DSR));
  set_lines(fd, LOOP | OUT1);
  CHECK(lines(fd) == (LOOP | OUT1 | TIOCM_RNG));
  set_lines(fd, LOOP | OUT2);
  CHECK(lines(fd) == (LOOP | OUT2 | TIOCM_CAR));
  set_lines(fd, OPENED);
  CHECK(lines(fd) == (OPENED | READY));
  close(fd);
}

/* With nobody at the far end, what was written before the loop is lost, and what is written in it comes back. */
static void loop_times(size_t times) {
  int fd = open_tty();
  FOR_EACH_ROUND(i, i < times) {
    char sent = (char)i;
    char got[2] = {0};
    char lost = 'x';
    CHECK(write(fd, &lost, 1) == 1);
    set_lines(fd, LOOP);
    CHECK(write(fd, &sent, 1) == 1);
    set_lines(fd, 0);
    CHECK(read_within(fd, 20000, got, sizeof got) == 1 && got[0] == sent);
  }
  char none;
  CHECK(read_within(fd, 50, &none, 1) == 0);
  close(fd);
}

static void loop(void) {
  loop_times(10000);
}

static void short_loop(void) {
  loop_times(300);
}

static void echo(void) {
  int fd = open_tty();
  char got[5];
  CHECK(write(fd, "hello", 5) == 5);
  read_all(fd, got, sizeof got);
  CHECK(memcmp(got, "hello", 5) == 0);
  close(fd);
}

/* Also the bytes that terminals are fond of changing. */
static void raw(void) {
  int fd = open_tty();
  unsigned char sent[256];
  unsigned char got[256];
  for (int i = 0; i < 256; ++i) {
    sent[i] = (unsigned char)i;
  }
  write_all(fd, sent, sizeof sent);
  read_all(fd, got, sizeof got);
  CHECK(memcmp(sent, got, sizeof sent) == 0);
  close(fd);
}

static void nobody(void) {
  int fd = open_tty();
  char none;
  CHECK((lines(fd) & READY) == 0);
  CHECK(write(fd, "hello", 5) == 5 && read_within(fd, 50, &none, 1) == 0);
  close(fd);
}

/* A mebibyte that is paced comes back whole. */
static void paced(void) {
  static unsigned char sent[1 << 20];
  static unsigned char got[4096];
  int fd = open_tty();
  unsigned int seed = 1;
  for (size_t i = 0; i < sizeof sent; ++i) {
    seed = seed * 1103515245U + 12345U;
    sent[i] = (unsigned char)(seed >> 16);
  }
  for (size_t at = 0; at < sizeof sent; at += sizeof got) {
    write_all(fd, sent + at, sizeof got);
    read_all(fd, got, sizeof got);
    CHECK(memcmp(sent + at, got, sizeof got) == 0);
  }
  char none;
  CHECK(read_within(fd, 50, &none, 1) == 0);
  close(fd);
}

static int dropped(int fd) {
  struct serial_icounter_struct counts;
  CHECK(ioctl(fd, TIOCGICOUNT, &counts) == 0);
  return counts.buf_overrun;
}

/* More than is kept for somebody who does not read, in one go. Nothing but the end of it is lost. */
static void overrun(void) {
  static char sent[1 << 20];
  static char got[1 << 20];
  int fd = open_tty();
  int before = dropped(fd);
  for (size_t i = 0; i < sizeof sent; ++i) {
    sent[i] = (char)(i * 7 + i / 251);
  }
  write_all(fd, sent, sizeof sent);
  /* Once all has gone, it is known how much of it will come back. */
  CHECK(ioctl(fd, TCSBRK, 1) == 0);
  size_t count = sizeof sent - (size_t)(dropped(fd) - before);
  CHECK(count >= 65536 && count < sizeof sent);
  read_all(fd, got, count);
  CHECK(memcmp(sent, got, 65536) == 0 && read_within(fd, 50, got, 1) == 0);
  printf("%zu\n", count);
  /* Afterwards all is well again. */
  write_all(fd, "again", 5);
  read_all(fd, got, 5);
  CHECK(memcmp(got, "again", 5) == 0);
  close(fd);
}

static void loop_overrun(void) {
  int fd = open_tty();
  set_lines(fd, LOOP);
  overrun();
  /* overrun() has closed a descriptor of its own. */
  set_lines(fd, 0);
  close(fd);
}

/* More than a line and its far end hold: the program waits while nobody reads there. */
static void flood(void) {
  static const char kBlock[1 << 20];
  int fd = open_tty();
  write_all(fd, kBlock, sizeof kBlock);
  CHECK(lines(fd) != 0);
  close(fd);
}

/* The numbers that the far end counts up, read late: not one is missing. */
static void late(void) {
  int fd = open_tty();
  static char text[8 * 40000];
  usleep(300000);
  read_all(fd, text, sizeof text);
  FOR_EACH_ROUND(i, i < 40000) {
    char number[24];
    snprintf(number, sizeof number, "%07zu\n", i + 1);
    CHECK(memcmp(text + i * 8, number, 8) == 0);
  }
  close(fd);
}

static void line_control(void) {
  static const struct {
    tcflag_t flags;
    uint32_t value;
  } kCases[] = {{CS5, 0x10},
                {CS6, 0x11},
                {CS7, 0x12},
                {CS8, 0x13},
                {CS8 | CSTOPB, 0x17},
                {CS8 | PARENB, 0x1b},
                {CS8 | PARENB | PARODD, 0x0b},
                {CS8 | PARODD, 3},
                {CS7 | PARENB | CSTOPB, 0x1e}};
  volatile uint32_t* registers = uart();
  int fd = open_tty();
  FOR_EACH_CASE(i, kCases) {
    struct termios settings = get(fd);
    settings.c_cflag &= ~(tcflag_t)(CSIZE | CSTOPB | PARENB | PARODD);
    settings.c_cflag |= kCases[i].flags;
    /* A report may have left the access to the divisor on. */
    registers[3] = 0xff;
    CHECK(ioctl(fd, i % 3 == 0 ? TCSETS : i % 3 == 1 ? TCSETSW : TCSETSF, &settings) == 0);
    CHECK(registers[3] == kCases[i].value);
    CHECK((get(fd).c_cflag & (CSIZE | CSTOPB | PARENB | PARODD)) == kCases[i].flags);
    CHECK((get2(fd).c_cflag & (CSIZE | CSTOPB | PARENB | PARODD)) == kCases[i].flags);
  }
  struct termios settings = get(fd);
  settings.c_cflag = (settings.c_cflag & ~(tcflag_t)CREAD) | CS8;
  CHECK(ioctl(fd, TCSETS, &settings) == 0 && (get(fd).c_cflag & CREAD) == 0);
  settings.c_cflag |= CREAD;
  CHECK(ioctl(fd, TCSETS, &settings) == 0 && (get(fd).c_cflag & CREAD) != 0);
  close(fd);
}

static void divisors(void) {
  static const struct {
    tcflag_t code;
    uint32_t divisor;
  } kCases[] = {{B9600, 0x197}, {B115200, 34}, {B1200, 3255}, {B3000000, 1}, {B75, 52083}};
  volatile uint32_t* registers = uart();
  int fd = open_tty();
  FOR_EACH_CASE(i, kCases) {
    struct termios settings = get(fd);
    settings.c_cflag = (settings.c_cflag & ~(tcflag_t)CBAUD) | kCases[i].code;
    registers[1] = 0xff;
    CHECK(ioctl(fd, TCSETS, &settings) == 0 && (get(fd).c_cflag & CBAUD) == kCases[i].code);
    CHECK(registers[0] == kCases[i].divisor && registers[1] == 0);
  }
  close(fd);
}

/* What the clock can't be divided to is taken in silence, and the old speed stays. */
static void impossible_speeds(void) {
  static const tcflag_t kCodes[] = {B50, B4000000};
  volatile uint32_t* registers = uart();
  int fd = open_tty();
  FOR_EACH_CASE(i, kCodes) {
    struct termios settings = get(fd);
    settings.c_cflag = (settings.c_cflag & ~(tcflag_t)CBAUD) | B9600;
    CHECK(ioctl(fd, TCSETS, &settings) == 0);
    settings.c_cflag = (settings.c_cflag & ~(tcflag_t)CBAUD) | kCodes[i];
    CHECK(ioctl(fd, TCSETS, &settings) == 0);
    CHECK((get(fd).c_cflag & CBAUD) == B9600 && get2(fd).c_ospeed == 9600 && registers[0] == 0x197);
  }
  close(fd);
}

/* A base that a program has raised itself: the greatest speeds do not wrap around. */
static void greatest_speed(void) {
  volatile uint32_t* registers = uart();
  int fd = open_tty();
  struct serial_struct got;
  CHECK(ioctl(fd, TIOCGSERIAL, &got) == 0);
  got.baud_base = 2000000000;
  CHECK(ioctl(fd, TIOCSSERIAL, &got) == 0);
  struct termios2 settings = get2(fd);
  settings.c_cflag = (settings.c_cflag & ~(tcflag_t)CBAUD) | BOTHER;
  settings.c_ispeed = settings.c_ospeed = 268435456;
  CHECK(ioctl(fd, TCSETS2, &settings) == 0 && get2(fd).c_ospeed == 268435456 && registers[0] == 7);
  close(fd);
}

static sem_t writing;

static void* write_on(void* argument) {
  static const char kBlock[60000];
  int fd = *(int*)argument;
  sem_post(&writing);
  while (write(fd, kBlock, sizeof kBlock) != -1) {
  }
  return NULL;
}

/* Settings that wait for the output, while another thread is in a write that itself waits. */
static void drained(void) {
  static const unsigned int kRequests[] = {TCSETSW, TCSETSF, TCSETSW2, TCSETSF2};
  int fd = open_tty();
  pthread_t writer;
  CHECK(sem_init(&writing, 0, 0) == 0 && pthread_create(&writer, NULL, write_on, &fd) == 0);
  CHECK(sem_wait(&writing) == 0);
  for (int round = 0; round < 25; ++round) {
    FOR_EACH_CASE(i, kRequests) {
      struct termios2 settings = get2(fd);
      CHECK(ioctl(fd, kRequests[i], &settings) == 0);
    }
  }
}

/* Speed 0 hangs up: the divisor stays. Any speed after it picks up again. */
static void speed_zero(void) {
  volatile uint32_t* registers = uart();
  int fd = open_tty();
  struct termios settings = get(fd);
  uint32_t before = registers[0];
  settings.c_cflag = (settings.c_cflag & ~(tcflag_t)CBAUD) | B0;
  CHECK(ioctl(fd, TCSETS, &settings) == 0);
  CHECK((lines(fd) & (TIOCM_RTS | TIOCM_DTR)) == 0 && registers[0] == before);
  settings.c_cflag = (settings.c_cflag & ~(tcflag_t)CBAUD) | B9600;
  CHECK(ioctl(fd, TCSETS, &settings) == 0 && (lines(fd) & OPENED) == OPENED);
  /* But one that follows another leaves the lines alone. */
  set_lines(fd, 0);
  CHECK(ioctl(fd, TCSETS, &settings) == 0 && (lines(fd) & OPENED) == 0);
  set_lines(fd, OPENED);
  close(fd);
}

/* A speed that has no name. */
static void custom_speed(void) {
  static const unsigned int kRequests[] = {TCSETS2, TCSETSW2, TCSETSF2};
  volatile uint32_t* registers = uart();
  int fd = open_tty();
  FOR_EACH_CASE(i, kRequests) {
    struct termios2 settings = get2(fd);
    settings.c_cflag = (settings.c_cflag & ~(tcflag_t)(CBAUD | CSIZE | CSTOPB | PARODD)) | BOTHER | CS7 | PARENB;
    settings.c_ispeed = settings.c_ospeed = 250000 + (speed_t)i;
    registers[3] = 0xff;
    CHECK(ioctl(fd, kRequests[i], &settings) == 0);
    settings = get2(fd);
    CHECK(settings.c_ospeed == 250000 + i && (settings.c_cflag & (CSIZE | PARENB)) == (CS7 | PARENB));
    CHECK(registers[0] == 16 && registers[3] == 0x1a);
  }
  struct termios settings = get(fd);
  settings.c_cflag = (settings.c_cflag & ~(tcflag_t)(CBAUD | CSIZE | PARENB)) | B9600 | CS8;
  CHECK(ioctl(fd, TCSETS, &settings) == 0);
  close(fd);
}

/* The size, the parity and the lines are the port's, not the descriptor's; a new descriptor finds them. */
static void kept(void) {
  int fd = open_tty();
  struct termios settings = get(fd);
  settings.c_cflag = (settings.c_cflag & ~(tcflag_t)CSIZE) | CS7 | PARENB;
  CHECK(ioctl(fd, TCSETS, &settings) == 0 && close(fd) == 0);
  fd = open_tty();
  settings = get(fd);
  CHECK((settings.c_cflag & (CSIZE | PARENB)) == (CS7 | PARENB));
  settings.c_cflag = (settings.c_cflag & ~(tcflag_t)(CSIZE | PARENB)) | CS8;
  CHECK(ioctl(fd, TCSETS, &settings) == 0);
  close(fd);
}

/* A port that was never set is as a kernel makes one, and its UART shows it. */
static void fresh(void) {
  int fd = open(TTY, O_RDWR | O_NOCTTY);
  CHECK(fd != -1 && lines(fd) == (OPENED | READY));
  struct termios settings = get(fd);
  CHECK(settings.c_iflag == (ICRNL | IXON) && settings.c_oflag == (OPOST | ONLCR));
  CHECK(settings.c_cflag == (B9600 | CS8 | CREAD | HUPCL | CLOCAL));
  CHECK(settings.c_lflag == (ISIG | ICANON | ECHO | ECHOE | ECHOK | ECHOCTL | ECHOKE | IEXTEN));
  CHECK(get2(fd).c_ospeed == 9600 && get2(fd).c_ispeed == 9600);
  CHECK(uart()[0] == 0x197 && uart()[1] == 0 && uart()[3] == 0x13);
  close(fd);
}

static void flush(void) {
  static const char kBlock[30000];
  int fd = open_tty();
  char got[16];
  /* More than a terminal keeps: the rest waits on its way, and goes as well. */
  write_all(fd, kBlock, sizeof kBlock);
  CHECK(ioctl(fd, TCFLSH, TCIOFLUSH) == 0);
  CHECK(read_within(fd, 100, got, sizeof got) == 0);
  struct termios settings = get(fd);
  write_all(fd, kBlock, sizeof kBlock);
  CHECK(ioctl(fd, TCSETSF, &settings) == 0);
  CHECK(read_within(fd, 100, got, sizeof got) == 0);
  /* The output flushed, the input stays. */
  write_all(fd, "stay", 4);
  struct pollfd wait = {fd, POLLIN, 0};
  CHECK(poll(&wait, 1, 20000) == 1 && ioctl(fd, TCFLSH, TCOFLUSH) == 0);
  read_all(fd, got, 4);
  CHECK(memcmp(got, "stay", 4) == 0);
  write_all(fd, "gone", 4);
  CHECK(ioctl(fd, TCFLSH, TCIFLUSH) == 0 && read_within(fd, 100, got, sizeof got) == 0);
  CHECK(ioctl(fd, TCFLSH, 17) == -1 && errno == EINVAL);
  close(fd);
}

static void info(void) {
  int fd = open_tty();
  struct serial_struct got;
  memset(&got, 0xff, sizeof got);
  CHECK(ioctl(fd, TIOCGSERIAL, &got) == 0);
  CHECK(got.baud_base == 3906250 && got.xmit_fifo_size == 64 && got.flags == 0x10000040 && got.irq == 42 &&
        got.custom_divisor == 0);
  got.custom_divisor = 25;
  got.flags = 0x30;
  got.irq = 7;
  CHECK(ioctl(fd, TIOCSSERIAL, &got) == 0);
  memset(&got, 0, sizeof got);
  CHECK(ioctl(fd, TIOCGSERIAL, &got) == 0);
  CHECK(got.custom_divisor == 25 && got.flags == 0x30 && got.irq == 7 && got.baud_base == 3906250);
  got.custom_divisor = 0;
  got.flags = 0x10000040;
  CHECK(ioctl(fd, TIOCSSERIAL, &got) == 0);
  close(fd);
}

/* A divisor of its own, which /sys is to show as well. */
static void changed_info(void) {
  int fd = open_tty();
  struct serial_struct changed;
  CHECK(ioctl(fd, TIOCGSERIAL, &changed) == 0);
  changed.custom_divisor = 17;
  changed.flags = 0x10000030;
  CHECK(ioctl(fd, TIOCSSERIAL, &changed) == 0);
  close(fd);
}

static void* call_from_thread(void* argument) {
  int fd = *(int*)argument;
  CHECK((lines(fd) & OPENED) == OPENED);
  int own = open_tty();
  CHECK((lines(own) & OPENED) == OPENED);
  close(own);
  return NULL;
}

/* However the descriptor came, it is the port. */
static void descriptors(void) {
  int fd = open_tty();
  int copy = dup(fd);
  CHECK(copy != -1 && (lines(copy) & OPENED) == OPENED);
  CHECK(dup2(fd, 77) == 77 && (lines(77) & OPENED) == OPENED && close(77) == 0);
  CHECK(fcntl(fd, F_DUPFD_CLOEXEC, 90) == 90 && (lines(90) & OPENED) == OPENED && close(90) == 0);
  close(fd);
  CHECK((lines(copy) & OPENED) == OPENED);

  pthread_t thread;
  CHECK(pthread_create(&thread, NULL, call_from_thread, &copy) == 0 && pthread_join(thread, NULL) == 0);

  int ends[2];
  CHECK(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) == 0);
  pid_t child = fork();
  CHECK(child != -1);
  char byte = 0;
  struct iovec part = {&byte, 1};
  union {
    struct cmsghdr header;
    char space[CMSG_SPACE(sizeof(int))];
  } control;
  struct msghdr message = {
      .msg_iov = &part, .msg_iovlen = 1, .msg_control = &control, .msg_controllen = sizeof control};
  if (child == 0) {
    CHECK((lines(copy) & OPENED) == OPENED);
    int own = open_tty();
    struct cmsghdr* rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof own);
    memcpy(CMSG_DATA(rights), &own, sizeof own);
    CHECK(sendmsg(ends[1], &message, 0) == 1);
    _exit(0);
  }
  close(copy);
  CHECK(recvmsg(ends[0], &message, 0) == 1);
  int passed = -1;
  memcpy(&passed, CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof passed);
  int status = -1;
  CHECK(waitpid(child, &status, 0) == child && status == 0);
  CHECK((lines(passed) & OPENED) == OPENED);
  write_all(passed, "p", 1);
  read_all(passed, &byte, 1);
  CHECK(byte == 'p');
  close(passed);
  close(ends[0]);
  close(ends[1]);
}

static void is_port(int fd) {
  CHECK(fd != -1 && (lines(fd) & OPENED) == OPENED && close(fd) == 0);
}

/* However it is called. */
static void names(void) {
  int folder = open("/dev", O_RDONLY | O_DIRECTORY);
  CHECK(folder != -1);
  is_port(openat(folder, "ttyS1", O_RDWR | O_NOCTTY));
  is_port(openat(folder, TTY, O_RDWR | O_NOCTTY));
  is_port(openat(-1, TTY, O_WRONLY | O_NOCTTY));
  is_port(open("/dev/./../dev//ttyS1", O_RDWR | O_NOCTTY));
  int closing = open(TTY, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  CHECK(closing != -1 && fcntl(closing, F_GETFD) == FD_CLOEXEC && (fcntl(closing, F_GETFL) & O_NONBLOCK) != 0);
  is_port(closing);
  int staying = open_tty();
  CHECK(fcntl(staying, F_GETFD) == 0 && (fcntl(staying, F_GETFL) & O_NONBLOCK) == 0);
  is_port(staying);
#ifdef SYS_open
  is_port((int)syscall(SYS_open, TTY, O_RDWR | O_NOCTTY));
#endif
  int before = open(".", O_RDONLY | O_DIRECTORY);
  CHECK(before != -1 && chdir("/dev") == 0);
  is_port(open("ttyS1", O_RDWR | O_NOCTTY));
  is_port(open("./ttyS1", O_RDWR | O_NOCTTY));
  CHECK(fchdir(before) == 0 && close(before) == 0);
  FILE* stream = fopen(TTY, "r+");
  CHECK(stream != NULL && (lines(fileno(stream)) & OPENED) == OPENED && fclose(stream) == 0);

  char link[] = "/tmp/probe-XXXXXX";
  CHECK(mkdtemp(link) != NULL);
  char path[64];
  snprintf(path, sizeof path, "%s/port", link);
  CHECK(symlink(TTY, path) == 0);
  int fd = open(path, O_RDWR | O_NOCTTY);
  CHECK(unlink(path) == 0 && rmdir(link) == 0);
  is_port(fd);
  CHECK(openat(folder, "ttyS7777", O_RDWR) == -1 && errno == ENOENT);
  CHECK(openat(-1, "ttyS1", O_RDWR) == -1 && errno == EBADF);
  CHECK(open("", O_RDWR) == -1 && errno == ENOENT);
  close(folder);
}

/* What only a real name in /dev can do. */
static void nodes(void) {
  struct stat status;
  CHECK(stat(TTY, &status) == 0 && S_ISCHR(status.st_mode));
  CHECK(stat(WATCHDOG, &status) == 0 && stat("/dev/mem", &status) == 0);
  int fd = open_tty();
  char name[64];
  CHECK(ttyname_r(fd, name, sizeof name) == 0 && strcmp(name, TTY) == 0);
  int reading = open(TTY, O_RDONLY | O_NOCTTY | O_NONBLOCK);
  CHECK(reading != -1 && (lines(reading) & OPENED) == OPENED);
  close(reading);
  close(fd);
}

/* Nobody keeps back an open for reading alone, but the first request after it finds the port open. */
static void read_only(void) {
  FOR_EACH_ROUND(i, i < 1000) {
    int fd = open(TTY, O_RDONLY | O_NOCTTY);
    CHECK(fd != -1 && lines(fd) == (OPENED | READY) && close(fd) == 0);
  }
}

static void bad_pointers(void) {
  static const unsigned int kRequests[] = {TCGETS,   TCSETS,   TCGETS2,     TCSETS2,    TIOCMGET,
                                           TIOCMSET, TIOCMBIS, TIOCGSERIAL, TIOCSSERIAL};
  int fd = open_tty();
  FOR_EACH_CASE(i, kRequests) {
    CHECK(ioctl(fd, kRequests[i], (void*)8) == -1 && errno == EFAULT);
  }
  /* Straight from the system call: the address is its own business. */
  CHECK(syscall(SYS_openat, AT_FDCWD, (void*)8, O_RDWR) == -1 && errno == EFAULT);
  CHECK(lines(fd) == (OPENED | READY));
  close(fd);
}

/* Some callers extend the sign of a request, and all of them leave rubbish in the upper half of a register. */
static void wide_requests(void) {
  int fd = open_tty();
  unsigned int bits = 0;
  CHECK(syscall(SYS_ioctl, (long)fd, (long)TIOCMGET | (long)0xffffffff00000000, &bits) == 0);
  CHECK(bits == (OPENED | READY));
  close(fd);
}

/* Requests and opens that are not the board's go where they always went. */
static void strangers(void) {
  int fds[2];
  int bits = 0;
  CHECK(pipe(fds) == 0);
  CHECK(ioctl(fds[0], TIOCMGET, &bits) == -1 && errno == ENOTTY);
  struct termios settings;
  CHECK(ioctl(fds[0], TCGETS, &settings) == -1 && errno == ENOTTY);
  CHECK(ioctl(-1, TIOCMGET, &bits) == -1 && errno == EBADF);
  CHECK(write(fds[1], "abc", 3) == 3 && ioctl(fds[0], FIONREAD, &bits) == 0 && bits == 3);
  int null = open("/dev/null", O_RDWR);
  CHECK(null != -1 && write(null, "x", 1) == 1);
  /* A terminal of the program's own is not a serial port. */
  int master = open("/dev/ptmx", O_RDWR | O_NOCTTY);
  CHECK(master != -1);
  int unlocked = 0;
  CHECK(ioctl(master, TIOCSPTLCK, &unlocked) == 0);
  int slave = ioctl(master, TIOCGPTPEER, O_RDWR | O_NOCTTY);
  CHECK(slave != -1 && ioctl(slave, TIOCMGET, &bits) == -1 && errno == ENOTTY && ioctl(slave, TCGETS, &settings) == 0);
  int fd = open_tty();
  CHECK(ioctl(fd, FIONREAD, &bits) == 0 && bits == 0 && ioctl(fd, TIOCEXCL, 0) == 0 && ioctl(fd, TIOCNXCL, 0) == 0);
  close(fd);
}

/* Descriptor 3 came from whoever started this program. */
static void inherited(void) {
  CHECK((lines(3) & LOOP) == 0);
  make_raw(3);
  set_lines(3, OPENED);
  CHECK((lines(3) & OPENED) == OPENED);
  char got = 0;
  write_all(3, "i", 1);
  read_all(3, &got, 1);
  CHECK(got == 'i');
}

/* Opens it, and is another program afterwards. */
static void executed(void) {
  int fd = open_tty();
  CHECK(dup2(fd, 3) == 3);
  execl("/proc/self/exe", "probe", "inherited", (char*)NULL);
  CHECK(!"executed");
}

static volatile sig_atomic_t signals;

static void count(int signal) {
  (void)signal;
  signals = signals + 1;
}

static void alarm_every(int microseconds, int flags) {
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = count;
  action.sa_flags = flags;
  CHECK(sigaction(SIGALRM, &action, NULL) == 0);
  struct itimerval timer = {{0, microseconds}, {0, microseconds}};
  CHECK(setitimer(ITIMER_REAL, &timer, NULL) == 0);
}

/* Whether a call has failed, which only a signal may have brought about that came during it. */
static int is_interrupted(int result, int signals_before) {
  CHECK(result != -1 || (errno == EINTR && signals > signals_before));
  return result == -1;
}

/* A thousand signals a second, and calls that the simulator answers. */
static int interrupted_of(size_t calls, int flags) {
  int fd = open_tty();
  alarm_every(1000, flags);
  int interrupted = 0;
  FOR_EACH_ROUND(i, i < calls || signals <= 20) {
    /* A loop would go unnoticed here, a wrong answer does not. */
    int wanted = (i & 1) != 0 ? LOOP | TIOCM_RTS : LOOP | TIOCM_DTR;
    int before = signals;
    if (is_interrupted(ioctl(fd, TIOCMSET, &wanted), before)) {
      ++interrupted;
      continue;
    }
    int bits = 0;
    before = signals;
    if (is_interrupted(ioctl(fd, TIOCMGET, &bits), before)) {
      ++interrupted;
    } else {
      CHECK((bits & (LOOP | OPENED)) == wanted);
    }
    char sent = (char)i;
    char got = 0;
    /* These are the kernel's own business, and any terminal's are interrupted. */
    ssize_t done = 0;
    while ((done = write(fd, &sent, 1)) == -1 && errno == EINTR) {
    }
    CHECK(done == 1);
    while ((done = read(fd, &got, 1)) == -1 && errno == EINTR) {
    }
    CHECK(done == 1 && got == sent);
    before = signals;
    int own = open(TTY, O_RDWR | O_NOCTTY);
    if (is_interrupted(own, before)) {
      ++interrupted;
    } else {
      CHECK(close(own) == 0);
    }
    /* Ordinary opens are never kept back. */
    own = open("/dev/null", O_RDONLY);
    CHECK(own != -1 && close(own) == 0);
  }
  struct itimerval off = {{0, 0}, {0, 0}};
  CHECK(setitimer(ITIMER_REAL, &off, NULL) == 0);
  int bits = OPENED;
  CHECK(ioctl(fd, TIOCMSET, &bits) == 0);
  char none;
  CHECK(read_within(fd, 50, &none, 1) == 0);
  close(fd);
  return interrupted;
}

static void signals_restart(void) {
  CHECK(interrupted_of(3000, SA_RESTART) == 0);
}

/* Without a restart a call can be interrupted before it has reached the simulator: three in a thousand, and more where
   others keep the processor busy. Each that is answered is answered right. */
static void signals_interrupt(void) {
  interrupted_of(3000, 0);
}

/* Requests of which the last ones are held up, and a signal that comes meanwhile. */
static void held_up(void) {
  int fd = open_tty();
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = count;
  CHECK(sigaction(SIGUSR1, &action, NULL) == 0);
  FOR_EACH_ROUND(i, i < 5000) {
    int bits = OPENED;
    CHECK(ioctl(fd, TIOCMSET, &bits) == 0);
  }
  CHECK(signals == 1);
  close(fd);
}

/* The port is there and answers, over and over, until somebody ends this. */
static void busy(void) {
  int fd = open_tty();
  puts("ready");
  fflush(stdout);
  while (1) {
    lines(fd);
  }
}

const struct step kSerialSteps[] = {{"modem", modem},
                                    {"mirror", mirror},
                                    {"loop", loop},
                                    {"short-loop", short_loop},
                                    {"echo", echo},
                                    {"raw", raw},
                                    {"nobody", nobody},
                                    {"paced", paced},
                                    {"overrun", overrun},
                                    {"loop-overrun", loop_overrun},
                                    {"flood", flood},
                                    {"late", late},
                                    {"line-control", line_control},
                                    {"divisors", divisors},
                                    {"impossible-speeds", impossible_speeds},
                                    {"greatest-speed", greatest_speed},
                                    {"drained", drained},
                                    {"speed-zero", speed_zero},
                                    {"custom-speed", custom_speed},
                                    {"kept", kept},
                                    {"fresh", fresh},
                                    {"flush", flush},
                                    {"info", info},
                                    {"changed-info", changed_info},
                                    {"descriptors", descriptors},
                                    {"names", names},
                                    {"nodes", nodes},
                                    {"read-only", read_only},
                                    {"bad-pointers", bad_pointers},
                                    {"wide-requests", wide_requests},
                                    {"strangers", strangers},
                                    {"inherited", inherited},
                                    {"executed", executed},
                                    {"signals-restart", signals_restart},
                                    {"signals-interrupt", signals_interrupt},
                                    {"held-up", held_up},
                                    {"busy", busy},
                                    {NULL, NULL}};
