#ifndef LSCOREDB_SRC_MAKE_BACKUP_H
#define LSCOREDB_SRC_MAKE_BACKUP_H

// Backs up a database: a copy of all of it, or what the log has had since the last part. Others may
// read and write the database meanwhile.

#include <cstdint>
#include <optional>
#include <string>

#include "backup_folder.h"
#include "store.h"

namespace lscore {

struct BackupSource {
  Store& store;
  std::uint64_t identity;
  std::string const& directory;  // empty: the store has none
};

struct BackupOrder {
  bool full = false;   // a full part, though an increment would do
  bool prune = false;  // then removes the parts before the last full one
};

// Returns the new part; none if there was no commit since the last one. Throws
// LSCOREDB_NEEDS_FULL_BACKUP if the commits since the last part are not kept, and what BackupFolder
// throws. Whatever it throws, the backup is as it was.
std::optional<BackupPart> MakeBackup(BackupSource const& source, std::string const& directory,
                                     BackupOrder const& order);

}  // namespace lscore

#endif
