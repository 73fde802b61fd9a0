// The watchdog: armed, fed, re-timed and disarmed; or left to starve.
#include <SystemCalls.h>
#include <WatchDog.h>

#include <algorithm>
#include <stdexcept>
#include <string>

#include "Chapters.h"
#include "Clock.h"
#include "Page.h"
#include "Uninterrupted.h"

namespace {

constexpr int kFirstTimeOut = 10;  // seconds
constexpr int kTimeOut = 2;

// So that the tour comes to its end also with a driver that rounds the time-out up to a minute.
constexpr int kLongestPauseMs = 1000;
constexpr int kLongestWaitMs = 5000;

void ShowInterval(const WatchDog& dog) {
  page::Call("dog.GetInterval()");
  page::Row("result", std::to_string(dog.GetInterval()) + " seconds: what the driver uses");
}

void Arm(WatchDog& dog, const std::string& device, int timeOut) {
  page::Call("WatchDog dog(" + std::to_string(timeOut) + ", " + page::Quoted(device) + "); dog.Activate()");
  dog.Activate();
  ShowInterval(dog);
}

/// Feeds four times in a time-out, for longer than that.
void FeedForAWhile(WatchDog& dog) {
  constexpr int kFeedings = 5;
  const int pauseMs = std::min(dog.GetInterval() * 1000 / 4, kLongestPauseMs);
  page::Call("dog.Feed(); DebugSleep(" + std::to_string(pauseMs) + ")");
  const Clock clock;
  for (int i = 1; i <= kFeedings; ++i) {
    dog.Feed();
    page::Progress("fed", std::to_string(i) + " of " + std::to_string(kFeedings) + " times");
    DebugSleep(pauseMs);
  }
  page::Row("result", "fed " + std::to_string(kFeedings) + " times in " + page::Seconds(clock.Milliseconds()) +
                          ", and still running");
}

}  // namespace

void ShowWatchdog(const std::string& device) {
  // Whoever ends the tour while the watchdog counts has the board reset.
  const Uninterrupted uninterrupted;
  WatchDog dog(kFirstTimeOut, device);
  page::Step("Arm it: from here on, the board resets unless the watchdog is fed");
  Arm(dog, device, kFirstTimeOut);

  page::Step("Give it another time-out");
  page::Call("dog.SetInterval(" + std::to_string(kTimeOut) + ")");
  dog.SetInterval(kTimeOut);
  ShowInterval(dog);

  page::Step("Feed it, for longer than the time-out");
  FeedForAWhile(dog);

  page::Step("Disarm it, and do nothing for longer than the time-out");
  const int waitMs = std::min(dog.GetInterval() * 1000 + 500, kLongestWaitMs);
  page::Call("dog.Deactivate()");
  dog.Deactivate();
  page::Call("DebugSleep(" + std::to_string(waitMs) + ")");
  const Clock clock;
  DebugSleep(waitMs);
  page::Row("result", "not fed for " + page::Seconds(clock.Milliseconds()) + ", and still running");

  page::Step("Feed it all the same");
  page::Call("dog.Feed()");
  try {
    dog.Feed();
  } catch (const std::logic_error& e) {
    page::Row("throws", page::Quoted(e.what()));
  }
}

void StarveWatchdog(const std::string& device) {
  WatchDog dog(kTimeOut, device);
  page::Step("Arm it and feed it for a while");
  Arm(dog, device, kTimeOut);
  FeedForAWhile(dog);

  page::Step("Feed it no longer");
  dog.Feed();
  const Clock clock;
  const int patienceMs = dog.GetInterval() * 1000 + kLongestWaitMs;
  while (clock.Milliseconds() < patienceMs) {
    DebugSleep(500);
    page::Row("not fed", "for " + page::Seconds(clock.Milliseconds()));
  }
  throw std::runtime_error("The watchdog was not fed, and the board was not reset.");
}
