// Processor time of short pieces of work, interleaved.
#pragma once

#include <time.h>

#include <chrono>
#include <functional>
#include <utility>
#include <vector>

#include "bench/report.h"

namespace tarnlink::bench {

/// Keeps the compiler from leaving out the work whose result this is.
template <class T>
void keep(const T& result) {
  asm volatile("" : : "g"(&result) : "memory");
}

inline std::chrono::nanoseconds timeOf(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

/// Nanoseconds of one call: the mean over `calls`. What others do on the machine does not count.
using Contestant = std::function<double()>;

template <class Work>
Contestant contestant(int calls, Work work) {
  return [calls, work = std::move(work)]() mutable {
    const auto begin = timeOf(CLOCK_THREAD_CPUTIME_ID);
    for (int i = 0; i < calls; ++i) work();
    return static_cast<double>((timeOf(CLOCK_THREAD_CPUTIME_ID) - begin).count()) / calls;
  };
}

/// The figures of every contestant, one a round; each round starts with another one. A first round
/// that warms the caches does not count.
inline std::vector<Figures> interleaved(const std::vector<Contestant>& contestants,
                                        std::size_t rounds) {
  std::vector<Figures> figures(contestants.size());
  for (std::size_t round = 0; round <= rounds; ++round) {
    for (std::size_t i = 0; i < contestants.size(); ++i) {
      const std::size_t who = (round + i) % contestants.size();
      const double figure = contestants[who]();
      if (round != 0) figures[who].push_back(figure);
    }
  }
  return figures;
}

}  // namespace tarnlink::bench
