#include <lscoredb/backup.h>

#include <algorithm>
#include <cstring>

#include "c_api.h"
#include "make_backup.h"
#include "open_error.h"
#include "restore_backup.h"
#include "server_place.h"
#include "watched_work.h"

namespace lscore {
namespace {

constexpr std::uint32_t kBackupFlags = LSCOREDB_BACKUP_FULL | LSCOREDB_BACKUP_PRUNE;

// Writes as much of a record as its caller knows.
template <typename Record>
void Give(Record record, Record* out) {
  if (out == nullptr) return;
  std::size_t const size = out->size;
  record.size = size;
  std::memcpy(out, &record, std::min(size, sizeof record));
}

template <typename Record>
bool HasSize(Record const* record) {
  return record == nullptr || record->size >= sizeof record->size;
}

lscoredb_backup_part Shown(BackupPart const& part) {
  lscoredb_backup_part shown{};
  shown.size = sizeof shown;
  shown.kind = part.full ? LSCOREDB_BACKUP_FULL_PART : LSCOREDB_BACKUP_INCREMENT;
  shown.number = part.number;
  shown.first = Raw(part.first);
  shown.last = Raw(part.last);
  shown.time = part.time;
  shown.bytes = part.size;
  return shown;
}

// A database in which nothing was ever committed gets its identity now.
std::uint64_t IdentityOf(Database& database) {
  if (std::uint64_t const identity = database.identity().Get(); identity != 0) return identity;
  std::unique_ptr<Batch> const batch = database.store().BeginBatch();
  database.identity().Assure(*batch);
  batch->Commit();
  return database.identity().Get();
}

lscoredb_restore_options OptionsOf(lscoredb_restore_options const* given) {
  lscoredb_restore_options options{};
  if (given == nullptr) return options;
  if (!HasSize(given)) Throw(LSCOREDB_INVALID_ARGUMENT);
  std::memcpy(&options, given, std::min(given->size, sizeof options));
  bool const two_limits = options.until_commit != 0 && options.until_time != 0;
  if (two_limits || options.no_check > 1) Throw(LSCOREDB_INVALID_ARGUMENT);
  return options;
}

// Backups lie in directories. A URL is not taken for one: messages would show its password.
void NeedDirectory(char const* place) {
  if (!IsServerUrl(place)) return;
  NoteOpenError(ShownPlace(place), "a backup lies in a directory, not on a server");
  Throw(LSCOREDB_CANNOT_OPEN);
}

void NeedDirectoryToRestoreTo(char const* target) {
  if (!IsServerUrl(target)) return;
  NoteOpenError(ShownPlace(target),
                "a backup is restored to a directory, which can be copied to a server");
  Throw(LSCOREDB_INVALID_ARGUMENT);
}

}  // namespace
}  // namespace lscore

using namespace lscore;

uint32_t lscoredb_backup(lscoredb* database, char const* directory, uint32_t flags,
                         lscoredb_backup_part* out) {
  return Guarded([&]() -> Status {
    if (database == nullptr || directory == nullptr) return LSCOREDB_NULL_ARGUMENT;
    if (IsOfParent(*database)) return LSCOREDB_OF_PARENT;
    ForgetOpenError();
    if ((flags & ~kBackupFlags) != 0 || !HasSize(out)) return LSCOREDB_INVALID_ARGUMENT;
    NeedDirectory(directory);
    WatchedCall const call;
    Database& found = *database->database;
    BackupSource const source{found.store(), IdentityOf(found), found.directory()};
    std::optional<BackupPart> const part =
        MakeBackup(source, directory,
                   {(flags & LSCOREDB_BACKUP_FULL) != 0, (flags & LSCOREDB_BACKUP_PRUNE) != 0});
    Give(part.has_value() ? Shown(*part) : lscoredb_backup_part{}, out);
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_backup_list(char const* directory, uint32_t flags,
                              lscoredb_backup_callback report, void* user) {
  return Guarded([&]() -> Status {
    if (directory == nullptr || report == nullptr) return LSCOREDB_NULL_ARGUMENT;
    ForgetOpenError();
    if ((flags & ~LSCOREDB_BACKUP_VERIFY) != 0) return LSCOREDB_INVALID_ARGUMENT;
    NeedDirectory(directory);
    WatchedCall const call;
    if ((flags & LSCOREDB_BACKUP_VERIFY) != 0) VerifyBackup(directory);
    for (BackupPart const& part : BackupFolder(directory).Read().parts) {
      lscoredb_backup_part const shown = Shown(part);
      if (report(user, &shown) != 0) break;
    }
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_restore(char const* directory, lscoredb_restore_options const* options,
                          char const* target, lscoredb_restored* out) {
  return Guarded([&]() -> Status {
    if (directory == nullptr || target == nullptr) return LSCOREDB_NULL_ARGUMENT;
    ForgetOpenError();
    lscoredb_restore_options const given = OptionsOf(options);
    if (!HasSize(out) || *target == '\0') return LSCOREDB_INVALID_ARGUMENT;
    NeedDirectoryToRestoreTo(target);
    NeedDirectory(directory);
    WatchedCall const call;
    RestoreLimit const limit{CommitId{given.until_commit}, given.until_time};
    RestoredState const state = RestoreBackup(directory, limit, given.no_check == 0, target);
    Give(lscoredb_restored{0, Raw(state.commit), state.time}, out);
    return LORV_STATUS_OK;
  });
}
