#ifndef SAGLEME_HOST_SCHEMA_DOUBTS_H
#define SAGLEME_HOST_SCHEMA_DOUBTS_H

// Removed entries of a schema, each with a new one that may be the same under another name.
// Considers only unpaired entries, and none that is marked as new.

#include <functional>
#include <map>
#include <sagleme/schema_plan.hpp>
#include <vector>

namespace sagleme {

template <typename Doc>
using Pairs = std::map<Doc const*, Doc const*>;  // entries of the new schema -> of the old one

// Whether an entry can be renamed into the other: all but the name fits.
template <typename Doc>
using Fits = std::function<bool(Doc const& before, Doc const& after)>;

// Tables that share at least half of the columns of the removed one.
std::vector<Doubt> DoubtTables(SchemaDoc const& from, SchemaDoc const& to,
                               Pairs<TableDoc> const& pairs, Fits<TableDoc> const& fits);

// Columns of one table at the same position: before or after the same remaining column.
std::vector<Doubt> DoubtColumns(TableDoc const& before, TableDoc const& after,
                                Pairs<ColumnDoc> const& pairs, Fits<ColumnDoc> const& fits);

}  // namespace sagleme

#endif
