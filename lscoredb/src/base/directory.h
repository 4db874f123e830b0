#ifndef LSCOREDB_SRC_DIRECTORY_H
#define LSCOREDB_SRC_DIRECTORY_H

#include <string>

namespace lscore {

// Syncs the names of the directory's files to the disk. Does nothing on file systems that cannot
// sync directories. Throws like ThrowCannotOpen.
void SyncDirectory(std::string const& path);

}  // namespace lscore

#endif
