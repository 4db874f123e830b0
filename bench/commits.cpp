// Durable commits: each one is on the disk when its call returns.

#include <fmt/format.h>

#include <iostream>
#include <memory>
#include <thread>

#include "engine.h"
#include "sections.h"

namespace bench {
namespace {

constexpr Number kCommits = 1200;  // in a round, of all threads

struct Side {
  std::string name;
  std::function<std::unique_ptr<Committer>()> make;
};

double CommitsPerSecond(Side const& side, int threads, Number first) {
  Number const share = kCommits / static_cast<Number>(threads);
  std::vector<std::unique_ptr<Committer>> committers;
  for (int i = 0; i < threads; ++i) committers.push_back(side.make());
  double const time = Nanoseconds([&] {
    std::vector<std::thread> running;
    for (auto const& committer : committers) {
      running.emplace_back([&committer = *committer, first, share] {
        for (Number n = first; n < first + share; ++n) committer.CommitOne(n);
      });
      first += share;
    }
    for (std::thread& thread : running) thread.join();
  });
  return kCommits / (time / 1e9);
}

}  // namespace

std::vector<Result> MeasureCommits(Settings const& settings, int threads) {
  std::string const work =
      fmt::format("durable commits of one object, {} thread{}", threads, threads == 1 ? "" : "s");
  std::cerr << work << std::endl;
  std::string const suffix = std::to_string(threads);
  std::string const sqlite = settings.Directory("commits-sqlite" + suffix);
  auto const own = MakeSagleme(settings.Directory("commits-sagleme" + suffix), true);
  auto const lmdb = MakeLmdb(settings.Directory("commits-lmdb" + suffix), true);
  std::vector<Side> const sides{{kSagleme, [&] { return MakeSaglemeCommitter(*own); }},
                                {kLmdb, [&] { return MakeLmdbCommitter(*lmdb); }},
                                {kSqliteWal, [&] { return MakeSqliteCommitter(sqlite); }}};
  Result result{work, "1/s", true, {}, {}};
  result.goals = threads == 1 ? std::vector<Goal>{{kLmdb, 1.0}, {kSqliteWal, 0.35}}
                              : std::vector<Goal>{{kLmdb, 5}, {kSqliteWal, 3.5}};
  for (Side const& side : sides) result.series.push_back({side.name, {}});
  for (int round = 0; round < settings.rounds; ++round) {
    for (std::size_t turn = 0; turn < sides.size(); ++turn) {
      std::size_t const i = (turn + static_cast<std::size_t>(round)) % sides.size();
      Number const first = static_cast<Number>(round) * kCommits;
      result.series[i].values.push_back(CommitsPerSecond(sides[i], threads, first));
    }
  }
  return {result};
}

}  // namespace bench
