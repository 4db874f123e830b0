#ifndef SAGLEME_HOST_COLUMNS_REQUESTS_H
#define SAGLEME_HOST_COLUMNS_REQUESTS_H

// What is asked for, as tables and columns. Each function throws what the header of column changes
// says of a request that cannot be met, before anything changes.

#include <string>
#include <vector>

#include "columns/convert.h"

namespace sagleme::columns {

struct PullUp {
  TablePtr table;
  TablePtr base;
  Column const* column = nullptr;  // of `table`
  std::vector<TablePtr> merged;    // other tables that declare an equal column
};
PullUp RequirePullUp(Transaction& transaction, Text const& table, Text const& column,
                     Text const& base);

struct PushDown {
  TablePtr base;
  Column const* column = nullptr;
  std::vector<TablePtr> tables;
};
PushDown RequirePushDown(Transaction& transaction, Text const& table, Text const& column,
                         std::span<Text const> tables);
// Writes null, or zero, into objects that will not have the column. They keep their stored form,
// and the column its identity: it would bring their values back if it returned to their table.
void ClearLost(Transaction& transaction, PushDown const& request);

struct Retype {
  TablePtr table;
  Column const* column = nullptr;  // as it is
  Wanted wanted;
  LS_OBJ_REF data_type{};
  bool same = false;       // nothing to do
  bool same_form = false;  // stored values stay
};
Retype RequireRetype(Transaction& transaction, Text const& table, ColumnSpec const& column);

Wanted WantedOf(Column const& column);
// "long", "a reference to Library.Person", "long without null".
std::string Described(ColumnSpec const& column);

}  // namespace sagleme::columns

#endif
