#ifndef LSCOREDB_SRC_ROW_WRITER_H
#define LSCOREDB_SRC_ROW_WRITER_H

// Writes rows into the write set of a transaction. The first write makes a row pending: an editable
// form whose values point into the snapshot until they are replaced. A call that fails changes
// nothing. One thread at a time.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "column_access_plans.h"
#include "index_maintainer.h"
#include "row_reader.h"
#include "schema_view.h"
#include "transaction_state.h"

namespace lscore {

// What a write puts into a column.
struct NewValue {
  enum class Kind : std::uint8_t { kFixed, kText, kBinary, kNull };
  Kind kind = Kind::kNull;  // null, or zero where the column is not nullable
  std::uint64_t bits = 0;
  std::u16string_view text;
  std::string_view bytes;
};

// The value of one column becomes that of another.
struct ColumnCopy {
  Token from;
  Token to;
};

class RowWriter {
 public:
  RowWriter(TransactionState& state, SchemaView& schema, RowReader& reader,
            IndexMaintainer& indexes)
      : state_(state), schema_(schema), reader_(reader), indexes_(indexes) {}

  // Throws LSCOREDB_UNKNOWN_LAYOUT.
  ObjectId Insert(LayoutNumber number);
  // LSCOREDB_ID_IN_USE, LSCOREDB_ID_GIVEN_OUT, LSCOREDB_INVALID_ARGUMENT: the id cannot be used.
  Status InsertWithId(LayoutNumber number, ObjectId id);
  Status Write(ObjectId id, LayoutNumber as, std::uint32_t column, TypeSet types,
               NewValue const& value);
  // LSCOREDB_SET_CLOSED: the set takes no more objects. A new object is deleted then.
  Status WriteSetspec(ObjectId id, std::u16string_view setspec);
  Status Delete(ObjectId id);
  // Moves the object to another layout; columns are matched by token.
  Status Move(ObjectId id, LayoutNumber to);
  // The same to another set, with values of some columns copied to others.
  // LSCOREDB_SET_CLOSED, LSCOREDB_UNKNOWN_COLUMN, LSCOREDB_WRONG_TYPE.
  Status MoveToSet(ObjectId id, LayoutNumber to, std::u16string_view setspec,
                   std::span<ColumnCopy const> copies);

  void End() noexcept;

 private:
  struct Target {
    Layout const* layout;
    std::uint32_t column;
  };

  Layout const& LayoutToInsert(LayoutNumber number);
  bool ChooseId(ObjectId id);
  PendingRow& AddInserted(Layout const& layout, ObjectId id);
  PendingRow& Promote(RowRef const& row);
  Status FindTarget(RowRef const& row, LayoutNumber as, std::uint32_t column, TypeSet types,
                    Target* out);
  Status FindTargetByToken(RowRef const& row, Column const& wanted, Target* out);
  bool SameSet(RowRef const& row, Layout const& layout);
  void NoteExample(PendingRow const& row) {
    if (row.setspec.present) state_.changes.NoteExample(row);
  }
  // Whether the set is closed to a row that is not in it.
  bool IsClosedTo(RowRef const& row, std::u16string_view setspec);
  Status RefuseClosedSet(RowRef const& row);
  Status MoveUnder(PendingRow& row, Layout const& layout, Cell* cells,
                   std::optional<Cell> const& setspec = std::nullopt);
  Cell NewCell(Column const& column, NewValue const& value);
  Cell NewSetspec(std::u16string_view setspec);
  Cell* CellsUnder(PendingRow const& row, Layout const& to);
  static Status CheckCopies(Layout const& from, Layout const& to,
                            std::span<ColumnCopy const> copies);
  static void CopyCells(PendingRow const& row, Layout const& to, std::span<ColumnCopy const> copies,
                        Cell* cells);

  TransactionState& state_;
  SchemaView& schema_;
  RowReader& reader_;
  IndexMaintainer& indexes_;
  std::vector<ObjectId> chosen_;  // ids that the allocator does not give out meanwhile
  std::u16string text_;
};

}  // namespace lscore

#endif
