#ifndef SAGLEME_SQL_ONLY_H
#define SAGLEME_SQL_ONLY_H

// only('Table' [, 'schema']): the ids of the objects of a table without those of derived tables.

#include <memory>

#include "api.h"

namespace sagleme::sql {

class Connection;

int RegisterOnly(sqlite3* database, std::shared_ptr<Connection> const& connection);

}  // namespace sagleme::sql

#endif
