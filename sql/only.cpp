#include "only.h"

#include <string>

#include "attachment.h"
#include "connection.h"
#include "failure.h"
#include "text.h"

namespace sagleme::sql {
namespace {

constexpr int kTableArgument = 2;
constexpr int kSchemaArgument = 3;

struct OnlyTable : sqlite3_vtab {
  Connection* connection = nullptr;
};

// Steps through the table of the same name without its descendants.
struct OnlyCursor : sqlite3_vtab_cursor {
  sqlite3_stmt* statement = nullptr;
  bool at_end = true;

  ~OnlyCursor() { sqlite3_finalize(statement); }
};

OnlyCursor& CursorAt(sqlite3_vtab_cursor* cursor) { return *static_cast<OnlyCursor*>(cursor); }

Connection& ConnectionOf(sqlite3_vtab_cursor* cursor) {
  return *static_cast<OnlyTable*>(cursor->pVtab)->connection;
}

int Connect(sqlite3* database, void* shared, int, char const* const*, sqlite3_vtab** out, char**) {
  return Guarded(
      [&] {
        int const code = sqlite3_declare_vtab(
            database,
            "CREATE TABLE x(_oid INTEGER, _table TEXT, \"table\" HIDDEN, \"schema\" HIDDEN)");
        if (code != SQLITE_OK) throw Failure(code, sqlite3_errmsg(database));
        auto table = std::make_unique<OnlyTable>();
        table->connection = static_cast<std::shared_ptr<Connection>*>(shared)->get();
        *out = table.release();
      },
      [](char const*) {});
}

int Disconnect(sqlite3_vtab* table) {
  delete static_cast<OnlyTable*>(table);
  return SQLITE_OK;
}

// idxNum 1: the schema is given too.
int BestIndex(sqlite3_vtab* table, sqlite3_index_info* info) {
  int arguments[2] = {-1, -1};
  for (int i = 0; i < info->nConstraint; ++i) {
    auto const& each = info->aConstraint[i];
    if (each.iColumn < kTableArgument || each.op != SQLITE_INDEX_CONSTRAINT_EQ) continue;
    if (each.usable == 0) return SQLITE_CONSTRAINT;
    arguments[each.iColumn - kTableArgument] = i;
  }
  return GuardedMethod(table, [&] {
    if (arguments[0] < 0) throw Failure(SQLITE_ERROR, "only() needs the name of a table.");
    int position = 0;
    for (int const at : arguments) {
      if (at < 0) continue;
      info->aConstraintUsage[at].argvIndex = ++position;
      info->aConstraintUsage[at].omit = 1;
    }
    info->idxNum = arguments[1] < 0 ? 0 : 1;
    info->estimatedCost = 1000;
  });
}

int Open(sqlite3_vtab* table, sqlite3_vtab_cursor** out) {
  return GuardedMethod(table, [&] { *out = new OnlyCursor; });
}

int Close(sqlite3_vtab_cursor* cursor) {
  delete static_cast<OnlyCursor*>(cursor);
  return SQLITE_OK;
}

void Step(OnlyCursor& cursor, sqlite3* database) {
  int const code = sqlite3_step(cursor.statement);
  cursor.at_end = code != SQLITE_ROW;
  if (code != SQLITE_ROW && code != SQLITE_DONE) throw Failure(code, sqlite3_errmsg(database));
}

std::string TextOf(sqlite3_value* value) {
  if (sqlite3_value_type(value) == SQLITE_NULL) {
    throw Failure(SQLITE_MISMATCH, "only() wants names, not NULL.");
  }
  return TextBytes(value);
}

int Filter(sqlite3_vtab_cursor* cursor, int with_schema, char const*, int, sqlite3_value** values) {
  return GuardedMethod(cursor->pVtab, [&] {
    OnlyCursor& at = CursorAt(cursor);
    Connection& connection = ConnectionOf(cursor);
    Attachment const& found = connection.Find(with_schema != 0 ? TextOf(values[1]) : "");
    std::string const sql = "SELECT _oid, _table FROM " + Quoted(found.name()) + "." +
                            Quoted(TextOf(values[0]) + " only");
    sqlite3_finalize(at.statement);
    at.statement = nullptr;
    int const code =
        sqlite3_prepare_v2(connection.handle(), sql.c_str(), -1, &at.statement, nullptr);
    if (code != SQLITE_OK) throw Failure(code, sqlite3_errmsg(connection.handle()));
    Step(at, connection.handle());
  });
}

int Next(sqlite3_vtab_cursor* cursor) {
  return GuardedMethod(cursor->pVtab,
                       [&] { Step(CursorAt(cursor), ConnectionOf(cursor).handle()); });
}

int Eof(sqlite3_vtab_cursor* cursor) { return CursorAt(cursor).at_end ? 1 : 0; }

int Column(sqlite3_vtab_cursor* cursor, sqlite3_context* result, int column) {
  if (column < kTableArgument) {
    sqlite3_result_value(result, sqlite3_column_value(CursorAt(cursor).statement, column));
  }
  return SQLITE_OK;
}

int RowId(sqlite3_vtab_cursor* cursor, sqlite3_int64* out) {
  *out = sqlite3_column_int64(CursorAt(cursor).statement, 0);
  return SQLITE_OK;
}

sqlite3_module MakeModule() {
  sqlite3_module module{};
  module.xConnect = Connect;
  module.xBestIndex = BestIndex;
  module.xDisconnect = Disconnect;
  module.xOpen = Open;
  module.xClose = Close;
  module.xFilter = Filter;
  module.xNext = Next;
  module.xEof = Eof;
  module.xColumn = Column;
  module.xRowid = RowId;
  return module;
}

}  // namespace

int RegisterOnly(sqlite3* database, std::shared_ptr<Connection> const& connection) {
  static sqlite3_module const module = MakeModule();
  return sqlite3_create_module_v2(
      database, "only", &module, new std::shared_ptr<Connection>(connection),
      [](void* shared) { delete static_cast<std::shared_ptr<Connection>*>(shared); });
}

}  // namespace sagleme::sql
