#ifndef BOARDKIT_CTL_SIGNALS_H
#define BOARDKIT_CTL_SIGNALS_H

#include <signal.h>

#include <cstdint>
#include <iterator>

/// These end a verb, after it has cleaned up: they are recorded, and the verb checks for them.
namespace signals {

inline constexpr int kNumbers[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

/// From here on they are recorded. SIGPIPE and SIGXFSZ are caught, too, so that writing fails instead; children get
/// them as usual.
void Install();

enum Holding { kForThisProcess, kForItsCommandsToo };

/// While it lives, signals wait. Commands that are started meanwhile can be protected from them, too, and complete
/// what they have begun.
class Held {
 public:
  explicit Held(Holding holding = kForThisProcess);
  ~Held();
  Held(const Held&) = delete;
  Held& operator=(const Held&) = delete;

 private:
  Holding m_holding;
  sigset_t m_before{};
  struct sigaction m_actions[std::size(kNumbers)]{};
};

/// The number of the first one that came; 0 for none.
int Caught();

/// Waits for @p milliseconds, or until a signal comes. False if one has come, now or before.
bool Wait(int milliseconds);

/// A descriptor that is readable once a signal has come, for those who wait for something else, too.
int Descriptor();

/// While it lives, a signal also discards what the tty of @p fd has not sent yet, and lets @p other, a descriptor
/// of the same tty, wait no more: so a writer that the line's flow control holds up comes back, and so does a reader
/// whose bytes another program has taken. @p other need not be open yet.
class DiscardsOutput {
 public:
  DiscardsOutput(int fd, int other);
  ~DiscardsOutput();
  DiscardsOutput(const DiscardsOutput&) = delete;
  DiscardsOutput& operator=(const DiscardsOutput&) = delete;

  /// How many bytes signals have discarded.
  static std::uint32_t Bytes();
};

/// While it lives, a signal is also handed on to the commands that this process has started, and those that they have,
/// left in the background or not; or to one process alone. What the terminal sends it sends to them, too: that is not
/// handed on.
class HandsOn {
 public:
  explicit HandsOn(int process = 0);
  ~HandsOn();
  HandsOn(const HandsOn&) = delete;
  HandsOn& operator=(const HandsOn&) = delete;
};

}  // namespace signals

#endif
