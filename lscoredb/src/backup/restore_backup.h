#ifndef LSCOREDB_SRC_RESTORE_BACKUP_H
#define LSCOREDB_SRC_RESTORE_BACKUP_H

// Makes a database of a backup: the last full part that is not too new, and then the records of the
// increments after it, up to a limit.

#include <cstdint>
#include <string>

#include "backup_folder.h"

namespace lscore {

struct RestoreLimit {
  CommitId commit{0};      // the last one; 0: no limit
  std::uint64_t time = 0;  // up to the first commit after this time; 0: no limit
};

struct RestoredState {
  CommitId commit{0};
  std::uint64_t time = 0;  // of the commit or, right after a full part, of that part
};

// The database is another one from then on: it has a new identity, and its commits have numbers
// that the one that was backed up has never given. Throws LSCOREDB_NOT_IN_BACKUP,
// LSCOREDB_BACKUP_DAMAGED, and LSCOREDB_DAMAGED if the check finds something. Whatever it throws,
// there is no such directory.
RestoredState RestoreBackup(std::string const& directory, RestoreLimit const& limit, bool check,
                            std::string const& target);

// Reads all parts and compares their checksums.
void VerifyBackup(std::string const& directory);

}  // namespace lscore

#endif
