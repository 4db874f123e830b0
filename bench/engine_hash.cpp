// The floor: what a table in memory costs that keeps nothing, indexes nothing and knows one state.

#include <unordered_map>

#include "engine.h"

namespace bench {
namespace {

class HashEngine : public Engine {
 public:
  void Create(Number first, Number count) override {
    for (Number i = first; i < first + count; ++i) things_.emplace(i + 1, MakeThing(i));
  }
  Sum ReadOne() override {
    Sum sum = 0;
    for (Number const i : selected()) sum += Bits(things_.find(i + 1)->second.plain);
    return sum;
  }
  Sum ReadOneAlone() override { return ReadOne(); }
  Sum ReadAll() override {
    Sum sum = 0;
    for (Number const i : selected()) {
      Thing const& thing = things_.find(i + 1)->second;
      sum += Bits(thing.plain) + Bits(thing.indexed) + Bits(thing.weight) + thing.name[7] +
             Sum{thing.other + std::uint64_t{1} != 0};
    }
    return sum;
  }
  Sum Find() override { return 0; }
  Sum Scan(std::size_t) override { return 0; }
  Sum ScanIds(std::size_t) override { return 0; }
  void UpdatePlain(std::int64_t value) override {
    for (Number const i : selected()) things_.find(i + 1)->second.plain = value;
  }
  void UpdateIndexed(std::int64_t flip) override {
    for (Number const i : selected()) things_.find(i + 1)->second.indexed ^= flip;
  }
  void Close() override {}
  Sum Open() override { return 0; }
  std::uint64_t Bytes() override { return 0; }

 private:
  std::unordered_map<std::uint64_t, Thing> things_;
};

}  // namespace

std::unique_ptr<Engine> MakeHash() { return std::make_unique<HashEngine>(); }

}  // namespace bench
