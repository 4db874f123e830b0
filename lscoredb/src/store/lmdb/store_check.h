#ifndef LSCOREDB_SRC_STORE_CHECK_H
#define LSCOREDB_SRC_STORE_CHECK_H

// What is looked at before the bytes of a file are trusted. For the store's own source files.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "store_pages.h"

struct MDB_env;

namespace lscore {

std::size_t PageSize(MDB_env* env);

// What can be looked at before the library opens the file. The directory may hold none yet.
// Throws LSCOREDB_NOT_A_DATABASE or LSCOREDB_DAMAGED.
void CheckDataFile(char const* directory);

// How often a walk over the pages of the newest state begins again, without a newer one to walk,
// because the file's head does not show that state.
inline constexpr int kWalkAttempts = 3;

// Throws LSCOREDB_DAMAGED when pages of the newest state do not hold together.
void CheckPages(MDB_env* env, PageDepth depth);

// Throws LSCOREDB_DAMAGED when the file ends before a page that is in use. A touch behind the end
// would end the process.
void CheckLength(MDB_env* env);

// Whether the file cannot grow by another page: the file system or the process's limit is reached.
bool IsDiskFull(MDB_env* env);

int FileOf(MDB_env* env);
// The descriptors that the library has open: of the data file, twice, and of its lock file.
std::vector<int> FilesOf(MDB_env* env);

// The address of the file's first byte in memory, or 0 when it cannot be told. `tree` holds the
// format record.
std::uintptr_t FindMap(MDB_env* env, unsigned tree);

}  // namespace lscore

#endif
