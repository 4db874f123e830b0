#include "schema/refused_build.h"

#include <lscoredb/refused_key.h>

#include <algorithm>

#include "text/key_values.h"

namespace sagleme {
namespace {

Index IndexOf(Transaction& transaction, change::CreateIndex const& created) {
  TablePtr const table = transaction.table(ToUtf16(created.table));
  Index index;
  for (IndexColumnDoc const& column : created.index.columns) {
    Column const& own = table->GetColumn(ToUtf16(column.name));
    index.columns.push_back({own.name, own.type, !column.descending});
  }
  return index;
}

}  // namespace

std::optional<RefusedBuild> FindRefusedBuild(Transaction& transaction,
                                             change::CreateIndex const& refused) {
  lscoredb_refused_key key{};
  key.size = sizeof key;
  if (lscoredb_refused(transaction.context(), &key) != 0) return std::nullopt;
  std::string_view const bytes(static_cast<char const*>(key.key), key.key_size);
  auto const [first, second] = std::minmax(key.object, key.holder);
  return RefusedBuild{KeyText(KeyValues(IndexOf(transaction, refused), bytes)), {first}, {second}};
}

}  // namespace sagleme
