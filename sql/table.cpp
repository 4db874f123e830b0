#include "table.h"

#include "attachment.h"
#include "connection.h"
#include "cursor.h"
#include "failure.h"
#include "update.h"

namespace sagleme::sql {
namespace {

VirtualTable& TableAt(sqlite3_vtab* table) { return *static_cast<VirtualTable*>(table); }
Cursor& CursorAt(sqlite3_vtab_cursor* cursor) { return *static_cast<Cursor*>(cursor); }

std::unique_ptr<VirtualTable> Open(Connection& connection, char const* schema, char const* name) {
  Attachment* const attachment = connection.Known(schema);
  if (attachment == nullptr) {
    throw Failure(SQLITE_ERROR, std::string("Tables of module sagleme are not made but found: "
                                            "attach a database with sagleme_attach."));
  }
  Entry const* const entry = attachment->schema()->Find(name);
  if (entry == nullptr) throw Failure(SQLITE_ERROR, std::string("no such table: ") + name);
  auto table = std::make_unique<VirtualTable>();
  table->connection = &connection;
  table->attachment = attachment;
  table->number = connection.NumberOf(attachment);
  table->shape = entry->shape;
  return table;
}

int Connect(sqlite3* database, void* shared, int, char const* const* words, sqlite3_vtab** out,
            char** text) {
  auto const& connection = *static_cast<std::shared_ptr<Connection>*>(shared);
  return Guarded(
      [&] {
        std::unique_ptr<VirtualTable> table = Open(*connection, words[1], words[2]);
        int const code = sqlite3_declare_vtab(database, table->shape->declaration.c_str());
        if (code != SQLITE_OK) throw Failure(code, sqlite3_errmsg(database));
        sqlite3_vtab_config(database, SQLITE_VTAB_CONSTRAINT_SUPPORT, 1);
        *out = table.release();
      },
      [text](char const* what) { *text = sqlite3_mprintf("%s", what); });
}

int Disconnect(sqlite3_vtab* table) {
  delete static_cast<VirtualTable*>(table);
  return SQLITE_OK;
}

// Tables go by definitions of the database alone.
int Destroy(sqlite3_vtab* table) {
  if (TableAt(table).Attached().defining()) return Disconnect(table);
  return SQLITE_READONLY;
}

// Statements keep their plans by number as long as they are prepared, so none goes before the
// table; equal ones are kept once.
int KeepPlan(VirtualTable& table, Plan plan) {
  for (std::size_t i = 0; i < table.plans.size(); ++i) {
    if (*table.plans[i] == plan) return static_cast<int>(i);
  }
  table.plans.push_back(std::make_unique<Plan>(std::move(plan)));
  return static_cast<int>(table.plans.size()) - 1;
}

int BestIndex(sqlite3_vtab* vtab, sqlite3_index_info* info) {
  return GuardedMethod(vtab, [&] {
    VirtualTable& table = TableAt(vtab);
    Plan plan;
    Choose(*table.shape, table.Attached().Estimate(*table.shape), info, plan);
    info->idxNum = KeepPlan(table, plan);
    info->idxStr = sqlite3_mprintf("%s", plan.text.c_str());
    info->needToFreeIdxStr = 1;
    if (info->idxStr == nullptr) throw std::bad_alloc();
  });
}

int OpenCursor(sqlite3_vtab* vtab, sqlite3_vtab_cursor** out) {
  return GuardedMethod(vtab, [&] { *out = new Cursor(TableAt(vtab)); });
}

int CloseCursor(sqlite3_vtab_cursor* cursor) {
  delete static_cast<Cursor*>(cursor);
  return SQLITE_OK;
}

int Filter(sqlite3_vtab_cursor* cursor, int number, char const*, int count,
           sqlite3_value** values) {
  return GuardedMethod(cursor->pVtab, [&] {
    auto const at = static_cast<std::size_t>(number);
    CursorAt(cursor).Filter(*TableAt(cursor->pVtab).plans.at(at), count, values);
  });
}

// The methods of each row enter no std::function on their way.
template <typename Work>
int Quick(sqlite3_vtab* table, Work&& work) noexcept {
  try {
    work();
    return SQLITE_OK;
  } catch (...) {
    return GuardedMethod(table, [] { throw; });
  }
}

int Next(sqlite3_vtab_cursor* cursor) {
  return Quick(cursor->pVtab, [&] { CursorAt(cursor).Next(); });
}

int Eof(sqlite3_vtab_cursor* cursor) { return CursorAt(cursor).AtEnd() ? 1 : 0; }

int Column(sqlite3_vtab_cursor* cursor, sqlite3_context* result, int column) {
  return Quick(cursor->pVtab, [&] { CursorAt(cursor).Column(result, column); });
}

int RowIdOf(sqlite3_vtab_cursor* cursor, sqlite3_int64* out) {
  return Quick(cursor->pVtab, [&] { *out = static_cast<sqlite3_int64>(CursorAt(cursor).oid()); });
}

int Update(sqlite3_vtab* table, int count, sqlite3_value** values, sqlite3_int64* id) {
  return GuardedMethod(table, [&] {
    sqlite3_int64 const made = UpdateRow(TableAt(table), count, values);
    if (made != 0) *id = made;
  });
}

int Begin(sqlite3_vtab* table) {
  return GuardedMethod(table, [&] { TableAt(table).Begin(); });
}

// The last moment at which a commit can still be refused.
int Sync(sqlite3_vtab* table) {
  return GuardedMethod(table, [&] { TableAt(table).Attached().Commit(); });
}

int Commit(sqlite3_vtab*) { return SQLITE_OK; }

int Rollback(sqlite3_vtab* table) {
  TableAt(table).Attached().Rollback();
  return SQLITE_OK;
}

int Savepoint(sqlite3_vtab* table, int number) {
  return GuardedMethod(table, [&] { TableAt(table).Attached().Savepoint(number); });
}

int RollbackTo(sqlite3_vtab* table, int number) {
  return GuardedMethod(table, [&] { TableAt(table).Attached().RollbackTo(number); });
}

int Release(sqlite3_vtab* table, int number) {
  return GuardedMethod(table, [&] { TableAt(table).Attached().Release(number); });
}

sqlite3_module MakeModule() {
  sqlite3_module module{};
  module.iVersion = 2;
  module.xCreate = Connect;
  module.xConnect = Connect;
  module.xBestIndex = BestIndex;
  module.xDisconnect = Disconnect;
  module.xDestroy = Destroy;
  module.xOpen = OpenCursor;
  module.xClose = CloseCursor;
  module.xFilter = Filter;
  module.xNext = Next;
  module.xEof = Eof;
  module.xColumn = Column;
  module.xRowid = RowIdOf;
  module.xUpdate = Update;
  module.xBegin = Begin;
  module.xSync = Sync;
  module.xCommit = Commit;
  module.xRollback = Rollback;
  module.xSavepoint = Savepoint;
  module.xRollbackTo = RollbackTo;
  module.xRelease = Release;
  return module;
}

}  // namespace

void VirtualTable::Begin() { attachment->transaction(); }

bool VirtualTable::Holds(Attachment& at, std::uint64_t oid) const {
  TablePtr const found = at.TableOf(oid);
  if (found == nullptr) return false;
  return shape->only ? found->row.oid == shape->table->row.oid : found->IsA(*shape->table);
}

int RegisterTables(sqlite3* database, std::shared_ptr<Connection> const& connection) {
  static sqlite3_module const module = MakeModule();
  return sqlite3_create_module_v2(
      database, "sagleme", &module, new std::shared_ptr<Connection>(connection),
      [](void* shared) { delete static_cast<std::shared_ptr<Connection>*>(shared); });
}

}  // namespace sagleme::sql
