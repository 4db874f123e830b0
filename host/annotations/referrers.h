#ifndef SAGLEME_HOST_ANNOTATIONS_REFERRERS_H
#define SAGLEME_HOST_ANNOTATIONS_REFERRERS_H

#include <sagleme/host.hpp>
#include <string>
#include <vector>

namespace sagleme::detail {

// The table's own index that begins with a column; null if there is none.
Index const* IndexBeginningWith(Table const& table, std::u16string const& column);

// The objects whose reference column, declared by `table`, leads to the target.
std::vector<Object> FindReferrers(Transaction& transaction, Table const& table,
                                  Column const& column, ObjectId target);

// Whether there is one. Reads the first entry of an index, or objects up to the first that refers.
bool HasReferrer(Transaction& transaction, Table const& table, Column const& column,
                 ObjectId target);

// The name of the index that a rule makes if no index begins with its column.
std::string ReferrerIndexName(std::string const& table, std::string const& column);

}  // namespace sagleme::detail

#endif
