// By hand: commits per second on a server, by the delay on the way to it, by the threads of a
// process, whose commits go together, and by the machines that wait for one another.
//
//   tools/with-postgres build/release/lscoredb/tests/lscoredb_server_commits
//
// A machine is a database that is opened by itself in this process: it shares nothing with the
// others. Each commit changes one object, which is its thread's own. With
// SAGLEME_TEST_POSTGRES_FSYNC=on in the environment the server waits for its disk.

#include <atomic>
#include <cstdio>
#include <memory>
#include <thread>

#include "kernel_test.h"
#include "postgres_url.h"
#include "server_proxy.h"

namespace lscoredb_test {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kValue = 2;
constexpr milliseconds kWarmUp{500};
constexpr milliseconds kTime{3000};

struct Case {
  int machines;
  int threads;  // of each machine
};

// One thread of one machine.
class Committer {
 public:
  explicit Committer(Database const& database) : session_(database) {
    session_.Begin();
    LayoutId const layout = session_.CreateLayout(70, {{LORV_TYPE_LONG, 71}});
    row_ = session_.Insert(layout);
    session_.PutLong(row_, kValue, 0);
    session_.Commit();
  }

  void CommitOnce() {
    session_.Begin();
    session_.PutLong(row_, kValue, ++count_);
    session_.Commit();
  }

 private:
  Session session_;
  Oid row_ = 0;
  std::int64_t count_ = 0;
};

double CommitsPerSecond(std::string const& url, Case const& measured) {
  std::vector<std::unique_ptr<Database>> machines;
  std::vector<std::unique_ptr<Committer>> committers;
  for (int machine = 0; machine < measured.machines; ++machine) {
    std::string const own = url + "&timeout=" + std::to_string(60 + machine);
    machines.push_back(std::make_unique<Database>(own, DefaultOptions()));
    for (int i = 0; i < measured.threads; ++i) {
      committers.push_back(std::make_unique<Committer>(*machines.back()));
    }
  }
  std::atomic<bool> over = false;
  std::atomic<std::uint64_t> commits = 0;
  std::vector<std::thread> threads;
  for (auto const& committer : committers) {
    threads.emplace_back([&] {
      for (; !over; ++commits) committer->CommitOnce();
    });
  }
  std::this_thread::sleep_for(kWarmUp);
  std::uint64_t const before = commits;
  auto const begun = Clock::now();
  std::this_thread::sleep_for(kTime);
  std::chrono::duration<double> const time = Clock::now() - begun;
  double const rate = static_cast<double>(commits - before) / time.count();
  over = true;
  for (std::thread& thread : threads) thread.join();
  return rate;
}

void Measure(milliseconds delay) {
  TemporaryDirectory const directory;
  std::string url = lscore::NewServerUrl();
  std::string const server = lscore::ServerDirectory();
  ServerProxy const proxy(server, directory.path(), {delay, 0});
  // Without a delay there is no proxy either.
  if (delay.count() != 0) url.replace(url.find(server), server.size(), directory.path());
  for (Case const& measured :
       {Case{1, 1}, {1, 4}, {1, 16}, {1, 64}, {2, 1}, {4, 1}, {8, 1}, {4, 16}}) {
    std::printf("%ld ms  %d x %2d threads  %8.0f commits/s\n", static_cast<long>(delay.count()),
                measured.machines, measured.threads, CommitsPerSecond(url, measured));
    std::fflush(stdout);
  }
}

}  // namespace
}  // namespace lscoredb_test

int main() {
  for (int const delay : {0, 1, 5}) lscoredb_test::Measure(std::chrono::milliseconds(delay));
}
