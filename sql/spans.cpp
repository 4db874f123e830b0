#include "spans.h"

#include <algorithm>

#include "text.h"

namespace sagleme::sql {
namespace {

constexpr char16_t kFirstHigh = 0xD800;  // the first unit for which the two orders can differ
constexpr char16_t kReplacement = 0xFFFD;
// Above everything that begins like a number.
constexpr char16_t kAboveNumbers[] = u":";

std::size_t PlainLength(std::u16string const& text) {
  auto const high =
      std::find_if(text.begin(), text.end(), [](char16_t c) { return c >= kFirstHigh; });
  return static_cast<std::size_t>(high - text.begin());
}

bool IsPlain(std::u16string const& text) { return PlainLength(text) == text.size(); }

std::vector<Span> EqualText(std::u16string const& text) {
  // A lone surrogate reads as a replacement character.
  if (text.find(kReplacement) == std::u16string::npos) {
    std::vector<Span> point(1);
    point.front().first = Bound::Text(text);
    point.front().last = Bound::Text(text);
    return point;
  }
  std::u16string const plain = text.substr(0, PlainLength(text));
  return {{Bound::Text(plain), Bound::Above(plain)}};
}

std::vector<Span> TextFrom(std::u16string const& text) {
  return {{Bound::Text(text.substr(0, PlainLength(text))), Bound::Above(u"")}};
}

// Against a column of numbers that holds a text SQLite compares texts that look like numbers as
// numbers, which are below any text: those must not be left out.
std::vector<Span> TextUpTo(std::u16string const& text) {
  Bound last = IsPlain(text) ? Bound::Text(text) : Bound::Above(text.substr(0, PlainLength(text)));
  if (Compare(last, Bound::Text(kAboveNumbers)) < 0) last = Bound::Text(kAboveNumbers);
  return {{Bound::Text(u""), last}};
}

Span BeginningWith(std::u16string const& text) { return {Bound::Text(text), Bound::Above(text)}; }

// What a pattern begins with before its first wildcard.
std::u16string Beginning(std::u16string const& pattern, std::u16string_view wildcards) {
  return pattern.substr(0, std::min(pattern.find_first_of(wildcards), PlainLength(pattern)));
}

bool IsLetter(char16_t c) { return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z'); }

// LIKE ignores the case of ASCII letters: the first few in both cases, so that the spans stay few.
std::vector<Span> LikeSpans(std::u16string const& pattern) {
  constexpr std::size_t kVariants = 16;
  std::vector<std::u16string> beginnings{u""};
  for (char16_t const c : Beginning(pattern, u"%_")) {
    if (IsLetter(c) && beginnings.size() * 2 > kVariants) break;
    std::vector<std::u16string> longer;
    for (std::u16string const& each : beginnings) {
      longer.push_back(each + (IsLetter(c) ? static_cast<char16_t>(c & ~0x20) : c));
      if (IsLetter(c)) longer.push_back(each + static_cast<char16_t>(c | 0x20));
    }
    beginnings = std::move(longer);
  }
  std::vector<Span> spans;
  for (std::u16string const& each : beginnings) spans.push_back(BeginningWith(each));
  Normalise(spans);
  return spans;
}

// `value` is a text.
std::vector<Span> TextSpans(int op, sqlite3_value* value) {
  auto const text = TextIn(value);
  if (!text.has_value()) return {AllButNull(Type::kString)};
  switch (op) {
    case SQLITE_INDEX_CONSTRAINT_EQ:
    case SQLITE_INDEX_CONSTRAINT_IS:
      return EqualText(*text);
    case SQLITE_INDEX_CONSTRAINT_GT:
    case SQLITE_INDEX_CONSTRAINT_GE:
      return TextFrom(*text);
    case SQLITE_INDEX_CONSTRAINT_LT:
    case SQLITE_INDEX_CONSTRAINT_LE:
      return TextUpTo(*text);
    case SQLITE_INDEX_CONSTRAINT_GLOB:
      return {BeginningWith(Beginning(*text, u"*?["))};
    case SQLITE_INDEX_CONSTRAINT_LIKE:
      return LikeSpans(*text);
    default:
      return {AllButNull(Type::kString)};
  }
}

Relation RelationOf(int op) {
  switch (op) {
    case SQLITE_INDEX_CONSTRAINT_GT:
      return Relation::kGreater;
    case SQLITE_INDEX_CONSTRAINT_GE:
      return Relation::kGreaterEqual;
    case SQLITE_INDEX_CONSTRAINT_LT:
      return Relation::kLess;
    case SQLITE_INDEX_CONSTRAINT_LE:
      return Relation::kLessEqual;
    default:
      return Relation::kEqual;
  }
}

bool IsUpper(int op) {
  return op == SQLITE_INDEX_CONSTRAINT_LT || op == SQLITE_INDEX_CONSTRAINT_LE;
}

// Whatever is no number and not null is above all numbers.
std::vector<Span> NumberSpans(Type type, int op, sqlite3_value* value) {
  auto const number = NumberIn(value);
  if (!number.has_value()) {
    return IsUpper(op) ? std::vector<Span>{AllButNull(type)} : std::vector<Span>{};
  }
  auto const words = WordsThat(type, RelationOf(op), *number);
  if (!words.has_value()) return {};
  return {{Bound::Word(words->first), Bound::Word(words->last)}};
}

std::vector<Span> NullSpans(Type type, int op) {
  if (op != SQLITE_INDEX_CONSTRAINT_IS && op != SQLITE_INDEX_CONSTRAINT_ISNULL) return {};
  // What is not a number reads as NULL and stands among the numbers.
  bool const floating = type == Type::kFloat || type == Type::kDouble;
  if (floating) return {Everything(type)};
  return {{Bound::Null(), Bound::Null()}};
}

}  // namespace

int Compare(Bound const& a, Bound const& b) {
  auto const is_null = [](Bound const& each) { return each.kind == Bound::Kind::kNull; };
  if (is_null(a) || is_null(b)) return static_cast<int>(is_null(b)) - static_cast<int>(is_null(a));
  if (a.kind == Bound::Kind::kWord) return a.word < b.word ? -1 : a.word > b.word;
  bool const above_a = a.kind == Bound::Kind::kAboveText;
  bool const above_b = b.kind == Bound::Kind::kAboveText;
  // A bound above a text is above everything that begins with it.
  if (above_a && b.text.starts_with(a.text)) return above_b && a.text == b.text ? 0 : 1;
  if (above_b && a.text.starts_with(b.text)) return -1;
  int const order = a.text.compare(b.text);
  return order < 0 ? -1 : order > 0;
}

bool Span::IsPoint() const {
  return first.kind != Bound::Kind::kAboveText && Compare(first, last) == 0;
}

Span AllButNull(Type type) {
  if (type == Type::kString) return {Bound::Text(u""), Bound::Above(u"")};
  return {Bound::Word(0), Bound::Word(UINT64_MAX)};
}

Span Everything(Type type) { return {Bound::Null(), AllButNull(type).last}; }

std::vector<Span> SpansOf(Type type, int op, sqlite3_value* value) {
  int const given = sqlite3_value_type(value);
  if (op == SQLITE_INDEX_CONSTRAINT_ISNULL || given == SQLITE_NULL) return NullSpans(type, op);
  if (type != Type::kString) return NumberSpans(type, op, value);
  if (given == SQLITE_TEXT) return TextSpans(op, value);
  // A blob is above all texts. A number is compared as a text or as a number, which depends on what
  // it came from.
  bool const pattern = op == SQLITE_INDEX_CONSTRAINT_LIKE || op == SQLITE_INDEX_CONSTRAINT_GLOB;
  if (given == SQLITE_BLOB && !IsUpper(op) && !pattern) return {};
  return {AllButNull(type)};
}

std::optional<Span> Intersection(Span const& a, Span const& b) {
  Span const both{Compare(a.first, b.first) < 0 ? b.first : a.first,
                  Compare(a.last, b.last) < 0 ? a.last : b.last};
  if (Compare(both.first, both.last) > 0) return std::nullopt;
  return both;
}

void Normalise(std::vector<Span>& spans) {
  std::sort(spans.begin(), spans.end(),
            [](Span const& a, Span const& b) { return Compare(a.first, b.first) < 0; });
  std::vector<Span> joined;
  for (Span& span : spans) {
    if (!joined.empty() && Compare(span.first, joined.back().last) <= 0) {
      if (Compare(joined.back().last, span.last) < 0) joined.back().last = std::move(span.last);
    } else {
      joined.push_back(std::move(span));
    }
  }
  spans = std::move(joined);
}

}  // namespace sagleme::sql
