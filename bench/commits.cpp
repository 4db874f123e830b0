// Durable commits: each one is on the disk when its call returns.

#include <fmt/format.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <memory>
#include <thread>

#include "commit_log.h"
#include "engine.h"
#include "sections.h"

namespace bench {
namespace {

constexpr Number kCommits = 1200;  // in a round, of all threads
constexpr Number kLogged = 3000;   // in the log that is replayed

constexpr char kGrouped[] = "LMDB + group commit (prototype)";
constexpr char kWithLog[] = "LMDB + log (prototype)";

struct Side {
  std::string name;
  std::function<std::unique_ptr<Committer>()> make;
};

// What a round of one side gave.
struct Figures {
  double commits_per_second;
  double bytes_per_commit;
};

// That this process has handed to the system to be written, to whatever file.
double BytesWritten() {
  std::ifstream file("/proc/self/io");
  std::string name;
  double value = 0;
  while (file >> name >> value) {
    if (name == "wchar:") return value;
  }
  throw std::runtime_error("the system does not tell what was written");
}

Figures Commit(Side const& side, int threads, Number first) {
  Number const share = kCommits / static_cast<Number>(threads);
  std::vector<std::unique_ptr<Committer>> committers;
  for (int i = 0; i < threads; ++i) committers.push_back(side.make());
  double const before = BytesWritten();
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
  return {kCommits / (time / 1e9), (BytesWritten() - before) / kCommits};
}

std::vector<Goal> GoalsFor(int threads) {
  if (threads == 1) return {{kLmdb, 2}, {kSqliteWal, 1.25}};
  return {{kLmdb, 8}, {kSqliteWal, 8}};
}

// Another process commits and dies.
void CommitAndDie(Engine& own, Number first) {
  own.Close();
  pid_t const child = fork();
  if (child < 0) throw std::runtime_error("no process");
  if (child == 0) {
    own.Open();
    auto const committer = MakeSaglemeCommitter(own);
    for (Number i = 0; i < kLogged; ++i) committer->CommitOne(first + i);
    raise(SIGKILL);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL) {
    throw std::runtime_error("the process that was to be killed ended by itself");
  }
}

// The prototype replays its log onto what LMDB held when it began.
Result MeasureRecovery(Settings const& settings, Engine& own) {
  Result result{fmt::format("open after {} durable commits and no checkpoint", kLogged),
                "ns",
                false,
                {{kSagleme, {}}, {kWithLog, {}}},
                {}};
  own.Create(0, 1);  // the one that is read when it is open
  for (int round = 0; round < settings.rounds; ++round) {
    std::string const name = "recovery" + std::to_string(round);
    std::string const directory = settings.Directory(name);
    std::string const copy = settings.Directory(name + "-copy");
    LogStore store(directory, LogStore::Durability::kNone);
    for (Number i = 0; i < kLogged; ++i) store.CommitOne(i);
    store.Checkpoint(copy);
    for (Number i = kLogged; i < 2 * kLogged; ++i) store.CommitOne(i);
    std::size_t rows = 0;
    CommitAndDie(own, (static_cast<Number>(round) + 1) * kLogged);
    result.series[0].values.push_back(Nanoseconds([&] { own.Open(); }));
    result.series[1].values.push_back(
        Nanoseconds([&] { rows = LogStore::Recover(copy, directory); }));
    if (rows != 2 * kLogged) throw std::runtime_error("the log did not bring back every commit");
    std::cerr << fmt::format("  {} bytes of log", store.log_bytes()) << std::endl;
  }
  return result;
}

}  // namespace

std::vector<Result> MeasureCommits(Settings const& settings, int threads) {
  std::string const suffix = fmt::format("{} thread{}", threads, threads == 1 ? "" : "s");
  std::cerr << "durable commits, " << suffix << std::endl;
  auto const directory = [&](char const* name) {
    return settings.Directory(fmt::format("commits-{}{}", name, threads));
  };
  std::string const sqlite = directory("sqlite");
  auto const own = MakeSagleme(directory("sagleme"), true);
  auto const lmdb = MakeLmdb(directory("lmdb"), true);
  LogStore grouped(directory("grouped"), LogStore::Durability::kLmdb);
  LogStore logged(directory("logged"), LogStore::Durability::kLog);
  std::vector<Side> const sides{{kSagleme, [&] { return MakeSaglemeCommitter(*own); }},
                                {kLmdb, [&] { return MakeLmdbCommitter(*lmdb); }},
                                {kSqliteWal, [&] { return MakeSqliteCommitter(sqlite); }},
                                {kGrouped, [&] { return MakeLogCommitter(grouped); }},
                                {kWithLog, [&] { return MakeLogCommitter(logged); }}};
  Result commits{"durable commits of one object, " + suffix, "1/s", true, {}, GoalsFor(threads)};
  Result bytes{"bytes written for one of them, " + suffix, "bytes", false, {}, {}};
  for (Side const& side : sides) {
    commits.series.push_back({side.name, {}});
    bytes.series.push_back({side.name, {}});
  }
  for (int round = 0; round < settings.rounds; ++round) {
    for (std::size_t turn = 0; turn < sides.size(); ++turn) {
      std::size_t const i = (turn + static_cast<std::size_t>(round)) % sides.size();
      Figures const figures = Commit(sides[i], threads, static_cast<Number>(round) * kCommits);
      commits.series[i].values.push_back(figures.commits_per_second);
      bytes.series[i].values.push_back(figures.bytes_per_commit);
    }
  }
  std::vector<Result> results{std::move(commits), std::move(bytes)};
  if (threads == 1) results.push_back(MeasureRecovery(settings, *own));
  return results;
}

}  // namespace bench
