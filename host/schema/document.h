#ifndef SAGLEME_TOOL_SCHEMA_DOCUMENT_H
#define SAGLEME_TOOL_SCHEMA_DOCUMENT_H

// A schema as a document: what `schema` writes, `apply` reads and `dump` begins with.
//
// Tables stand below their bases, brothers by name; a table has the columns that it declares
// itself, in their order, and its indexes by name. Identities ("id", and "database" for whose they
// are) are optional: with them a renamed table or column is known again, without them only "was"
// tells of a rename.

#include <cstdint>
#include <optional>
#include <sagleme/host.hpp>
#include <string>
#include <vector>

namespace tool {

struct ColumnDoc {
  std::string name;
  std::string was;
  std::uint64_t id = 0;
  sagleme::Type type = sagleme::Type::kString;
  bool nullable = true;
  std::string target;

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
  friend bool operator==(IndexDoc const&, IndexDoc const&) = default;
};

struct TableDoc {
  std::string name;
  std::string was;
  std::string base;  // empty: the root of all tables
  std::uint64_t id = 0;
  std::vector<ColumnDoc> columns;
  std::vector<IndexDoc> indexes;

  ColumnDoc const* FindColumn(std::string const& column) const;
};

struct SchemaDoc {
  std::int64_t database = 0;  // whose the identities are; 0: none are given
  std::string part;           // the table whose subtree alone this is; empty: the whole
  std::vector<TableDoc> tables;

  TableDoc const* Find(std::string const& table) const;
};

// The schema of a database; identities only on request, and only where the database has one itself.
SchemaDoc ReadSchema(sagleme::Transaction& transaction, bool identities);

std::string SchemaJson(SchemaDoc const& schema);
// Failure with kUsage, which says where in the document something is wrong. Whether a database
// can be so is the matter of Validate.
SchemaDoc ParseSchema(std::string const& json, std::string const& source);
// A part together with what the database has outside of it; a whole is left alone.
SchemaDoc Completed(SchemaDoc const& wanted, SchemaDoc const& present);

// The number by which the documents of a database know it again; 0 for none.
std::int64_t DatabaseIdentity(sagleme::Transaction& transaction);
// Gives it one when it has none.
void AssureDatabaseIdentity(sagleme::Transaction& transaction);

}  // namespace tool

#endif
