#include "empty_table.h"

#include <memory>

#include "sqlite.h"

namespace bench {
namespace {

enum Plan { kAll = 0, kOne = 1 };

struct Table : sqlite3_vtab {
  std::int64_t rows = 0;
};

struct Cursor : sqlite3_vtab_cursor {
  std::int64_t row = 0;
  std::int64_t end = 0;
};

int Connect(sqlite3* database, void* rows, int, char const* const*, sqlite3_vtab** out, char**) {
  int const code = sqlite3_declare_vtab(
      database, "CREATE TABLE Hollow(Plain integer, Weight real, Pages integer)");
  if (code != SQLITE_OK) return code;
  auto table = std::make_unique<Table>();
  table->rows = *static_cast<std::int64_t*>(rows);
  *out = table.release();
  return SQLITE_OK;
}

int Disconnect(sqlite3_vtab* table) {
  delete static_cast<Table*>(table);
  return SQLITE_OK;
}

// One row where the row id is given, else all.
int BestIndex(sqlite3_vtab* table, sqlite3_index_info* info) {
  auto const rows = static_cast<double>(static_cast<Table*>(table)->rows);
  info->idxNum = kAll;
  info->estimatedCost = rows;
  for (int i = 0; i < info->nConstraint; ++i) {
    auto const& constraint = info->aConstraint[i];
    if (constraint.usable == 0 || constraint.iColumn >= 0) continue;
    if (constraint.op != SQLITE_INDEX_CONSTRAINT_EQ) continue;
    info->aConstraintUsage[i].argvIndex = 1;
    info->aConstraintUsage[i].omit = 1;
    info->idxNum = kOne;
    info->idxFlags = SQLITE_INDEX_SCAN_UNIQUE;
    info->estimatedCost = 1;
    return SQLITE_OK;
  }
  return SQLITE_OK;
}

int Open(sqlite3_vtab*, sqlite3_vtab_cursor** out) {
  *out = new Cursor{};
  return SQLITE_OK;
}

int Close(sqlite3_vtab_cursor* cursor) {
  delete static_cast<Cursor*>(cursor);
  return SQLITE_OK;
}

int Filter(sqlite3_vtab_cursor* base, int plan, char const*, int, sqlite3_value** values) {
  auto* const cursor = static_cast<Cursor*>(base);
  std::int64_t const rows = static_cast<Table*>(base->pVtab)->rows;
  cursor->row = plan == kOne ? sqlite3_value_int64(values[0]) : 1;
  cursor->end = plan == kOne && cursor->row <= rows ? cursor->row + 1 : rows + 1;
  return SQLITE_OK;
}

int Next(sqlite3_vtab_cursor* cursor) {
  ++static_cast<Cursor*>(cursor)->row;
  return SQLITE_OK;
}

int Eof(sqlite3_vtab_cursor* base) {
  auto* const cursor = static_cast<Cursor*>(base);
  return cursor->row >= cursor->end ? 1 : 0;
}

int Column(sqlite3_vtab_cursor*, sqlite3_context* context, int column) {
  column == 1 ? sqlite3_result_double(context, 1) : sqlite3_result_int64(context, 1);
  return SQLITE_OK;
}

int RowId(sqlite3_vtab_cursor* cursor, sqlite3_int64* out) {
  *out = static_cast<Cursor*>(cursor)->row;
  return SQLITE_OK;
}

// Without xCreate the table is there by its name alone.
sqlite3_module Module() {
  sqlite3_module module{};
  module.xConnect = &Connect;
  module.xBestIndex = &BestIndex;
  module.xDisconnect = &Disconnect;
  module.xOpen = &Open;
  module.xClose = &Close;
  module.xFilter = &Filter;
  module.xNext = &Next;
  module.xEof = &Eof;
  module.xColumn = &Column;
  module.xRowid = &RowId;
  return module;
}

}  // namespace

void RegisterEmptyTable(sqlite3* database, char const* name, std::int64_t rows) {
  static sqlite3_module const kModule = Module();
  sqlite::Check(
      sqlite3_create_module_v2(database, name, &kModule, new std::int64_t(rows),
                               [](void* count) { delete static_cast<std::int64_t*>(count); }));
}

}  // namespace bench
