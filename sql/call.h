#ifndef SAGLEME_SQL_CALL_H
#define SAGLEME_SQL_CALL_H

// Functions of SQL that work on the state of their connection.

#include <memory>

#include "connection.h"
#include "failure.h"

namespace sagleme::sql {

using Body = void (*)(sqlite3_context*, Connection&, int, sqlite3_value**);

// Runs a body, and hands what it throws to SQLite.
template <Body body>
void Call(sqlite3_context* context, int count, sqlite3_value** values) {
  auto& connection = **static_cast<std::shared_ptr<Connection>*>(sqlite3_user_data(context));
  int const code = Guarded([&] { body(context, connection, count, values); },
                           [&](char const* text) { sqlite3_result_error(context, text, -1); });
  if (code == SQLITE_NOMEM) {
    sqlite3_result_error_nomem(context);
  } else if (code != SQLITE_OK) {
    sqlite3_result_error_code(context, code);
  }
}

struct Function {
  char const* name;
  int arguments;
  int flags;
  void (*call)(sqlite3_context*, int, sqlite3_value**);
};

inline int Define(sqlite3* database, std::shared_ptr<Connection> const& connection,
                  Function const& function) {
  return sqlite3_create_function_v2(
      database, function.name, function.arguments, SQLITE_UTF8 | function.flags,
      new std::shared_ptr<Connection>(connection), function.call, nullptr, nullptr,
      [](void* shared) { delete static_cast<std::shared_ptr<Connection>*>(shared); });
}

}  // namespace sagleme::sql

#endif
