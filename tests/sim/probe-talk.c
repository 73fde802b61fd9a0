#include <fcntl.h>
#include <linux/serial.h>
#include <linux/watchdog.h>
#include <net/if.h>
#include <poll.h>
#include <stdint.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include "probe.h"

static void say(int result) {
  if (result == -1) {
    printf("error: %s\n", strerror(errno));
  } else {
    puts("ok");
  }
}

static void open_file(const char* how, const char* path) {
  int flags = strchr(how, 'w') == NULL ? O_RDONLY : strchr(how, 'r') == NULL ? O_WRONLY : O_RDWR;
  flags |= strchr(how, 'c') == NULL ? 0 : O_CREAT;
  flags |= strchr(how, 'n') == NULL ? 0 : O_NONBLOCK;
  int fd = open(path, flags | O_NOCTTY, 0666);
  if (fd == -1) {
    say(-1);
    return;
  }
  if ((strstr(path, "tty") != NULL || strstr(path, "serial") != NULL) && strchr(how, 'k') == NULL) {
    make_raw(fd);
  }
  printf("%d\n", fd);
}

static void read_text(int fd) {
  char text[4096];
  struct pollfd wait = {fd, POLLIN, 0};
  if (poll(&wait, 1, 20000) != 1) {
    puts("nothing");
    return;
  }
  ssize_t got = read(fd, text, sizeof text - 1);
  if (got == -1) {
    say(-1);
  } else if (got == 0) {
    puts("end");
  } else {
    text[got] = '\0';
    printf("got %s\n", text);
  }
}

/* Mapped anew each time, as the programs of the board do. */
static volatile uint32_t* map_word(unsigned long address, char** page) {
  int mem = open("/dev/mem", O_RDWR | O_SYNC);
  if (mem == -1) {
    return NULL;
  }
  *page = mmap(NULL, 8192, PROT_READ | PROT_WRITE, MAP_SHARED, mem, (off_t)(address & ~4095UL));
  close(mem);
  return *page == MAP_FAILED ? NULL : (volatile uint32_t*)(*page + (address & 4095UL));
}

static void access_word(unsigned long address, const char* value) {
  char* page = NULL;
  volatile uint32_t* word = map_word(address, &page);
  if (word == NULL) {
    say(-1);
    return;
  }
  if (value != NULL) {
    *word = (uint32_t)strtoul(value, NULL, 0);
  }
  printf("0x%x\n", *word);
  munmap(page, 8192);
}

static void carrier(const char* name) {
  struct ifreq request;
  memset(&request, 0, sizeof request);
  snprintf(request.ifr_name, sizeof request.ifr_name, "%.15s", name);
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  if (ioctl(fd, SIOCGIFFLAGS, &request) == -1) {
    say(-1);
  } else {
    printf("%s %s\n", request.ifr_flags & IFF_UP ? "up" : "down",
           request.ifr_flags & IFF_RUNNING ? "running" : "without a carrier");
  }
  close(fd);
}

static void number_request(int fd, unsigned long request) {
  int value = 0;
  if (ioctl(fd, request, &value) == -1) {
    say(-1);
  } else {
    printf("%d\n", value);
  }
}

static void modem_lines(int fd) {
  int bits = 0;
  if (ioctl(fd, TIOCMGET, &bits) == -1) {
    say(-1);
  } else {
    printf("0x%x\n", (unsigned)bits);
  }
}

static void serial_info(int fd) {
  struct serial_struct info;
  if (ioctl(fd, TIOCGSERIAL, &info) == -1) {
    say(-1);
  } else {
    printf("%d,%d,0x%x,%d,%d\n", info.baud_base, info.xmit_fifo_size, (unsigned)info.flags, info.irq,
           info.custom_divisor);
  }
}

void talk(void) {
  char line[4096];
  setvbuf(stdout, NULL, _IOLBF, 0);
  while (fgets(line, sizeof line, stdin) != NULL) {
    char verb[32] = "";
    char first[2048] = "";
    char second[2048] = "";
    int count = sscanf(line, "%31s %2047s %2047[^\n]", verb, first, second);
    int fd = atoi(first);
    int value = (int)strtoul(second, NULL, 0);
    struct termios settings;
    if (strcmp(verb, "open") == 0) {
      open_file(first, second);
    } else if (strcmp(verb, "close") == 0) {
      say(close(fd));
    } else if (strcmp(verb, "read") == 0) {
      read_text(fd);
    } else if (strcmp(verb, "write") == 0) {
      say(write(fd, second, strlen(second)) == -1 ? -1 : 0);
    } else if (strcmp(verb, "lines") == 0) {
      modem_lines(fd);
    } else if (strcmp(verb, "set-lines") == 0) {
      say(ioctl(fd, TIOCMSET, &value));
    } else if (strcmp(verb, "attributes") == 0) {
      say(tcgetattr(fd, &settings));
    } else if (strcmp(verb, "info") == 0) {
      serial_info(fd);
    } else if (strcmp(verb, "peek") == 0) {
      access_word(strtoul(first, NULL, 0), NULL);
    } else if (strcmp(verb, "poke") == 0) {
      access_word(strtoul(first, NULL, 0), second);
    } else if (strcmp(verb, "set-timeout") == 0) {
      say(ioctl(fd, WDIOC_SETTIMEOUT, &value));
    } else if (strcmp(verb, "timeout") == 0) {
      number_request(fd, WDIOC_GETTIMEOUT);
    } else if (strcmp(verb, "time-left") == 0) {
      number_request(fd, WDIOC_GETTIMELEFT);
    } else if (strcmp(verb, "feed") == 0) {
      say(ioctl(fd, WDIOC_KEEPALIVE, 0));
    } else if (strcmp(verb, "carrier") == 0) {
      carrier(first);
    } else if (strcmp(verb, "run") == 0 && count == 3) {
      /* The shell's own output is standard error here: standard output is the conversation. */
      int status = system(strstr(line, first));
      printf("%d\n", status == -1 ? -1 : status >> 8);
    } else {
      puts("what?");
    }
  }
}
