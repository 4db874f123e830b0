#include "order.h"

#include <algorithm>
#include <cmath>

#include "text.h"

namespace sagleme::sql {
namespace {

constexpr std::uint64_t kExact = std::uint64_t{1} << 53;  // integers up to it are doubles

bool AlwaysPlain(Type type) {
  return type == Type::kLong || type == Type::kBool || type == Type::kReference;
}

detail::ColumnLocation Kernel(ValueLocation const& at) {
  return {at.context, at.oid, at.addr, at.column};
}

int CompareKeys(bool null_a, bool null_b, int order) {
  if (null_a || null_b) return static_cast<int>(null_b) - static_cast<int>(null_a);
  return order;
}

}  // namespace

bool RunOrder::needed() const {
  return !std::all_of(columns_->begin(), columns_->end(),
                      [](OrderColumn const& column) { return AlwaysPlain(column.type); });
}

bool RunOrder::IsPlain(RowId const& row, OrderColumn const& column) const {
  if (AlwaysPlain(column.type)) return true;
  ReadScope const scope(context_);
  Value const value = detail::GetValue(Kernel(At(row, column)), column.type);
  if (auto const* const text = std::get_if<std::u16string>(&value)) {
    return std::none_of(text->begin(), text->end(), [](char16_t unit) { return unit >= 0xD800; });
  }
  if (auto const* const number = std::get_if<std::uint64_t>(&value)) return *number <= kExact;
  if (auto const* const decimal = std::get_if<Decimal>(&value)) {
    auto const most = static_cast<std::int64_t>(kExact);
    return decimal->millionths <= most && decimal->millionths >= -most;
  }
  if (auto const* const real = std::get_if<double>(&value)) return *real != 0 && !std::isnan(*real);
  if (auto const* const real = std::get_if<float>(&value)) return *real != 0 && !std::isnan(*real);
  return true;
}

bool RunOrder::IsPlain(RowId const& row) const {
  return std::all_of(columns_->begin(), columns_->end(),
                     [&](OrderColumn const& column) { return IsPlain(row, column); });
}

RunOrder::Key RunOrder::KeyOf(RowId const& row, OrderColumn const& column) const {
  ReadScope const scope(context_);
  Value const value = detail::GetValue(Kernel(At(row, column)), column.type);
  Key key;
  key.null = sagleme::IsNull(value);
  auto const real = [&key](double seen) {
    key.null = std::isnan(seen);
    key.number = Number::Of(seen);
  };
  if (auto const* text = std::get_if<std::u16string>(&value)) key.text = ToSqlText(*text);
  if (auto const* number = std::get_if<std::int64_t>(&value)) key.number = Number::Of(*number);
  if (auto const* number = std::get_if<std::uint64_t>(&value)) {
    key.number = Seen(Type::kULong, *number);
  }
  if (auto const* id = std::get_if<ObjectId>(&value)) key.number = Seen(Type::kULong, id->value);
  if (auto const* flag = std::get_if<bool>(&value)) key.number = Number::Of(std::int64_t{*flag});
  if (auto const* decimal = std::get_if<Decimal>(&value)) real(DecimalAsReal(decimal->millionths));
  if (auto const* number = std::get_if<double>(&value)) real(*number);
  if (auto const* number = std::get_if<float>(&value)) real(static_cast<double>(*number));
  return key;
}

void RunOrder::Sort(std::vector<RowId>& run) const {
  if (run.size() < 2) return;
  struct Row {
    RowId id;
    std::vector<Key> keys;
  };
  std::vector<Row> rows;
  for (RowId const& id : run) {
    rows.push_back({id, {}});
    for (OrderColumn const& column : *columns_) rows.back().keys.push_back(KeyOf(id, column));
  }
  std::stable_sort(rows.begin(), rows.end(), [&](Row const& a, Row const& b) {
    for (std::size_t i = 0; i < columns_->size(); ++i) {
      Key const& left = a.keys[i];
      Key const& right = b.keys[i];
      int const order = (*columns_)[i].type == Type::kString ? left.text.compare(right.text)
                        : left.null || right.null            ? 0
                                                             : Compare(left.number, right.number);
      int const result = CompareKeys(left.null, right.null, order);
      if (result != 0) return (*columns_)[i].descending ? result > 0 : result < 0;
    }
    return false;
  });
  for (std::size_t i = 0; i < rows.size(); ++i) run[i] = rows[i].id;
}

}  // namespace sagleme::sql
