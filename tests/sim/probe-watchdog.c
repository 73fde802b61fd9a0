#include <fcntl.h>
#include <linux/capability.h>
#include <linux/watchdog.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "probe.h"

static int open_watchdog(void) {
  return open(WATCHDOG, O_RDWR);
}

static void stop(int fd) {
  CHECK(write(fd, "V", 1) == 1 && close(fd) == 0);
}

static int timeout_of(int fd) {
  int seconds = 0;
  CHECK(ioctl(fd, WDIOC_GETTIMEOUT, &seconds) == 0);
  return seconds;
}

static void set_timeout(int fd, int seconds) {
  int granted = seconds;
  CHECK(ioctl(fd, WDIOC_SETTIMEOUT, &granted) == 0 && granted == seconds && timeout_of(fd) == seconds);
}

static int time_left(int fd) {
  int seconds = -1;
  CHECK(ioctl(fd, WDIOC_GETTIMELEFT, &seconds) == 0);
  return seconds;
}

static int status_of(int fd) {
  int status = -1;
  CHECK(ioctl(fd, WDIOC_GETSTATUS, &status) == 0);
  return status;
}

/* So long that less than its whole time is left afterwards, to the second. */
static void starve_a_second(int fd) {
  int whole = timeout_of(fd);
  struct timespec time = {1, 100000000};
  CHECK(nanosleep(&time, NULL) == 0 && time_left(fd) < whole);
}

/* Its whole time is left, but for what has passed since: on a busy machine, that may be much. */
static void expect_fed_since(double moment, int fd) {
  int left = time_left(fd);
  CHECK(left >= timeout_of(fd) - (now() - moment));
}

static void one_owner(void) {
  int fd = open_watchdog();
  CHECK(fd != -1);
  CHECK(open_watchdog() == -1 && errno == EBUSY);
  CHECK(open(WATCHDOG, O_WRONLY) == -1 && errno == EBUSY);
  pid_t child = fork();
  CHECK(child != -1);
  if (child == 0) {
    close(fd);
    _exit(open_watchdog() == -1 && errno == EBUSY ? 0 : 1);
  }
  int status = -1;
  CHECK(waitpid(child, &status, 0) == child && status == 0);
  /* A duplicate still has it. */
  int copy = dup(fd);
  CHECK(copy != -1 && close(fd) == 0 && open_watchdog() == -1 && errno == EBUSY);
  stop(copy);
  FOR_EACH_ROUND(i, i < 100) {
    fd = open(WATCHDOG, (i & 1) != 0 ? O_WRONLY : O_RDWR);
    CHECK(fd != -1);
    stop(fd);
  }
}

static void timeouts(void) {
  static const int kRefused[] = {0, -1, 65536, 0x7fffffff, (int)0x80000000U};
  int fd = open_watchdog();
  CHECK(fd != -1 && timeout_of(fd) == 60);
  set_timeout(fd, 7);
  FOR_EACH_CASE(i, kRefused) {
    int seconds = kRefused[i];
    CHECK(ioctl(fd, WDIOC_SETTIMEOUT, &seconds) == -1 && errno == EINVAL && timeout_of(fd) == 7);
  }
  /* Not while it counts: a busy machine may take longer than a second. */
  int option = WDIOS_DISABLECARD;
  CHECK(ioctl(fd, WDIOC_SETOPTIONS, &option) == 0);
  set_timeout(fd, 1);
  set_timeout(fd, 65535);
  CHECK(ioctl(fd, WDIOC_SETTIMEOUT, (void*)8) == -1 && errno == EFAULT && timeout_of(fd) == 65535);
  set_timeout(fd, 60);
  stop(fd);
}

