// sagleme on a server beside tables that a mapping of classes makes, on the same server, through
// the same proxy, and beside itself in a directory.

#include <fmt/format.h>

#include <algorithm>
#include <future>
#include <iostream>
#include <random>
#include <stdexcept>

#include "delayed_server.h"
#include "postgres.h"
#include "schema_database.h"
#include "sections.h"
#include "server_shop.h"
#include "turns.h"
#include "worker.h"

namespace bench {
namespace {

constexpr char kMapped[] = "mapping by SQL";
constexpr char kDirectory[] = "sagleme in a directory";
constexpr std::chrono::milliseconds kDelay{1};
constexpr ItemNumber kReads = 100;
constexpr ItemNumber kInserted = 100;
constexpr unsigned kProcesses = 8;
constexpr std::int64_t kPrice = 7;
constexpr ItemNumber kCommits = 10;  // of a process in a turn

std::string UrlOf(std::string const& directory, std::string const& schema) {
  return "postgresql:///postgres?user=bench&host=" + directory + "&schema=" + schema;
}

std::string MappedUrlOf(std::string const& directory) {
  return "postgresql:///postgres?user=bench&host=" + directory;
}

class ServerBench {
 public:
  ServerBench(Settings const& settings, PostgresCluster const& cluster)
      : settings_(settings),
        items_(static_cast<ItemNumber>(std::min<Number>(settings.objects, 10000))),
        near_(cluster.directory()),
        delayed_(near_, settings.Directory("proxy"), kDelay),
        server_(cluster, true) {
    CreateSaglemeShop(UrlOf(near_, "shop"));
    MakeSaglemeShop(UrlOf(near_, "shop"))->Insert(0, items_);
    MakeMappedShop(MappedUrlOf(near_), true)->Insert(0, items_);
    server_.Run("ANALYZE");
  }

  std::vector<Result> Run() {
    MeasureCommitsOfProcesses();
    MeasureSchema();
    MeasureWorkingSet();
    own_ = MakeSaglemeShop(NewUrl());
    other_ = MakeSaglemeShop(NewUrl());
    mapped_ = MakeMappedShop(MappedUrlOf(delayed_.directory()), false);
    for (Shop* const shop : {other_.get(), mapped_.get()}) shop->SetPrice(0, kPrice);
    own_->ScanItems();
    MeasureScans();
    MeasureReads();
    MeasureInserts();
    return std::move(results_);
  }

 private:
  using Work = std::function<ItemSum(Shop&)>;
  // What sagleme has in memory in each turn. kChanged: all but what another process has changed.
  enum class Memory { kNothing, kReferences, kAll, kChanged };

  // Of an opener that shares nothing with the others.
  std::string NewUrl() {
    return UrlOf(delayed_.directory(), "shop") + "&timeout=" + std::to_string(100 + opened_++);
  }
  static std::string Named(std::string const& work) {
    return fmt::format("on a server, 1 ms: {}", work);
  }

  double Turn(Memory memory, std::function<double(Shop&)> const& turn) {
    switch (memory) {
      case Memory::kNothing:
        return turn(*MakeSaglemeShop(NewUrl(), Use::kScans));
      case Memory::kReferences:
        return turn(*MakeSaglemeShop(NewUrl()));
      case Memory::kChanged:
        other_->SetPrice(0, kPrice);
        return turn(*own_);
      case Memory::kAll:
        return turn(*own_);
    }
    throw std::logic_error("no such memory");
  }

  // Time and round trips.
  void Compare(std::string const& name, Memory memory, Work const& work) {
    Result time = MakeComparison(Named(name), "ns", kMapped, 1.0);
    Result trips{
        Named(name + ", round trips"), "trips", false, {{kSagleme, {}}, {kMapped, {}}}, {}};
    double trips_of[2] = {};
    ItemSum sums[2] = {};
    auto const turn = [&](Shop& shop, int side) {
      std::uint64_t const before = shop.round_trips();
      double const nanoseconds = Nanoseconds([&] { sums[side] = work(shop); });
      std::uint64_t const asking = side == 0 ? 1 : 0;  // asking for them is one
      trips_of[side] = static_cast<double>(shop.round_trips() - before - asking);
      return nanoseconds;
    };
    for (int round = 0; round < settings_.rounds; ++round) {
      MeasureRound(
          time, [&] { return Turn(memory, [&](Shop& shop) { return turn(shop, 0); }); },
          [&] { return turn(*mapped_, 1); });
      if (sums[0] != sums[1]) throw std::runtime_error(name + ": the two sides disagree");
      for (std::size_t side = 0; side < 2; ++side)
        trips.series[side].values.push_back(trips_of[side]);
    }
    results_.push_back(std::move(time));
    results_.push_back(std::move(trips));
  }

  void MeasureScans() {
    Work const scan = [](Shop& shop) { return shop.ScanItems(); };
    std::string const name = fmt::format("scan {} objects of two tables, two columns", items_);
    Compare(name + ", none in memory", Memory::kNothing, scan);
    Compare(name + ", all in memory", Memory::kAll, scan);
    Compare(name + ", all in memory but what another has committed", Memory::kChanged, scan);
  }

