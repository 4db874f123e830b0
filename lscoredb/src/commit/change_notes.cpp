#include "change_notes.h"

#include "notes.h"

namespace lscore {
namespace {

bool ChangesSchema(PendingChanges const& changes) {
  return !changes.layouts().empty() || !changes.released_layouts().empty() ||
         !changes.closed_sets().empty() || changes.changes_indexes();
}

bool Equal(Column const& column, Cell const& a, Cell const& b) {
  if (a.present != b.present && (column.nullable || !column.fixed)) return false;
  if (column.fixed) return (a.present ? a.bits : 0) == (b.present ? b.bits : 0);
  return !a.present || (a.wide == b.wide && a.bytes() == b.bytes());
}

// The columns of the row's layout whose values differ from the committed ones.
void FindChanged(PendingRow const& row, std::vector<Token>* columns) {
  RowRef const original = OriginalOf(row);
  bool const same_layout = row.layout == row.original_layout;
  for (std::uint32_t i = kFirstStoredColumn; i < row.layout->column_count(); ++i) {
    Column const& column = row.layout->column(i);
    int const before = same_layout ? static_cast<int>(i) : row.original_layout->Find(column.token);
    Cell const was = before < 0 ? Cell{} : original.Read(static_cast<std::uint32_t>(before));
    if (!Equal(column, was, row.cell(i))) columns->push_back(column.token);
  }
}

bool Equal(Cell const& a, Cell const& b) {
  return a.present == b.present && a.wide == b.wide && a.bytes() == b.bytes();
}

void DescribeUpdate(PendingRow const& row, ObjectNote* note, std::vector<Token>* columns) {
  Cell const former = OriginalOf(row).Setspec();
  FindChanged(row, columns);
  bool const moves = !Equal(former, row.setspec);
  if (moves) note->former_setspec = former.text();
  if (row.layout->number() != row.original_layout->number()) {
    note->former_layout = row.original_layout->number();
  }
  bool const converted = columns->empty() && note->former_layout != kNoLayout;
  note->kind = moves || converted ? NoteKind::kMoved : NoteKind::kChanged;
}

void AppendRow(PendingRow const& row, std::vector<Token>* columns, std::string& note) {
  ObjectNote object;
  columns->clear();
  object.object = row.id;
  object.layout = row.deleted ? row.original_layout->number() : row.layout->number();
  object.setspec = (row.deleted ? OriginalOf(row).Setspec() : row.setspec).text();
  if (row.deleted) {
    object.kind = NoteKind::kDeleted;
  } else if (row.inserted()) {
    object.kind = NoteKind::kCreated;
  } else {
    DescribeUpdate(row, &object, columns);
  }
  AppendObject(object, *columns, note);
}

}  // namespace

std::string NoteOf(PendingChanges const& changes, std::span<PendingRow const* const> rows) {
  std::string note;
  bool const schema = ChangesSchema(changes);
  if (!schema && rows.empty()) return note;
  BeginNote(schema, note);
  std::vector<Token> columns;
  for (PendingRow const* const row : rows) AppendRow(*row, &columns, note);
  return note;
}

}  // namespace lscore