static void requests(void) {
  int fd = open_watchdog();
  CHECK(fd != -1);
  set_timeout(fd, 30);
  int number = 0;
  CHECK(ioctl(fd, WDIOC_GETTIMELEFT, &number) == 0 && number > 0 && number <= 30);
  struct watchdog_info support;
  CHECK(ioctl(fd, WDIOC_GETSUPPORT, &support) == 0);
  CHECK(support.options == (WDIOF_SETTIMEOUT | WDIOF_KEEPALIVEPING | WDIOF_MAGICCLOSE | WDIOF_PRETIMEOUT));
  CHECK(strcmp((const char*)support.identity, "boardsim") == 0);
  number = -1;
  CHECK(ioctl(fd, WDIOC_GETSTATUS, &number) == 0 && number == WDIOF_KEEPALIVEPING);
  number = -1;
  CHECK(ioctl(fd, WDIOC_GETBOOTSTATUS, &number) == 0 && number == 0);
  /* Whether it was fed is reported once. */
  CHECK(ioctl(fd, WDIOC_KEEPALIVE, 0) == 0);
  CHECK(ioctl(fd, WDIOC_GETSTATUS, &number) == 0 && number == WDIOF_KEEPALIVEPING);
  CHECK(ioctl(fd, WDIOC_GETSTATUS, &number) == 0 && number == 0);
  CHECK(write(fd, "V", 1) == 1);
  CHECK(ioctl(fd, WDIOC_GETSTATUS, &number) == 0 && number == (WDIOF_KEEPALIVEPING | WDIOF_MAGICCLOSE));
  CHECK(write(fd, "x", 1) == 1);
  CHECK(ioctl(fd, WDIOC_GETSTATUS, &number) == 0 && number == WDIOF_KEEPALIVEPING);
  CHECK(ioctl(fd, WDIOC_GETTEMP, &number) == -1 && errno == ENOTTY);
  CHECK(ioctl(fd, WDIOC_GETPRETIMEOUT, &number) == 0 && number == 0);
  number = 30;
  CHECK(ioctl(fd, WDIOC_SETPRETIMEOUT, &number) == -1 && errno == EINVAL);
  number = 10;
  CHECK(ioctl(fd, WDIOC_SETPRETIMEOUT, &number) == 0);
  number = 0;
  CHECK(ioctl(fd, WDIOC_GETPRETIMEOUT, &number) == 0 && number == 10);
  /* It does not fit into a shorter time. */
  set_timeout(fd, 10);
  CHECK(ioctl(fd, WDIOC_GETPRETIMEOUT, &number) == 0 && number == 0);
  set_timeout(fd, 30);
  number = WDIOS_DISABLECARD;
  CHECK(ioctl(fd, WDIOC_SETOPTIONS, &number) == 0);
  CHECK(ioctl(fd, WDIOC_GETTIMELEFT, &number) == 0 && number == 0);
  /* One that does not count can't be fed. */
  CHECK(ioctl(fd, WDIOC_GETSTATUS, &number) == 0 && ioctl(fd, WDIOC_KEEPALIVE, 0) == 0);
  CHECK(ioctl(fd, WDIOC_GETSTATUS, &number) == 0 && number == 0);
  number = WDIOS_ENABLECARD;
  CHECK(ioctl(fd, WDIOC_SETOPTIONS, &number) == 0);
  CHECK(ioctl(fd, WDIOC_GETTIMELEFT, &number) == 0 && number > 0);
  number = 0x100;
  CHECK(ioctl(fd, WDIOC_SETOPTIONS, &number) == -1 && errno == ENOTTY);
  number = WDIOS_DISABLECARD | WDIOS_ENABLECARD;
  CHECK(ioctl(fd, WDIOC_SETOPTIONS, &number) == 0);
  CHECK(ioctl(fd, WDIOC_GETTIMELEFT, &number) == 0 && number > 0);
  CHECK(ioctl(fd, WDIOC_GETTIMEOUT, (void*)8) == -1 && errno == EFAULT);
  set_timeout(fd, 60);
  stop(fd);
}

/* There is nothing to be read, and what was written does not get lost by an attempt. */
static void unreadable(void) {
  char byte;
  int fd = open_watchdog();
  CHECK(fd != -1 && write(fd, "V", 1) == 1);
  CHECK(read(fd, &byte, 1) == -1 && (errno == EINVAL || errno == EBADF));
  CHECK(close(fd) == 0);
  fd = open(WATCHDOG, O_WRONLY);
  CHECK(fd != -1 && read(fd, &byte, 1) == -1 && errno == EBADF);
  stop(fd);
}

/* Started anew without a close that stops it, it is not fed by the open. */
static void reopened_late(void) {
  int fd = open_watchdog();
  CHECK(fd != -1);
  set_timeout(fd, 60);
  CHECK(close(fd) == 0);
  struct timespec time = {1, 100000000};
  CHECK(nanosleep(&time, NULL) == 0);
  fd = open_watchdog();
  CHECK(fd != -1 && time_left(fd) < 60);
  int option = WDIOS_ENABLECARD;
  CHECK(ioctl(fd, WDIOC_SETOPTIONS, &option) == 0 && time_left(fd) < 60);
  stop(fd);
}

static void short_open(int* fd) {
  *fd = open_watchdog();
  CHECK(*fd != -1);
  set_timeout(*fd, 1);
}

