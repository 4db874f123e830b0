#ifndef SAGLEME_SQL_REPLACE_H
#define SAGLEME_SQL_REPLACE_H

// The objects that OR REPLACE deletes before a row is written.

#include <cstdint>
#include <map>
#include <sagleme/host.hpp>
#include <vector>

namespace sagleme::sql {

// The objects that stand in the way of one of `table` with these values, by unique indexes. `self`
// is the object that gets the values, which also has those that are not among them; 0 for a new
// one, which has none.
std::vector<ObjectId> InTheWay(Transaction& transaction, Table const& table,
                               std::map<std::uint16_t, Value> const& values, ObjectId self);

}  // namespace sagleme::sql

#endif
