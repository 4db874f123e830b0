// Several processes commit through proxies that delay every request and cut some of them, while
// their server is killed and its standby is promoted, while it stands still, and while it starts
// anew: nothing that was acknowledged is lost, nothing is done twice, and every commit in doubt has
// an outcome. One more process follows the changes, and is told each of them once.
//
// Commits are durable here, unlike in other tests: each waits for the standby. With
// SAGLEME_TEST_SECONDS in the environment the server is disturbed in random order for so long,
// otherwise once in each way.

#include <lscoredb/changes.h>
#include <lscoredb/server.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <list>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <thread>

#include "kernel_test.h"
#include "postgres_url.h"
#include "server_proxy.h"

namespace lscoredb_test {
namespace {

constexpr std::uint32_t kValue = 2;
constexpr int kWorkers = 3;
constexpr int kAccounts = 8;
constexpr std::chrono::milliseconds kPause{20};
constexpr std::chrono::seconds kQuiet{1};  // between disturbances
constexpr Weather kWeather{std::chrono::milliseconds(1), 200};
// Replies are lost while the server stands still, since that takes longer.
constexpr char kTimeout[] = "&timeout=2";

struct Bank {
  LayoutId layout = 0;
  std::vector<Oid> accounts;  // their sum is 0
  std::vector<Oid> counters;  // of commits, one for each worker
};

Bank MakeBank(Session& session) {
  Bank bank;
  session.Begin();
  bank.layout = session.CreateLayout(70, {{LORV_TYPE_LONG, 71}});
  for (int i = 0; i < kAccounts + kWorkers; ++i) {
    Oid const row = session.Insert(bank.layout);
    session.PutLong(row, kValue, 0);
    (i < kAccounts ? bank.accounts : bank.counters).push_back(row);
  }
  session.Commit();
  return bank;
}

// The first attempts may come before the proxies, or be cut.
std::unique_ptr<Database> OpenAtLast(std::string const& url) {
  for (;;) {
    try {
      return std::make_unique<Database>(url, DefaultOptions());
    } catch (std::exception const&) {
      std::this_thread::sleep_for(kPause);
    }
  }
}

// One worker, in a process of its own.
class Worker {
 public:
  Worker(std::string const& url, Bank const& bank, std::size_t number)
      : bank_(bank),
        counter_(bank.counters[number]),
        random_(static_cast<unsigned>(number)),
        database_(OpenAtLast(url)) {}

  // Moves money until the file `stop` is there. Returns how many commits took place.
  std::int64_t Run(std::string const& stop) {
    std::int64_t committed = 0;
    while (access(stop.c_str(), F_OK) != 0) {
      std::uint32_t const status = Transfer();
      if (status == 0 || (status == LSCOREDB_COMMIT_UNKNOWN && TookPlace())) {
        ++committed;
      } else {
        lscoredb_rollback(session_.context());
        std::this_thread::sleep_for(kPause);
      }
    }
    return committed;
  }

  std::size_t asked() const { return asked_; }

 private:
  std::uint32_t Transfer() {
    if (auto const status = lscoredb_begin(session_.context(), LSCOREDB_READ_WRITE)) return status;
    Oid const from = bank_.accounts[random_() % kAccounts];
    Oid const to = bank_.accounts[random_() % kAccounts];
    for (auto const& [row, change] : {std::pair{from, -1}, {to, 1}, {counter_, 1}}) {
      std::int64_t value = 0;
      auto status = lorv_context_get_long(session_.context(), row, 0, kValue, &value);
      if (status == 0) {
        status = lorv_context_put_long(session_.context(), row, 0, kValue, value + change);
      }
      if (status != 0) return status;
    }
    return session_.TryCommit();
  }

  bool TookPlace() {
    ++asked_;
    std::uint32_t committed = 0;
    while (lscoredb_commit_outcome(session_.context(), &committed) != 0) {
      std::this_thread::sleep_for(kPause);
    }
    return committed != 0;
  }

