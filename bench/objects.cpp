// Reads, scans and changes of objects, by all engines on the same data.

#include <algorithm>
#include <iostream>
#include <map>
#include <random>

#include "engine.h"
#include "sections.h"
#include "worker.h"

namespace bench {
namespace {

struct Contestant {
  std::string name;
  std::unique_ptr<Engine> engine;
};

class ObjectBench {
 public:
  explicit ObjectBench(Settings settings) : settings_(std::move(settings)) {
    Add(kSagleme, MakeSagleme(settings_.Directory("sagleme"), false));
    Add(kLmdb, MakeLmdb(settings_.Directory("lmdb"), false));
    Add(kSqliteMemory, MakeSqlite("", false));
    Add(kSqliteWal, MakeSqlite(settings_.Directory("sqlite"), false));
    Add(kHash, MakeHash());
  }

  std::vector<Result> Run() {
    Load();
    Reads();
    Scans();
    ReadsOverLog();
    Updates();
    Creates();
    FirstTouch();
    Sizes();
    return std::move(results_);
  }

 private:
  struct Job {
    std::string work;
    std::size_t operations;
    std::vector<Goal> goals;
    std::function<std::vector<Number>(std::size_t round)> numbers;  // null: none selected
    std::function<Sum(Engine&, std::size_t round)> run;
    std::vector<std::string> without = {};
    std::function<void(Engine&)> prepare = nullptr;  // outside of what is measured
    std::size_t repeats = 1;                         // in a round
  };

  // What earlier work has postponed is not part of what is measured; what this work postpones is.
  static void FinishCheckpoint(Engine& engine) { engine.Checkpoint(); }
  static std::function<Sum(Engine&, std::size_t)> ThenCheckpoint(
      std::function<Sum(Engine&, std::size_t)> work) {
    return [work = std::move(work)](Engine& engine, std::size_t round) {
      Sum const sum = work(engine, round);
      engine.Checkpoint();
      return sum;
    };
  }

  void Add(std::string const& name, std::unique_ptr<Engine> engine) {
    contestants_.push_back({name, std::move(engine)});
  }
  // Those of a round are the same for all engines.
  std::vector<Number> Some(std::size_t count, Number below, std::size_t round) const {
    std::mt19937 random(static_cast<unsigned>(round) + 1);
    std::vector<Number> numbers(count);
    for (Number& number : numbers) number = static_cast<Number>(random() % below);
    return numbers;
  }
  std::vector<Number> Distinct(std::size_t count, std::size_t round) const {
    std::vector<Number> numbers(settings_.objects);
    for (Number i = 0; i < settings_.objects; ++i) numbers[i] = i;
    std::shuffle(numbers.begin(), numbers.end(), std::mt19937(static_cast<unsigned>(round) + 1));
    numbers.resize(std::min<std::size_t>(count, numbers.size()));
    return numbers;
  }

  // Rounds of all engines, each beginning with another one. Engines have to agree in what they
  // read.
  void Measure(Job const& job) {
    std::cerr << job.work << std::endl;
    Result result{job.work, "ns", false, {}, job.goals};
    std::vector<Engine*> taking_part;
    for (Contestant& one : contestants_) {
      if (std::find(job.without.begin(), job.without.end(), one.name) != job.without.end())
        continue;
      taking_part.push_back(one.engine.get());
      result.series.push_back({one.name, std::vector<double>(Rounds())});
    }
    for (std::size_t round = 0; round < Rounds(); ++round) {
      std::vector<Sum> sums(taking_part.size());
      std::vector<Number> const numbers = job.numbers ? job.numbers(round) : std::vector<Number>();
      for (std::size_t turn = 0; turn < taking_part.size(); ++turn) {
        std::size_t const i = (turn + round) % taking_part.size();
        double time = 0;
        for (std::size_t turns = 0; turns < job.repeats; ++turns) {
          if (job.prepare) job.prepare(*taking_part[i]);
          taking_part[i]->Select(numbers);
          time += Nanoseconds([&] { sums[i] = job.run(*taking_part[i], round); });
        }
        result.series[i].values[round] = time / static_cast<double>(job.operations * job.repeats);
        taking_part[i]->Select({});
      }
      for (std::size_t i = 1; i < sums.size(); ++i) {
        if (sums[i] != sums[0]) throw std::runtime_error(job.work + ": engines disagree");
      }
    }
    results_.push_back(std::move(result));
  }
  std::size_t Rounds() const { return static_cast<std::size_t>(settings_.rounds); }

