#include <fmt/format.h>

#include <sagleme/host/duplicates.hpp>
#include <sagleme/value_text.hpp>

namespace sagleme {
namespace {

Value ValueOf(Object const& object, Table const& table, std::u16string const& column,
              std::vector<NewValue> const& values) {
  for (NewValue const& each : values) {
    if (each.column->name == column) return each.value;
  }
  return object.Get(table, table.GetColumn(column));
}

std::string KeyText(std::vector<Value> const& key) {
  std::string text;
  for (Value const& value : key) {
    bool const quoted = std::holds_alternative<std::u16string>(value);
    std::string const part = ValueText(value);
    text += (text.empty() ? "" : ", ") + (quoted ? "\"" + Visible(part) + "\"" : part);
  }
  return text;
}

std::string DuplicateIn(Transaction& transaction, Index const& index, Object const& object,
                        Table const& table, std::vector<NewValue> const& values) {
  std::vector<Value> key;
  for (IndexedColumn const& column : index.columns) {
    key.push_back(ValueOf(object, table, column.name, values));
    if (IsNull(key.back())) return "";  // null collides with nothing
  }
  Range range = Range::Matching(transaction, index, key);
  while (auto const holder = range.Next()) {
    if (holder->id() == object.id()) continue;
    return fmt::format("duplicate key {} in unique index {} (object {})", KeyText(key),
                       ToUtf8(index.name), holder->id().value);
  }
  return "";
}

}  // namespace

std::string DescribeDuplicate(Transaction& transaction, Object const& object, Table const& table,
                              std::vector<NewValue> const& values) {
  for (TablePtr at = transaction.table(table.name); at != nullptr;
       at = at->base.empty() ? nullptr : transaction.table(at->base)) {
    for (Index const& index : at->indexes) {
      if (!index.unique) continue;
      std::string text = DuplicateIn(transaction, index, object, table, values);
      if (!text.empty()) return text;
    }
  }
  return "";
}

}  // namespace sagleme
