#ifndef LSCOREDB_SRC_STORE_CHECK_H
#define LSCOREDB_SRC_STORE_CHECK_H

// The checks before the bytes of a file are trusted. For the store's own source files.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "store_pages.h"

struct MDB_env;
struct MDB_txn;

namespace lscore {

std::size_t PageSize(MDB_env* env);

// What can be looked at before the library opens the file. Throws LSCOREDB_NOT_A_DATABASE or
// LSCOREDB_DAMAGED.
void CheckDataFile(char const* directory, bool others_write);

// Throws LSCOREDB_DAMAGED when pages of the state are inconsistent.
void CheckPages(int file, pages::Header const& header, PageDepth depth);

// Throws LSCOREDB_DAMAGED when the file ends before a page of the state that is in use. Extends a
// shorter sound file to the length that its header says, since access to the map beyond the end
// would end the process.
void CheckLength(int file, pages::Header const& header);
// The same without extending the file. Returns whether it is as long as its header says.
bool CheckReadLength(int file, pages::Header const& header);

// Whether the file cannot grow by another page: the file system or the process's limit is reached.
bool IsDiskFull(MDB_env* env);

int FileOf(MDB_env* env);
// The descriptors that the library has open: of the data file, twice, and of its lock file, of
// which `lock_file` is one of our own.
std::vector<int> FilesOf(MDB_env* env, int lock_file);

// The address of the mapped file. Throws LSCOREDB_DAMAGED when the tree of trees is not
// where the header says. REQUIRES: the roots of the state were checked, it has trees, and `txn`
// reads it.
char const* MapBegin(MDB_txn* txn, pages::Header const& header);

}  // namespace lscore

#endif
