#ifndef SAGLEME_HOST_SCHEMA_TABLE_MOVES_H
#define SAGLEME_HOST_SCHEMA_TABLE_MOVES_H

// Tables that stay, but under another base.

#include "schema/matching.h"

namespace sagleme {

// The changes that give every table that stays its new base, and what the schema is after them.
// Everything else is compared from there. New tables that are bases are created first, with the
// columns that can be.
struct TableMoves {
  Plan plan;
  SchemaDoc schema;
};

TableMoves MoveTables(SchemaDoc const& from, SchemaDoc const& to, Matching const& kept);

}  // namespace sagleme

#endif
