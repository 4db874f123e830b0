#include "changes/table_names.h"

#include "hierarchy/column_tokens.h"

namespace sagleme {

TableNames const* NamesOfTables::Find(std::u16string const& setspec) {
  auto known = known_.find(setspec);
  if (known == known_.end()) known = known_.emplace(setspec, Read(setspec)).first;
  return known->second.has_value() ? &*known->second : nullptr;
}

std::optional<TableNames> NamesOfTables::Read(std::u16string const& setspec) const {
  Transaction transaction(context_, Access::kReadOnly);
  TablePtr const table = transaction.BySetspec(setspec);
  if (table == nullptr) return std::nullopt;
  TableNames names{table->name, table->system, {}};
  for (Column const& column : table->columns) {
    names.columns.emplace(TokenOf(transaction, *table, column), column.name);
  }
  return names;
}

}  // namespace sagleme
