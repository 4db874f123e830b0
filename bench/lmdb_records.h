#ifndef SAGLEME_BENCH_LMDB_RECORDS_H
#define SAGLEME_BENCH_LMDB_RECORDS_H

// Objects as rows and index entries of LMDB.

#include <lmdb.h>

#include <cstring>
#include <stdexcept>

#include "dataset.h"

namespace bench {

inline void Check(int code) {
  if (code != 0) throw std::runtime_error(mdb_strerror(code));
}

inline constexpr std::uint8_t kByTable = 0;
inline constexpr std::uint8_t kByName = 1;
inline constexpr std::uint8_t kByIndexed = 2;

struct Record {
  std::int64_t plain;
  std::int64_t indexed;
  double weight;
  std::uint64_t other;
  std::uint32_t table;
  char16_t name[kNameUnits];
};

inline std::uint64_t Big(std::uint64_t value) { return __builtin_bswap64(value); }

// An index number, a value and an identity, in the order of their bytes.
struct Key {
  template <typename Value>
  Key(std::uint8_t index, Value const* value, std::size_t size, std::uint64_t id) {
    bytes[0] = static_cast<char>(index);
    std::memcpy(bytes + 1, value, size);
    std::uint64_t const big = Big(id);
    std::memcpy(bytes + 1 + size, &big, sizeof big);
    length = 1 + size + sizeof big;
  }
  MDB_val val() { return {length, bytes}; }
  char bytes[64];
  std::size_t length;
};

inline Key TableKey(Record const& record, std::uint64_t id) {
  return {kByTable, &record.table, sizeof record.table, id};
}
// Names are letters of one byte each.
inline Key NameKey(char16_t const* name, std::uint64_t id) {
  char letters[kNameUnits];
  for (std::size_t i = 0; i < kNameUnits; ++i) letters[i] = static_cast<char>(name[i]);
  return {kByName, letters, sizeof letters, id};
}
inline Key IndexedKey(std::int64_t value, std::uint64_t id) {
  std::uint64_t const big = Big(static_cast<std::uint64_t>(value) ^ std::uint64_t{1} << 63);
  return {kByIndexed, &big, sizeof big, id};
}

inline Record RecordOf(Thing const& thing) {
  Record record{};
  record.plain = thing.plain;
  record.indexed = thing.indexed;
  record.weight = thing.weight;
  record.other = thing.other + std::uint64_t{1};
  record.table = thing.table;
  std::memcpy(record.name, thing.name.data(), sizeof record.name);
  return record;
}

}  // namespace bench

#endif
