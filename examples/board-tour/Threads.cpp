// Thread ids and scheduling policies.
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <SystemCalls.h>

#include <string>
#include <thread>

#include "Chapters.h"
#include "Page.h"

namespace {

struct Seen {
  int id = 0;
  int before = 0;
  int after = 0;
};

/// What a thread sees of itself; its policy ends with it.
void Look(Seen& seen) {
  seen.id = LinuxGetThreadId();
  sched_param parameters{};
  ::pthread_getschedparam(::pthread_self(), &seen.before, &parameters);
  parameters.sched_priority = 0;
  ::pthread_setschedparam(::pthread_self(), SCHED_BATCH, &parameters);
  ::pthread_getschedparam(::pthread_self(), &seen.after, &parameters);
}

std::string PolicyName(int policy) {
  return page::Quoted(GetProcSchedPolicyName(policy));
}

}  // namespace

void ShowThreads() {
  page::Step("The kernel's ids of this process, its main thread and another one");
  Seen seen;
  std::thread(Look, std::ref(seen)).join();
  page::Call("getpid()");
  page::Row("result", std::to_string(::getpid()));
  page::Call("LinuxGetThreadId()");
  page::Row("result", std::to_string(LinuxGetThreadId()) + " in the main thread, " + std::to_string(seen.id) +
                          " in the other one");

  page::Step("The name of a scheduling policy");
  page::Call("GetProcSchedPolicyName(policy)");
  page::Row("result", PolicyName(seen.before) + " for what the other thread began with");
  page::Row("", PolicyName(seen.after) + " after it asked for SCHED_BATCH");
}
