#ifndef SAGLEME_SQL_FUNCTIONS_H
#define SAGLEME_SQL_FUNCTIONS_H

// The functions of SQL that the extension adds; docs/sql.md lists them.

#include <memory>

#include "api.h"

namespace sagleme::sql {

class Connection;

int RegisterFunctions(sqlite3* database, std::shared_ptr<Connection> const& connection);

}  // namespace sagleme::sql

#endif
