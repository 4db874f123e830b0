#include "numbers.h"

#include <bit>
#include <cmath>
#include <limits>
#include <memory>

namespace sagleme::sql {
namespace {

constexpr std::uint64_t kTop = std::uint64_t{1} << 63;
constexpr double kTwo63 = 9223372036854775808.0;

std::uint64_t BitsOf(double value) {
  auto const bits = std::bit_cast<std::uint64_t>(value);
  return (bits & kTop) != 0 ? ~bits : bits | kTop;
}

double DoubleOf(std::uint64_t word) {
  return std::bit_cast<double>((word & kTop) != 0 ? word & ~kTop : ~word);
}

int CompareIntegerReal(std::int64_t integer, double real) {
  if (real < -kTwo63) return 1;
  if (real >= kTwo63) return -1;
  auto const whole = static_cast<std::int64_t>(real);
  if (integer != whole) return integer < whole ? -1 : 1;
  double const rest = real - static_cast<double>(whole);
  return rest > 0 ? -1 : rest < 0 ? 1 : 0;
}

// The first word of the span for which `holds`, which stays true from there on; one past the end
// when there is none.
template <typename Holds>
std::optional<std::uint64_t> FirstThat(WordSpan span, Holds&& holds) {
  if (!holds(span.last)) return std::nullopt;
  while (span.first < span.last) {
    std::uint64_t const middle = span.first + (span.last - span.first) / 2;
    if (holds(middle)) {
      span.last = middle;
    } else {
      span.first = middle + 1;
    }
  }
  return span.first;
}

// A column of integers against an integer, the usual case, needs no search.
bool IsPlain(Type type, Number const& number) {
  if (!number.is_integer) return false;
  if (type == Type::kLong) return true;
  bool const is_unsigned =
      type == Type::kULong || type == Type::kKey || type == Type::kBool || type == Type::kReference;
  return is_unsigned && number.integer >= 0;
}

std::uint64_t PlainWord(Type type, Number const& number) {
  auto const bits = static_cast<std::uint64_t>(number.integer);
  return type == Type::kLong ? bits ^ kTop : bits;
}

std::optional<WordSpan> PlainWordsThat(WordSpan all, Relation relation, std::uint64_t word) {
  switch (relation) {
    case Relation::kEqual:
      return WordSpan{word, word};
    case Relation::kGreaterEqual:
      return WordSpan{word, all.last};
    case Relation::kLessEqual:
      return WordSpan{all.first, word};
    case Relation::kGreater:
      if (word == all.last) return std::nullopt;
      return WordSpan{word + 1, all.last};
    case Relation::kLess:
      if (word == all.first) return std::nullopt;
      return WordSpan{all.first, word - 1};
  }
  return std::nullopt;
}

}  // namespace

int Compare(Number const& a, Number const& b) {
  if (a.is_integer && b.is_integer) return a.integer < b.integer ? -1 : a.integer > b.integer;
  if (a.is_integer) return CompareIntegerReal(a.integer, b.real);
  if (b.is_integer) return -CompareIntegerReal(b.integer, a.real);
  return a.real < b.real ? -1 : a.real > b.real;
}

std::optional<Number> NumberIn(sqlite3_value* value) {
  int type = sqlite3_value_type(value);
  if (type == SQLITE_INTEGER) return Number::Of(std::int64_t{sqlite3_value_int64(value)});
  if (type == SQLITE_FLOAT) return Number::Of(sqlite3_value_double(value));
  if (type != SQLITE_TEXT) return std::nullopt;
  // A copy: the value is SQLite's own register, which the question would change.
  std::unique_ptr<sqlite3_value, void (*)(sqlite3_value*)> const copy(sqlite3_value_dup(value),
                                                                      sqlite3_value_free);
  if (copy == nullptr) throw std::bad_alloc();
  type = sqlite3_value_numeric_type(copy.get());
  if (type == SQLITE_INTEGER) return Number::Of(std::int64_t{sqlite3_value_int64(copy.get())});
  if (type == SQLITE_FLOAT) return Number::Of(sqlite3_value_double(copy.get()));
  return std::nullopt;
}

WordSpan AllWords(Type type) {
  if (type == Type::kFloat || type == Type::kDouble) {
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    return {BitsOf(-kInfinity), BitsOf(kInfinity)};
  }
  return {0, UINT64_MAX};
}

Number Seen(Type type, std::uint64_t word) {
  switch (type) {
    case Type::kFloat:
    case Type::kDouble:
      return Number::Of(DoubleOf(word));
    case Type::kDecimal:
      return Number::Of(DecimalAsReal(static_cast<std::int64_t>(word ^ kTop)));
    case Type::kLong:
      return Number::Of(static_cast<std::int64_t>(word ^ kTop));
    default:
      if (word >= kTop) return Number::Of(static_cast<double>(word));
      return Number::Of(static_cast<std::int64_t>(word));
  }
}

std::optional<WordSpan> WordsThat(Type type, Relation relation, Number const& number) {
  WordSpan const all = AllWords(type);
  if (IsPlain(type, number)) return PlainWordsThat(all, relation, PlainWord(type, number));
  auto const at_least = [&](std::uint64_t word) { return Compare(Seen(type, word), number) >= 0; };
  auto const above = [&](std::uint64_t word) { return Compare(Seen(type, word), number) > 0; };
  auto const first = relation == Relation::kLess || relation == Relation::kLessEqual
                         ? std::optional<std::uint64_t>(all.first)
                     : relation == Relation::kGreater ? FirstThat(all, above)
                                                      : FirstThat(all, at_least);
  auto const end = relation == Relation::kGreater || relation == Relation::kGreaterEqual
                       ? std::optional<std::uint64_t>()
                   : relation == Relation::kLess ? FirstThat(all, at_least)
                                                 : FirstThat(all, above);
  if (!first.has_value() || end == all.first) return std::nullopt;
  WordSpan const found{*first, end.has_value() ? *end - 1 : all.last};
  return found.first > found.last ? std::nullopt : std::optional(found);
}

}  // namespace sagleme::sql
