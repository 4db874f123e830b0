#ifndef SAGLEME_HOST_HIERARCHY_REFUSED_KEY_H
#define SAGLEME_HOST_HIERARCHY_REFUSED_KEY_H

// The words for a key that keeps an object out of another table.

#include <sagleme/host.hpp>
#include <string>
#include <utility>
#include <vector>

namespace sagleme {

// A column of an object's table, and the one that gets its value.
using ColumnPairs = std::vector<std::pair<Column const*, Column const*>>;

// The key that a unique index of `to` holds already, its index and its holder. REQUIRES: the object
// is of `from`, and the pairs are columns of `from` and of `to`.
std::string DescribeRefusedKey(Transaction& transaction, Object const& object, Table const& from,
                               Table const& to, ColumnPairs const& kept);

}  // namespace sagleme

#endif
