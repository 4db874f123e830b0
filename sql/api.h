#ifndef SAGLEME_SQL_API_H
#define SAGLEME_SQL_API_H

// SQLite's functions: through the table that a client hands to an extension, or linked directly
// where the code is part of a program.

#if defined(SAGLEME_SQL_BUILT_IN)
#include <sqlite3.h>
#else
#include <sqlite3ext.h>
SQLITE_EXTENSION_INIT3
#endif

#endif
