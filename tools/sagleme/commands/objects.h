#ifndef SAGLEME_TOOL_COMMANDS_OBJECTS_H
#define SAGLEME_TOOL_COMMANDS_OBJECTS_H

// Objects as rows of a list and as lists of their properties.

#include <sagleme/counts.hpp>
#include <sagleme/host.hpp>
#include <string>
#include <vector>

#include "output/list_writer.h"
#include "output/listing.h"

namespace tool {

using sagleme::UserColumns;

enum class Columns { kOfTable, kAll };

// A list of objects of one table and of its descendants, written while it is made. It shows the
// columns of the table, or with kAll also those of the descendants; the hidden columns are left
// out, id and table stand in front.
class ObjectList {
 public:
  ObjectList(Output const& output, sagleme::Transaction& transaction, sagleme::TablePtr table,
             Columns columns);

  // Throws Interrupted when the user has stopped the command.
  void Add(sagleme::Object const& object);
  void Finish() { writer_.Finish(); }

 private:
  Cell CellOf(sagleme::Object const& object, sagleme::TablePtr const& own,
              std::u16string const& column) const;

  sagleme::TablePtr table_;
  std::vector<std::u16string> columns_;
  ListWriter writer_;
};

// One object with all its properties. Each reference in `follow` is a path of column names joined
// by dots, whose target's properties are shown too, under that path.
Properties ObjectProperties(sagleme::Object const& object, std::vector<std::string> const& follow);

}  // namespace tool

#endif
