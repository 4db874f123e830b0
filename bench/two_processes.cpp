// Reads of a process while another one commits changes of the same objects.

#include <atomic>
#include <random>
#include <thread>

#include "engine.h"
#include "sections.h"
#include "turns.h"
#include "worker.h"

namespace bench {
namespace {

constexpr char kAlone[] = "no writer";
constexpr std::size_t kChanged = 10;  // objects of a commit
constexpr int kCommitsOfTurn = 50;
constexpr std::size_t kReads = 300000;

std::vector<Number> Some(std::size_t count, Number below, unsigned seed) {
  std::mt19937 random(seed);
  std::vector<Number> numbers(count);
  for (Number& number : numbers) number = static_cast<Number>(random() % below);
  return numbers;
}

// In transactions of kBatch reads each. Returns the time of one read.
double ReadAtRandom(Engine& engine, Number objects, unsigned seed) {
  std::vector<Number> const all = Some(kReads, objects, seed);
  double time = 0;
  Sum sum = 0;
  for (std::size_t begin = 0; begin < all.size(); begin += kBatch) {
    engine.Select(Numbers(all).subspan(begin, kBatch));
    time += Nanoseconds([&] { sum += engine.ReadOne(); });
  }
  engine.Select({});
  if (sum == 0) throw std::runtime_error("nothing was read");
  return time / kReads;
}

Worker::Task Reader(Engine& engine, Number objects) {
  engine.Open();
  std::vector<Number> all(objects);
  for (Number i = 0; i < objects; ++i) all[i] = i;
  engine.Select(all);
  engine.ReadOne();
  return [&engine, objects](int seed) {
    return ReadAtRandom(engine, objects, static_cast<unsigned>(seed));
  };
}

Worker::Task Writer(Engine& engine, Number objects) {
  engine.Open();
  return [&engine, objects](int seed) {
    std::vector<Number> const all =
        Some(kChanged * kCommitsOfTurn, objects, static_cast<unsigned>(seed));
    for (std::size_t begin = 0; begin < all.size(); begin += kChanged) {
      engine.Select(Numbers(all).subspan(begin, kChanged));
      engine.UpdatePlain(seed + static_cast<std::int64_t>(begin));
    }
    engine.Select({});
    return 0.0;
  };
}

double WhileWriting(Worker& writer, std::function<double()> const& work) {
  std::atomic<bool> over{false};
  std::thread writing([&] {
    for (int seed = 1; !over; ++seed) writer.Run(seed);
  });
  double const figure = work();
  over = true;
  writing.join();
  return figure;
}

}  // namespace

std::vector<Result> MeasureTwoProcesses(Settings const& settings) {
  Number const objects = std::min<Number>(settings.objects, 200000);
  Result result = MakeComparison(
      "read one long, random, touched before, while another process makes durable commits", "ns",
      kAlone, 1.5);
  auto const engine = MakeSagleme(settings.Directory("two-processes"), true);
  engine->Create(0, objects);
  engine->Close();
  Worker reader([&] { return Reader(*engine, objects); });
  Worker writer([&] { return Writer(*engine, objects); });
  for (int round = 0; round < settings.rounds; ++round) {
    auto const read = [&] { return reader.Run(round + 1); };
    result.series[1].values.push_back(read());
    result.series[0].values.push_back(WhileWriting(writer, read));
  }
  return {std::move(result)};
}

}  // namespace bench
