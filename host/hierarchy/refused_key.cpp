#include "hierarchy/refused_key.h"

#include <sagleme/host/duplicates.hpp>

namespace sagleme {
namespace {

Value ZeroOf(Type type) {
  switch (type) {
    case Type::kLong:
      return std::int64_t{0};
    case Type::kULong:
    case Type::kKey:
      return std::uint64_t{0};
    case Type::kDecimal:
      return Decimal{};
    case Type::kFloat:
      return 0.0F;
    case Type::kDouble:
      return 0.0;
    case Type::kBool:
      return false;
    default:
      return Null{};
  }
}

}  // namespace

std::string DescribeRefusedKey(Transaction& transaction, Object const& object, Table const& from,
                               Table const& to, ColumnPairs const& kept) {
  std::vector<NewValue> values;
  for (Column const& column : to.columns) {
    if (column.system()) continue;
    Value value = Null{};
    for (auto const& [old_column, new_column] : kept) {
      if (new_column == &column) value = object.Get(from, *old_column);
    }
    if (IsNull(value) && !column.nullable) value = ZeroOf(column.type);
    values.push_back({&column, std::move(value)});
  }
  std::string const text = DescribeDuplicate(transaction, object, to, values);
  return text.empty() ? "a unique index already holds its key" : text;
}

}  // namespace sagleme
