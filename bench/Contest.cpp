#include "Contest.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <exception>
#include <iostream>
#include <utility>
#include <vector>

namespace {

constexpr long kSmokeTurns = 2;
constexpr int kMostRounds = 8;  // of Contest::turns each

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

/// What the limit is compared with.
double Judged(Measure measure, double bare, double boardkit) {
  switch (measure) {
    case Measure::kDifference:
      return boardkit - bare;
    case Measure::kTime:
      return boardkit;
    case Measure::kDeviation:
      return std::abs(boardkit / bare - 1);
    case Measure::kRatio:
    case Measure::kNothing:
      break;
  }
  return boardkit / bare;
}

/// Whether the median of all the turns that could be taken lies on a known side of @p limit, with 95 % confidence.
///
/// Of n values, the number below the true median has the standard deviation sqrt(n) / 2; two of them to both sides of
/// the middle rank enclose it. Nothing is assumed about how the noise is distributed.
bool IsDecided(std::vector<double> judged, double limit) {
  std::sort(judged.begin(), judged.end());
  const std::size_t middle = judged.size() / 2;
  const auto margin = static_cast<std::size_t>(std::ceil(std::sqrt(static_cast<double>(judged.size()))));
  if (margin > middle || middle + margin >= judged.size()) {
    return false;
  }

  const double lowest = judged[middle - margin];
  const double highest = judged[middle + margin];
  return highest <= limit || lowest > limit;
}

void Hold(benchmark::State& state, const Contest& contest, Effort effort) {
  // Not counted: first calls resolve symbols, fill caches and let the allocator learn the sizes.
  contest.bare();
  contest.boardkit();

  std::vector<double> bareSeconds;
  std::vector<double> boardkitSeconds;
  std::vector<double> ratios;
  std::vector<double> judged;
  const auto takeTurn = [&](bool bareFirst) {
    Seconds bare{};
    Seconds boardkit{};
    for (const bool bareNext : {bareFirst, !bareFirst, !bareFirst, bareFirst}) {
      (bareNext ? bare : boardkit) += bareNext ? contest.bare() : contest.boardkit();
    }
    const double calls = 2.0 * static_cast<double>(contest.calls);
    bareSeconds.push_back(bare.count() / calls);
    boardkitSeconds.push_back(boardkit.count() / calls);
    ratios.push_back(boardkit / bare);
    judged.push_back(Judged(contest.measure, bareSeconds.back(), boardkitSeconds.back()));
  };

  const bool isSmoke = effort == Effort::kSmoke;
  const long turns = isSmoke ? kSmokeTurns : contest.turns;
  const int rounds = isSmoke || contest.measure == Measure::kNothing ? 1 : kMostRounds;
  for (int round = 0; round < rounds && !(round > 0 && IsDecided(judged, contest.limit)); ++round) {
    for (long turn = 0; turn < turns; ++turn) {
      takeTurn(turn % 2 == 0);
    }
  }

  state.SetIterationTime(Median(boardkitSeconds));
  state.counters["bare"] = Median(bareSeconds);
  state.counters["boardkit"] = Median(boardkitSeconds);
  state.counters["unit"] = static_cast<double>(Unit::kSecond);
  state.counters["ratio"] = Median(ratios);
  state.counters["judged"] = Median(judged);
  state.counters["limit"] = contest.limit;
  state.counters["measure"] = static_cast<double>(contest.measure);
  state.counters["turns"] = static_cast<double>(ratios.size());
}

/// Registers @p body to be run once: it repeats what it measures itself.
void Register(const std::string& name, std::function<void(benchmark::State&)> body) {
  const auto guarded = [name, body = std::move(body)](benchmark::State& state) {
    try {
      for ([[maybe_unused]] auto once : state) {
        body(state);
      }
    } catch (const std::exception& error) {
      std::cerr << name << ": " << error.what() << '\n';
      state.SkipWithError(error.what());
    }
  };
  benchmark::RegisterBenchmark(name.c_str(), guarded)->Iterations(1)->UseManualTime();
}

}  // namespace

void RegisterContest(const std::string& name, Effort effort, std::function<Contest()> makeContest) {
  Register(name, [effort, makeContest = std::move(makeContest)](benchmark::State& state) {
    Hold(state, makeContest(), effort);
  });
}

void RegisterAmounts(const std::string& name, std::function<Amounts()> measure) {
  Register(name, [measure = std::move(measure)](benchmark::State& state) {
    const Amounts amounts = measure();
    state.SetIterationTime(0);
    state.counters["bare"] = amounts.bare;
    state.counters["boardkit"] = amounts.boardkit;
    state.counters["unit"] = static_cast<double>(amounts.unit);
    state.counters["ratio"] = amounts.boardkit / amounts.bare;
    state.counters["judged"] = Judged(amounts.measure, amounts.bare, amounts.boardkit);
    state.counters["limit"] = amounts.limit;
    state.counters["measure"] = static_cast<double>(amounts.measure);
  });
}
