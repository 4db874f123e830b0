#include "join.h"

#include <string>
#include <string_view>

#include "call.h"
#include "connection.h"
#include "failure.h"
#include "text.h"

namespace sagleme::sql {
namespace {

void Join(sqlite3_context*, Connection& connection, int, sqlite3_value** values) {
  OpenTransaction const of{static_cast<std::uint64_t>(sqlite3_value_int64(values[0]))};
  connection.Join(of, TextBytes(values[1]), TextBytes(values[2]));
}

void StatusOf(sqlite3_context* context, Connection&, int, sqlite3_value** values) {
  sqlite3_result_int64(context, TakeLastStatus(sqlite3_value_int(values[0])));
}

bool IsLost(char const* schema, Connection& connection) {
  return schema != nullptr && (std::string_view(schema) == "main" || connection.Known(schema));
}

int Authorize(void* shared, int action, char const* name, char const*, char const* schema,
              char const*) {
  switch (action) {
    case SQLITE_TRANSACTION:
    case SQLITE_SAVEPOINT:
      return SQLITE_DENY;
    case SQLITE_CREATE_TABLE:
    case SQLITE_CREATE_VIEW:
    case SQLITE_CREATE_VTABLE:
      return IsLost(schema, *static_cast<Connection*>(shared)) ? SQLITE_DENY : SQLITE_OK;
    case SQLITE_DETACH:
      return IsLost(name, *static_cast<Connection*>(shared)) ? SQLITE_DENY : SQLITE_OK;
    default:
      return SQLITE_OK;
  }
}

}  // namespace

int RegisterJoin(sqlite3* database, std::shared_ptr<Connection> const& connection) {
  int const code = Define(database, connection, {"sagleme_join", 3, SQLITE_DIRECTONLY, Call<Join>});
  if (code != SQLITE_OK) return code;
  sqlite3_set_authorizer(database, Authorize, connection.get());
  return Define(database, connection, {"sagleme_status", 1, SQLITE_DIRECTONLY, Call<StatusOf>});
}

}  // namespace sagleme::sql
