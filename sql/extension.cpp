#include "extension.h"

#include <memory>

#include "connection.h"
#include "failure.h"
#include "functions.h"
#include "only.h"
#include "table.h"
#include "vfs.h"

namespace sagleme::sql {
namespace {

constexpr int kOldestSqlite = 3038000;  // has lists of IN for virtual tables

void Check(int code) {
  if (code == SQLITE_NOMEM) throw std::bad_alloc();
  if (code != SQLITE_OK) throw Failure(code, "The extension sagleme cannot be registered.");
}

}  // namespace

int Register(sqlite3* database, char** text) {
  return Guarded(
      [database] {
        if (sqlite3_libversion_number() < kOldestSqlite) {
          throw Failure(SQLITE_ERROR, std::string("The extension sagleme needs SQLite 3.38 or "
                                                  "later; this is ") +
                                          sqlite3_libversion() + ".");
        }
        RegisterFileSystem();
        auto const connection = std::make_shared<Connection>(database);
        Check(RegisterTables(database, connection));
        Check(RegisterOnly(database, connection));
        Check(RegisterFunctions(database, connection));
      },
      [text](char const* what) {
        if (text != nullptr) *text = sqlite3_mprintf("%s", what);
      });
}

}  // namespace sagleme::sql
