#include <algorithm>

#include "transaction.h"

namespace lscore {

// ---- the row and where to write ----------------------------------------------------------------

Layout const& Transaction::LayoutToInsert(LayoutNumber number) {
  Layout const* const layout = FindLayout(number);
  if (layout == nullptr) Throw(LSCOREDB_UNKNOWN_LAYOUT);
  return *layout;
}

PendingRow& Transaction::AddInserted(Layout const& layout, ObjectId id) {
  Cell* const cells = changes_.NewCells(layout);
  PendingRow& row = changes_.AddRow(id);
  row.layout = &layout;
  row.cells = cells;
  row.changed = true;
  Refresh(row);
  return row;
}

ObjectId Transaction::Insert(LayoutNumber number) {
  Layout const& layout = LayoutToInsert(number);
  if (ids_.empty()) ids_ = database_->ids().Take();
  ObjectId const id{ids_.next};
  AddInserted(layout, id);
  ++ids_.next;
  return id;
}

// Commit looks again, since the mark may move on.
bool Transaction::ChooseId(ObjectId id) {
  std::uint64_t const mark = ReadIdMark(*snapshot_);
  if (!MayBeChosen(*snapshot_, id, mark)) return false;
  if (Raw(id) < mark) return true;
  if (chosen_.size() == chosen_.capacity()) chosen_.reserve(chosen_.size() * 2 + 16);
  if (!database_->ids().Choose(id)) return false;
  chosen_.push_back(id);
  return true;
}

Status Transaction::InsertWithId(LayoutNumber number, ObjectId id) {
  if (id == kNoObject || Raw(id) > kLastChosenId) return LSCOREDB_INVALID_ARGUMENT;
  Layout const& layout = LayoutToInsert(number);
  if (FindRow(id) != nullptr) return LSCOREDB_ID_IN_USE;
  if (!ChooseId(id)) return LSCOREDB_ID_GIVEN_OUT;
  AddInserted(layout, id).given_id = true;
  return LORV_STATUS_OK;
}

// Brings the cached form of a row up to date after its pending form appeared or changed.
void Transaction::Refresh(PendingRow const& row) { cache_.Put(RefOf(row)); }

// The row in editable form. Its values stay where they are, in the snapshot.
PendingRow& Transaction::Promote(RowRef const& row) {
  if (row.pending != nullptr) return *changes_.FindRow(row.id);
  RowRef const source = row;
  Cell* const cells = changes_.NewCells(*source.layout);
  for (std::uint32_t i = kFirstStoredColumn; i < source.layout->column_count(); ++i) {
    cells[i - kFirstStoredColumn] = source.Read(i);
  }
  PendingRow& pending = changes_.AddRow(source.id);
  pending.layout = source.layout;
  pending.setspec = source.Setspec();
  pending.cells = cells;
  pending.original = source.image;
  pending.original_layout = source.layout;
  pending.in_overflow =
      std::find(assembled_ids_.begin(), assembled_ids_.end(), source.id) != assembled_ids_.end();
  Refresh(pending);
  return pending;
}

Status Transaction::FindTarget(RowRef const& row, LayoutNumber as, std::uint32_t column,
                               TypeSet types, Target* out) {
  bool const own = as == kNoLayout || as == row.layout->number();
  Layout const* const layout = own ? row.layout : FindLayout(as);
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

// The column where the object is, or else in the newest layout of its kind that has it.
Status Transaction::FindTargetByToken(RowRef const& row, Column const& wanted, Target* out) {
  Layout const* layout = row.layout;
  int at = layout->Find(wanted.token);
  if (at < 0) {
    for (Layout const* const other : LayoutsOf(row.layout->token())) {
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

// Whether the objects under a layout, if there are any, are of the row's set. A table that took
// over the name of another one has layouts with the same token.
bool Transaction::SameSet(RowRef const& row, Layout const& layout) {
  Cell const own = row.Setspec();
  if (PendingRow const* const example = changes_.FindExample(layout.number())) {
    PendingRow const& other = *example;
    if (!other.deleted && other.layout == &layout && other.setspec.present) {
      return own.present && other.setspec.text() == own.text();
    }
  }
  if (layout.order().commit == kNotCommitted) return true;
  LayoutCount const count = ReadCount(*snapshot_, layout.number());
  if (count.objects == 0 || !count.has_setspec) return true;
  if (!own.present) return false;
  Unpack(own.text(), text_);
  return text_ == count.setspec;
}

// ---- values ------------------------------------------------------------------------------------

Cell Transaction::NewCell(Column const& column, NewValue const& value) {
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
      char* const bytes = changes_.arena().Allocate(cell.size);
      Pack(value.text, cell.wide, bytes);
      cell.data = bytes;
      break;
    }
    case NewValue::Kind::kBinary: {
      cell.size = value.bytes.size();
      char* const bytes = changes_.arena().Allocate(cell.size);
      std::copy(value.bytes.begin(), value.bytes.end(), bytes);
      cell.data = bytes;
      break;
    }
  }
  return cell;
}

// The row's values as another layout has them, matched by token.
Cell* Transaction::CellsUnder(PendingRow const& row, Layout const& to) {
  Cell* const cells = changes_.NewCells(to);
  for (std::uint32_t i = kFirstStoredColumn; i < to.column_count(); ++i) {
    Column const& column = to.column(i);
    int const at = row.layout->Find(column.token);
    if (at < static_cast<int>(kFirstStoredColumn)) continue;
    auto const own = static_cast<std::uint32_t>(at);
    if (row.layout->column(own).type == column.type) cells[i - kFirstStoredColumn] = row.cell(own);
  }
  return cells;
}

// ---- index upkeep ------------------------------------------------------------------------------

template <typename Visit>
void Transaction::ForEachCovering(PendingRow& row, Visit&& visit) {
  if (!row.setspec.present || row.deleted) return;
  if (row.covering == nullptr) {
    Unpack(row.setspec.text(), text_);
    row.covering = &catalogue().Covering(*snapshot_, text_);
  }
  for (IndexDefinition const* const index : *row.covering) {
    if (!changes_.IsDropped(index->id)) visit(*index);
  }
  if (changes_.created_indexes().empty()) return;
  Unpack(row.setspec.text(), text_);
  for (auto const& index : changes_.created_indexes()) {
    if (index->Covers(text_)) visit(*index);
  }
}

Transaction::Affected& Transaction::AffectedBy(IndexDefinition const& index) {
  for (std::size_t i = 0; i < affected_count_; ++i) {
    if (affected_[i].index == &index) return affected_[i];
  }
  if (affected_count_ == affected_.size()) affected_.emplace_back();
  Affected& affected = affected_[affected_count_++];
  affected.index = &index;
  affected.had_old = false;
  affected.has_new = false;
  return affected;
}

void Transaction::CollectKeys(PendingRow& row, std::optional<Token> token, bool before) {
  ForEachCovering(row, [&](IndexDefinition const& index) {
    if (token.has_value() && !index.HasColumn(*token)) return;
    Affected& affected = AffectedBy(index);
    (before ? affected.had_old : affected.has_new) = true;
    KeyFacts const facts =
        encoder_.Encode(index, RefOf(row), before ? affected.old_key : affected.new_key);
    (before ? affected.old_facts : affected.new_facts) = facts;
  });
}

PendingIndex& Transaction::Pending(IndexDefinition const& index) {
  PendingIndex* const pending = changes_.FindIndex(index.id);
  return pending != nullptr ? *pending : changes_.AddIndex(index, true);
}

// While a walk is open a duplicate may be one that passes; commit looks again.
Status Transaction::CheckUnique(PendingRow const& row) {
  if (scans_.any()) return LORV_STATUS_OK;
  for (std::size_t i = 0; i < affected_count_; ++i) {
    Affected& affected = affected_[i];
    KeyFacts& facts = affected.new_facts;
    if (!affected.index->unique() || !affected.has_new) continue;
    if (facts.has_null || facts.has_unwritten) continue;
    if (affected.SameKey() && !affected.old_facts.has_unwritten) continue;
    PendingIndex& pending = Pending(*affected.index);
    PendingKey const key{affected.new_key, row.id};
    if (pending.HasOther(key, false)) return LSCOREDB_DUPLICATE_KEY;
    if (pending.committed() && CommittedHasOther(*snapshot_, unique_cursor_, pending, key)) {
      return LSCOREDB_DUPLICATE_KEY;
    }
    facts.known_unique = true;
  }
  return LORV_STATUS_OK;
}

void Transaction::ApplyKeys(PendingRow const& row, bool moved) {
  bool const keep = scans_.any();
  ++now_;
  for (std::size_t i = 0; i < affected_count_; ++i) {
    Affected const& affected = affected_[i];
    PendingIndex& pending = Pending(*affected.index);
    if (affected.SameKey() && !moved) {
      pending.SetFacts({affected.new_key, row.id}, affected.new_facts);
      continue;
    }
    bool const same = affected.SameKey();
    if (affected.had_old && !same) pending.Remove({affected.old_key, row.id}, now_, keep);
    if (affected.has_new) {
      pending.Add({affected.new_key, row.id}, affected.new_facts, same, now_, keep);
    }
  }
}

template <typename Change>
Status Transaction::ChangeRow(PendingRow& row, std::optional<Token> token, Change&& change) {
  affected_count_ = 0;
  CollectKeys(row, token, true);
  PendingRow const backup = row;
  change();
  Status status = Guarded([&] {
    CollectKeys(row, token, false);
    return CheckUnique(row);
  });
  if (status != LORV_STATUS_OK) {
    row = backup;
    return status;
  }
  row.changed = true;
  status = Guarded([&] {
    ApplyKeys(row, row.layout != backup.layout);
    return LORV_STATUS_OK;
  });
  if (status != LORV_STATUS_OK) doomed_ = status;
  Refresh(row);
  return status;
}

// ---- writes ------------------------------------------------------------------------------------

Status Transaction::Write(ObjectId id, LayoutNumber as, std::uint32_t column, TypeSet types,
                          NewValue const& value) {
  RowRef const* found = nullptr;
  Status const live = FindLive(id, &found);
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
    return PlaceUnder(row, *target.layout, cells);
  }
  changes_.WillChange(row, row.cell(target.column));
  Cell const before = row.cell(target.column);
  Status const written = ChangeRow(row, own.token, [&] { row.cell(target.column) = cell; });
  if (written != LORV_STATUS_OK) row.cell(target.column) = before;
  return written;
}

Status Transaction::PlaceUnder(PendingRow& row, Layout const& layout, Cell* cells) {
  changes_.WillChange(row);
  Status const status = ChangeRow(row, std::nullopt, [&] {
    row.layout = &layout;
    row.cells = cells;
  });
  if (status == LORV_STATUS_OK) NoteExample(row);
  return status;
}

bool Transaction::IsClosedTo(RowRef const& row, std::u16string_view setspec) {
  if (!changes_.IsClosed(setspec) && !known_open_.IsClosed(*snapshot_, setspec)) return false;
  Cell const own = row.Setspec();
  if (!own.present) return true;
  Unpack(own.text(), text_);
  return text_ != setspec;
}

// An insert ends with the object's set: one that is refused leaves no object behind.
Status Transaction::RefuseClosedSet(RowRef const& row) {
  if (row.inserted() && !row.Setspec().present) Check(Delete(row.id));
  return LSCOREDB_SET_CLOSED;
}

Status Transaction::WriteSetspec(ObjectId id, std::u16string_view setspec) {
  RowRef const* found = nullptr;
  Status const live = FindLive(id, &found);
  if (live != LORV_STATUS_OK) return live;
  if (IsClosedTo(*found, setspec)) return RefuseClosedSet(*found);
  NewValue value;
  value.kind = NewValue::Kind::kText;
  value.text = setspec;
  Cell const cell = NewCell(Column{}, value);
  PendingRow& row = Promote(*found);
  changes_.WillChange(row);
  Status const status = ChangeRow(row, std::nullopt, [&] {
    row.setspec = cell;
    row.covering = nullptr;
  });
  if (status == LORV_STATUS_OK) NoteExample(row);
  return status;
}

Status Transaction::Delete(ObjectId id) {
  RowRef const* const found = FindRow(id);
  if (found == nullptr || found->deleted()) return LORV_STATUS_NO_OBJECT;
  PendingRow& row = Promote(*found);
  changes_.WillChange(row);
  return ChangeRow(row, std::nullopt, [&] { row.deleted = true; });
}

Status Transaction::Move(ObjectId id, LayoutNumber to) {
  RowRef const* found = nullptr;
  Status const live = FindLive(id, &found);
  if (live != LORV_STATUS_OK) return live;
  Layout const* const layout = FindLayout(to);
  if (layout == nullptr) return LSCOREDB_UNKNOWN_LAYOUT;
  if (layout == found->layout) return LORV_STATUS_OK;
  PendingRow& row = Promote(*found);
  Cell* const cells = CellsUnder(row, *layout);
  return PlaceUnder(row, *layout, cells);
}

}  // namespace lscore
