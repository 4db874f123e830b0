#ifndef SAGLEME_HOST_SCHEMA_RENAMES_H
#define SAGLEME_HOST_SCHEMA_RENAMES_H

#include <sagleme/schema_plan.hpp>

#include "schema/matching.h"

namespace sagleme {

// Adds the renames of kept tables, then of their columns, in an order in which no new name is taken
// when it is given. Where names go round in a circle, one of them steps aside for a while.
void AddRenames(SchemaDoc const& from, SchemaDoc const& to, Matching const& kept, Plan& plan);

}  // namespace sagleme

#endif