  void MeasureReads() {
    std::mt19937 random{1};
    std::vector<ItemNumber> some;
    for (ItemNumber i = 0; i < kReads; ++i) {
      some.push_back(static_cast<ItemNumber>(random() % items_));
    }
    Work const read = [&](Shop& shop) { return shop.ReadAndFollow(some); };
    std::string const name = fmt::format("read {} random objects and what they refer to", kReads);
    Compare(name + ", none in memory", Memory::kReferences, read);
    Compare(name + ", all in memory", Memory::kAll, read);
  }

  void MeasureInserts() {
    ItemNumber next[2] = {items_, items_};
    std::string const name = fmt::format("insert {} objects in a transaction", kInserted);
    Compare(name, Memory::kAll, [&](Shop& shop) {
      ItemNumber& first = next[&shop == own_.get() ? 0 : 1];
      shop.Insert(first, kInserted);
      first += kInserted;
      return ItemSum{0};
    });
  }

  using Processes = std::vector<std::unique_ptr<Worker>>;

  // Each changes the price of an item of its own, one commit after another.
  Processes MakeProcesses(bool own) const {
    Processes processes;
    std::string const& place = delayed_.directory();
    for (unsigned process = 0; process < kProcesses; ++process) {
      processes.push_back(std::make_unique<Worker>([own, process, &place]() -> Worker::Task {
        std::shared_ptr<Shop> const shop =
            own ? MakeSaglemeShop(UrlOf(place, "shop")) : MakeMappedShop(MappedUrlOf(place), false);
        return [shop, process, price = std::int64_t{0}](int) mutable {
          for (ItemNumber i = 0; i < kCommits; ++i) shop->SetPrice(process, ++price);
          return 1.0;
        };
      }));
    }
    return processes;
  }

  static double CommitsPerSecond(Processes& processes) {
    double const time = Nanoseconds([&] {
      std::vector<std::future<double>> waiting;
      for (auto& process : processes) {
        waiting.push_back(std::async(std::launch::async, [&process] { return process->Run(0); }));
      }
      for (auto& each : waiting) each.get();
    });
    return kProcesses * kCommits * 1e9 / time;
  }

  void MeasureCommitsOfProcesses() {
    Processes own = MakeProcesses(true);
    Processes mapped = MakeProcesses(false);
    CommitsPerSecond(own);  // the first commits come when all have opened
    CommitsPerSecond(mapped);
    Result result = MakeComparison(
        Named(fmt::format("durable commits of one object by {} processes", kProcesses)), "1/s",
        kMapped, 1.0);
    result.more_is_better = true;
    for (int round = 0; round < settings_.rounds; ++round) {
      MeasureRound(
          result, [&] { return CommitsPerSecond(own); }, [&] { return CommitsPerSecond(mapped); });
    }
    results_.push_back(std::move(result));
  }

  // A column is added to a table of few and of ten times as many objects.
  void MeasureSchema() {
    constexpr double kFlat = 1.3;
    constexpr int kTimes = 3;
    Number const many = std::min<Number>(settings_.objects, 100000);
    auto const worker = [&](Number objects) {
      return std::make_unique<Worker>([this, objects]() -> Worker::Task {
        std::string const schema = "schema" + std::to_string(objects);
        auto const database =
            std::make_shared<SchemaDatabase>(UrlOf(delayed_.directory(), schema), true);
        database->MakeTables(0, 1, 5);
        database->Fill(0, objects);
        return [database](int) { return database->Time(Change::kAddColumn, 0, kTimes); };
      });
    };
    std::unique_ptr<Worker> const large = worker(many);
    std::unique_ptr<Worker> const small = worker(many / 10);
    Result result = MakeComparison(Named(fmt::format("add a column, {} objects", many)), "ns",
                                   fmt::format("{} objects", many / 10), kFlat);
    for (int round = 0; round < settings_.rounds; ++round) {
      MeasureRound(
          result, [&] { return large->Run(0); }, [&] { return small->Run(0); });
    }
    results_.push_back(std::move(result));
  }

  void MeasureWorkingSet() {
    constexpr double kBesideDirectory = 2;
    std::string const directory = settings_.Directory("beside-server") + "/shop";
    CreateSaglemeShop(directory);
    ItemNumber const items = std::min<ItemNumber>(items_, 1000);
    MakeSaglemeShop(directory)->Insert(0, items);
    Result result = MakeComparison(
        fmt::format("on a server: read a property of {} objects again in a transaction", items),
        "ns", kDirectory, kBesideDirectory);
    for (int round = 0; round < settings_.rounds; ++round) {
      MeasureRound(
          result, [&] { return ReadWorkingSet(UrlOf(near_, "shop"), items); },
          [&] { return ReadWorkingSet(directory, items); });
    }
    results_.push_back(std::move(result));
  }

  Settings const& settings_;
  ItemNumber const items_;
  std::string const near_;
  DelayedServer const delayed_;
  PostgresServer server_;
  std::unique_ptr<Shop> own_;
  std::unique_ptr<Shop> other_;
  std::unique_ptr<Shop> mapped_;
  std::vector<Result> results_;
  int opened_ = 0;
};

}  // namespace

std::vector<Result> MeasureServer(Settings const& settings) {
  std::unique_ptr<PostgresCluster> cluster;
  try {
    cluster = std::make_unique<PostgresCluster>(settings.Directory("server"));
  } catch (std::runtime_error const& reason) {
    std::cerr << "left out: sagleme on a server; " << reason.what() << std::endl;
    return {};
  }
  return ServerBench(settings, *cluster).Run();
}

}  // namespace bench
