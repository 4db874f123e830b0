#ifndef SAGLEME_SQL_EXTENSION_H
#define SAGLEME_SQL_EXTENSION_H

// Makes sagleme databases known to a SQLite connection.

#include "api.h"

namespace sagleme::sql {

// Registers the file system, the virtual tables and the functions. A SQLite result code; `text`,
// when it is set, is to be freed with sqlite3_free.
int Register(sqlite3* database, char** text);
// The same for a connection whose statements join the transactions of the program, see join.h.
int RegisterToJoin(sqlite3* database, char** text);

}  // namespace sagleme::sql

#endif