/* Fed by the request and by writing it has its whole time again. One that was not stopped would bite at the end. */
static void fed(void) {
  static const int kByWriting[] = {0, 1};
  int fd = open_watchdog();
  CHECK(fd != -1);
  FOR_EACH_CASE(i, kByWriting) {
    starve_a_second(fd);
    double moment = now();
    CHECK(kByWriting[i] ? write(fd, "\0", 1) == 1 : ioctl(fd, WDIOC_KEEPALIVE, 0) == 0);
    expect_fed_since(moment, fd);
  }
  stop(fd);
}

/* Setting the time feeds it, whether it becomes longer or shorter. */
static void retimed(void) {
  static const int kTimes[] = {90, 30};
  int fd = open_watchdog();
  CHECK(fd != -1);
  FOR_EACH_CASE(i, kTimes) {
    starve_a_second(fd);
    double moment = now();
    set_timeout(fd, kTimes[i]);
    expect_fed_since(moment, fd);
  }
  stop(fd);
}

/* Stopped by request. */
static void disabled(void) {
  int fd = open_watchdog();
  int option = WDIOS_DISABLECARD;
  CHECK(fd != -1 && ioctl(fd, WDIOC_SETOPTIONS, &option) == 0 && close(fd) == 0);
}

/* Of several processes that have it open, the last close counts. */
static void shared(void) {
  int fd = open_watchdog();
  CHECK(fd != -1);
  pid_t child = fork();
  CHECK(child != -1);
  if (child == 0) {
    _exit(0);
  }
  int status = -1;
  CHECK(waitpid(child, &status, 0) == child && status == 0);
  CHECK(open_watchdog() == -1 && errno == EBUSY);
  stop(fd);
}

/* A daemon that would outlive the test, out of the program's session and family. */
static void leave_daemon(int fd) {
  if (fork() == 0) {
    setsid();
    if (fork() == 0) {
      close(fd);
      sleep(300);
    }
    _exit(0);
  }
}

/* Each of these starves it; the program itself would live. */
static void starve(void) {
  int fd;
  short_open(&fd);
  leave_daemon(fd);
  sleep(300);
}

/* The magic byte counts only in the last write before the close. */
static void starve_magic_first(void) {
  int fd;
  short_open(&fd);
  CHECK(write(fd, "V", 1) == 1 && write(fd, "x", 1) == 1 && close(fd) == 0);
  sleep(300);
}

/* But anywhere in that. Opened while it counts, it would not be fed. */
static void magic_inside(void) {
  static const char* const kWrites[] = {"Vx", "xVx", "V\n"};
  FOR_EACH_CASE(i, kWrites) {
    int fd = open_watchdog();
    CHECK(fd != -1 && status_of(fd) == WDIOF_KEEPALIVEPING && write(fd, "x", 1) == 1);
    CHECK(write(fd, kWrites[i], strlen(kWrites[i])) == (ssize_t)strlen(kWrites[i]));
    CHECK(status_of(fd) == (WDIOF_KEEPALIVEPING | WDIOF_MAGICCLOSE) && close(fd) == 0);
  }
}

/* Nothing stops it any more. */
static void no_way_out(void) {
  int fd;
  short_open(&fd);
  int option = WDIOS_DISABLECARD;
  CHECK(ioctl(fd, WDIOC_SETOPTIONS, &option) == -1 && errno == EBUSY);
  stop(fd);
  sleep(300);
}

/* One device, two names. */
static void numbered(void) {
  int fd = open(WATCHDOG "0", O_WRONLY);
  CHECK(fd != -1 && timeout_of(fd) > 0);
  CHECK(open_watchdog() == -1 && errno == EBUSY);
  stop(fd);
}

/* The first time it starves, the second time it reports what happened. */
static void restarted(void) {
  int fd = open_watchdog();
  int status = 0;
  CHECK(fd != -1 && ioctl(fd, WDIOC_GETBOOTSTATUS, &status) == 0);
  if (status == 0) {
    set_timeout(fd, 1);
    sleep(300);
  }
  CHECK(status == WDIOF_CARDRESET);
  stop(fd);
}

static void starve_closed(void) {
  int fd;
  short_open(&fd);
  CHECK(close(fd) == 0);
  sleep(300);
}

/* Opened anew after such a close it can be stopped. */
static void reopened(void) {
  int fd = open_watchdog();
  CHECK(fd != -1);
  set_timeout(fd, 30);
  CHECK(close(fd) == 0);
  fd = open_watchdog();
  CHECK(fd != -1 && timeout_of(fd) == 30);
  CHECK(write(fd, "xV", 2) == 2 && close(fd) == 0);
}

/* It was stopped before; the byte of that time is forgotten. */
static void starve_reopened(void) {
  int fd;
  short_open(&fd);
  stop(fd);
  fd = open_watchdog();
  CHECK(fd != -1 && close(fd) == 0);
  sleep(300);
}

