#ifndef SAGLEME_TOOL_SCHEMA_PLAN_H
#define SAGLEME_TOOL_SCHEMA_PLAN_H

// A plan of changes that leads from one schema to another.
//
// Changes are plain data, in the order in which they can be made; comparing makes them, printing
// and applying are visitors. What is lost by a change, and when its work is done, is its label:
//
//   instant      catalogue rows alone change
//   background   objects are read at once, for an index, or moved later, by vacuum
//   destructive  values or objects are lost

#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "schema/document.h"

namespace tool {

namespace change {

struct DropIndex {
  std::string index;
};
struct DropColumn {
  std::string table;
  std::string column;
};
struct DropTable {
  std::string table;
};
struct RenameTable {
  std::string table;
  std::string new_name;
};
struct RenameColumn {
  std::string table;
  std::string column;
  std::string new_name;
};
struct CreateTable {
  TableDoc table;
};
struct AddColumns {
  std::string table;
  std::vector<ColumnDoc> columns;
};
struct CreateIndex {
  std::string table;
  IndexDoc index;
};

}  // namespace change

using Change = std::variant<change::DropIndex, change::DropColumn, change::DropTable,
                            change::RenameTable, change::RenameColumn, change::CreateTable,
                            change::AddColumns, change::CreateIndex>;
using Plan = std::vector<Change>;

enum class Label { kInstant, kBackground, kDestructive };

Label LabelOf(Change const& change);
std::string_view LabelName(Label label);
// One sentence.
std::string Describe(Change const& change);

// What leads from `from`, the schema of a database with identities, to `to`. Tables and columns are
// known again by their identity, when `to` was written from the same database, by "was", or by
// their name; never by likeness. The order of columns does not matter. Failure with kUsage when two
// entries of `to` claim the same table or column.
Plan Compare(SchemaDoc const& from, SchemaDoc const& to);

// Makes the changes. Error when one is refused; the transaction is then to be rolled back.
void Apply(sagleme::Transaction& transaction, Plan const& plan);

}  // namespace tool

#endif
