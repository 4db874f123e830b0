#include "replace.h"

#include <algorithm>
#include <optional>

namespace sagleme::sql {
namespace {

// The object's key, or nothing where it has none that another one can have too: nulls collide with
// nothing, and neither does a key that does not change.
std::optional<std::vector<Value>> KeyOf(Transaction& transaction, Table const& table,
                                        Index const& index,
                                        std::map<std::uint16_t, Value> const& values,
                                        ObjectId self) {
  std::vector<Value> key;
  bool changed = false;
  for (IndexedColumn const& part : index.columns) {
    Column const* const column = table.FindColumn(part.name);
    if (column == nullptr) return std::nullopt;
    auto const given = values.find(column->ordinal);
    changed = changed || given != values.end();
    if (given != values.end()) {
      key.push_back(given->second);
    } else if (self.value != 0) {
      key.push_back(detail::GetValue(
          {transaction.context(), self.value, table.layout, column->ordinal}, column->type));
    } else {
      return std::nullopt;
    }
    if (IsNull(key.back())) return std::nullopt;
  }
  return changed ? std::optional(std::move(key)) : std::nullopt;
}

// A key of a search has no bytes: where they begin, the values of the objects are compared.
std::vector<Value> Searchable(std::vector<Value> key) {
  auto const is_binary = [](Value const& value) { return std::holds_alternative<Bytes>(value); };
  key.erase(std::find_if(key.begin(), key.end(), is_binary), key.end());
  return key;
}

bool HasKey(Object const& object, Index const& index, std::vector<Value> const& key,
            std::size_t from) {
  if (from == key.size()) return true;
  TablePtr const table = object.table();
  for (std::size_t i = from; table != nullptr && i < key.size(); ++i) {
    if (object.Get(*table, table->GetColumn(index.columns[i].name)) != key[i]) return false;
  }
  return table != nullptr;
}

}  // namespace

std::vector<ObjectId> InTheWay(Transaction& transaction, Table const& table,
                               std::map<std::uint16_t, Value> const& values, ObjectId self) {
  std::vector<ObjectId> found;
  TablePtr at = transaction.Find(table.name);
  for (; at != nullptr; at = at->base.empty() ? nullptr : transaction.Find(at->base)) {
    for (Index const& index : at->indexes) {
      if (!index.unique || index.handle == 0) continue;
      auto const key = KeyOf(transaction, table, index, values, self);
      if (!key.has_value()) continue;
      std::vector<Value> const searched = Searchable(*key);
      for (Object const& object : Range::Matching(transaction, index, searched)) {
        if (object.id() == self || !HasKey(object, index, *key, searched.size())) continue;
        found.push_back(object.id());
      }
    }
  }
  return found;
}

}  // namespace sagleme::sql