  void Load() {
    for (Contestant& one : contestants_) {
      std::cerr << "load " << one.name << std::endl;
      one.engine->Create(0, settings_.objects);
      one.engine->Checkpoint();
    }
    TouchAll();
  }
  void TouchAll() {
    std::vector<Number> all(settings_.objects);
    for (Number i = 0; i < settings_.objects; ++i) all[i] = i;
    for (Contestant& one : contestants_) {
      one.engine->Select(all);
      one.engine->ReadOne();
      one.engine->Select({});
    }
  }

  void Reads() {
    constexpr std::size_t kMany = 1000000;
    constexpr std::size_t kRandom = 300000;
    auto const few = [&](std::size_t count) {
      return [this, count](std::size_t) {
        std::vector<Number> const hot = Some(1000, settings_.objects, 0);
        std::vector<Number> over_and_over(count);
        for (std::size_t i = 0; i < count; ++i) over_and_over[i] = hot[i % hot.size()];
        return over_and_over;
      };
    };
    auto const random = [&](std::size_t round) { return Some(kRandom, settings_.objects, round); };
    auto const read_one = [](Engine& engine, std::size_t) { return engine.ReadOne(); };
    Measure({"read one long, the same 1,000 objects",
             kMany,
             {{kLmdb, 0.05}, {kSqliteMemory, 0.02}},
             few(kMany),
             read_one});
    Measure({"the same, each in a transaction of its own",
             kRandom,
             {{kLmdb, 1.2}, {kSqliteMemory, 0.6}},
             few(kRandom),
             [](Engine& engine, std::size_t) { return engine.ReadOneAlone(); }});
    Measure({"read one long, random, touched before",
             kRandom,
             {{kLmdb, 0.2}, {kSqliteMemory, 0.15}},
             random,
             read_one});
    Measure({"read one long of objects in random order by calls of 1,000, touched before",
             kMany,
             {{kHash, 1.5}},
             [&](std::size_t round) { return Some(kMany, settings_.objects, round); },
             [](Engine& engine, std::size_t) { return engine.ReadOneTogether(); }});
    Measure({"read all 5 columns, random, touched before",
             kRandom,
             {{kLmdb, 0.4}, {kSqliteMemory, 0.2}},
             random,
             [](Engine& engine, std::size_t) { return engine.ReadAll(); }});
    Measure({"string index lookup and one read",
             kRandom,
             {{kLmdb, 0.7}, {kSqliteMemory, 0.6}},
             random,
             [](Engine& engine, std::size_t) { return engine.Find(); },
             {kHash}});
  }

  void Scans() {
    std::size_t const count = std::min<std::size_t>(100000, settings_.objects);
    Measure({"scan 100,000 entries of an index, one read each",
             count,
             {{kLmdb, 0.25}, {kSqliteMemory, 0.2}},
             nullptr,
             [&](Engine& engine, std::size_t) { return engine.Scan(count); },
             {kHash}});
    Measure({"the same, ids only",
             count,
             {{kLmdb, 1.6}, {kSqliteMemory, 0.5}},
             nullptr,
             [&](Engine& engine, std::size_t) { return engine.ScanIds(count); },
             {kHash}});
    Measure({"the same, ids only, by pages",
             count,
             {{kLmdb, 1.2}},
             nullptr,
             [&](Engine& engine, std::size_t) { return engine.ScanIdPages(count); },
             {kHash}});
  }

  // As after a restart or a checkpoint, the reads above found everything in the image. Here the log
  // holds the newest objects, whose entries lie anywhere in the indexes.
  void ReadsOverLog() {
    for (Contestant& one : contestants_) {
      one.engine->Create(settings_.objects, in_log_);
      next_[one.engine.get()] = settings_.objects + in_log_;
    }
    std::size_t const lookups = 100000;
    std::size_t const count = std::min<std::size_t>(100000, settings_.objects);
    Measure({"string index lookup and one read, 20,000 objects in the log",
             lookups,
             {},
             [&](std::size_t round) { return Some(lookups, settings_.objects, round); },
             [](Engine& engine, std::size_t) { return engine.Find(); },
             {kHash}});
    Measure({"scan 100,000 entries of an index, one read each, 20,000 objects in the log",
             count,
             {},
             nullptr,
             [&](Engine& engine, std::size_t) { return engine.Scan(count); },
             {kHash}});
    Measure({"the same, ids only, by pages, 20,000 objects in the log",
             count,
             {},
             nullptr,
             [&](Engine& engine, std::size_t) { return engine.ScanIdPages(count); },
             {kHash}});
  }

