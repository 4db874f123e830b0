#ifndef SAGLEME_HOST_COLUMNS_SUBTREE_H
#define SAGLEME_HOST_COLUMNS_SUBTREE_H

// The columns of a table and of all its descendants, edited as lists and then written as catalogue
// rows and kernel layouts.
//
// Each table has a row for each of its columns, inherited ones included. The kernel knows a column
// by the identity of the row in the table that declares it. So a column keeps its stored values as
// long as it keeps that row, in whichever table the row is.

#include <cstddef>
#include <map>
#include <sagleme/host.hpp>
#include <string>
#include <vector>

namespace sagleme::columns {

// A column that a table of the subtree declares.
struct OwnColumn {
  std::u16string name;
  // The row that the column keeps: the table's own, or another table's that comes here. 0: new.
  std::uint64_t row = 0;
  // The name by which tables find rows to keep for it; empty: they get new ones.
  std::u16string was;
  LS_OBJ_REF data_type{};  // the catalogue's row of the type or of the target
  Type type = Type::kString;
  bool nullable = true;
  std::u16string target;
};

struct Node {
  TablePtr before;
  std::size_t base = 0;  // its place in the list; the top's is its own
  std::vector<OwnColumn> own;
};

class Subtree {
 public:
  Subtree(Transaction& transaction, TablePtr const& top);

  // Bases before their descendants; the top is the first.
  std::vector<Node> const& nodes() const { return nodes_; }
  // REQUIRES: a table of the subtree.
  Node& At(std::u16string const& table);
  bool IsBelow(std::size_t node, std::u16string const& table) const;

  // Removes and returns a column that the table declares.
  static OwnColumn Take(Node& node, std::u16string const& column);

  // Throws SAGLEME_BAD_ARGUMENT if a table would have too many columns, and
  // SAGLEME_COLUMN_NAME_TAKEN if one would have a name twice.
  void RequireValid() const;

  // Writes rows and layouts and requests vacuum. Properties and the columns of indexes follow the
  // column of their name in their table. Where a table loses its column, its properties go, and the
  // indexes are left to the caller, who also advances the schema generation. The transaction
  // forgets its schema.
  void Write();

  // The kernel's name of a column in a table; 0 if the table has none of the name.
  std::uint64_t TokenBefore(std::size_t node, std::u16string const& column) const;
  // REQUIRES: written.
  std::uint64_t TokenAfter(std::size_t node, std::u16string const& column) const;

 private:
  // One column of one table, as it will stand.
  struct Place {
    OwnColumn const* column = nullptr;
    std::uint64_t row = 0;  // 0: to be inserted
    bool inherited = false;
    bool outside = false;  // of a table above the top: nothing changes
  };
  // A row that refers to a column's row, and where it belongs.
  struct Referrer {
    LS_OBJ_REF row{};
    bool of_property = false;  // otherwise of an index
    std::size_t node = 0;
    std::u16string name;
  };

  void Read(TablePtr const& table, std::size_t base);
  std::vector<OwnColumn const*> Inherited(std::size_t node) const;
  std::vector<std::vector<Place>> Arrange() const;
  std::uint64_t RowFor(Node const& node, OwnColumn const& column, bool inherited) const;

  void WriteRows();
  void CaptureReferrers(std::vector<std::vector<Place>> const& places);
  void CaptureReferrersOf(std::size_t node, Column const& column);
  void Park(std::vector<std::vector<Place>> const& places);
  void RemoveRows(std::vector<std::vector<Place>> const& places) const;
  void Settle(std::size_t node, std::vector<Place>& places);
  LS_OBJ_REF Insert(std::size_t node, Place const& place, short ordinal) const;
  void RepointReferrers() const;
  void DeclareProperties() const;
  void WriteLayouts();
  std::vector<LORVI_COLUMN_DEFINITION> KernelColumns(std::size_t node) const;
  bool SameLayout(std::size_t node, std::vector<LORVI_COLUMN_DEFINITION> const& columns) const;

  Transaction& transaction_;
  std::size_t outside_ = 0;  // columns that the top inherits
  std::vector<Node> nodes_;
  std::map<std::uint64_t, std::uint64_t> tokens_;  // by row
  std::vector<Referrer> referrers_;
  std::vector<std::map<std::u16string, LS_OBJ_REF>> rows_;  // written, by node and name
  short parked_ = 0;
};

}  // namespace sagleme::columns

#endif
