#ifndef SAGLEME_SQL_DEFINITION_H
#define SAGLEME_SQL_DEFINITION_H

// Statements that define tables and indexes, as data, read by a grammar.
//
//   CREATE TABLE [IF NOT EXISTS] name ( column [, ...] ) [UNDER base | INHERITS ( base )]
//   ALTER TABLE name ADD [COLUMN] column | DROP [COLUMN] name | RENAME TO name
//                  | RENAME [COLUMN] name TO name | SET PARENT base | SET PARENT NULL
//                  | ALTER [COLUMN] name [SET [DATA]] TYPE type
//                  | ALTER [COLUMN] name SET | DROP NOT NULL
//   DROP TABLE [IF EXISTS] name [CASCADE]
//   CREATE [UNIQUE] INDEX [IF NOT EXISTS] name ON table ( column [ASC | DESC] [, ...] )
//   DROP INDEX [IF EXISTS] name
//   ALTER TABLE name SET [NOT] ABSTRACT
//   ALTER TABLE name ALTER [COLUMN] name SET DEFAULT literal | DROP DEFAULT | SET ON DELETE rule
//   COMMENT ON TABLE name | COLUMN table.name | INDEX name IS 'text' | NULL
//   EXPLAIN any of these
//
//   column:  name type [NOT NULL | NULL] [DEFAULT literal]   or
//            name REF ( table ) [ON DELETE rule]
//   rule:    RESTRICT | SET NULL | CASCADE | LAST | NO ACTION
//
// Names are plain words or in double quotes, and have segments with dots between them.

#include <sagleme/annotations.hpp>
#include <sagleme/host.hpp>
#include <sagleme/schema_plan.hpp>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace sagleme::sql {

struct ColumnDefinition {
  std::string name;
  Type type = Type::kString;
  bool nullable = true;
  std::string target = {};    // of a reference
  std::string fallback = {};  // the literal of its default; empty: none
  OnDelete on_delete = OnDelete::kKeep;
};

struct CreateTableStatement {
  std::string table;
  std::string base;
  std::vector<ColumnDefinition> columns;
  bool if_not_exists = false;
};
struct AddColumnStatement {
  std::string table;
  ColumnDefinition column;
};
struct DropColumnStatement {
  std::string table;
  std::string column;
};
struct RenameColumnStatement {
  std::string table;
  std::string column;
  std::string new_name;
};
struct AlterColumnStatement {
  std::string table;
  ColumnDefinition column;
  bool retypes = false;  // otherwise it takes or refuses null, and its type stays
};
struct RenameTableStatement {
  std::string table;
  std::string new_name;
};
struct SetParentStatement {
  std::string table;
  std::string base;  // empty: none
};
struct DropTableStatement {
  std::string table;
  bool cascade = false;
  bool if_exists = false;
};
struct CreateIndexStatement {
  struct Part {
    std::string column;
    bool descending = false;
  };
  std::string index;
  std::string table;
  std::vector<Part> parts;
  bool unique = false;
  bool if_not_exists = false;
};
struct DropIndexStatement {
  std::string index;
  bool if_exists = false;
};

// Sets or removes an annotation of a table, or of a column or an index.
struct AnnotateStatement {
  std::string table;
  std::string column;  // empty: of the table or of the index
  std::string index;   // empty: of the table or of the column
  Annotation::Kind kind = Annotation::Kind::kComment;
  std::string text;  // a comment, a literal, the name of a rule
  bool removes = false;
};

using DefinitionStatement =
    std::variant<CreateTableStatement, AddColumnStatement, DropColumnStatement,
                 RenameColumnStatement, AlterColumnStatement, RenameTableStatement,
                 SetParentStatement, DropTableStatement, CreateIndexStatement, DropIndexStatement,
                 AnnotateStatement>;

struct Definition {
  bool explain = false;
  DefinitionStatement statement;
};

// Whether a text begins with such a statement, by its first words.
bool BeginsDefinition(std::string_view text);
// The statement that `text` begins with, up to its semicolon or the end. `rest` gets what follows.
// Failure with line, column and what was expected there.
Definition ParseDefinition(std::string_view text, std::string_view* rest);

// The changes that a statement makes, in the words of schema plans. Resolves names; throws Error or
// Failure if it cannot.
Plan ChangesOf(Transaction& transaction, DefinitionStatement const& statement);
// One sentence with what it costs, "instant", "background" or "destructive", and what is done; or
// "refused", and why. Throws as ChangesOf.
std::vector<std::string> PlanOf(Transaction& transaction, DefinitionStatement const& statement);
// Makes the change. The part done by a failed change is undone with the transaction or savepoint.
void Apply(Transaction& transaction, DefinitionStatement const& statement);

// Statements that recreate the tables of a database, in an order that works, or only `top` and the
// tables derived from it.
std::string DefinitionsOf(Transaction& transaction, TablePtr const& top = nullptr);

}  // namespace sagleme::sql

#endif
