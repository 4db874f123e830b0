// By hand: commits a second on a server, and how many go together, by the delay on the way to it
// and by the processes and threads that commit. Prints a table.
//
//   build/release/bench/bench_server_commits DIRECTORY
//
// Each thread changes an object of its own in a transaction of its own. The threads of a process
// share its database, and so its groups. The server waits for its disk.

#include <fmt/format.h>

#include <atomic>
#include <chrono>
#include <future>
#include <iostream>
#include <thread>

#include "delayed_server.h"
#include "postgres.h"
#include "sections.h"
#include "server_shop.h"
#include "worker.h"

namespace bench {
namespace {

using std::chrono::milliseconds;

constexpr ItemNumber kItems = 256;
constexpr milliseconds kTime{3000};
constexpr milliseconds kWarmUp{500};
constexpr milliseconds kDelays[] = {milliseconds(0), milliseconds(1), milliseconds(5)};

struct Case {
  unsigned processes;
  unsigned threads;  // of each process
};
constexpr Case kCases[] = {{1, 1}, {2, 1}, {4, 1},  {8, 1},  {1, 4},  {2, 4},
                           {4, 4}, {8, 4}, {1, 16}, {2, 16}, {4, 16}, {8, 16}};

std::string UrlOf(std::string const& directory) {
  return "postgresql:///postgres?user=bench&schema=shop&host=" + directory;
}

// Commits for so many milliseconds, the command, and returns how many commits that were.
Worker::Task Committing(std::string const& url, unsigned process, unsigned threads) {
  auto shops = std::make_shared<std::vector<std::unique_ptr<Shop>>>();
  for (unsigned i = 0; i < threads; ++i) shops->push_back(MakeSaglemeShop(url));
  return [=](int time) {
    std::atomic<std::uint64_t> commits{0};
    auto const end = std::chrono::steady_clock::now() + milliseconds(time);
    std::vector<std::thread> all;
    for (unsigned i = 0; i < threads; ++i) {
      all.emplace_back([&, i] {
        for (; std::chrono::steady_clock::now() < end; ++commits) {
          auto const price = static_cast<std::int64_t>(commits.load());
          (*shops)[i]->SetPrice(process * threads + i, price);
        }
      });
    }
    for (std::thread& thread : all) thread.join();
    return static_cast<double>(commits.load());
  };
}

class Commits {
 public:
  explicit Commits(Settings settings)
      : settings_(std::move(settings)),
        cluster_(settings_.Directory("server")),
        server_(cluster_, true) {
    CreateSaglemeShop(UrlOf(cluster_.directory()));
    MakeSaglemeShop(UrlOf(cluster_.directory()))->Insert(0, kItems);
  }

  void Print() {
    std::cout << "| delay | processes x threads | commits/s | groups/s | commits in a group |\n"
                 "|---|---|---|---|---|\n";
    for (milliseconds const delay : kDelays) {
      std::string const name = "proxy" + std::to_string(delay.count());
      DelayedServer const delayed(cluster_.directory(), settings_.Directory(name), delay);
      // Without a delay there is no proxy either.
      std::string const& place = delay.count() == 0 ? cluster_.directory() : delayed.directory();
      for (Case const& measured : kCases) PrintRow(delay, UrlOf(place), measured);
    }
  }

 private:
  // Those of all processes in the time, run together.
  static double Run(std::vector<std::unique_ptr<Worker>>& workers, milliseconds time) {
    std::vector<std::future<double>> waiting;
    for (auto& worker : workers) {
      waiting.push_back(std::async(std::launch::async, [&worker, time] {
        return worker->Run(static_cast<int>(time.count()));
      }));
    }
    double commits = 0;
    for (auto& each : waiting) commits += each.get();
    return commits;
  }

  void PrintRow(milliseconds delay, std::string const& url, Case const& measured) {
    std::vector<std::unique_ptr<Worker>> workers;
    for (unsigned process = 0; process < measured.processes; ++process) {
      workers.push_back(std::make_unique<Worker>(
          [&, process] { return Committing(url, process, measured.threads); }));
    }
    Worker newest([this] {
      return [url = UrlOf(cluster_.directory())](int) {
        return static_cast<double>(NewestCommit(url));
      };
    });
    Run(workers, kWarmUp);
    double const before = newest.Run(0);
    double commits = 0;
    double const seconds = Nanoseconds([&] { commits = Run(workers, kTime); }) / 1e9;
    double const groups = newest.Run(0) - before;
    std::cout << fmt::format("| {} ms | {} x {} | {:.0f} | {:.0f} | {:.1f} |", delay.count(),
                             measured.processes, measured.threads, commits / seconds,
                             groups / seconds, commits / groups)
              << std::endl;
  }

  Settings settings_;
  PostgresCluster cluster_;
  PostgresServer server_;
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "use: bench_server_commits DIRECTORY, which is made and left there\n";
    return 1;
  }
  try {
    bench::Settings settings;
    settings.directory = argv[1];
    bench::Commits(settings).Print();
    return 0;
  } catch (std::exception const& error) {
    std::cerr << "bench_server_commits: " << error.what() << '\n';
    return 1;
  }
}
