#ifndef LSCOREDB_SRC_DIRECTORY_H
#define LSCOREDB_SRC_DIRECTORY_H

#include <string>

namespace lscore {

// Has the names of the directory's files reach the disk. A file system that does not do this for
// directories has nothing to be done. Throws what ThrowCannotOpen does.
void SyncDirectory(std::string const& path);

}  // namespace lscore

#endif
