#ifndef SAGLEME_TOOL_DATA_IMPORTER_H
#define SAGLEME_TOOL_DATA_IMPORTER_H

// Makes objects of rows.
//
// A row names columns of the table, and two more: "id", which is passed over unless identities are
// to be kept, and "table", the table or descendant to make the object in. A reference is an
// object's id, or column=value, which is looked up in a unique index over that column of the
// target.

#include <map>
#include <optional>
#include <sagleme/host.hpp>
#include <string>
#include <vector>

#include "data/row_source.h"

namespace tool {

inline constexpr char const* kIdField = "id";
inline constexpr char const* kTableField = "table";

class Importer {
 public:
  Importer(sagleme::Transaction& transaction, sagleme::TablePtr table, bool keep_ids)
      : transaction_(transaction), table_(std::move(table)), keep_ids_(keep_ids) {}

  // BadRow for a name that no row of the table, or of one derived from it, can have, and when a
  // column of the table that takes no null is not among the names, where the file gives any.
  void CheckNames(std::vector<RowField> const& names) const;
  // BadRow when it cannot; nothing of the row is then left.
  void Add(std::vector<RowField> const& row);

 private:
  struct Assignment {
    sagleme::Column const* column;
    sagleme::Value value;
    FilePlace place;
  };

  void RequireColumns(sagleme::Table const& table, std::vector<RowField> const& row) const;
  sagleme::TablePtr TableOf(std::vector<RowField> const& row) const;
  sagleme::ObjectId IdOf(std::vector<RowField> const& row) const;
  sagleme::Value ParseField(sagleme::Column const& column, RowField const& field);
  std::vector<Assignment> Assignments(sagleme::Table const& table,
                                      std::vector<RowField> const& row);
  void Write(sagleme::Object& object, sagleme::Table const& table, Assignment const& assignment,
             std::vector<Assignment> const& all);
  void RefuseDuplicate(sagleme::Object const& object, sagleme::Table const& table,
                       Assignment const& assignment, std::vector<Assignment> const& all);

  sagleme::Transaction& transaction_;
  sagleme::TablePtr table_;
  bool keep_ids_;
};

}  // namespace tool

#endif
