#ifndef SAGLEME_HOST_SCHEMA_MOVES_H
#define SAGLEME_HOST_SCHEMA_MOVES_H

// Columns that another table of the same line declares in the new schema: an ancestor, to which
// they are pulled up, or descendants, to which they are pushed down.

#include <functional>
#include <sagleme/schema_plan.hpp>
#include <set>
#include <string>
#include <vector>

namespace sagleme {

// A column's entry and the table that declares it, of one schema.
struct Declaration {
  TableDoc const* table = nullptr;
  ColumnDoc const* column = nullptr;
};

struct PulledUp {
  Declaration to;
  std::vector<Declaration> from;  // of equal shape; the first is the one that stays
};
struct PushedDown {
  Declaration from;
  std::vector<Declaration> to;
};

struct Moves {
  std::vector<PulledUp> up;
  std::vector<PushedDown> down;
};

// What is known of the entries that stay in their table.
struct StayingEntries {
  std::function<TableDoc const*(std::string const&)> new_table;  // by the name in `from`
  std::function<bool(ColumnDoc const&)> is_paired;               // of either schema
  // Whether values of the one can become values of the other.
  std::function<bool(ColumnDoc const& before, ColumnDoc const& after)> fits;
  std::set<std::string> new_names;  // that renamed columns get
  bool identities = false;
};

// Columns are recognised by identity, by "was", or by name. One whose name another column takes is
// not, since one would be in the way of the other.
Moves FindMoves(SchemaDoc const& from, SchemaDoc const& to, StayingEntries const& staying);

}  // namespace sagleme

#endif
