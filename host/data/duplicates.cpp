#include <fmt/format.h>
#include <lscoredb/refused_key.h>

#include <sagleme/host/duplicates.hpp>
#include <sagleme/value_text.hpp>

#include "text/key_values.h"

namespace sagleme {
namespace {

Value ValueOf(Object const& object, Table const& table, std::u16string const& column,
              std::vector<NewValue> const& values) {
  for (NewValue const& each : values) {
    if (each.column->name == column) return each.value;
  }
  return object.Get(table, table.GetColumn(column));
}

std::string Describe(Index const& index, std::vector<Value> const& key, std::uint64_t holder) {
  return fmt::format("duplicate key {} in unique index {} (object {})", KeyText(key),
                     ToUtf8(index.name), holder);
}

std::string DuplicateIn(Transaction& transaction, Index const& index, Object const& object,
                        Table const& table, std::vector<NewValue> const& values) {
  std::vector<Value> key;
  for (IndexedColumn const& column : index.columns) {
    key.push_back(ValueOf(object, table, column.name, values));
    if (IsNull(key.back())) return "";                         // null collides with nothing
    if (std::holds_alternative<Bytes>(key.back())) return "";  // not to be looked up
  }
  Range range = Range::Matching(transaction, index, key);
  while (auto const holder = range.Next()) {
    if (holder->id() == object.id()) continue;
    return Describe(index, key, holder->id().value);
  }
  return "";
}

Index const* FindIndex(std::vector<TablePtr> const& tables, std::uint64_t handle) {
  for (TablePtr const& table : tables) {
    for (Index const& index : table->indexes) {
      if (index.handle == handle) return &index;
    }
  }
  return nullptr;
}

std::string DescribeRefusedCommit(Context const& context) {
  lscoredb_refused_key refused{};
  refused.size = sizeof refused;
  if (lscoredb_refused(context.id(), &refused) != 0) return "";
  std::string const key(static_cast<char const*>(refused.key), refused.key_size);
  Transaction transaction(context, Access::kReadOnly);
  std::vector<TablePtr> const tables = transaction.Tables();
  Index const* const index = FindIndex(tables, refused.index);
  return index == nullptr ? "" : Describe(*index, KeyValues(*index, key), refused.holder);
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

void Commit(Transaction& transaction, Context const& context) {
  try {
    transaction.Commit();
  } catch (Error const& error) {
    if (error.status() != LSCOREDB_DUPLICATE_KEY) throw;
    std::string described;
    try {
      described = DescribeRefusedCommit(context);
    } catch (Error const&) {  // the refusal matters more
    }
    if (described.empty()) throw;
    throw Error(LSCOREDB_DUPLICATE_KEY, described);
  }
}
}  // namespace sagleme
