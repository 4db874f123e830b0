#ifndef SAGLEME_HOST_HIERARCHY_SHAPE_H
#define SAGLEME_HOST_HIERARCHY_SHAPE_H

// The columns of a table, and of its descendants, under another base.
//
// Columns have ordinals, and inherited ones come first. A column of the new base is one that the
// table has already, if both inherit it from a common ancestor or if it is merged with one of equal
// name; otherwise it is new. What the table has besides those stays, as its own.

#include <optional>
#include <sagleme/host.hpp>
#include <string>
#include <vector>

namespace sagleme {

struct ShapeColumn {
  Column column;                       // by its definition, of the base or of the table
  std::optional<std::size_t> present;  // its ordinal now
  bool inherited = false;
};

struct Shape {
  TablePtr table;  // as it is now
  TablePtr base;   // that the columns come from
  std::vector<ShapeColumn> columns;
  std::vector<std::u16string> kept;    // that the old base declares, and that the table keeps
  std::vector<std::u16string> merged;  // that the table declared

  // REQUIRES: there is one.
  std::size_t OrdinalOf(std::u16string const& name) const;
};

// The shapes of a table and its descendants, each after its base. Failure of kRefused for columns
// of one name, all of them listed, and for too many columns.
std::vector<Shape> ShapesUnder(Transaction& transaction, TablePtr const& table,
                               TablePtr const& base, bool merge);

}  // namespace sagleme

#endif
