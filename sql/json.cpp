#include "json.h"

#include "failure.h"

namespace sagleme::sql {
namespace {

constexpr unsigned kJsonSubtype = 'J';  // by which SQLite's functions know JSON from a text

}  // namespace

Json::~Json() {
  for (sqlite3_stmt* const each : statements_) sqlite3_finalize(each);
  sqlite3_close(database_);
}

sqlite3_stmt* Json::Prepared(bool text) {
  sqlite3_stmt*& statement = statements_[text ? 1 : 0];
  if (statement != nullptr) return statement;
  int code = SQLITE_OK;
  if (database_ == nullptr) code = sqlite3_open(":memory:", &database_);
  char const* const sql = text ? "SELECT ?1 ->> ?2" : "SELECT ?1 -> ?2";
  if (code == SQLITE_OK) code = sqlite3_prepare_v2(database_, sql, -1, &statement, nullptr);
  if (code != SQLITE_OK) throw Failure(code, sqlite3_errmsg(database_));
  return statement;
}

void Json::Extract(sqlite3_context* context, sqlite3_value** values, bool text) {
  sqlite3_stmt* const statement = Prepared(text);
  sqlite3_bind_value(statement, 1, values[0]);
  sqlite3_bind_value(statement, 2, values[1]);
  if (sqlite3_step(statement) == SQLITE_ROW) {
    sqlite3_result_value(context, sqlite3_column_value(statement, 0));
    if (!text) sqlite3_result_subtype(context, kJsonSubtype);
  }
  int const code = sqlite3_reset(statement);
  if (code != SQLITE_OK) throw Failure(code, sqlite3_errmsg(database_));
}

}  // namespace sagleme::sql
