#include "functions.h"

#include "attachment.h"
#include "connection.h"
#include "failure.h"
#include "text.h"
#include "values.h"

namespace sagleme::sql {
namespace {

Connection& ConnectionOf(sqlite3_context* context) {
  return **static_cast<std::shared_ptr<Connection>*>(sqlite3_user_data(context));
}

using Body = void (*)(sqlite3_context*, Connection&, int, sqlite3_value**);

template <Body body>
void Call(sqlite3_context* context, int count, sqlite3_value** values) {
  int const code = Guarded([&] { body(context, ConnectionOf(context), count, values); },
                           [&](char const* text) { sqlite3_result_error(context, text, -1); });
  if (code == SQLITE_NOMEM) {
    sqlite3_result_error_nomem(context);
  } else if (code != SQLITE_OK) {
    sqlite3_result_error_code(context, code);
  }
}

std::string TextOf(sqlite3_value* value, char const* what) {
  if (sqlite3_value_type(value) != SQLITE_TEXT) {
    throw Failure(SQLITE_MISMATCH, std::string(what) + " is not given as a text.");
  }
  return reinterpret_cast<char const*>(sqlite3_value_text(value));
}

void AttachDatabase(sqlite3_context* context, Connection& connection, int count,
                    sqlite3_value** values) {
  std::string const directory = TextOf(values[0], "The directory of the database");
  std::string const schema = count > 1 ? TextOf(values[1], "The name of the schema") : "";
  std::string const name = connection.Attach(directory, schema);
  sqlite3_result_text(context, name.c_str(), -1, SQLITE_TRANSIENT);
}

struct Definition {
  char const* name;
  int arguments;
  int flags;
  void (*call)(sqlite3_context*, int, sqlite3_value**);
};

constexpr Definition kFunctions[] = {
    {"sagleme_attach", 1, SQLITE_DIRECTONLY, Call<AttachDatabase>},
    {"sagleme_attach", 2, SQLITE_DIRECTONLY, Call<AttachDatabase>},
};

}  // namespace

int RegisterFunctions(sqlite3* database, std::shared_ptr<Connection> const& connection) {
  for (Definition const& each : kFunctions) {
    int const code = sqlite3_create_function_v2(
        database, each.name, each.arguments, SQLITE_UTF8 | each.flags,
        new std::shared_ptr<Connection>(connection), each.call, nullptr, nullptr,
        [](void* shared) { delete static_cast<std::shared_ptr<Connection>*>(shared); });
    if (code != SQLITE_OK) return code;
  }
  return SQLITE_OK;
}

}  // namespace sagleme::sql
