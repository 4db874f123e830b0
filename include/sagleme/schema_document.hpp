#ifndef SAGLEME_SCHEMA_DOCUMENT_HPP
#define SAGLEME_SCHEMA_DOCUMENT_HPP

// A schema as a document: plain values that are read from a database or from JSON, compared with
// one another (<sagleme/schema_plan.hpp>) and written as JSON.
//
// Tables come after their bases, siblings by name. A table has the columns that it declares itself,
// in order, and its indexes by name. Identities ("id", and "database" for whose they are) are
// optional: with them a renamed table or column is recognised, without them only "was" marks a
// rename. docs/schema.md describes the document.
//
// Names are UTF-8. Values own what they hold; any thread may use its own.

#include <sagleme/export.h>

#include <cstdint>
#include <sagleme/annotations.hpp>
#include <sagleme/failure.hpp>
#include <sagleme/host.hpp>
#include <string>
#include <vector>

namespace sagleme {

struct ColumnDoc {
  std::string name;
  std::string was;  // its former name, where this is a rename
  std::uint64_t id = 0;
  Type type = Type::kString;
  bool nullable = true;
  std::string target;   // the table that a reference points at
  bool is_new = false;  // not a rename, whatever it looks like: "was" is null
  std::string comment = {};
  Value fallback = Null{};  // the default of new objects; null: none
  OnDelete on_delete = OnDelete::kKeep;

  // Whether values of one can stay in the other.
  bool SameShape(ColumnDoc const& other) const {
    return type == other.type && nullable == other.nullable && target == other.target;
  }
};

struct IndexColumnDoc {
  std::string name;
  bool descending = false;
  friend bool operator==(IndexColumnDoc const&, IndexColumnDoc const&) = default;
};

struct IndexDoc {
  std::string name;
  bool unique = false;
  std::vector<IndexColumnDoc> columns;
  std::string comment = {};
  friend bool operator==(IndexDoc const&, IndexDoc const&) = default;
};

struct SAGLEME_HOST_API TableDoc {
  std::string name;
  std::string was;   // its former name, where this is a rename
  std::string base;  // empty: the root of all tables
  std::uint64_t id = 0;
  std::vector<ColumnDoc> columns;
  std::vector<IndexDoc> indexes;
  bool is_new = false;  // as above
  std::string comment = {};
  bool abstract = false;  // without objects of its own

  // Null if there is none. Declared columns only.
  ColumnDoc const* FindColumn(std::string const& column) const;
};

struct SAGLEME_HOST_API SchemaDoc {
  std::int64_t database = 0;  // the owner of the identities; 0: none are given
  std::string part;           // the table whose subtree this is; empty: the whole schema
  std::vector<TableDoc> tables;

  // Null when there is none.
  TableDoc const* Find(std::string const& table) const;
};

// The schema of a database. Identities only on request, and only if the database has one itself: a
// database of an earlier version gets it with its next commit.
SAGLEME_HOST_API SchemaDoc ReadSchema(Transaction& transaction, bool identities);

SAGLEME_HOST_API std::string SchemaJson(SchemaDoc const& schema);

// Reads a document. `source` names it in messages. Throws Failure of kBadInput, which says where in
// the document the error is. ValidateSchema checks whether a database can have this schema.
SAGLEME_HOST_API SchemaDoc ParseSchema(std::string const& json, std::string const& source);

// Refuses, with Failure of kBadInput, a schema that no database can have:
//
//   1. two tables, or two indexes, of one name
//   2. a base that is neither in the document nor a table of the catalogue, or a cycle of
//      bases
//   3. a column whose name occurs twice in a table, inherited ones included, or begins with "__"
//   4. a reference to a table that is neither in the document nor of the catalogue
//   5. an index without columns, or with one that its table does not have
SAGLEME_HOST_API void ValidateSchema(SchemaDoc const& schema, std::string const& source);

// Completes a partial document with the rest of the database; a complete one is unchanged.
SAGLEME_HOST_API SchemaDoc CompletedSchema(SchemaDoc const& wanted, SchemaDoc const& present);

// The number by which a database recognises its documents; 0 if it has none yet. Copies of a
// database share it; see lscoredb_identity.
SAGLEME_HOST_API std::int64_t DatabaseIdentity(Transaction& transaction);

}  // namespace sagleme

#endif
