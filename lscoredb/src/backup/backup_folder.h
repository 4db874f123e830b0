#ifndef LSCOREDB_SRC_BACKUP_FOLDER_H
#define LSCOREDB_SRC_BACKUP_FOLDER_H

// The directory of a backup: its manifest, its lock and the files of its parts. One thread.
//
// A part is written under another name, synced and renamed before the manifest that lists it
// replaces the one before, by a rename too. So the backup is at any moment what its manifest says,
// and whatever else lies there is left over from somebody who did not finish, and is removed by the
// next one to write.
//
// Failures are thrown as statuses, with the file and the reason as text (open_error.h).

#include <memory>
#include <string>
#include <string_view>

#include "backup_format.h"

namespace lscore {

// Records what is wrong with a file, and throws.
[[noreturn]] void RefuseBackup(Status status, std::string const& path, std::string const& reason);

// Locks a file against other holders. The system releases it when the process dies.
class HeldLock {
 public:
  // Creates the file if it is missing. Throws LSCOREDB_BACKUP_BUSY if somebody else holds it.
  explicit HeldLock(std::string const& path);
  ~HeldLock();
  HeldLock(HeldLock const&) = delete;
  HeldLock& operator=(HeldLock const&) = delete;

 private:
  int file_ = -1;
};

class BackupFolder {
 public:
  explicit BackupFolder(std::string path) : path_(std::move(path)) {}

  std::string const& path() const { return path_; }
  std::string PathOf(BackupPart const& part) const { return In(backupformat::NameOf(part)); }
  std::string new_part() const { return In(backupformat::kNewPartName); }
  std::string new_copy() const { return In(backupformat::kNewCopyName); }

  // The manifest. Throws LSCOREDB_NOT_A_BACKUP, LSCOREDB_NEWER_FORMAT, LSCOREDB_BACKUP_DAMAGED.
  BackupManifest Read() const;

  // ---- writing

  // Takes the lock until the object ends, and removes leftovers. Begins a backup of the database in
  // a directory that is missing or empty. Throws LSCOREDB_OTHER_BACKUP if it is of another one.
  BackupManifest OpenToWrite(std::uint64_t identity);
  // Makes what was written, and synced, as the new part a part.
  void Add(BackupManifest& manifest, BackupPart const& part) const;
  void Replace(BackupManifest const& manifest) const;
  // Removes what the manifest does not list.
  void RemoveLeftovers(BackupManifest const& manifest) const;

 private:
  std::string In(std::string_view name) const {
    return std::string(path_).append("/").append(name);
  }
  bool HasManifest() const;
  void Create() const;

  std::string const path_;
  std::unique_ptr<HeldLock> lock_;
};

}  // namespace lscore

#endif
