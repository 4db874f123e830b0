#ifndef SAGLEME_TOOL_DATA_DUMP_H
#define SAGLEME_TOOL_DATA_DUMP_H

// A whole database as text, and back.
//
// The first line is the schema in one JSON document; every further line an object, by table in the
// order of the schema and then by id: {"t": place of the table in the schema, "id": ..., "v":
// [values of all columns in order]}. The last line counts the objects, in all and by table:
// {"end": {"objects": ..., "tables": [...]}}; without it a dump was cut. Objects of dropped tables
// are left out, and so is what bindings keep in the catalogue beside tables, columns and indexes.

#include <istream>
#include <sagleme/host.hpp>
#include <string>

#include "output/format.h"

namespace tool {

// Returns the number of objects.
std::uint64_t Dump(sagleme::Transaction& transaction, Output const& to, Output const& report);

// Makes a new database of a dump. It comes into being whole or not at all: what is loaded grows
// beside its place. Failure with kRefused when the place is taken, kProblem with the line for a bad
// dump.
std::uint64_t Load(std::string const& directory, std::istream& input, std::string const& source,
                   Output const& report);

}  // namespace tool

#endif
