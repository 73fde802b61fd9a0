#define _GNU_SOURCE
#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "probe.h"

static volatile uint32_t* map(int mem, int protection, off_t page) {
  volatile uint32_t* words = mmap(NULL, 8192, protection, MAP_SHARED, mem, page);
  CHECK(words != MAP_FAILED);
  return words;
}

/* The whole 32-bit range, and the page after it. */
static void memory(void) {
  int mem = open("/dev/mem", O_RDWR | O_SYNC);
  CHECK(mem != -1);
  volatile uint32_t* last = map(mem, PROT_READ | PROT_WRITE, 0xFFFFF000);
  last[1023] = 0x12345678;
  CHECK(last[1023] == 0x12345678 && last[1024] == 0);
  last[1024] = 1;
  CHECK(last[1024] == 1);
  volatile uint32_t* first = map(mem, PROT_READ | PROT_WRITE, 0);
  CHECK(first[0] == 0);
  first[0] = 5;
  CHECK(last[1023] == 0x12345678 && first[0] == 5);

  int reading = open("/dev/mem", O_RDWR);
  CHECK(reading != -1);
  CHECK(map(reading, PROT_READ, 0)[0] == 5);
  uint32_t word = 0;
  CHECK(pread(reading, &word, sizeof word, 0xFFFFFFFC) == sizeof word && word == 0x12345678);
  word = 9;
  CHECK(pwrite(reading, &word, sizeof word, 0) == sizeof word && first[0] == 9);
}

/* Nothing makes it shorter, nor empties it. */
static void memory_size(void) {
  int mem = open("/dev/mem", O_RDWR);
  CHECK(mem != -1);
  volatile uint32_t* words = map(mem, PROT_READ | PROT_WRITE, 0);
  words[0] = 5;
  int emptied = open("/dev/mem", O_WRONLY | O_CREAT | O_TRUNC, 0666);
  CHECK(emptied != -1 && words[0] == 5 && write(emptied, "\6", 1) == 1 && words[0] == 6);
  CHECK(ftruncate(emptied, 0) == 0 && truncate("/dev/mem", 0) == 0 && words[0] == 6);
  CHECK(creat("/dev/mem", 0666) != -1 && words[0] == 6);
  CHECK(system("printf x | dd of=/dev/mem bs=1 seek=4 status=none") == 0 && words[0] == 6 && words[1] == 'x');
  CHECK(system("test \"$(dd if=/dev/mem bs=4 skip=1 count=1 status=none | tr -d '\\000')\" = x") == 0);
  int reading = open("/dev/mem", O_RDONLY);
  CHECK(reading != -1 && lseek(reading, 4, SEEK_SET) == 4);
  char byte = 0;
  CHECK(read(reading, &byte, 1) == 1 && byte == 'x' && write(reading, "y", 1) == -1 && errno == EBADF);
  /* Other files are. */
  char path[] = "/tmp/probe-XXXXXX";
  int file = mkstemp(path);
  CHECK(file != -1 && write(file, "abc", 3) == 3 && ftruncate(file, 2) == 0 && lseek(file, 0, SEEK_END) == 2);
  CHECK(truncate(path, 1) == 0 && lseek(file, 0, SEEK_END) == 1);
  CHECK(open(path, O_WRONLY | O_TRUNC) != -1 && lseek(file, 0, SEEK_END) == 0 && unlink(path) == 0);
}

static int answer_of(int family, const char* address) {
  struct sockaddr_storage storage;
  memset(&storage, 0, sizeof storage);
  socklen_t size;
  if (family == AF_INET) {
    struct sockaddr_in* to = (struct sockaddr_in*)&storage;
    to->sin_family = AF_INET;
    to->sin_port = htons(9);
    CHECK(inet_pton(AF_INET, address, &to->sin_addr) == 1);
    size = sizeof *to;
  } else {
    struct sockaddr_in6* to = (struct sockaddr_in6*)&storage;
    to->sin6_family = AF_INET6;
    to->sin6_port = htons(9);
    CHECK(inet_pton(AF_INET6, address, &to->sin6_addr) == 1);
    size = sizeof *to;
  }
  int fd = socket(family, SOCK_STREAM, 0);
  CHECK(fd != -1 && connect(fd, (struct sockaddr*)&storage, size) == -1);
  int error = errno;
  close(fd);
  return error;
}

