#include "skip.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace sagleme::sql {
namespace {

constexpr unsigned kStepsBetweenLooks = 16;
constexpr char16_t kFirstHigh = 0xD800;  // where the order of SQLite begins to differ

std::optional<Bound> BehindText(std::u16string const& text) {
  bool const plain =
      std::none_of(text.begin(), text.end(), [](char16_t unit) { return unit >= kFirstHigh; });
  if (!plain) return std::nullopt;
  return Bound::Text(text + u'\x1');
}

std::optional<Number> NumberOf(Value const& value) {
  if (auto const* number = std::get_if<std::int64_t>(&value)) return Number::Of(*number);
  if (auto const* flag = std::get_if<bool>(&value)) return Number::Of(std::int64_t{*flag});
  if (auto const* number = std::get_if<std::uint64_t>(&value)) return Seen(Type::kULong, *number);
  if (auto const* id = std::get_if<ObjectId>(&value)) return Seen(Type::kULong, id->value);
  if (auto const* decimal = std::get_if<Decimal>(&value)) {
    return Number::Of(DecimalAsReal(decimal->millionths));
  }
  if (auto const* real = std::get_if<double>(&value)) return Number::Of(*real);
  if (auto const* real = std::get_if<float>(&value)) return Number::Of(double{*real});
  return std::nullopt;
}

std::optional<Bound> BehindNumber(Type type, Number const& number, bool falling) {
  if (!number.is_integer && std::isnan(number.real)) return std::nullopt;
  auto const words = WordsThat(type, falling ? Relation::kLess : Relation::kGreater, number);
  if (!words.has_value()) return std::nullopt;
  return Bound::Word(falling ? words->last : words->first);
}

// There is no greatest text below another one.
std::optional<Bound> BehindValue(Type type, Value const& value, bool falling) {
  if (IsNull(value)) return falling ? std::nullopt : std::optional(AllButNull(type).first);
  if (auto const* const text = std::get_if<std::u16string>(&value)) {
    return falling ? std::nullopt : BehindText(*text);
  }
  auto const number = NumberOf(value);
  return number.has_value() ? BehindNumber(type, *number, falling) : std::nullopt;
}

}  // namespace

void EqualRowSkip::Start(OrderColumn const& column, bool falling, std::vector<std::uint16_t> same) {
  on_ = true;
  column_ = column;
  falling_ = falling;
  same_ = std::move(same);
  other_read_ = false;
  steps_ = 0;
  before_.reset();
}

void EqualRowSkip::NoteRead(std::uint16_t ordinal) {
  if (std::find(same_.begin(), same_.end(), ordinal) == same_.end()) other_read_ = true;
}

std::optional<Bound> EqualRowSkip::Behind(std::uint64_t context, RowId const& row) {
  bool const may = !std::exchange(other_read_, false);
  if (++steps_ < kStepsBetweenLooks || !may) return std::nullopt;
  steps_ = 0;
  ReadScope const scope(context);
  Value value = detail::GetValue({context, row.oid, row.addr, column_.ordinal}, column_.type);
  bool const repeats = before_ == value;
  before_ = value;
  if (!repeats) return std::nullopt;
  steps_ = kStepsBetweenLooks - 1;  // the next row is the first of its value
  return BehindValue(column_.type, value, falling_);
}

}  // namespace sagleme::sql
