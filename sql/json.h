#ifndef SAGLEME_SQL_JSON_H
#define SAGLEME_SQL_JSON_H

// SQLite's own operators -> and ->>, which those for references take the place of in a connection.

#include "api.h"

namespace sagleme::sql {

// Asks a connection of its own, made when it is first needed.
class Json {
 public:
  Json() = default;
  ~Json();
  Json(Json const&) = delete;
  Json& operator=(Json const&) = delete;

  // `text`: the operator ->> is meant.
  void Extract(sqlite3_context* context, sqlite3_value** values, bool text);

 private:
  sqlite3_stmt* Prepared(bool text);

  sqlite3* database_ = nullptr;
  sqlite3_stmt* statements_[2] = {};
};

}  // namespace sagleme::sql

#endif
