// Several processes commit while their server is killed and its standby is promoted: nothing that
// was acknowledged is lost, nothing is done twice, and every commit in doubt has an outcome.
//
// Commits are durable here, unlike in other tests: each waits for the standby.
// SAGLEME_TEST_FAIL_OVERS in the environment says how many times; once by default.

#include <lscoredb/server.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <random>
#include <thread>

#include "kernel_test.h"
#include "postgres_url.h"

namespace lscoredb_test {
namespace {

constexpr std::uint32_t kValue = 2;
constexpr int kWorkers = 3;
constexpr int kAccounts = 8;
constexpr std::chrono::milliseconds kPause{20};

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

// One worker, in a process of its own.
class Worker {
 public:
  Worker(std::string const& url, Bank const& bank, std::size_t number)
      : bank_(bank),
        counter_(bank.counters[number]),
        random_(static_cast<unsigned>(number)),
        database_(url, DefaultOptions()) {}

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
  Database database_;
  Session session_{database_};
};

pid_t StartWorker(std::string const& url, Bank const& bank, std::size_t number,
                  std::string const& directory) {
  pid_t const child = fork();
  if (child != 0) return child;
  try {
    Worker worker(url + "&timeout=5", bank, number);
    std::int64_t const committed = worker.Run(directory + "/stop");
    std::ofstream(directory + "/" + std::to_string(number)) << committed << ' ' << worker.asked();
    _exit(0);
  } catch (std::exception const& failure) {
    std::fprintf(stderr, "worker %zu: %s\n", number, failure.what());
    _exit(1);
  }
}

TEST(PostgresFailoverTest, Commits_AreNeitherLostNorAppliedTwice) {
  std::string const url = lscore::NewServerUrl();
  TemporaryDirectory const directory;
  Bank bank;
  {
    Database const database(url, DefaultOptions());
    Session session(database);
    bank = MakeBank(session);
  }
  std::vector<pid_t> workers;
  for (std::size_t i = 0; i < kWorkers; ++i) {
    workers.push_back(StartWorker(url, bank, i, directory.path()));
  }
  char const* const times = std::getenv("SAGLEME_TEST_FAIL_OVERS");
  for (int i = times == nullptr ? 1 : std::atoi(times); i > 0; --i) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    ASSERT_EQ(std::system(std::getenv("SAGLEME_TEST_FAIL_OVER")), 0);
  }
  std::this_thread::sleep_for(std::chrono::seconds(1));
  std::ofstream(directory / "stop") << "now";
  for (pid_t const worker : workers) {
    int status = 0;
    ASSERT_EQ(waitpid(worker, &status, 0), worker);
    EXPECT_EQ(status, 0);
  }
  Database const database(url, DefaultOptions());
  Session session(database);
  session.BeginReadOnly();
  for (std::size_t i = 0; i < kWorkers; ++i) {
    std::int64_t committed = -1;
    std::size_t asked = 0;
    std::ifstream(directory.path() + "/" + std::to_string(i)) >> committed >> asked;
    EXPECT_EQ(session.Long(bank.counters[i], kValue), committed);
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
