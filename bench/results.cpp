#include "results.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <map>
#include <nlohmann/json.hpp>

namespace bench {
namespace {

// With a unit that leaves three digits or so.
std::string Figure(double value, std::string const& unit) {
  static std::map<std::string, std::array<char const*, 3>> const larger{
      {"ns", {"ns", "µs", "ms"}},
      {"bytes", {"B", "kB", "MB"}},
      {"1/s", {"/s", "k/s", "M/s"}},
      {"trips", {"trips", "thousand trips", "million trips"}}};
  std::size_t step = 0;
  for (; value >= 1000 && step < 2; ++step) value /= 1000;
  return fmt::format("{:.3g} {}", value, larger.at(unit)[step]);
}

Series const* Find(Result const& result, std::string const& engine) {
  auto const found = std::find_if(result.series.begin(), result.series.end(),
                                  [&](Series const& one) { return one.engine == engine; });
  return found == result.series.end() ? nullptr : &*found;
}

std::string GoalsOf(Result const& result) {
  std::string text;
  for (Goal const& goal : result.goals) {
    std::optional<Ratio> const ratio = RatioTo(result, goal.engine);
    if (!ratio) continue;
    text += fmt::format("{}{} {:.3f} ({:.3f} to {:.3f}; goal {}{})", text.empty() ? "" : ", ",
                        goal.engine, ratio->median, ratio->low, ratio->high,
                        result.more_is_better ? "at least " : "", goal.ratio);
    if (!Reached(result, goal)) text += " missed";
  }
  return text;
}

}  // namespace

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  std::size_t const middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

std::optional<Ratio> RatioTo(Result const& result, std::string const& engine) {
  Series const* const other = Find(result, engine);
  if (other == nullptr) return std::nullopt;
  std::vector<double> const& own = result.series.front().values;
  std::vector<double> ratios;
  for (std::size_t i = 0; i < own.size(); ++i) ratios.push_back(own[i] / other->values[i]);
  return Ratio{Median(ratios), *std::min_element(ratios.begin(), ratios.end()),
               *std::max_element(ratios.begin(), ratios.end())};
}

bool Reached(Result const& result, Goal const& goal) {
  double const ratio = RatioTo(result, goal.engine)->median;
  return result.more_is_better ? ratio >= goal.ratio : ratio <= goal.ratio;
}

std::string TableOf(std::vector<Result> const& results) {
  std::string text = "| work | figures (medians) | ratio of sagleme to |\n|---|---|---|\n";
  for (Result const& result : results) {
    std::string figures;
    for (Series const& one : result.series) {
      figures += fmt::format("{}{} {}", figures.empty() ? "" : ", ", one.engine,
                             Figure(Median(one.values), result.unit));
    }
    text += fmt::format("| {} | {} | {} |\n", result.work, figures, GoalsOf(result));
  }
  return text;
}

std::string JsonOf(std::vector<Result> const& results) {
  nlohmann::ordered_json all = nlohmann::ordered_json::array();
  for (Result const& result : results) {
    nlohmann::ordered_json one{{"work", result.work},
                               {"unit", result.unit},
                               {"more_is_better", result.more_is_better},
                               {"figures", nlohmann::ordered_json::array()},
                               {"goals", nlohmann::ordered_json::array()}};
    for (Series const& series : result.series) {
      one["figures"].push_back({{"engine", series.engine}, {"values", series.values}});
    }
    for (Goal const& goal : result.goals) {
      std::optional<Ratio> const ratio = RatioTo(result, goal.engine);
      if (!ratio) continue;
      one["goals"].push_back({{"engine", goal.engine},
                              {"goal", goal.ratio},
                              {"median", ratio->median},
                              {"low", ratio->low},
                              {"high", ratio->high},
                              {"reached", Reached(result, goal)}});
    }
    all.push_back(std::move(one));
  }
  return all.dump(2) + "\n";
}

std::vector<Result> ResultsOf(std::string const& json) {
  std::vector<Result> results;
  for (nlohmann::json const& one : nlohmann::json::parse(json)) {
    Result result{one["work"], one["unit"], one["more_is_better"], {}, {}};
    for (auto const& series : one["figures"]) {
      result.series.push_back({series["engine"], series["values"]});
    }
    for (auto const& goal : one["goals"]) {
      result.goals.push_back({goal["engine"], goal["goal"]});
    }
    results.push_back(std::move(result));
  }
  return results;
}

}  // namespace bench