  void Updates() {
    std::size_t const count = std::min<std::size_t>(50000, settings_.objects);
    auto const some = [&](std::size_t round) { return Distinct(count, round); };
    std::vector<Goal> const plain{{kLmdb, 0.6}, {kSqliteMemory, 1.0}, {kSqliteWal, 0.4}};
    std::vector<Goal> const indexed{{kLmdb, 0.7}, {kSqliteMemory, 1.1}, {kSqliteWal, 0.45}};
    auto const update_plain = [&](Engine& engine, std::size_t round) {
      engine.UpdatePlain(static_cast<std::int64_t>(round) + 5);
      return Sum{0};
    };
    auto const update_indexed = [&](Engine& engine, std::size_t) {
      engine.UpdateIndexed(0x155555555);
      return Sum{0};
    };
    Measure({"update a plain column, transactions of 1,000, no sync", count, plain, some,
             update_plain});
    Measure({"update an indexed column, likewise", count, indexed, some, update_indexed});
    Measure({"update a plain column, transactions of 1,000, no sync, and a checkpoint",
             count,
             plain,
             some,
             ThenCheckpoint(update_plain),
             {},
             &FinishCheckpoint});
    Measure({"update an indexed column, likewise, and a checkpoint",
             count,
             indexed,
             some,
             ThenCheckpoint(update_indexed),
             {},
             &FinishCheckpoint});
    Measure({"set a savepoint, update 10 plain columns, take them back; for each update",
             count,
             {{kSqliteMemory, 1.0}, {kSqliteWal, 1.0}},
             some,
             [&](Engine& engine, std::size_t round) {
               engine.UpdateAndTakeBack(static_cast<std::int64_t>(round) + 7);
               return Sum{0};
             },
             {kLmdb, kHash}});
  }

  void Creates() {
    std::vector<Goal> const goals{{kLmdb, 0.7}, {kSqliteMemory, 0.9}, {kSqliteWal, 0.4}};
    auto const create = [&](Engine& engine, std::size_t) {
      engine.Create(next_[&engine], created_);
      next_[&engine] += created_;
      return Sum{0};
    };
    Measure({"create objects with all indexes, transactions of 1,000, no sync", created_, goals,
             nullptr, create});
    Measure({"create objects with all indexes, likewise, and a checkpoint",
             created_,
             goals,
             nullptr,
             ThenCheckpoint(create),
             {},
             &FinishCheckpoint});
  }

  void FirstTouch() {
    Measure({"open (sagleme: and lorv_init_metalayer; the others: and read a column)",
             1,
             {{kLmdb, 1.5}},
             nullptr,
             [](Engine& engine, std::size_t) {
               engine.Start();
               return Sum{0};
             },
             {kHash, kSqliteMemory},
             [](Engine& engine) { engine.Close(); },
             20});
    Measure({"open, find a column by its names and read it",
             1,
             {},
             nullptr,
             [](Engine& engine, std::size_t) { return engine.Open(); },
             {kHash, kSqliteMemory},
             [](Engine& engine) { engine.Close(); },
             20});
    std::size_t const count = std::min<std::size_t>(200000, settings_.objects);
    Measure({"read one long, random, on first touch",
             count,
             {{kLmdb, 1.1}, {kSqliteWal, 1.0}},
             [&](std::size_t round) { return Distinct(count, round); },
             [](Engine& engine, std::size_t) { return engine.ReadOne(); },
             {kHash, kSqliteMemory},
             [](Engine& engine) {
               engine.Close();
               engine.Open();
             }});
  }

  Engine& EngineOf(std::string const& name) {
    auto const found = std::find_if(contestants_.begin(), contestants_.end(),
                                    [&](Contestant const& one) { return one.name == name; });
    return *found->engine;
  }

  void Sizes() {
    Result result{"bytes for an object on disk", "bytes", false, {}, {{kLmdb, 1.25}}};
    double const objects =
        static_cast<double>(next_.begin()->second);  // with those that were created
    for (std::string const name : {kSagleme, kLmdb, kSqliteWal}) {
      result.series.push_back({name, {static_cast<double>(EngineOf(name).Bytes()) / objects}});
    }
    results_.push_back(std::move(result));
  }

  Settings settings_;
  Number const in_log_ = std::min<Number>(20000, settings_.objects);
  Number const created_ = std::min<Number>(50000, settings_.objects);  // in a round
  std::vector<Contestant> contestants_;
  std::map<Engine*, Number> next_;  // the first object that is not there yet
  std::vector<Result> results_;
};

}  // namespace

std::vector<Result> MeasureObjects(Settings const& settings) {
  StayOnOneProcessor();
  return ObjectBench(settings).Run();
}

}  // namespace bench
