#ifndef SAGLEME_SQL_JOIN_H
#define SAGLEME_SQL_JOIN_H

// What a program adds to a connection of its own to run SQL inside its transactions.
//
// sagleme_join(context, place, schema) attaches the database of the transaction that is open in a
// context, a number of the kernel; `place` is shown in messages. Statements that run later join the
// transaction that is open in the context then. The program runs them in the thread that has the
// transaction, and closes the connection, or stops using it, before the context.
//
// sagleme_status(code) is the library's status behind the failure of the last statement, whose
// SQLite code is given; 0 where SQLite itself found the fault.
//
// Transactions are the program's, so BEGIN, COMMIT and savepoints are not authorized, nor is DETACH
// of the database, nor are ordinary tables, which would be gone with the connection; temporary ones
// are.

#include <memory>

#include "api.h"

namespace sagleme::sql {

class Connection;

int RegisterJoin(sqlite3* database, std::shared_ptr<Connection> const& connection);

}  // namespace sagleme::sql

#endif
