#ifndef SAGLEME_TOOL_SCHEMA_RENAMES_H
#define SAGLEME_TOOL_SCHEMA_RENAMES_H

#include "schema/matching.h"
#include "schema/plan.h"

namespace tool {

// Adds the renames of kept tables, then of their columns, in an order in which no new name is taken
// when it is given. Where names go round in a circle, one of them steps aside for a while.
void AddRenames(SchemaDoc const& from, SchemaDoc const& to, Matching const& kept, Plan& plan);

}  // namespace tool

#endif
