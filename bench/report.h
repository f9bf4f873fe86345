// What the benches of whole roads share: figures taken in pairs, and the rows of the one table that
// bench/run prints.
#pragma once

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace tarnlink::bench {

/// Pairs of runs, ours and the peer's in turn, at least: the machine's noise hits both alike.
inline constexpr int kPairs = 5;

/// The middle value; for an even count, the lower of the two. Not of an empty list.
inline double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>((values.size() - 1) / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

/// The middle ratio of a's and b's figures of the same pair.
inline double medianRatio(const std::vector<double>& a, const std::vector<double>& b) {
  std::vector<double> ratios;
  for (std::size_t i = 0; i < a.size(); ++i) ratios.push_back(a[i] / b[i]);
  return median(std::move(ratios));
}

/// A figure as text, by a format of printf.
inline std::string text(const char* format, double value) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, format, value);
  return buffer;
}

/// One figure of ours beside a limit or a peer, as texts with their units.
struct Row {
  std::string what;
  std::string ours;
  std::string beside;  ///< the limit or peer, with its figure
  std::string ratio;
  std::string target;  ///< empty where there is none
  bool isMet = true;
};

/// Tab-separated on standard output; everything else that a bench says goes to standard error.
inline void print(const Row& row) {
  const char* verdict = row.target.empty() ? "" : row.isMet ? "met" : "MISSED";
  std::printf("%s\t%s\t%s\t%s\t%s\t%s\n", row.what.c_str(), row.ours.c_str(), row.beside.c_str(),
              row.ratio.c_str(), row.target.c_str(), verdict);
  std::fflush(stdout);
}

}  // namespace tarnlink::bench
