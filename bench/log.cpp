// What a log brings and costs: commits that are synced later, commits whose changes are kept, and
// the commits that pay for a checkpoint.

#include <fmt/format.h>
#include <lscoredb/changes.h>
#include <lscoredb/durability.h>

#include <algorithm>
#include <iostream>

#include "engine.h"
#include "sections.h"

namespace bench {
namespace {

constexpr Number kCommits = 3000;  // in a round
constexpr std::uint32_t kDelay = 10;
constexpr std::uint64_t kKept = std::uint64_t{64} << 20;

// An engine whose commits are counted one by one.
class Side {
 public:
  Side(std::string name, std::string const& directory, bool durable, std::uint64_t log_limit = 0)
      : name_(std::move(name)), engine_(MakeSagleme(directory, durable, log_limit)) {}

  std::string const& name() const { return name_; }
  Engine& engine() { return *engine_; }
  // Returns the time of each commit.
  std::vector<double> Commit(Number count) {
    if (committer_ == nullptr) committer_ = MakeSaglemeCommitter(*engine_);
    std::vector<double> times(count);
    for (double& time : times) {
      time = Nanoseconds([&] { committer_->CommitOne(next_); });
      ++next_;
    }
    return times;
  }

 private:
  std::string name_;
  std::unique_ptr<Engine> engine_;
  std::unique_ptr<Committer> committer_;
  Number next_ = 0;
};

void Check(std::uint32_t status) {
  if (status != 0) throw std::runtime_error(lscoredb_status_text(status));
}

double Mean(std::vector<double> const& times) {
  double sum = 0;
  for (double const time : times) sum += time;
  return sum / static_cast<double>(times.size());
}

// Sides take turns; the figure of a round is the mean, so that no checkpoint is left out.
Result Compare(Settings const& settings, std::string work, std::vector<Side*> const& sides) {
  std::cerr << work << std::endl;
  Result result{std::move(work), "ns", false, {}, {}};
  for (Side const* const side : sides) result.series.push_back({side->name(), {}});
  for (int round = 0; round < settings.rounds; ++round) {
    for (std::size_t turn = 0; turn < sides.size(); ++turn) {
      std::size_t const i = (turn + static_cast<std::size_t>(round)) % sides.size();
      result.series[i].values.push_back(Mean(sides[i]->Commit(kCommits)));
    }
  }
  return result;
}

Result MeasureLateSyncs(Settings const& settings) {
  Side late(kSagleme, settings.Directory("log-late"), false);
  Side synced("each commit synced", settings.Directory("log-synced"), true);
  Side unsynced("no sync", settings.Directory("log-unsynced"), false);
  Check(lscoredb_sync_within(HandleOf(late.engine()), kDelay));
  return Compare(settings, fmt::format("commit one object, synced within {} ms", kDelay),
                 {&late, &synced, &unsynced});
}

Result MeasureKeptChanges(Settings const& settings) {
  Side keeping(kSagleme, settings.Directory("log-keeping"), false);
  Side plain("no changes kept", settings.Directory("log-plain"), false);
  Check(lscoredb_keep_changes(HandleOf(keeping.engine()), kKept, 0));
  return Compare(settings, "commit one object while changes are kept, no sync", {&keeping, &plain});
}

double AtRank(std::vector<double> const& sorted, double share) {
  auto const rank = static_cast<std::size_t>(share * static_cast<double>(sorted.size()));
  return sorted[std::min(rank, sorted.size() - 1)];
}

// How the times of single commits spread. The first series is the longest.
Result MeasureSpread(Settings const& settings, std::string work, Number count, Side& side) {
  std::cerr << work << std::endl;
  Result result{std::move(work), "ns", false, {}, {{kMedianCommit, 50}}};
  std::vector<std::pair<std::string, double>> const ranks{
      {kSagleme, 1}, {kMedianCommit, 0.5}, {"99 of 100 commits", 0.99}, {"999 of 1,000", 0.999}};
  for (auto const& rank : ranks) result.series.push_back({rank.first, {}});
  for (int round = 0; round < settings.rounds; ++round) {
    std::vector<double> times = side.Commit(count);
    std::sort(times.begin(), times.end());
    for (std::size_t i = 0; i < ranks.size(); ++i) {
      result.series[i].values.push_back(AtRank(times, ranks[i].second));
    }
  }
  return result;
}

// Enough commits for checkpoints, except where the benchmark runs on few objects.
std::vector<Result> MeasureLongest(Settings const& settings) {
  constexpr std::uint64_t kNeverFull = std::uint64_t{1} << 30;
  Number const count = std::min<Number>(60000, 4 * settings.objects);
  Side with(kSagleme, settings.Directory("log-longest"), true);
  Side without(kSagleme, settings.Directory("log-longest-without"), true, kNeverFull);
  return {MeasureSpread(settings, kLongestWith, count, with),
          MeasureSpread(settings, kLongestWithout, count, without)};
}

}  // namespace

std::vector<Result> MeasureLog(Settings const& settings) {
  std::vector<Result> results{MeasureLateSyncs(settings), MeasureKeptChanges(settings)};
  for (Result& result : MeasureLongest(settings)) results.push_back(std::move(result));
  return results;
}

}  // namespace bench
