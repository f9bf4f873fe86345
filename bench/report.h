// Figures in pairs, and the rows of the one table that bench/run prints.
#pragma once

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace tarnlink::bench {

/// Measures and prints all rows of the bench. What it throws is said on standard error, and ends
/// the program with exit code 1.
void run();

/// Pairs of runs, ours and the other's interleaved, at least: the machine's noise hits both alike.
inline constexpr int kPairs = 5;

using Figures = std::vector<double>;

/// The value below which that share of the figures lies; 0.5 gives the lower middle one of an even
/// count. Not of an empty list.
inline double quantile(Figures figures, double share) {
  const auto rank = static_cast<std::ptrdiff_t>(share * static_cast<double>(figures.size() - 1));
  std::nth_element(figures.begin(), figures.begin() + rank, figures.end());
  return figures[static_cast<std::size_t>(rank)];
}
inline double median(Figures figures) {
  return quantile(std::move(figures), 0.5);
}

/// The middle ratio of the figures of the same pair.
inline double medianRatio(const Figures& ours, const Figures& theirs) {
  Figures ratios;
  for (std::size_t i = 0; i < ours.size(); ++i) ratios.push_back(ours[i] / theirs[i]);
  return median(std::move(ratios));
}

/// A figure as text, by a format of printf.
inline std::string text(const char* format, double value) {
  char buffer[48];
  std::snprintf(buffer, sizeof buffer, format, value);
  return buffer;
}

/// What a ratio or a figure is held to; as made, to nothing.
struct Target {
  char sign = 0;
  double bound = 0;
};
constexpr Target atLeast(double bound) {
  return {'>', bound};
}
constexpr Target atMost(double bound) {
  return {'<', bound};
}

/// On standard output, as bench/run heads the columns; everything else that a bench says goes to
/// standard error.
inline void printRow(const std::string& what, const std::string& ours, const std::string& beside,
                     const std::string& ratio, double judged, Target target, const char* format) {
  const bool isMet = target.sign == '<' ? judged <= target.bound : judged >= target.bound;
  const std::string verdict = target.sign == 0 ? ""
                                               : target.sign + ("= " + text(format, target.bound)) +
                                                     (isMet ? " met" : " MISSED");
  char row[256];
  std::snprintf(row, sizeof row, "%-50s %10s  %-38s %6s  %s", what.c_str(), ours.c_str(),
                beside.c_str(), ratio.c_str(), verdict.c_str());
  const std::string_view whole(row);
  std::puts(std::string(whole.substr(0, whole.find_last_not_of(' ') + 1)).c_str());
  std::fflush(stdout);
}

/// Our figures beside those of a limit or a peer; the target is the ratio's, ours through theirs.
inline void compare(const std::string& what, const char* format, const Figures& ours,
                    const std::string& peer, const Figures& theirs, Target target = {}) {
  const double ratio = medianRatio(ours, theirs);
  printRow(what, text(format, median(ours)), peer + " " + text(format, median(theirs)),
           text(ratio < 10 ? "%.2f x" : "%.0f x", ratio), ratio, target, "%.2f x");
}

/// A figure of ours that stands alone, with something to know about it.
inline void report(const std::string& what, const char* format, double ours, Target target = {},
                   const std::string& beside = {}) {
  printRow(what, text(format, ours), beside, "", ours, target, format);
}

}  // namespace tarnlink::bench
