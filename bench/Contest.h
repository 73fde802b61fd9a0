#ifndef BOARDKIT_BENCH_CONTEST_H
#define BOARDKIT_BENCH_CONTEST_H

#include <chrono>
#include <functional>
#include <string>

/// @file
/// How the library is compared with bare code, on a machine that does other work at the same time.
///
/// Two contenders that run one after the other see different noise. Here they alternate within one run: a turn is a
/// short batch of each, then the same in the opposite order, so that a drift and the advantage of going second cancel
/// out; the next turn begins with the other contender. Each turn gives one ratio, and the median of the ratios counts.
/// A disturbance spoils the turn in which it falls, and spoiled turns do not move a median.

using Seconds = std::chrono::duration<double>;

/// Does one batch and returns the time of its measured part.
using Batch = std::function<Seconds()>;

/// What a contest's limit is a limit of.
enum class Measure {
  kRatio,       ///< library to bare
  kDifference,  ///< what the library takes more than bare code: seconds a call, or another amount
  kTime,        ///< the seconds that a call takes
  kDeviation,   ///< how far the ratio is from 1, on either side
  kNothing      ///< there is no limit: the numbers are for information
};

/// Bare code against the library. Both batches do the same work in the same number of calls.
struct Contest {
  long calls;    ///< in a batch
  long turns;    ///< taken at first; more follow while the noise leaves the verdict open
  double limit;  ///< of the measure
  Batch bare;
  Batch boardkit;
  Measure measure = Measure::kRatio;
};

enum class Unit { kSecond, kByte, kInstruction };

/// Two amounts that are the same whenever they are measured.
struct Amounts {
  Unit unit;
  Measure measure;
  double limit;  ///< of the measure
  double bare;
  double boardkit;
};

enum class Effort {
  kSmoke,   ///< a few turns, which show that everything works: too few for a verdict
  kVerdict  ///< as many turns as the verdict takes
};

/// Registers a contest under @p name. @p makeContest is called when its time has come, and the contest destroyed at
/// once afterwards: what a contest needs, the batches own.
void RegisterContest(const std::string& name, Effort effort, std::function<Contest()> makeContest);

/// Registers a comparison of amounts under @p name.
void RegisterAmounts(const std::string& name, std::function<Amounts()> measure);

/// The time that @p calls calls of @p call take.
template <typename Call>
Seconds TimeCalls(long calls, Call call) {
  const auto begin = std::chrono::steady_clock::now();
  for (long i = 0; i < calls; ++i) {
    call();
  }
  return std::chrono::steady_clock::now() - begin;
}

#endif
