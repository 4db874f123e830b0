#ifndef SAGLEME_BENCH_DATASET_H
#define SAGLEME_BENCH_DATASET_H

// The objects that all engines hold. What an object is follows from its number, so that every
// engine's answers can be compared.

#include <array>
#include <cstdint>
#include <string>

namespace bench {

using Number = std::uint32_t;  // of an object, from 0

inline constexpr std::uint32_t kTables = 4;  // a base and three tables below it
inline constexpr std::size_t kNameUnits = 16;

struct Thing {
  std::uint32_t table;
  std::int64_t plain;
  std::int64_t indexed;  // distinct
  double weight;
  std::array<char16_t, kNameUnits + 1> name;  // indexed, distinct
  Number other;                               // an object that was made before, or itself
};

// Numbers next to each other have values that are not, so that indexes are filled in no order.
inline std::uint64_t Mixed(std::uint64_t number) {
  number = (number ^ (number >> 30)) * 0xBF58476D1CE4E5B9;
  number = (number ^ (number >> 27)) * 0x94D049BB133111EB;
  return number ^ (number >> 31);
}

inline Thing MakeThing(Number number) {
  std::uint64_t const mixed = Mixed(number + std::uint64_t{1});
  Thing thing{};
  thing.table = number % kTables;
  thing.plain = static_cast<std::int64_t>(mixed % 1000000);
  thing.indexed = static_cast<std::int64_t>(mixed >> 1);
  thing.weight = static_cast<double>(mixed % 4096) / 16;
  for (std::size_t i = 0; i < kNameUnits; ++i) {
    thing.name[i] = static_cast<char16_t>(u'a' + (mixed >> (4 * i) & 15));
  }
  thing.other = static_cast<Number>(mixed % (number + std::uint64_t{1}));
  return thing;
}

}  // namespace bench

#endif
