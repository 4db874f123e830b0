#ifndef SAGLEME_SQL_UPDATE_H
#define SAGLEME_SQL_UPDATE_H

// INSERT, UPDATE and DELETE of one row.
//
// Whatever can be wrong with the values is found before anything is written, and what the kernel
// refuses half way is undone, so that a row that failed left nothing.

#include "api.h"

namespace sagleme::sql {

struct VirtualTable;

// The arguments of xUpdate. Returns the id of a new object, else 0.
sqlite3_int64 UpdateRow(VirtualTable& table, int count, sqlite3_value** values);

}  // namespace sagleme::sql

#endif
