#ifndef SAGLEME_HOST_OWN_COLUMNS_HPP
#define SAGLEME_HOST_OWN_COLUMNS_HPP

// The two columns that lists and files have beside those of the table: the object's id and its
// table. They are called _oid and _table. If the table or one derived from it has a column of that
// name, they are called __oid and __table, which no column can be.

#include <sagleme/export.h>

#include <sagleme/host.hpp>
#include <string>
#include <string_view>

namespace sagleme {

struct OwnColumns {
  std::string id = "_oid";
  std::string table = "_table";
};

// For lists of objects of that table and of those derived from it.
SAGLEME_HOST_API OwnColumns OwnColumnsOf(Transaction& transaction, Table const& table);

}  // namespace sagleme

#endif
