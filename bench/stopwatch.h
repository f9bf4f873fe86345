// CPU time of short pieces of work, measured in turns.
#pragma once

#include <time.h>

#include <cstddef>
#include <functional>
#include <utility>
#include <vector>

namespace tarnlink::bench {

/// Keeps the compiler from leaving out the work whose result this is.
template <class T>
void keep(const T& result) {
  asm volatile("" : : "g"(&result) : "memory");
}

/// What others do on the machine does not count.
inline double threadCpuNanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

/// Nanoseconds of one call each time it is called: the mean over `calls` calls.
using Contestant = std::function<double()>;

template <class Work>
Contestant contestant(std::size_t calls, Work work) {
  return [calls, work = std::move(work)]() mutable {
    const double begin = threadCpuNanoseconds();
    for (std::size_t i = 0; i < calls; ++i) work();
    return (threadCpuNanoseconds() - begin) / static_cast<double>(calls);
  };
}

/// The figures of every contestant, one a round; each round starts with another one. A first round
/// that warms the caches does not count.
inline std::vector<std::vector<double>> inTurns(const std::vector<Contestant>& contestants,
                                                std::size_t rounds) {
  std::vector<std::vector<double>> figures(contestants.size());
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
