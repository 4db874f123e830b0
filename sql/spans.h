#ifndef SAGLEME_SQL_SPANS_H
#define SAGLEME_SQL_SPANS_H

// The values of one column of an index that satisfy an SQL condition.
//
// SQLite orders texts by their UTF-8 bytes, which is by code point; an index orders them by UTF-16
// units. The two differ only where a surrogate stands against a unit above the surrogates, so they
// agree for any text against one whose units are all below 0xD800. A bound with other units is cut
// in front of the first of them, which lets more through than asked for, and SQLite looks at each
// row again.

#include <optional>
#include <string>
#include <vector>

#include "numbers.h"

namespace sagleme::sql {

// One end of a span, in the order of the index.
struct Bound {
  enum class Kind { kNull, kWord, kText, kAboveText };
  Kind kind = Kind::kNull;
  std::uint64_t word = 0;
  std::u16string text = {};

  static Bound Null() { return {}; }
  static Bound Word(std::uint64_t word) { return {Kind::kWord, word, {}}; }
  static Bound Text(std::u16string text) { return {Kind::kText, 0, std::move(text)}; }
  // Above all texts that begin so.
  static Bound Above(std::u16string text) { return {Kind::kAboveText, 0, std::move(text)}; }
};

struct Span {
  Bound first;
  Bound last;

  // Whether it holds a single value.
  bool IsPoint() const;
};

// The order of bounds, below 0, 0 or above 0.
int Compare(Bound const& a, Bound const& b);

// All values of a column but null, and null too.
Span AllButNull(Type type);
Span Everything(Type type);

// A condition `column op value` for an op among SQLITE_INDEX_CONSTRAINT_*. The spans do not
// overlap, come in rising order and hold all values for which it is true; maybe others.
std::vector<Span> SpansOf(Type type, int op, sqlite3_value* value);
// The values that two conditions leave.
std::optional<Span> Intersection(Span const& a, Span const& b);
// In rising order, those that touch joined.
void Normalise(std::vector<Span>& spans);

}  // namespace sagleme::sql

#endif
