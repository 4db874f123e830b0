#ifndef SAGLEME_HOST_IMPORT_HPP
#define SAGLEME_HOST_IMPORT_HPP

// Makes objects of rows.
//
// A row names columns of the table, and two more: "id", which is passed over unless identities are
// to be kept, and "table", the table or descendant to make the object in. A reference is an
// object's id, or column=value, which is looked up in a unique index over that column of the
// target.

#include <sagleme/export.h>

#include <sagleme/host.hpp>
#include <sagleme/host/rows.hpp>
#include <string>
#include <vector>

namespace sagleme {

inline constexpr char const* kIdField = "id";
inline constexpr char const* kTableField = "table";

// Works in one transaction, which has to outlive it. A row that is refused leaves nothing behind;
// what else fails, as Error, leaves the transaction to be rolled back.
class SAGLEME_HOST_API Importer {
 public:
  Importer(Transaction& transaction, TablePtr table, bool keep_ids)
      : transaction_(transaction), table_(std::move(table)), keep_ids_(keep_ids) {}

  // BadRow for a name that no row of the table, or of one derived from it, can have, and when a
  // column of the table that takes no null is not among the names, where the file gives any.
  void CheckNames(std::vector<RowField> const& names) const;
  // BadRow when it cannot; nothing of the row is then left.
  void Add(std::vector<RowField> const& row);

 private:
  struct Assignment {
    Column const* column;
    Value value;
    FilePlace place;
  };

  void RequireColumns(Table const& table, std::vector<RowField> const& row) const;
  TablePtr TableOf(std::vector<RowField> const& row) const;
  ObjectId IdOf(std::vector<RowField> const& row) const;
  Value ParseField(Column const& column, RowField const& field);
  std::vector<Assignment> Assignments(Table const& table, std::vector<RowField> const& row);
  void Write(Object& object, Table const& table, Assignment const& assignment,
             std::vector<Assignment> const& all);
  void RefuseDuplicate(Object const& object, Table const& table, Assignment const& assignment,
                       std::vector<Assignment> const& all);

  Transaction& transaction_;
  TablePtr table_;
  bool keep_ids_;
};

}  // namespace sagleme

#endif
