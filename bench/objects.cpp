// Reads, walks and changes of objects, by all engines on the same data.

#include <algorithm>
#include <iostream>
#include <random>

#include "engine.h"
#include "sections.h"

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
    Walks();
    Updates();
    Creates();
    FirstTouch();
    Sizes();
    return std::move(results_);
  }

 private:
  using Work = std::function<Sum(Engine&, int round)>;

  void Add(std::string const& name, std::unique_ptr<Engine> engine) {
    contestants_.push_back({name, std::move(engine)});
  }
  // Those of a round are the same for all engines.
  std::vector<Number> Some(std::size_t count, Number below, int round) const {
    std::mt19937 random(static_cast<unsigned>(round) + 1);
    std::vector<Number> numbers(count);
    for (Number& number : numbers) number = static_cast<Number>(random() % below);
    return numbers;
  }
  std::vector<Number> Distinct(std::size_t count, int round) const {
    std::vector<Number> numbers(settings_.objects);
    for (Number i = 0; i < settings_.objects; ++i) numbers[i] = i;
    std::shuffle(numbers.begin(), numbers.end(), std::mt19937(static_cast<unsigned>(round) + 1));
    numbers.resize(std::min<std::size_t>(count, numbers.size()));
    return numbers;
  }

  // Rounds of all engines, each beginning with another one. Engines have to agree in what they
  // read.
  void Measure(std::string const& work, std::size_t operations, std::vector<Goal> goals,
               Work const& run, std::vector<std::string> const& without = {}) {
    std::cerr << work << std::endl;
    Result result{work, "ns", false, {}, std::move(goals)};
    std::vector<Contestant*> taking_part;
    for (Contestant& one : contestants_) {
      if (std::find(without.begin(), without.end(), one.name) != without.end()) continue;
      taking_part.push_back(&one);
      result.series.push_back({one.name, std::vector<double>(Rounds())});
    }
    for (int round = 0; round < settings_.rounds; ++round) {
      std::vector<Sum> sums(taking_part.size());
      for (std::size_t turn = 0; turn < taking_part.size(); ++turn) {
        std::size_t const i = (turn + static_cast<std::size_t>(round)) % taking_part.size();
        double const time = Nanoseconds([&] { sums[i] = run(*taking_part[i]->engine, round); });
        result.series[i].values[static_cast<std::size_t>(round)] =
            time / static_cast<double>(operations);
      }
      for (std::size_t i = 1; i < sums.size(); ++i) {
        if (sums[i] != sums[0]) throw std::runtime_error(work + ": engines disagree");
      }
    }
    results_.push_back(std::move(result));
  }
  std::size_t Rounds() const { return static_cast<std::size_t>(settings_.rounds); }

  void Load() {
    for (Contestant& one : contestants_) {
      std::cerr << "load " << one.name << std::endl;
      one.engine->Create(0, settings_.objects);
    }
    TouchAll();
  }
  void TouchAll() {
    std::vector<Number> all(settings_.objects);
    for (Number i = 0; i < settings_.objects; ++i) all[i] = i;
    for (Contestant& one : contestants_) one.engine->ReadOne(all);
  }

  void Reads() {
    constexpr std::size_t kMany = 1000000;
    constexpr std::size_t kRandom = 300000;
    std::vector<Number> hot = Some(1000, settings_.objects, 0);
    std::vector<Number> over_and_over;
    for (std::size_t i = 0; i < kMany; ++i) over_and_over.push_back(hot[i % hot.size()]);
    Measure("read one long, the same 1,000 objects", kMany, {{kLmdb, 0.05}, {kSqliteMemory, 0.02}},
            [&](Engine& engine, int) { return engine.ReadOne(over_and_over); });
    Measure("the same, each in a transaction of its own", kRandom,
            {{kLmdb, 1.2}, {kSqliteMemory, 0.6}}, [&](Engine& engine, int) {
              return engine.ReadOneAlone(Numbers(over_and_over).first(kRandom));
            });
    std::vector<std::vector<Number>> random;
    for (int i = 0; i < settings_.rounds; ++i) {
      random.push_back(Some(kRandom, settings_.objects, i));
    }
    auto const of = [&](int round) -> Numbers { return random[static_cast<std::size_t>(round)]; };
    Measure("read one long, random, touched before", kRandom, {{kLmdb, 0.2}, {kSqliteMemory, 0.15}},
            [&](Engine& engine, int round) { return engine.ReadOne(of(round)); });
    Measure("read all 5 columns, random, touched before", kRandom,
            {{kLmdb, 0.25}, {kSqliteMemory, 0.2}},
            [&](Engine& engine, int round) { return engine.ReadAll(of(round)); });
    Measure("string index lookup and one read", kRandom, {{kLmdb, 0.7}, {kSqliteMemory, 0.6}},
            [&](Engine& engine, int round) { return engine.Find(of(round)); }, {kHash});
  }

  void Walks() {
    std::size_t const count = std::min<std::size_t>(100000, settings_.objects);
    Measure("walk 100,000 entries of an index, one read each", count,
            {{kLmdb, 0.25}, {kSqliteMemory, 0.2}},
            [&](Engine& engine, int) { return engine.Walk(count); }, {kHash});
    Measure("the same, ids only", count, {{kLmdb, 1.1}, {kSqliteMemory, 0.5}},
            [&](Engine& engine, int) { return engine.WalkIds(count); }, {kHash});
  }

  void Updates() {
    constexpr std::size_t kCount = 50000;
    std::vector<std::vector<Number>> which;
    for (int i = 0; i < settings_.rounds; ++i) which.push_back(Distinct(kCount, i));
    auto const of = [&](int round) -> Numbers { return which[static_cast<std::size_t>(round)]; };
    Measure("update a plain column, transactions of 1,000, no sync", kCount,
            {{kLmdb, 1.2}, {kSqliteMemory, 0.7}, {kSqliteWal, 0.3}},
            [&](Engine& engine, int round) {
              engine.UpdatePlain(of(round), round + 5);
              return Sum{0};
            });
    Measure("update an indexed column, likewise", kCount,
            {{kLmdb, 1.1}, {kSqliteMemory, 0.75}, {kSqliteWal, 0.4}},
            [&](Engine& engine, int round) {
              engine.UpdateIndexed(of(round), 0x155555555);
              return Sum{0};
            });
  }

  void Creates() {
    constexpr Number kCount = 50000;
    Measure("create objects with all indexes, transactions of 1,000, no sync", kCount,
            {{kLmdb, 1.3}, {kSqliteMemory, 0.9}, {kSqliteWal, 0.4}},
            [&](Engine& engine, int round) {
              engine.Create(settings_.objects + static_cast<Number>(round) * kCount, kCount);
              return Sum{0};
            });
  }

  void FirstTouch() {
    constexpr std::size_t kCount = 200000;
    Measure("open and read the first column", 1, {{kLmdb, 1.5}},
            [](Engine& engine, int) { return engine.Reopen(); }, {kHash, kSqliteMemory});
    std::vector<std::vector<Number>> which;
    for (int i = 0; i < settings_.rounds; ++i) which.push_back(Distinct(kCount, i));
    // Opened anew for each round, outside of what is measured.
    std::cerr << "read one long on first touch" << std::endl;
    Result result{"read one long, random, on first touch",
                  "ns",
                  false,
                  {},
                  {{kLmdb, 1.1}, {kSqliteWal, 1.0}}};
    for (Contestant& one : contestants_) {
      if (one.name == kHash || one.name == kSqliteMemory) continue;
      result.series.push_back({one.name, std::vector<double>(Rounds())});
    }
    for (std::size_t round = 0; round < Rounds(); ++round) {
      for (Series& series : result.series) {
        Engine& engine = EngineOf(series.engine);
        engine.Reopen();
        series.values[round] =
            Nanoseconds([&] { engine.ReadOne(which[round]); }) / static_cast<double>(kCount);
      }
    }
    results_.push_back(std::move(result));
  }

  Engine& EngineOf(std::string const& name) {
    auto const found = std::find_if(contestants_.begin(), contestants_.end(),
                                    [&](Contestant const& one) { return one.name == name; });
    return *found->engine;
  }

  void Sizes() {
    Result result{"bytes for an object on disk", "bytes", false, {}, {{kLmdb, 1.25}}};
    double const objects =
        settings_.objects + 50000.0 * settings_.rounds;  // with those that were created
    for (std::string const name : {kSagleme, kLmdb, kSqliteWal}) {
      result.series.push_back({name, {static_cast<double>(EngineOf(name).Bytes()) / objects}});
    }
    results_.push_back(std::move(result));
  }

  Settings settings_;
  std::vector<Contestant> contestants_;
  std::vector<Result> results_;
};

}  // namespace

std::vector<Result> MeasureObjects(Settings const& settings) { return ObjectBench(settings).Run(); }

}  // namespace bench
