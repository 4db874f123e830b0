#include "data/duplicates.h"

#include <fmt/format.h>

#include "output/text.h"
#include "output/value_text.h"

namespace tool {
namespace {

sagleme::Value ValueOf(sagleme::Object const& object, sagleme::Table const& table,
                       std::u16string const& column, std::vector<NewValue> const& values) {
  for (NewValue const& each : values) {
    if (each.column->name == column) return each.value;
  }
  return object.Get(table, table.GetColumn(column));
}

std::string KeyText(std::vector<sagleme::Value> const& key) {
  std::string text;
  for (sagleme::Value const& value : key) {
    bool const quoted = std::holds_alternative<std::u16string>(value);
    std::string const part = ValueText(value);
    text += (text.empty() ? "" : ", ") + (quoted ? "\"" + Visible(part) + "\"" : part);
  }
  return text;
}

std::string DuplicateIn(sagleme::Transaction& transaction, sagleme::Index const& index,
                        sagleme::Object const& object, sagleme::Table const& table,
                        std::vector<NewValue> const& values) {
  std::vector<sagleme::Value> key;
  for (sagleme::IndexedColumn const& column : index.columns) {
    key.push_back(ValueOf(object, table, column.name, values));
    if (sagleme::IsNull(key.back())) return "";  // null collides with nothing
  }
  sagleme::Range range = sagleme::Range::Matching(transaction, index, key);
  while (auto const holder = range.Next()) {
    if (holder->id() == object.id()) continue;
    return fmt::format("duplicate key {} in unique index {} (object {})", KeyText(key),
                       sagleme::ToUtf8(index.name), holder->id().value);
  }
  return "";
}

}  // namespace

std::string DescribeDuplicate(sagleme::Transaction& transaction, sagleme::Object const& object,
                              sagleme::Table const& table, std::vector<NewValue> const& values) {
  for (sagleme::TablePtr at = transaction.table(table.name); at != nullptr;
       at = at->base.empty() ? nullptr : transaction.table(at->base)) {
    for (sagleme::Index const& index : at->indexes) {
      if (!index.unique) continue;
      std::string text = DuplicateIn(transaction, index, object, table, values);
      if (!text.empty()) return text;
    }
  }
  return "";
}

}  // namespace tool