/* Nobody is asked for a second whether an address is free: the kernel only has to come to it. */
static void counts_at_once(void) {
  CHECK(system("cat /proc/sys/net/ipv6/conf/all/accept_dad /proc/sys/net/ipv6/conf/eth?/accept_dad | tr -d '\\n' | "
               "grep -qx 000") == 0);
  CHECK(system("for i in $(seq 200); do test -z \"$(ip -o -6 address show tentative)\" && exit 0; sleep 0.05; done; "
               "exit 1") == 0);
}

/* A host that refuses a connection is there. Its addresses count at once. */
static void peers(void) {
  CHECK(system("ip address add 192.0.2.77/24 dev eth0 && ip address add 2001:db8::77/64 dev eth0") == 0);
  counts_at_once();
  CHECK(answer_of(AF_INET, "192.0.2.1") == ECONNREFUSED);
  CHECK(answer_of(AF_INET6, "2001:db8::1") == ECONNREFUSED);
  /* The second one is down until somebody raises it. */
  CHECK(answer_of(AF_INET, "198.51.100.1") == ENETUNREACH);
  CHECK(system("ip link set eth1 up && ip address add 198.51.100.77/24 dev eth1") == 0);
  CHECK(system("ip address add 2001:db8:1::77/64 dev eth1") == 0);
  counts_at_once();
  CHECK(answer_of(AF_INET, "198.51.100.1") == ECONNREFUSED);
  CHECK(answer_of(AF_INET6, "2001:db8:1::1") == ECONNREFUSED);
}

/* The kernel and the real `ip` treat it as they treat any. */
static void administration(void) {
  CHECK(system("ip link set eth0 down && ip link set eth0 address 02:00:00:00:00:99 && ip link set eth0 up") == 0);
  CHECK(system("grep -q 02:00:00:00:00:99 /sys/class/net/eth0/address") == 0);
  CHECK(system("ip address add 192.0.2.77/24 dev eth0 && ip route add default via 192.0.2.1") == 0);
  CHECK(system("ip route | grep -q '^default via 192.0.2.1 dev eth0'") == 0);
  CHECK(system("ip address flush dev eth0 && test -z \"$(ip -4 address show dev eth0)\"") == 0);
  CHECK(system("ip link set eth7 up 2>&1 | grep -q 'Cannot find device'") == 0);
}

/* The program is the same process, so to speak, as without a simulator: this prints what it was given. */
static void surroundings(void) {
  char folder[4096];
  CHECK(getcwd(folder, sizeof folder) != NULL);
  mode_t mask = umask(0);
  printf("folder %s\numask %03o\nBOARD %s\n", folder, (unsigned)mask, getenv("BOARD"));
  for (int number = 1; number < NSIG; ++number) {
    struct sigaction action;
    if (sigaction(number, NULL, &action) == 0 && action.sa_handler == SIG_IGN) {
      printf("ignored %d\n", number);
    }
  }
  sigset_t blocked;
  CHECK(sigprocmask(SIG_BLOCK, NULL, &blocked) == 0);
  for (int number = 1; number < NSIG; ++number) {
    if (sigismember(&blocked, number) == 1) {
      printf("blocked %d\n", number);
    }
  }
  for (int fd = 3; fd < 1024; ++fd) {
    if (fcntl(fd, F_GETFD) != -1) {
      printf("descriptor %d\n", fd);
    }
  }
}

static volatile sig_atomic_t received;

static void receive(int number) {
  received = number;
}

/* Prints the signals that come; the terminating one ends it. */
static void listen_to_signals(void) {
  static const int kSignals[] = {SIGINT, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2, SIGTERM};
  sigset_t blocked;
  sigset_t before;
  sigemptyset(&blocked);
  FOR_EACH_CASE(i, kSignals) {
    sigaddset(&blocked, kSignals[i]);
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = receive;
    CHECK(sigaction(kSignals[i], &action, NULL) == 0);
  }
  CHECK(sigprocmask(SIG_BLOCK, &blocked, &before) == 0);
  puts("ready");
  fflush(stdout);
  while (received != SIGTERM) {
    sigsuspend(&before);
    printf("%d\n", (int)received);
    fflush(stdout);
  }
}

