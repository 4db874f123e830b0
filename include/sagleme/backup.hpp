#ifndef SAGLEME_BACKUP_HPP
#define SAGLEME_BACKUP_HPP

// Backups of a database, and databases made of them. <lscoredb/backup.h> has the rules.
//
//   sagleme::Backup(database, "/backup/shop");                         // full, then increments
//   sagleme::Restore("/backup/shop", "shop", {.until_commit = 4711});  // as it was after that
//
// All functions throw Error, whose text names the file or directory and says what is wrong with it.

#include <lscoredb/backup.h>

#include <cstdint>
#include <optional>
#include <sagleme/host/database.hpp>
#include <string>
#include <vector>

namespace sagleme {

struct BackupPart {
  bool full = false;         // a whole copy; otherwise an increment
  std::uint32_t number = 0;  // as in the name of its file
  std::uint64_t first = 0;   // the first commit of an increment; of a full part, `last`
  std::uint64_t last = 0;    // the last commit
  std::uint64_t time = 0;    // the part is of the state then, in microseconds since 1970
  std::uint64_t bytes = 0;
};

struct BackupOptions {
  bool full = false;   // a full part, even if an increment would do
  bool prune = false;  // then removes the parts before the last full one
};

struct RestoreOptions {
  std::uint64_t until_commit = 0;  // the last commit; 0: no limit
  std::uint64_t until_time = 0;    // in microseconds since 1970; likewise. At most one limit
  bool check = true;  // checks the restored database as CheckDatabase's first step does
};

struct RestoredState {
  std::uint64_t commit = 0;  // the database is as it was after this commit
  std::uint64_t time = 0;    // of that commit or, if it ends a full part, of the part
};

namespace detail {

inline void CheckBackup(std::uint32_t status) {
  if (status == 0) return;
  std::string text = lscoredb_open_error();
  if (text.empty()) text = lscoredb_status_text(status);
  throw Error(status, text);
}

inline BackupPart PartOf(lscoredb_backup_part const& part) {
  return {part.kind == LSCOREDB_BACKUP_FULL_PART,
          part.number,
          part.first,
          part.last,
          part.time,
          part.bytes};
}

}  // namespace detail

// Adds a part: a full one if it is the first, otherwise an increment. Nothing if there was no
// commit since the last part. LSCOREDB_NEEDS_FULL_BACKUP if the commits since then are not kept.
inline std::optional<BackupPart> Backup(Database const& database, std::string const& directory,
                                        BackupOptions const& options = {}) {
  lscoredb_backup_part part{};
  part.size = sizeof part;
  std::uint32_t const flags =
      (options.full ? LSCOREDB_BACKUP_FULL : 0u) | (options.prune ? LSCOREDB_BACKUP_PRUNE : 0u);
  detail::CheckBackup(lscoredb_backup(database.handle(), directory.c_str(), flags, &part));
  if (part.kind == LSCOREDB_BACKUP_NOTHING) return std::nullopt;
  return detail::PartOf(part);
}

// The parts in their order.
inline std::vector<BackupPart> ListBackup(std::string const& directory) {
  std::vector<BackupPart> parts;
  auto const add = [](void* to, lscoredb_backup_part const* part) -> std::uint32_t {
    try {
      static_cast<std::vector<BackupPart>*>(to)->push_back(detail::PartOf(*part));
      return 0;
    } catch (std::bad_alloc const&) {
      return 1;
    }
  };
  detail::CheckBackup(lscoredb_backup_list(directory.c_str(), 0, add, &parts));
  return parts;
}

// Reads all parts and compares their checksums. LSCOREDB_BACKUP_DAMAGED.
inline void VerifyBackup(std::string const& directory) {
  auto const ignore = [](void*, lscoredb_backup_part const*) -> std::uint32_t { return 0; };
  detail::CheckBackup(
      lscoredb_backup_list(directory.c_str(), LSCOREDB_BACKUP_VERIFY, ignore, nullptr));
}

// Makes a database in `target`, which must not exist or be empty.
inline RestoredState Restore(std::string const& directory, std::string const& target,
                             RestoreOptions const& options = {}) {
  lscoredb_restore_options given{};
  given.size = sizeof given;
  given.until_commit = options.until_commit;
  given.until_time = options.until_time;
  given.no_check = options.check ? 0 : 1;
  lscoredb_restored restored{};
  restored.size = sizeof restored;
  detail::CheckBackup(lscoredb_restore(directory.c_str(), &given, target.c_str(), &restored));
  return {restored.commit, restored.time};
}

}  // namespace sagleme

#endif
