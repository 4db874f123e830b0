#ifndef SAGLEME_BENCH_EMPTY_TABLE_H
#define SAGLEME_BENCH_EMPTY_TABLE_H

// What SQLite's interface of virtual tables costs by itself.

#include <sqlite3.h>

#include <cstdint>

namespace bench {

// Makes a table (Plain, Weight, Pages) known to a connection: `rows` rows with the row ids from 1
// on, each value of which reads as 1. Nothing is stored and nothing is looked up.
void RegisterEmptyTable(sqlite3* database, char const* name, std::int64_t rows);

}  // namespace bench

#endif