  Bank const& bank_;
  Oid const counter_;
  std::mt19937 random_;
  std::size_t asked_ = 0;
  std::unique_ptr<Database> database_;
  Session session_{*database_};
};

pid_t StartWorker(std::string const& url, Bank const& bank, std::size_t number,
                  std::string const& directory) {
  pid_t const child = fork();
  if (child != 0) return child;
  try {
    Worker worker(url + kTimeout, bank, number);
    std::int64_t const committed = worker.Run(directory + "/stop");
    std::ofstream(directory + "/" + std::to_string(number)) << committed << ' ' << worker.asked();
    _exit(0);
  } catch (std::exception const& failure) {
    std::fprintf(stderr, "worker %zu: %s\n", number, failure.what());
    _exit(1);
  }
}

// Reads changes in a process of its own. What fails for the server's sake is tried again.
class Follower {
 public:
  Follower(std::string const& url, std::uint64_t after) : database_(OpenAtLast(url)) {
    Again([&] { return lscoredb_changes_open(database_->get(), after, UINT32_MAX, &changes_); });
  }
  ~Follower() { lscoredb_changes_close(changes_); }
  Follower(Follower const&) = delete;
  Follower& operator=(Follower const&) = delete;

  // Until there is nothing more after the file `end` was there. Returns how often each object
  // changed.
  std::map<Oid, std::int64_t> Run(std::string const& end) {
    std::map<Oid, std::int64_t> counts;
    for (;;) {
      bool const last = access(end.c_str(), F_OK) == 0;
      while (lscoredb_change const* const change = Next()) ++counts[change->object];
      if (last) return counts;
      std::this_thread::sleep_for(kPause);
    }
  }

 private:
  template <typename Call>
  static void Again(Call const& call) {
    for (;;) {
      std::uint32_t const status = call();
      if (status == 0) return;
      if (status != LSCOREDB_SERVER_LOST) throw Unexpected("follower", status);
      std::this_thread::sleep_for(kPause);
    }
  }
  lscoredb_change const* Next() {
    lscoredb_change const* change = nullptr;
    Again([&] { return lscoredb_changes_next(changes_, &change); });
    return change;
  }

  std::unique_ptr<Database> database_;
  lscoredb_changes* changes_ = nullptr;
};

pid_t StartFollower(std::string const& url, std::uint64_t after, Bank const& bank,
                    std::string const& directory) {
  pid_t const child = fork();
  if (child != 0) return child;
  try {
    std::map<Oid, std::int64_t> const counts =
        Follower(url + kTimeout, after).Run(directory + "/written");
    std::ofstream file(directory + "/followed");
    for (Oid const counter : bank.counters) {
      file << (counts.contains(counter) ? counts.at(counter) : 0) << ' ';
    }
    file.close();
    _exit(0);
  } catch (std::exception const& failure) {
    std::fprintf(stderr, "follower: %s\n", failure.what());
    _exit(1);
  }
}

// The proxies of all servers, in a process of their own, which goes on until the file
// `stop` is there and writes the number of cuts into the file `cuts`.
class Proxies {
 public:
  Proxies(std::string const& url, std::string const& directory) : url_(url) {
    std::string hosts;
    std::vector<std::string> servers;
    std::string const all = lscore::ServerDirectory();
    std::istringstream given(all);
    for (std::string server; std::getline(given, server, ',');) {
      std::string const own = directory + "/p" + std::to_string(servers.size());
      std::filesystem::create_directory(own);
      hosts += (servers.empty() ? "" : ",") + own;
      servers.push_back(server);
    }
    url_.replace(url_.find(all), all.size(), hosts);
    child_ = fork();
    if (child_ == 0) Serve(servers, directory);
  }

  // Of the database through them.
  std::string const& url() const { return url_; }
  pid_t child() const { return child_; }

