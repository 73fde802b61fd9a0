#include "probe.h"

#include <string.h>
#include <time.h>

const char* current_cases;
size_t current_case;

void check_failed(const char* file, int line, const char* condition) {
  fprintf(stderr, "%s:%d: %s (errno %d)", file, line, condition, errno);
  if (current_cases != NULL) {
    fprintf(stderr, " at %s[%zu]", current_cases, current_case);
  }
  fputc('\n', stderr);
  exit(1);
}

double now(void) {
  struct timespec time;
  CHECK(clock_gettime(CLOCK_MONOTONIC, &time) == 0);
  return (double)time.tv_sec + (double)time.tv_nsec * 1e-9;
}

static const struct step* find(const char* name) {
  const struct step* const lists[] = {kSerialSteps, kLineSteps, kWatchdogSteps, kBoardSteps};
  for (size_t i = 0; i < sizeof lists / sizeof lists[0]; ++i) {
    for (const struct step* step = lists[i]; step->name != NULL; ++step) {
      if (strcmp(step->name, name) == 0) {
        return step;
      }
    }
  }
  return NULL;
}

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const struct step* step = find(argv[i]);
    if (step == NULL) {
      fprintf(stderr, "probe: there is no step %s\n", argv[i]);
      return 2;
    }
    step->run();
  }
  return 0;
}
