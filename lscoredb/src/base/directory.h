#ifndef LSCOREDB_SRC_DIRECTORY_H
#define LSCOREDB_SRC_DIRECTORY_H

#include <string>

namespace lscore {

// Syncs the names of the directory's files to the disk. Does nothing on file systems that cannot
// sync directories. Throws like ThrowCannotOpen.
void SyncDirectory(std::string const& path);

// Gives a new file the permissions and the group of another one, as far as the system allows that:
// who may write the one may write the other.
void CopyPermissions(std::string const& from, int file) noexcept;

}  // namespace lscore

#endif
