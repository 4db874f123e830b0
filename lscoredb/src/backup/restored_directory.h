#ifndef LSCOREDB_SRC_RESTORED_DIRECTORY_H
#define LSCOREDB_SRC_RESTORED_DIRECTORY_H

// The directory of a database that is being restored. It grows beside its place, as
// "<target>.restoring", and gets its name when it is whole. One that somebody left who died is
// replaced. One thread.

#include <memory>
#include <string>

#include "backup_folder.h"

namespace lscore {

class RestoredDirectory {
 public:
  // Throws LSCOREDB_CANNOT_OPEN, with the reason, if the target is there and not an empty
  // directory, and LSCOREDB_BACKUP_BUSY if somebody else is restoring it.
  explicit RestoredDirectory(std::string target);
  // Removes it unless it was finished.
  ~RestoredDirectory();
  RestoredDirectory(RestoredDirectory const&) = delete;
  RestoredDirectory& operator=(RestoredDirectory const&) = delete;

  std::string const& path() const { return path_; }
  // Gives it its name, durably.
  void Finish();

 private:
  void RemoveFiles() const;

  std::string const target_;
  std::string const path_;
  std::unique_ptr<HeldLock> lock_;
  bool finished_ = false;
};

}  // namespace lscore

#endif
