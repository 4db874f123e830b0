#ifndef SAGLEME_HOST_SCHEMA_DOUBTS_H
#define SAGLEME_HOST_SCHEMA_DOUBTS_H

// Entries of a schema that are gone, each with one that has come and may be the same by another
// name. Only entries that nothing pairs are looked at, and none that is said to be new.

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

// Tables that share at least half of the columns of the one that is gone.
std::vector<Doubt> DoubtTables(SchemaDoc const& from, SchemaDoc const& to,
                               Pairs<TableDoc> const& pairs, Fits<TableDoc> const& fits);

// Columns of one table that stand in the same place: before or behind the same column that stays.
std::vector<Doubt> DoubtColumns(TableDoc const& before, TableDoc const& after,
                                Pairs<ColumnDoc> const& pairs, Fits<ColumnDoc> const& fits);

}  // namespace sagleme

#endif