 private:
  [[noreturn]] static void Serve(std::vector<std::string> const& servers,
                                 std::string const& directory) {
    std::list<ServerProxy> proxies;
    for (std::string const& server : servers) {
      std::string const own = directory + "/p" + std::to_string(proxies.size());
      proxies.emplace_back(server, own, kWeather);
    }
    std::uint64_t cuts = 0;
    while (access((directory + "/stopped").c_str(), F_OK) != 0) std::this_thread::sleep_for(kPause);
    for (ServerProxy const& proxy : proxies) cuts += proxy.cuts();
    std::ofstream(directory + "/cuts") << cuts;
    _exit(0);
  }

  std::string url_;
  pid_t child_;
};

void ExpectSuccess(pid_t child) {
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

void Disturb(std::string const& how) {
  std::this_thread::sleep_for(kQuiet);
  std::string const command = std::getenv("SAGLEME_TEST_DISTURB") + (" " + how);
  ASSERT_EQ(std::system(command.c_str()), 0) << how;
}

void DisturbAgainAndAgain() {
  // What a primary shows after a restart is taken back if its standby does not have it yet.
  std::array const ways{"pause", "restart", "kill"};
  for (char const* const way : ways) Disturb(way);
  char const* const seconds = std::getenv("SAGLEME_TEST_SECONDS");
  if (seconds == nullptr) return;
  auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(std::atoi(seconds));
  std::mt19937 random{std::random_device()()};
  while (std::chrono::steady_clock::now() < end) Disturb(ways[random() % ways.size()]);
}

TEST(PostgresFailoverTest, Commits_AreNeitherLostNorAppliedTwice) {
  std::string const url = lscore::NewServerUrl();
  TemporaryDirectory const directory;
  Bank bank;
  std::uint64_t before = 0;
  {
    Database const database(url, DefaultOptions());
    Session session(database);
    bank = MakeBank(session);
    lscoredb_kept_changes kept{};
    kept.size = sizeof kept;
    Check("keep_changes", lscoredb_keep_changes(database.get(), std::uint64_t{1} << 40, 0));
    Check("kept", lscoredb_kept(database.get(), &kept));
    before = kept.last;
  }
  Proxies const proxies(url, directory.path());
  pid_t const follower = StartFollower(proxies.url(), before, bank, directory.path());
  std::vector<pid_t> workers;
  for (std::size_t i = 0; i < kWorkers; ++i) {
    workers.push_back(StartWorker(proxies.url(), bank, i, directory.path()));
  }
  DisturbAgainAndAgain();
  std::this_thread::sleep_for(kQuiet);
  std::ofstream(directory / "stop") << "now";
  for (pid_t const worker : workers) ExpectSuccess(worker);
  std::ofstream(directory / "written") << "now";
  ExpectSuccess(follower);
  std::ofstream(directory / "stopped") << "now";
  ExpectSuccess(proxies.child());
  std::uint64_t cuts = 0;
  std::ifstream(directory / "cuts") >> cuts;
  EXPECT_GT(cuts, 0U);
  Database const database(url, DefaultOptions());
  Session session(database);
  session.BeginReadOnly();
  std::ifstream followed(directory / "followed");
  for (std::size_t i = 0; i < kWorkers; ++i) {
    std::int64_t committed = -1;
    std::int64_t told = -1;
    std::size_t asked = 0;
    std::ifstream(directory.path() + "/" + std::to_string(i)) >> committed >> asked;
    followed >> told;
    EXPECT_EQ(session.Long(bank.counters[i], kValue), committed);
    EXPECT_EQ(told, committed);
    EXPECT_GT(committed, 0);
    std::printf("worker %zu: %ld commits, %zu in doubt\n", i, static_cast<long>(committed), asked);
  }
  std::int64_t sum = 0;
  for (Oid const account : bank.accounts) sum += *session.Long(account, kValue);
  EXPECT_EQ(sum, 0);
  session.Rollback();
  EXPECT_STATUS(0, lscoredb_check(database.get(), 0, nullptr, nullptr));
}

}  // namespace
}  // namespace lscoredb_test