static void starve_enabled(void) {
  int fd;
  short_open(&fd);
  int option = WDIOS_DISABLECARD;
  CHECK(ioctl(fd, WDIOC_SETOPTIONS, &option) == 0);
  option = WDIOS_ENABLECARD;
  CHECK(ioctl(fd, WDIOC_SETOPTIONS, &option) == 0);
  sleep(300);
}

/* Opened as a file is made, which nobody keeps back. */
static void starve_created(void) {
  int fd = open(WATCHDOG, O_WRONLY | O_CREAT, 0600);
  CHECK(fd != -1);
  set_timeout(fd, 1);
  sleep(300);
}

/* Descriptor 3 is it: a warning, a second before the reset. */
static void pretimeout(void) {
  int seconds = 1;
  CHECK(ioctl(3, WDIOC_SETPRETIMEOUT, &seconds) == 0);
  set_timeout(3, 2);
}

/* Refused, it was not opened: root, too, needs a right for that. */
static void set_right_over_files(int on) {
  struct __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  struct __user_cap_data_struct rights[_LINUX_CAPABILITY_U32S_3];
  CHECK(syscall(SYS_capget, &header, rights) == 0);
  const unsigned int right = 1U << CAP_DAC_OVERRIDE;
  rights[0].effective = on ? rights[0].effective | (rights[0].permitted & right) : rights[0].effective & ~right;
  CHECK(syscall(SYS_capset, &header, rights) == 0);
}

static void refused(void) {
  static const char* const kPaths[] = {WATCHDOG, WATCHDOG "0", TTY};
  FOR_EACH_CASE(i, kPaths) {
    CHECK(chmod(kPaths[i], 0066) == 0);
    set_right_over_files(0);
    CHECK(open(kPaths[i], O_RDWR | O_NOCTTY) == -1 && errno == EACCES);
    CHECK(open(kPaths[i], O_WRONLY | O_NOCTTY) == -1 && errno == EACCES);
    set_right_over_files(1);
  }
}

/* Its rights are not in the way of whoever has them. */
static void allowed(void) {
  CHECK(chmod(WATCHDOG, 0200) == 0);
  set_right_over_files(0);
  int fd = open(WATCHDOG, O_WRONLY);
  CHECK(fd != -1);
  stop(fd);
  CHECK(open_watchdog() == -1 && errno == EACCES);
  set_right_over_files(1);
  fd = open_watchdog();
  CHECK(fd != -1);
  stop(fd);
}

/* There is no descriptor left. */
static void expect_unnumbered(const char* path) {
  struct rlimit before;
  CHECK(getrlimit(RLIMIT_NOFILE, &before) == 0);
  struct rlimit none = before;
  none.rlim_cur = 0;
  CHECK(setrlimit(RLIMIT_NOFILE, &none) == 0);
  CHECK(open(path, O_RDWR | O_NOCTTY) == -1 && errno == EMFILE);
  CHECK(setrlimit(RLIMIT_NOFILE, &before) == 0);
}

static void unnumbered(void) {
  expect_unnumbered(WATCHDOG);
}

static void unnumbered_port(void) {
  expect_unnumbered(TTY);
}

/* One that counted does so further on. */
static void starve_unnumbered(void) {
  int fd;
  short_open(&fd);
  CHECK(close(fd) == 0);
  unnumbered();
  sleep(300);
}

/* Ends with it counting. */
static void abandon(void) {
  int fd = open_watchdog();
  CHECK(fd != -1);
  leave_daemon(fd);
}

const struct step kWatchdogSteps[] = {{"one-owner", one_owner},
                                      {"timeouts", timeouts},
                                      {"requests", requests},
                                      {"unreadable", unreadable},
                                      {"reopened-late", reopened_late},
                                      {"fed", fed},
                                      {"retimed", retimed},
                                      {"disabled", disabled},
                                      {"shared", shared},
                                      {"reopened", reopened},
                                      {"starve", starve},
                                      {"starve-magic-first", starve_magic_first},
                                      {"magic-inside", magic_inside},
                                      {"no-way-out", no_way_out},
                                      {"numbered", numbered},
                                      {"restarted", restarted},
                                      {"starve-closed", starve_closed},
                                      {"starve-reopened", starve_reopened},
                                      {"starve-enabled", starve_enabled},
                                      {"starve-created", starve_created},
                                      {"pretimeout", pretimeout},
                                      {"refused", refused},
                                      {"allowed", allowed},
                                      {"unnumbered", unnumbered},
                                      {"unnumbered-port", unnumbered_port},
                                      {"starve-unnumbered", starve_unnumbered},
                                      {"abandon", abandon},
                                      {NULL, NULL}};
