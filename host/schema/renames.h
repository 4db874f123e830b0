#ifndef SAGLEME_HOST_SCHEMA_RENAMES_H
#define SAGLEME_HOST_SCHEMA_RENAMES_H

#include <sagleme/schema_plan.hpp>

#include "schema/matching.h"

namespace sagleme {

// Adds the renames of kept tables, then of their columns, in an order in which each new name is
// free. A cycle of names is broken by a temporary name.
void AddRenames(SchemaDoc const& from, SchemaDoc const& to, Matching const& kept, Plan& plan);

}  // namespace sagleme

#endif