/* Waits, with a daemon twice removed that waits as well. */
static void daemons(void) {
  pid_t child = fork();
  CHECK(child != -1);
  if (child == 0) {
    setsid();
    pid_t daemon = fork();
    CHECK(daemon != -1);
    if (daemon == 0) {
      signal(SIGTERM, SIG_IGN);
      signal(SIGHUP, SIG_IGN);
      sleep(300);
    }
    _exit(0);
  }
  CHECK(waitpid(child, NULL, 0) == child);
  if (fork() == 0) {
    sleep(300);
    _exit(0);
  }
  puts("ready");
  fflush(stdout);
  sleep(300);
}

/* Of a program whose memory nobody may read, opens are as ever. */
static void secretive(void) {
  CHECK(prctl(PR_SET_DUMPABLE, 0) == 0);
  CHECK(open("/dev/null", O_RDWR) != -1);
  CHECK(open((const char*)8, O_RDWR) == -1 && errno == EFAULT);
}

/* As on the board. */
static void user(void) {
  CHECK(getuid() == 0 && geteuid() == 0 && getgid() == 0);
}

static int open_anew(const char* path, uint64_t flags, uint64_t resolve) {
  struct {
    uint64_t flags;
    uint64_t mode;
    uint64_t resolve;
  } how = {flags, 0, resolve};
  return (int)syscall(SYS_openat2, AT_FDCWD, path, &how, sizeof how);
}

/* Where no name leads to the devices: every way to open them. */
static void other_opens(void) {
  int fd = creat(TTY, 0600);
  CHECK(fd != -1 && isatty(fd) && fcntl(fd, F_GETFD) == 0);
  CHECK(close(fd) == 0);
  fd = open_anew(TTY, O_RDWR | O_CLOEXEC, 0);
  CHECK(fd != -1 && isatty(fd) && fcntl(fd, F_GETFD) == FD_CLOEXEC);
  CHECK(close(fd) == 0);
  CHECK(access(TTY, F_OK) == -1 || !isatty(open(TTY, O_RDONLY | O_NOCTTY)));
  /* Others are opened by the kernel. */
  CHECK((fd = open_anew("/dev/null", O_WRONLY, 0)) != -1);
  CHECK(write(fd, "x", 1) == 1 && close(fd) == 0);
  CHECK(open_anew("/no/such/file", O_RDONLY, 0) == -1 && errno == ENOENT);
  CHECK(open_anew("/dev/null", O_RDONLY, ~UINT64_C(0)) == -1 && errno == EINVAL);
  CHECK(syscall(SYS_openat2, AT_FDCWD, TTY, NULL, 24) == -1 && errno == EFAULT);
  CHECK(syscall(SYS_io_uring_setup, 1, NULL) == -1 && errno == ENOSYS);
}

static void raised_by_openat2(void) {
  int fd = open_anew(TTY, O_RDWR | O_NOCTTY, 0);
  CHECK(fd != -1);
  CHECK((lines(fd) & (TIOCM_RTS | TIOCM_DTR)) == (TIOCM_RTS | TIOCM_DTR));
}

/* As a program of 32 bits asks, which a kernel may not know. */
static void foreign_request(void) {
#ifdef __x86_64__
  int fd = open_tty();
  int* answer = mmap(NULL, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_32BIT, -1, 0);
  CHECK(answer != MAP_FAILED);
  long result = 54;
  __asm__ volatile("int $0x80" : "+a"(result) : "b"((long)fd), "c"((long)TIOCMGET), "d"(answer) : "memory");
  CHECK(result == -ENOTTY);
  CHECK(close(fd) == 0);
#endif
}

const struct step kBoardSteps[] = {{"memory", memory},
                                   {"memory-size", memory_size},
                                   {"other-opens", other_opens},
                                   {"raised-by-openat2", raised_by_openat2},
                                   {"foreign-request", foreign_request},
                                   {"peers", peers},
                                   {"administration", administration},
                                   {"surroundings", surroundings},
                                   {"listen-to-signals", listen_to_signals},
                                   {"daemons", daemons},
                                   {"secretive", secretive},
                                   {"user", user},
                                   {"talk", talk},
                                   {NULL, NULL}};
