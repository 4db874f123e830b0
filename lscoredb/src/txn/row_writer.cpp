#include "row_writer.h"

#include <algorithm>

#include "text.h"

namespace lscore {

void RowWriter::End() noexcept {
  state_.database->ids().Forget(chosen_);
  chosen_.clear();
}

// ---- the row and where to write ----------------------------------------------------------------

Layout const& RowWriter::LayoutToInsert(LayoutNumber number) {
  Layout const* const layout = schema_.FindLayout(number);
  if (layout == nullptr) Throw(LSCOREDB_UNKNOWN_LAYOUT);
  return *layout;
}

PendingRow& RowWriter::AddInserted(Layout const& layout, ObjectId id) {
  Cell* const cells = state_.changes.NewCells(layout);
  PendingRow& row = state_.changes.AddRow(id);
  row.layout = &layout;
  row.cells = cells;
  row.changed = true;
  reader_.NoteWritten(row);
  return row;
}

ObjectId RowWriter::Insert(LayoutNumber number) {
  Layout const& layout = LayoutToInsert(number);
  ObjectId const id{state_.NextId()};
  AddInserted(layout, id);
  ++state_.ids.next;
  return id;
}

// Below the mark only ids in free ranges may be chosen, and the allocator never returns to those.
// An id from the mark on is kept from the process's allocator until the transaction ends. Commit
// checks again, since another process may have moved the mark meanwhile.
bool RowWriter::ChooseId(ObjectId id) {
  std::uint64_t const mark = ReadIdMark(*state_.snapshot);
  if (!MayBeChosen(*state_.snapshot, id, mark)) return false;
  if (Raw(id) < mark) return true;
  if (chosen_.size() == chosen_.capacity()) chosen_.reserve(chosen_.size() * 2 + 16);
  if (!state_.database->ids().Choose(id)) return false;
  chosen_.push_back(id);
  return true;
}

Status RowWriter::InsertWithId(LayoutNumber number, ObjectId id) {
  if (id == kNoObject || Raw(id) > kLastChosenId) return LSCOREDB_INVALID_ARGUMENT;
  Layout const& layout = LayoutToInsert(number);
  if (reader_.FindRow(id) != nullptr) return LSCOREDB_ID_IN_USE;
  if (!ChooseId(id)) return LSCOREDB_ID_GIVEN_OUT;
  AddInserted(layout, id).given_id = true;
  return LORV_STATUS_OK;
}

// The row in its pending form. Cells point at the values, which stay in the snapshot; only what is
// written later is copied into the write set.
PendingRow& RowWriter::Promote(RowRef const& row) {
  if (row.pending() != nullptr) return *state_.changes.FindRow(row.id);
  RowRef const source = row;
  Cell* const cells = state_.changes.NewCells(*source.layout);
  for (std::uint32_t i = kFirstStoredColumn; i < source.layout->column_count(); ++i) {
    cells[i - kFirstStoredColumn] = source.Read(i);
  }
  PendingRow& pending = state_.changes.AddRow(source.id);
  pending.layout = source.layout;
  pending.setspec = source.Setspec();
  pending.cells = cells;
  pending.original = {source.image, source.size};
  pending.original_layout = source.layout;
  pending.in_overflow = reader_.IsAssembled(source.id);
  reader_.NoteWritten(pending);
  return pending;
}

// Decides under which layout a write takes place. A newer layout of the same kind and set wins: the
// object moves to it first (Write). Through any other layout the object stays where it is and the
// column is found by token.
Status RowWriter::FindTarget(RowRef const& row, LayoutNumber as, std::uint32_t column,
                             TypeSet types, Target* out) {
  bool const own = as == kNoLayout || as == row.layout->number();
  Layout const* const layout = own ? row.layout : schema_.FindLayout(as);
  if (layout == nullptr) return LSCOREDB_UNKNOWN_LAYOUT;
  if (column >= layout->column_count()) return LSCOREDB_UNKNOWN_COLUMN;
  Column const& wanted = layout->column(column);
  if (column < kFirstStoredColumn || (types & TypeBit(wanted.type)) == 0)
    return LSCOREDB_WRONG_TYPE;
  *out = {layout, column};
  if (own) return LORV_STATUS_OK;
  bool const newer =
      layout->token() == row.layout->token() && layout->order() > row.layout->order();
  if (newer && SameSet(row, *layout)) return LORV_STATUS_OK;
  return FindTargetByToken(row, wanted, out);
}

// The column in the object's own layout, or else in the newest layout of the same kind and set that
// is not older and has it.
Status RowWriter::FindTargetByToken(RowRef const& row, Column const& wanted, Target* out) {
  Layout const* layout = row.layout;
  int at = layout->Find(wanted.token);
  if (at < 0) {
    for (Layout const* const other : schema_.LayoutsOf(row.layout->token())) {
      if (other->order() < row.layout->order()) break;
      at = other->Find(wanted.token);
      layout = other;
      if (at >= 0 && SameSet(row, *other)) break;
      at = -1;
    }
  }
  if (at < static_cast<int>(kFirstStoredColumn)) return LSCOREDB_UNKNOWN_COLUMN;
  *out = {layout, static_cast<std::uint32_t>(at)};
  return layout->column(out->column).type == wanted.type ? LORV_STATUS_OK : LSCOREDB_WRONG_TYPE;
}

// Whether the objects under a layout, if any, are of the row's set. The token is not enough: a
// table that took over another one's name has layouts with the same token. One object answers for
// all, so the write set keeps an example per layout and the store keeps one's set with the layout's
// count.
bool RowWriter::SameSet(RowRef const& row, Layout const& layout) {
  Cell const own = row.Setspec();
  if (PendingRow const* const example = state_.changes.FindExample(layout.number())) {
    PendingRow const& other = *example;
    if (!other.deleted && other.layout == &layout && other.setspec.present) {
      return own.present && other.setspec.text() == own.text();
    }
  }
  if (layout.order().commit == kNotCommitted) return true;
  LayoutCount const count = ReadCount(*state_.snapshot, layout.number());
  if (count.objects == 0 || !count.has_setspec) return true;
  if (!own.present) return false;
  Unpack(own.text(), text_);
  return text_ == count.setspec;
}

// ---- values ------------------------------------------------------------------------------------

Cell RowWriter::NewCell(Column const& column, NewValue const& value) {
  Cell cell;
  cell.present = true;
  switch (value.kind) {
    case NewValue::Kind::kNull:
      cell.present = !column.nullable;
      break;
    case NewValue::Kind::kFixed:
      cell.bits = value.bits;
      break;
    case NewValue::Kind::kText: {
      cell.wide = NeedsWide(value.text);
      cell.size = PackedSize(value.text, cell.wide);
      char* const bytes = state_.changes.arena().Allocate(cell.size);
      Pack(value.text, cell.wide, bytes);
      cell.data = bytes;
      break;
    }
    case NewValue::Kind::kBinary: {
      cell.size = value.bytes.size();
      char* const bytes = state_.changes.arena().Allocate(cell.size);
      std::copy(value.bytes.begin(), value.bytes.end(), bytes);
      cell.data = bytes;
      break;
    }
  }
  return cell;
}

Cell RowWriter::NewSetspec(std::u16string_view setspec) {
  NewValue value;
  value.kind = NewValue::Kind::kText;
  value.text = setspec;
  return NewCell(Column{}, value);
}

// The row's cells in the order of another layout, matched by token; a column of another type, or
// one that the row lacks, starts without a value.
Cell* RowWriter::CellsUnder(PendingRow const& row, Layout const& to) {
  Cell* const cells = state_.changes.NewCells(to);
  for (std::uint32_t i = kFirstStoredColumn; i < to.column_count(); ++i) {
    Column const& column = to.column(i);
    int const at = row.layout->Find(column.token);
    if (at < static_cast<int>(kFirstStoredColumn)) continue;
    auto const own = static_cast<std::uint32_t>(at);
    if (row.layout->column(own).type == column.type) cells[i - kFirstStoredColumn] = row.cell(own);
  }
  return cells;
}

// A column that the row's layout lacks has nothing to copy, and any type.
Status RowWriter::CheckCopies(Layout const& from, Layout const& to,
                              std::span<ColumnCopy const> copies) {
  for (ColumnCopy const& copy : copies) {
    int const at = to.Find(copy.to);
    if (at < static_cast<int>(kFirstStoredColumn)) return LSCOREDB_UNKNOWN_COLUMN;
    int const source = from.Find(copy.from);
    if (source < 0) continue;
    Column const& column = to.column(static_cast<std::uint32_t>(at));
    if (source < static_cast<int>(kFirstStoredColumn) ||
        from.column(static_cast<std::uint32_t>(source)).type != column.type) {
      return LSCOREDB_WRONG_TYPE;
    }
  }
  return LORV_STATUS_OK;
}

// REQUIRES: CheckCopies.
void RowWriter::CopyCells(PendingRow const& row, Layout const& to,
                          std::span<ColumnCopy const> copies, Cell* cells) {
  for (ColumnCopy const& copy : copies) {
    int const source = row.layout->Find(copy.from);
    auto const at = static_cast<std::uint32_t>(to.Find(copy.to));
    cells[at - kFirstStoredColumn] =
        source < 0 ? Cell{} : row.cell(static_cast<std::uint32_t>(source));
  }
}

// ---- writes ------------------------------------------------------------------------------------

// Everything that can refuse comes first. Then the row becomes pending, undo is recorded (for
// savepoints), and the cell and the index entries change together. When the layout changes too, one
// change of the whole row replaces that of a cell.
Status RowWriter::Write(ObjectId id, LayoutNumber as, std::uint32_t column, TypeSet types,
                        NewValue const& value) {
  RowRef const* found = nullptr;
  Status const live = reader_.FindLive(id, &found);
  if (live != LORV_STATUS_OK) return live;
  Target target{};
  Status const status = FindTarget(*found, as, column, types, &target);
  if (status != LORV_STATUS_OK) return status;
  Column const& own = target.layout->column(target.column);
  Cell const cell = NewCell(own, value);
  PendingRow& row = Promote(*found);
  if (target.layout != row.layout) {
    Cell* const cells = CellsUnder(row, *target.layout);
    cells[target.column - kFirstStoredColumn] = cell;
    return MoveUnder(row, *target.layout, cells);
  }
  state_.changes.WillChange(row, row.cell(target.column));
  Cell const before = row.cell(target.column);
  Status const written =
      indexes_.ChangeRow(row, own.token, [&] { row.cell(target.column) = cell; });
  if (written != LORV_STATUS_OK) row.cell(target.column) = before;
  return written;
}

Status RowWriter::MoveUnder(PendingRow& row, Layout const& layout, Cell* cells,
                            std::optional<Cell> const& setspec) {
  state_.changes.WillChange(row);
  Status const status = indexes_.ChangeRow(row, std::nullopt, [&] {
    row.layout = &layout;
    row.cells = cells;
    if (!setspec) return;
    row.setspec = *setspec;
    row.covering = nullptr;
  });
  if (status == LORV_STATUS_OK) NoteExample(row);
  return status;
}

bool RowWriter::IsClosedTo(RowRef const& row, std::u16string_view setspec) {
  if (!schema_.IsClosed(setspec)) return false;
  Cell const own = row.Setspec();
  if (!own.present) return true;
  Unpack(own.text(), text_);
  return text_ != setspec;
}

// Writing the set specifier completes an insert. When it is refused, the half-made object is
// deleted.
Status RowWriter::RefuseClosedSet(RowRef const& row) {
  if (row.inserted() && !row.Setspec().present) Check(Delete(row.id));
  return LSCOREDB_SET_CLOSED;
}

Status RowWriter::WriteSetspec(ObjectId id, std::u16string_view setspec) {
  RowRef const* found = nullptr;
  Status const live = reader_.FindLive(id, &found);
  if (live != LORV_STATUS_OK) return live;
  if (IsClosedTo(*found, setspec)) return RefuseClosedSet(*found);
  Cell const cell = NewSetspec(setspec);
  PendingRow& row = Promote(*found);
  state_.changes.WillChange(row);
  Status const status = indexes_.ChangeRow(row, std::nullopt, [&] {
    row.setspec = cell;
    row.covering = nullptr;
  });
  if (status == LORV_STATUS_OK) NoteExample(row);
  return status;
}

Status RowWriter::Delete(ObjectId id) {
  RowRef const* const found = reader_.FindRow(id);
  if (found == nullptr || found->deleted()) return LORV_STATUS_NO_OBJECT;
  PendingRow& row = Promote(*found);
  state_.changes.WillChange(row);
  return indexes_.ChangeRow(row, std::nullopt, [&] { row.deleted = true; });
}

Status RowWriter::Move(ObjectId id, LayoutNumber to) {
  RowRef const* found = nullptr;
  Status const live = reader_.FindLive(id, &found);
  if (live != LORV_STATUS_OK) return live;
  Layout const* const layout = schema_.FindLayout(to);
  if (layout == nullptr) return LSCOREDB_UNKNOWN_LAYOUT;
  if (layout == found->layout) return LORV_STATUS_OK;
  PendingRow& row = Promote(*found);
  Cell* const cells = CellsUnder(row, *layout);
  return MoveUnder(row, *layout, cells);
}

Status RowWriter::MoveToSet(ObjectId id, LayoutNumber to, std::u16string_view setspec,
                            std::span<ColumnCopy const> copies) {
  RowRef const* found = nullptr;
  Status const live = reader_.FindLive(id, &found);
  if (live != LORV_STATUS_OK) return live;
  Layout const* const layout = schema_.FindLayout(to);
  if (layout == nullptr) return LSCOREDB_UNKNOWN_LAYOUT;
  Status const checked = CheckCopies(*found->layout, *layout, copies);
  if (checked != LORV_STATUS_OK) return checked;
  if (IsClosedTo(*found, setspec)) return LSCOREDB_SET_CLOSED;
  Cell const set = NewSetspec(setspec);
  PendingRow& row = Promote(*found);
  Cell* const cells = CellsUnder(row, *layout);
  CopyCells(row, *layout, copies, cells);
  return MoveUnder(row, *layout, cells, set);
}

}  // namespace lscore
