#ifndef SAGLEME_SQL_NUMBERS_H
#define SAGLEME_SQL_NUMBERS_H

// Numbers as SQLite has them, and the order of a column's words by what SQLite sees of them.
//
// An index orders a numeric column by an unsigned word: an unsigned number as it is, a signed one
// with its top bit flipped, a floating-point number by bits that sort. SQLite holds integers of 64
// signed bits and doubles, so it sees an unsigned number from 2^63 on, and a decimal, as the
// nearest double. That keeps the order but joins neighbours, and bounds are found by what is seen.

#include <cstdint>
#include <optional>
#include <sagleme/host.hpp>

#include "api.h"

namespace sagleme::sql {

struct Number {
  bool is_integer = true;
  std::int64_t integer = 0;
  double real = 0;

  static Number Of(std::int64_t value) { return {true, value, 0}; }
  static Number Of(double value) { return {false, 0, value}; }
  double AsReal() const { return is_integer ? static_cast<double>(integer) : real; }
};

// Exact, as SQLite compares: below 0, 0, above 0. REQUIRES: neither is NaN.
int Compare(Number const& a, Number const& b);

// The number in a value after numeric affinity; nothing for NULL, texts that are none, and blobs.
std::optional<Number> NumberIn(sqlite3_value* value);

struct WordSpan {
  std::uint64_t first;
  std::uint64_t last;
};

// The words of a column of that type that can be numbers to SQLite.
WordSpan AllWords(Type type);
// What SQLite sees for a word of such a column.
Number Seen(Type type, std::uint64_t word);
// The words whose number compares so; nothing when there is none.
enum class Relation { kEqual, kGreater, kGreaterEqual, kLess, kLessEqual };
std::optional<WordSpan> WordsThat(Type type, Relation relation, Number const& number);

inline double DecimalAsReal(std::int64_t millionths) {
  return static_cast<double>(millionths) / 1e6;
}

}  // namespace sagleme::sql

#endif
