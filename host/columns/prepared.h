#ifndef SAGLEME_HOST_COLUMNS_PREPARED_H
#define SAGLEME_HOST_COLUMNS_PREPARED_H

// Hidden columns that hold the values which a column will have after a change. A job makes them and
// fills them in batches; the change itself then adopts them and writes only what differs since.

#include <optional>
#include <string>

#include "columns/subtree.h"

namespace sagleme::columns {

// Documents, SQL and dumps leave out names that begin so.
std::u16string PreparedName(std::u16string const& column);

// The table's own prepared column, null for none.
Column const* FindPrepared(Table const& table, std::u16string const& column);

// Drops the table's own prepared column, if there is one.
void DropPrepared(Transaction& transaction, std::u16string const& table,
                  std::u16string const& column);

// Takes a node's prepared column out of the edited list, under the name that it is prepared for;
// nothing if there is none, or one of another definition, which then goes.
std::optional<OwnColumn> TakePrepared(Node& node, OwnColumn const& wanted);

}  // namespace sagleme::columns

#endif
