#include "extension.h"

#include <memory>
#include <string>
#include <vector>

#include "connection.h"
#include "failure.h"
#include "functions.h"
#include "join.h"
#include "only.h"
#include "table.h"
#include "vfs.h"

namespace sagleme::sql {
namespace {

constexpr int kOldestSqlite = 3038000;  // has lists of IN for virtual tables

void Check(int code) {
  if (code == SQLITE_NOMEM) throw std::bad_alloc();
  if (code == SQLITE_BUSY) {
    throw Failure(
        code,
        "The extension sagleme replaces functions, which SQLite refuses while a statement "
        "runs: load it with .load or sqlite3_load_extension, not with SELECT.");
  }
  if (code != SQLITE_OK) throw Failure(code, "The extension sagleme cannot be registered.");
}

struct Finalize {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};

// An SQLite file can name databases that are attached with it, see docs/sql.md.
void AttachNamed(sqlite3* database, Connection& connection) {
  sqlite3_stmt* made = nullptr;
  constexpr char kQuery[] = "SELECT directory, coalesce(schema, '') FROM main.sagleme_attach";
  if (sqlite3_prepare_v2(database, kQuery, -1, &made, nullptr) != SQLITE_OK) return;
  std::unique_ptr<sqlite3_stmt, Finalize> statement(made);
  std::vector<std::pair<std::string, std::string>> named;
  while (sqlite3_step(made) == SQLITE_ROW) {
    auto const text = [made](int column) {
      auto const* const value = reinterpret_cast<char const*>(sqlite3_column_text(made, column));
      return std::string(value == nullptr ? "" : value);
    };
    named.emplace_back(text(0), text(1));
  }
  statement.reset();
  for (auto const& [directory, schema] : named) connection.Attach(directory, schema);
}

template <typename Rest>
int RegisterWith(sqlite3* database, char** text, Rest&& rest) {
  return Guarded(
      [&] {
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
        rest(connection);
      },
      [text](char const* what) {
        if (text != nullptr) *text = sqlite3_mprintf("%s", what);
      });
}

}  // namespace

int Register(sqlite3* database, char** text) {
  return RegisterWith(database, text,
                      [database](auto const& made) { AttachNamed(database, *made); });
}

int RegisterToJoin(sqlite3* database, char** text) {
  return RegisterWith(database, text,
                      [database](auto const& made) { Check(RegisterJoin(database, made)); });
}

}  // namespace sagleme::sql
