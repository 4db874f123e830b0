#ifndef SAGLEME_BENCH_RESULTS_H
#define SAGLEME_BENCH_RESULTS_H

// Figures and their forms: a table for people, JSON for programs, a page for the docs.

#include <cstddef>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace bench {

// One engine's figure for one kind of work: nanoseconds for one operation (or bytes), by round.
struct Series {
  std::string engine;
  std::vector<double> values;
};

// What is to be reached against an engine: a ratio of medians, at most, or at least where more is
// better.
struct Goal {
  std::string engine;
  double ratio = 0;
};

struct Result {
  std::string work;
  std::string unit;  // "ns", "bytes", "1/s", "trips"
  bool more_is_better = false;
  std::vector<Series> series;  // the first is sagleme's
  std::vector<Goal> goals;
};

// Of rounds that were run one after another the ratio is taken in each, and the median of them.
struct Ratio {
  double median = 0;
  double low = 0;
  double high = 0;
};
double Median(std::vector<double> values);
// Nothing when the engine did not take part.
std::optional<Ratio> RatioTo(Result const& result, std::string const& engine);
bool Reached(Result const& result, Goal const& goal);

std::string TableOf(std::vector<Result> const& results);
std::string JsonOf(std::vector<Result> const& results);
// The other way.
std::vector<Result> ResultsOf(std::string const& json);

}  // namespace bench

#endif
