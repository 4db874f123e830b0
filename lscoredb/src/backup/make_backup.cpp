#include "make_backup.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <memory>

#include "copy_store.h"
#include "crc32c.h"
#include "fork.h"
#include "log_format.h"
#include "open_error.h"
#include "part_file.h"
#include "status.h"
#include "system_call.h"
#include "watched_work.h"

namespace lscore {
namespace {

constexpr mode_t kDirectoryMode = 0750;
constexpr WorkShare kCopyShare{0, 900};
constexpr WorkShare kChecksumShare{kCopyShare.end, 1000};

std::uint64_t Microseconds() {
  auto const now = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

// A backup must not hold commits that a power failure takes back, since others would get their
// numbers. A store that is open only to be read does not sync its files, so that is done here.
void SyncSource(BackupSource const& source) {
  if (!source.store.read_only()) return source.store.Sync();
  if (source.directory.empty()) return;
  for (char const* const name : logformat::kFileNames) {
    int const file = OpenKept((source.directory + name).c_str(), O_RDONLY);
    if (file < 0 && errno == ENOENT) continue;
    if (file < 0) ThrowErrno();
    int const error = fdatasync(file) == 0 ? 0 : errno;
    CloseKept(file);
    if (error != 0 && error != EINVAL && error != EROFS) Throw(StatusOfSystem(error));
  }
}

bool SaysNotKept(Status status) {
  return status == LSCOREDB_NO_CHANGES || status == LSCOREDB_CHANGES_GONE ||
         status == LSCOREDB_CHANGES_UNSUPPORTED;
}

LastRecord LastRecordOf(RecordedCommit const& commit) {
  LastRecord last;
  std::copy(commit.log.begin(), commit.log.end(), last.log.begin());
  logformat::Head head;
  std::memcpy(&head, commit.record.data(), sizeof head);
  last.known = true;
  last.checksum = head.checksum;
  last.before = head.before;
  return last;
}

// The record of a commit, if it is kept.
std::optional<LastRecord> FindRecord(Store& store, CommitId commit) {
  std::optional<LastRecord> found;
  Status const status = Guarded([&]() -> Status {
    std::unique_ptr<ChangeSource> const reader = store.OpenChanges(CommitId{Raw(commit) - 1});
    RecordedCommit recorded;
    if (reader->NextRecorded(&recorded)) found = LastRecordOf(recorded);
    return LORV_STATUS_OK;
  });
  if (!SaysNotKept(status)) Check(status);
  return found;
}

class Backup {
 public:
  Backup(BackupSource const& source, std::string const& directory)
      : source_(source), folder_(directory), manifest_(folder_.OpenToWrite(source.identity)) {}

  std::optional<BackupPart> Run(BackupOrder const& order) {
    NoteLog();
    bool const full = order.full || manifest_.parts.empty();
    std::optional<BackupPart> part;
    try {
      part = full ? WriteFull() : WriteIncrement();
      if (part.has_value()) {
        folder_.Add(manifest_, *part);
      } else {
        folder_.Replace(manifest_);
      }
    } catch (...) {
      RemoveUnfinished();
      throw;
    }
    if (order.prune) Prune();
    return part;
  }

 private:
  // By the manifest that is there now: a new one may have come into place before it failed. What
  // cannot be removed, the next backup removes.
  void RemoveUnfinished() const {
    static_cast<void>(Guarded([&]() -> Status {
      folder_.RemoveLeftovers(folder_.Read());
      return LORV_STATUS_OK;
    }));
  }

  // What a restored database is to have too.
  void NoteLog() {
    manifest_.retention = {};
    Status const status = Guarded([&]() -> Status {
      manifest_.retention = source_.store.Kept().retention;
      return LORV_STATUS_OK;
    });
    if (!SaysNotKept(status)) Check(status);
    bool const has_log = status != LSCOREDB_CHANGES_UNSUPPORTED && !source_.directory.empty();
    manifest_.has_log = has_log || manifest_.retention.keeps();
  }

  BackupPart NewPart() const {
    BackupPart part;
    part.number = manifest_.parts.empty() ? 1 : manifest_.parts.back().number + 1;
    part.time = Microseconds();
    return part;
  }

  BackupPart WriteFull() {
    BackupPart part = NewPart();
    part.full = true;
    std::string const copy = folder_.new_copy();
    if (mkdir(copy.c_str(), kDirectoryMode) != 0) ThrowCannotOpen(copy, errno);
    {
      WatchedPart const watched(kCopyShare);
      part.last = CopyStore(source_.store, copy.c_str());
    }
    SyncSource(source_);
    part.first = part.last;
    if (auto const record = FindRecord(source_.store, part.last)) part.record = *record;
    if (rename((copy + "/data.mdb").c_str(), folder_.new_part().c_str()) != 0) {
      ThrowCannotOpen(folder_.new_part(), errno);
    }
    std::filesystem::remove_all(copy);
    TakeChecksum(part);
    return part;
  }

  void TakeChecksum(BackupPart& part) const {
    LogFile file;
    file.Open(folder_.new_part(), LogFile::Access::kRead);
    part.size = file.Size();
    part.checksum = Crc32c({});
    WatchedWork work(kChecksumShare, part.size);
    std::string bytes(kPartBuffer, '\0');
    for (std::uint64_t at = 0; at < part.size;) {
      std::size_t const got = file.Read(at, bytes.data(), bytes.size());
      if (got == 0) Throw(LSCOREDB_IO_ERROR);
      part.checksum = Crc32cExtend(part.checksum, std::string_view(bytes).substr(0, got));
      at += got;
      work.Advance(got);
    }
  }

  std::optional<BackupPart> WriteIncrement() {
    BackupPart part = NewPart();
    BackupPart const& before = manifest_.parts.back();
    if (source_.directory.empty()) RefuseIncrement(LSCOREDB_CHANGES_UNSUPPORTED, before);
    CommitId const newest = source_.store.Statistics().last_commit;
    SyncSource(source_);
    Status const status = Guarded([&]() -> Status {
      WriteRecords(before, newest, part);
      return LORV_STATUS_OK;
    });
    if (SaysNotKept(status)) RefuseIncrement(status, before);
    if (status == LSCOREDB_INVALID_ARGUMENT) {
      RefuseHistory("the database is at commit " + std::to_string(Raw(newest)) +
                    ", and the backup ends with commit " + std::to_string(Raw(before.last)));
    }
    Check(status);
    if (part.size != 0) return part;
    manifest_.parts.back().time = std::max(before.time, part.time);
    return std::nullopt;
  }

  void WriteRecords(BackupPart const& before, CommitId newest, BackupPart& part) {
    std::unique_ptr<ChangeSource> const reader = source_.store.OpenChanges(before.last);
    if (newest == before.last) return CheckSame(before);
    WatchedWork work(WorkShare{}, Raw(newest) - Raw(before.last));
    PartWriter writer(folder_.new_part());
    part.first = CommitId{Raw(before.last) + 1};
    part.last = before.last;
    while (part.last < newest) {
      RecordedCommit commit;
      bool const some = reader->NextRecorded(&commit);
      if (!some || Raw(commit.commit) != Raw(part.last) + 1) Throw(LSCOREDB_DAMAGED);
      part.record = LastRecordOf(commit);
      if (commit.commit == part.first) Begin(before, part, writer);
      writer.Append(commit.record);
      writer.Align();
      part.last = commit.commit;
      work.Advance();
    }
    writer.Finish();
    part.size = writer.size();
    part.checksum = writer.checksum();
  }

  void Begin(BackupPart const& before, BackupPart const& part, PartWriter& writer) const {
    LastRecord const& was = before.record;
    LastRecord const& is = part.record;
    bool const same_log = was.log == is.log || was.log == logformat::Identity{};
    bool const goes_on = !was.known || is.before == was.checksum || is.before == was.before;
    if (!same_log || !goes_on) {
      RefuseHistory("what followed commit " + std::to_string(Raw(before.last)) +
                    " in this database is not what follows it in the backup's");
    }
    writer.Append(backupformat::IncrementTitle(is.log, part.first));
  }

  void CheckSame(BackupPart const& before) const {
    std::optional<LastRecord> const record = FindRecord(source_.store, before.last);
    if (!record.has_value() || !before.record.known || *record == before.record) return;
    RefuseHistory("commit " + std::to_string(Raw(before.last)) +
                  " of this database is not the one of the backup");
  }

  // An increment with another identity of the log, or that goes back, would be of a database that
  // was copied, or put back, by other means.
  [[noreturn]] void RefuseHistory(std::string const& reason) const {
    RefuseBackup(LSCOREDB_OTHER_BACKUP, folder_.path(), reason);
  }

  [[noreturn]] void RefuseIncrement(Status status, BackupPart const& before) const {
    std::string reason = "the commits after " + std::to_string(Raw(before.last));
    if (status == LSCOREDB_CHANGES_GONE) {
      reason.append(", with which the backup ends, are not kept any more");
    } else if (status == LSCOREDB_NO_CHANGES) {
      reason.append(" are not kept, since the database keeps no changes");
    } else {
      reason.append(" are not kept as increments need them, since ");
      reason.append(source_.directory.empty() ? "only a database in a directory has a log"
                                              : "the database has no log");
    }
    RefuseBackup(LSCOREDB_NEEDS_FULL_BACKUP, folder_.path(), reason);
  }

  // Only after a manifest without them are they removed.
  void Prune() {
    std::vector<BackupPart>& parts = manifest_.parts;
    auto const last_full = std::find_if(parts.rbegin(), parts.rend(),
                                        [](BackupPart const& part) { return part.full; });
    if (last_full == parts.rend()) return;
    parts.erase(parts.begin(), last_full.base() - 1);
    folder_.Replace(manifest_);
    folder_.RemoveLeftovers(manifest_);
  }

  BackupSource const& source_;
  BackupFolder folder_;
  BackupManifest manifest_;
};

}  // namespace

std::optional<BackupPart> MakeBackup(BackupSource const& source, std::string const& directory,
                                     BackupOrder const& order) {
  return Backup(source, directory).Run(order);
}

}  // namespace lscore
