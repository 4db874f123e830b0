#ifndef SAGLEME_TESTS_MODEL_OPERATIONS_H
#define SAGLEME_TESTS_MODEL_OPERATIONS_H

// What a run does to a database, as plain data. Three visitors tell what an operation means:
// Expect (to the model), Executor (to a database) and Describe (to a reader).
//
// An operation names tables, columns and indexes as a host does, and so can be wrong. Objects go by
// their number in the model.

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "model/model.h"

namespace sagleme_model {

struct ColumnDef {
  Text name;
  std::uint8_t type = kLong;
  bool nullable = true;
  std::optional<Text> type_name;
};

struct CreateTable {
  enum class Form { kByNames, kCheckTypes, kByRefs };
  Form form = Form::kByNames;
  Text name;
  std::optional<Text> base;  // by references: of a table that exists
  std::vector<ColumnDef> columns;
};
struct AddColumns {
  Text table;
  std::vector<ColumnDef> columns;
};
struct DropColumn {
  Text table;
  Text column;
};
struct RenameColumn {
  Text table;
  Text column;
  Text new_name;
};
struct RenameTable {
  Text table;
  Text new_name;
};
struct DropTable {
  Text table;
  bool drop_children = false;
  bool force = false;
};
struct DropTables {
  std::vector<Text> tables;
  bool drop_children = false;
  bool force = false;
};
struct DropTableCascade {
  Text table;
};

struct IndexPart {
  Text column;
  int ordinal = 0;  // of the column; used by the forms without names
  bool ascending = true;
};
struct CreateIndex {
  enum class Form { kByNames, kByRef, kByLayout };
  Form form = Form::kByNames;
  Text name;
  Text table;  // without names: of a table that exists
  std::vector<IndexPart> parts;
  bool unique = false;
};
struct DropIndex {
  enum class Form { kByName, kByTableAndName, kByRef };
  Form form = Form::kByName;
  Text name;
  Text table;  // dotted
};
struct UpdateReferences {};
struct CleanClasses {};
struct MapClass {
  Text name;
  Text table;
};
struct MapColumn {
  Text name;
  Text class_name;
  Text table;
  Text column;
};

struct CreateObject {
  Text table;
};
struct WriteValue {
  Uid object = 0;
  Text column;
  Value value;
};
struct WriteDefault {
  Uid object = 0;
  Text column;
};
struct DeleteObject {
  Uid object = 0;
};
// Asks for a property handle by names that may be unknown.
struct AskProperty {
  Text table;
  Text column;
};

using Operation = std::variant<CreateTable, AddColumns, DropColumn, RenameColumn, RenameTable,
                               DropTable, DropTables, DropTableCascade, CreateIndex, DropIndex,
                               UpdateReferences, CleanClasses, MapClass, MapColumn, CreateObject,
                               WriteValue, WriteDefault, DeleteObject, AskProperty>;

std::string Describe(Operation const& operation);
std::string Describe(Value const& value);

struct Outcome {
  std::uint32_t status = 0;
  std::optional<Text> text;  // none: the call has no words of its own
  Uid made = 0;              // the object that CreateObject made
};

// What the operation must answer; changes the model when that is success. `clean` is set when a
// failure must leave the database as it was; otherwise the transaction has to be rolled back.
Outcome Expect(Model& model, Operation const& operation, bool* clean);

}  // namespace sagleme_model

#endif
