#include "columns/prepared.h"

namespace sagleme::columns {

std::u16string PreparedName(std::u16string const& column) { return u"__next_" + column; }

Column const* FindPrepared(Table const& table, std::u16string const& column) {
  Column const* const found = table.FindColumn(PreparedName(column));
  return found == nullptr || found->inherited ? nullptr : found;
}

void DropPrepared(Transaction& transaction, std::u16string const& table,
                  std::u16string const& column) {
  if (FindPrepared(*transaction.table(table), column) == nullptr) return;
  DropColumn(transaction, table, PreparedName(column));
}

std::optional<OwnColumn> TakePrepared(Node& node, OwnColumn const& wanted) {
  if (FindPrepared(*node.before, wanted.name) == nullptr) return std::nullopt;
  OwnColumn prepared = Subtree::Take(node, PreparedName(wanted.name));
  bool const fits = prepared.type == wanted.type && prepared.nullable == wanted.nullable &&
                    prepared.data_type.oid == wanted.data_type.oid;
  if (!fits) return std::nullopt;
  prepared.name = wanted.name;
  return prepared;
}

}  // namespace sagleme::columns
