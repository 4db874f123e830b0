#ifndef SAGLEME_HOST_DATA_IMPORTER_H
#define SAGLEME_HOST_DATA_IMPORTER_H

// Creates objects from rows, in one transaction.

#include <map>
#include <optional>
#include <sagleme/host/import.hpp>
#include <sagleme/host/own_columns.hpp>
#include <unordered_map>
#include <vector>

#include "data/row_writer.h"

namespace sagleme {

// References to objects that did not exist yet when they were written, with the location where
// each was first named.
class LaterReferences {
 public:
  struct Target {
    std::u16string table;
    std::uint64_t id = 0;
    friend auto operator<=>(Target const&, Target const&) = default;
  };

  void Note(Target const& target, FileLocation location) { locations_.emplace(target, location); }
  // Forgets those that exist now.
  void Resolve(Transaction& transaction);
  // Throws BadRow if one is left.
  void Require() const;

 private:
  std::map<Target, FileLocation> locations_;
};

// Whether the object exists, and belongs to the table or one derived from it.
enum class Referent { kThere, kMissing, kOfOtherTable };
Referent FindReferent(Transaction& transaction, Table const& target, ObjectId id);

class Importer {
 public:
  // All arguments must outlive it. Throws BadRow if the heading has a name that is no column of the
  // table or of one derived from it, or lacks a column that takes no null.
  Importer(Transaction& transaction, TablePtr table, RowSource const& rows, bool keep_ids,
           LaterReferences& later);

  // Creates an object from the row read last. Throws BadRow if it cannot, and leaves nothing of it.
  void Add();

 private:
  // Maps the names of the file to columns of one table.
  struct Plan {
    TablePtr table;
    std::vector<Column const*> columns;   // by name; null: none of the table
    std::vector<Column const*> required;  // they take no null and have no default
  };
  static constexpr std::size_t kNowhere = ~std::size_t{0};

  void CheckHeading();
  void FindOwnNames();
  std::string const& NameOf(RowValue const& value) const { return rows_.names()[value.name]; }
  bool IsOwn(std::size_t name) const { return name == id_name_ || name == table_name_; }
  RowValue const* Find(std::size_t name) const;
  Plan& PlanFor(TablePtr const& table);
  void Extend(Plan& plan) const;
  Plan& PlanOfRow();
  ObjectId IdOfRow() const;
  void RequireColumns(Plan const& plan) const;
  void RequireConcrete(detail::Rules const& rules, Table const& table) const;
  void Write(Plan const& plan);
  void Put(Plan const& plan, RowValue const& value);
  void PutReference(Column const& column, RowValue const& value);
  void CheckReference(Column const& column, RowValue const& value, ObjectId id);
  void Finish(Plan const& plan);

  Transaction& transaction_;
  TablePtr table_;
  RowSource const& rows_;
  bool keep_ids_;
  LaterReferences& later_;
  OwnColumns own_;
  std::size_t names_known_ = 0;
  std::size_t id_name_ = kNowhere;
  std::size_t table_name_ = kNowhere;
  std::unordered_map<Table const*, Plan> plans_;
  Plan* last_plan_ = nullptr;
  RowWriter writer_;
};

}  // namespace sagleme

#endif
