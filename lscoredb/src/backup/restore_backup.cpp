#include "restore_backup.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "bytes.h"
#include "check.h"
#include "checksummed_record.h"
#include "format.h"
#include "identity.h"
#include "open_store.h"
#include "part_file.h"
#include "restored_directory.h"
#include "status.h"
#include "watched_work.h"

namespace lscore {
namespace {

// A batch keeps what it writes in memory until it is committed.
constexpr std::size_t kBatchBytes = std::size_t{32} << 20;
constexpr WorkShare kApplyShare{0, 700};
constexpr WorkShare kCheckShare{kApplyShare.end, 1000};

// What commit numbers of a restored database are ahead of all that the backup knows. Positions in
// the feed of the database that was backed up are then before anything that the restored one keeps,
// so that they are refused rather than taken for its own, and numbers still fit into a double.
constexpr std::uint64_t kAhead = 1'000'000'000'000;

std::string TimeText(std::uint64_t microseconds) {
  auto const seconds = static_cast<std::time_t>(microseconds / 1'000'000);
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  std::array<char, 64> text{};
  std::size_t const length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
  std::string const fraction = std::to_string(1'000'000 + microseconds % 1'000'000);
  return std::string(text.data(), length).append(".").append(fraction.substr(1)).append("Z");
}

std::string StateText(BackupPart const& part) {
  return "commit " + std::to_string(Raw(part.last)) + ", of " + TimeText(part.time);
}

// ---- which parts -------------------------------------------------------------------------------

bool IsBefore(BackupPart const& part, RestoreLimit const& limit) {
  if (Raw(limit.commit) != 0) return part.last <= limit.commit;
  return limit.time == 0 || part.time <= limit.time;
}

bool Reaches(BackupPart const& part, RestoreLimit const& limit) {
  if (Raw(limit.commit) != 0) return part.last >= limit.commit;
  return limit.time == 0 || part.time >= limit.time;
}

using Parts = std::span<BackupPart const>;

// A full part and as many increments after it as the limit needs. What lies between their end and
// the next full part is not in the backup.
Parts ChooseParts(std::string const& directory, Parts parts, RestoreLimit const& limit) {
  if (parts.empty()) {
    RefuseBackup(LSCOREDB_NOT_IN_BACKUP, directory, "no part of it was ever completed");
  }
  std::size_t first = parts.size();
  while (first > 0 && !(parts[first - 1].full && IsBefore(parts[first - 1], limit))) --first;
  if (first == 0) {
    RefuseBackup(LSCOREDB_NOT_IN_BACKUP, directory,
                 "the oldest state in it is that of " + StateText(parts.front()));
  }
  std::size_t end = first;
  bool const limited = Raw(limit.commit) != 0 || limit.time != 0;
  while (end < parts.size() && !parts[end].full && !(limited && Reaches(parts[end - 1], limit))) {
    ++end;
  }
  if (!Reaches(parts[end - 1], limit)) {
    std::string reason = "the newest state in it is that of " + StateText(parts[end - 1]);
    if (end < parts.size()) {
      reason = "it holds no state between " + StateText(parts[end - 1]) + " and " +
               StateText(parts[end]);
    }
    RefuseBackup(LSCOREDB_NOT_IN_BACKUP, directory, reason);
  }
  return parts.subspan(first - 1, end - first + 1);
}

// ---- full parts --------------------------------------------------------------------------------

void CopyPart(BackupFolder const& folder, BackupPart const& part, std::string const& to,
              WatchedWork& work) {
  PartReader reader(folder, part);
  PartWriter writer(to);
  while (reader.left() > 0) {
    std::size_t const size = std::min<std::uint64_t>(reader.left(), kPartBuffer);
    writer.Append(reader.Take(size));
    work.Advance(size);
  }
  reader.Finish();
  writer.Finish();
}

// ---- increments --------------------------------------------------------------------------------

// Reads the records of an increment, and trusts none before its checksum is known to be right.
class RecordReader {
 public:
  RecordReader(BackupFolder const& folder, BackupPart const& part)
      : part_(part), file_(folder, part), before_(Raw(part.first) - 1) {
    std::string const title = backupformat::IncrementTitle(part.record.log, part.first);
    if (file_.left() < title.size() || file_.Take(title.size()) != title) {
      file_.Refuse("it does not begin as the manifest says");
    }
  }

  // The next record, valid until the next call; empty at the end.
  std::string_view Next(logformat::Head* head) {
    if (file_.left() == 0) {
      if (before_ != Raw(part_.last)) file_.Refuse("commits are missing at its end");
      return {};
    }
    if (file_.left() < sizeof *head) file_.Refuse("it ends within a record");
    std::memcpy(head, file_.Peek(sizeof *head).data(), sizeof *head);
    bool const fits = head->size >= sizeof *head && head->size <= file_.left() &&
                      logformat::Aligned(head->size) <= file_.left();
    if (!fits) file_.Refuse("it ends within a record");
    std::string_view const record = file_.Take(logformat::Aligned(head->size));
    std::string_view const bytes = record.substr(0, head->size);
    if (!logformat::IsWhole(part_.record.log, bytes) || Raw(head->commit) != ++before_) {
      file_.Refuse("a record of it is damaged");
    }
    return bytes;
  }
  // Reads the rest, whatever it holds.
  void Finish() { file_.Finish(); }

 private:
  BackupPart const& part_;
  PartReader file_;
  std::uint64_t before_;
};

// Applies records to a store, many in a batch.
class Applier {
 public:
  explicit Applier(Store& store) : store_(store) {}

  void Apply(std::string_view record) {
    if (batch_ == nullptr) batch_ = store_.BeginBatch();
    std::string_view rest = record.substr(sizeof(logformat::Head));
    logformat::Change change;
    while (logformat::NextChange(rest, &change)) {
      if (change.tree == logformat::kNote) continue;
      if (change.deleted) {
        batch_->Delete(change.tree, change.key);
      } else {
        batch_->Put(change.tree, change.key, change.value);
      }
    }
    bytes_ += record.size();
    if (bytes_ >= kBatchBytes) Flush();
  }
  void Flush() {
    if (batch_ != nullptr) batch_->Commit();
    batch_.reset();
    bytes_ = 0;
  }

 private:
  Store& store_;
  std::unique_ptr<Batch> batch_;
  std::size_t bytes_ = 0;
};

bool IsBeyond(logformat::Head const& head, RestoreLimit const& limit) {
  if (Raw(limit.commit) != 0) return head.commit > limit.commit;
  return limit.time != 0 && head.time > limit.time;
}

// Returns false if the limit was reached. The rest of the part is read all the same: where damage
// is, it is better known.
bool ApplyPart(RecordReader& records, RestoreLimit const& limit, Applier& applier,
               RestoredState& state, WatchedWork& work) {
  logformat::Head head;
  bool goes_on = true;
  while (goes_on) {
    std::string_view const record = records.Next(&head);
    if (record.empty()) break;
    goes_on = !IsBeyond(head, limit);
    if (!goes_on) break;
    applier.Apply(record);
    state = {head.commit, head.time};
    work.Advance(record.size());
  }
  records.Finish();
  return goes_on;
}

// ---- the restored database ---------------------------------------------------------------------

// Keeps the first finding, which ends the check.
std::uint32_t KeepText(void* text, lscoredb_finding const* finding) {
  *static_cast<std::string*>(text) = finding->text;
  return 1;
}

class Restoring {
 public:
  Restoring(BackupFolder const& folder, BackupManifest const& manifest, Parts parts,
            std::string const& path)
      : folder_(folder), manifest_(manifest), parts_(parts), path_(path) {
    for (BackupPart const& part : parts_) total_ += part.size;
  }

  RestoredState Run(RestoreLimit const& limit, bool check) {
    RestoredState state{parts_.front().last, parts_.front().time};
    WatchedWork work(kApplyShare, total_);
    CopyPart(folder_, parts_.front(), path_ + "/data.mdb", work);
    ApplyIncrements(limit, state, work);
    std::unique_ptr<Store> const store = OpenStore(path_.c_str(), Options(true));
    if (manifest_.has_log && manifest_.retention.keeps()) store->KeepChanges(manifest_.retention);
    if (check) Check(*store);
    return state;
  }

 private:
  // Room for what the records bring: in the file they take up to twice of their size, and pages
  // that one batch frees are used again only by the one after the next.
  StoreOptions Options(bool finished) const {
    StoreOptions options;
    options.access = Access::kWrite;
    options.sync = finished;
    options.log = finished && manifest_.has_log ? LogWish::kOne : LogWish::kAsItIs;
    options.reserve_layouts = true;
    options.max_file_size = std::max(options.max_file_size, 4 * total_);
    return options;
  }

  void ApplyIncrements(RestoreLimit const& limit, RestoredState& state, WatchedWork& work) const {
    std::unique_ptr<Store> const store = OpenStore(path_.c_str(), Options(false));
    Applier applier(*store);
    for (BackupPart const& part : parts_.subspan(1)) {
      RecordReader records(folder_, part);
      if (!ApplyPart(records, limit, applier, state, work)) break;
    }
    applier.Flush();
    store->RequireSync();  // the next commit syncs the earlier ones too
    std::unique_ptr<Batch> const batch = store->BeginBatch();
    std::string ahead;
    Append(ahead, Newest() + kAhead);
    PutChecked(*batch, Tree::kMeta, format::kStatesBeforeKey, ahead);
    RenewIdentity(*batch);
    batch->Commit();
  }

  std::uint64_t Newest() const {
    std::uint64_t newest = 0;
    for (BackupPart const& part : manifest_.parts) newest = std::max(newest, Raw(part.last));
    return newest;
  }

  void Check(Store& store) const {
    WatchedPart const watched(kCheckShare);
    std::string what;
    FindingSink sink(&KeepText, &what);
    try {
      CheckStoreState(store, 0, sink);
    } catch (StopCheck const&) {
    }
    if (!what.empty())
      RefuseBackup(LSCOREDB_DAMAGED, folder_.path(), "the restored state: " + what);
  }

  BackupFolder const& folder_;
  BackupManifest const& manifest_;
  Parts const parts_;
  std::string const& path_;
  std::uint64_t total_ = 0;
};

}  // namespace

RestoredState RestoreBackup(std::string const& directory, RestoreLimit const& limit, bool check,
                            std::string const& target) {
  BackupFolder const folder(directory);
  BackupManifest const manifest = folder.Read();
  Parts const parts = ChooseParts(directory, manifest.parts, limit);
  RestoredDirectory restored(target);
  RestoredState const state = Restoring(folder, manifest, parts, restored.path()).Run(limit, check);
  restored.Finish();
  return state;
}

void VerifyBackup(std::string const& directory) {
  BackupFolder const folder(directory);
  BackupManifest const manifest = folder.Read();
  std::uint64_t total = 0;
  for (BackupPart const& part : manifest.parts) total += part.size;
  WatchedWork work(WorkShare{}, total);
  for (BackupPart const& part : manifest.parts) {
    PartReader reader(folder, part);
    while (reader.left() > 0) {
      work.Advance(reader.Take(std::min<std::uint64_t>(reader.left(), kPartBuffer)).size());
    }
    reader.Finish();
  }
}

}  // namespace lscore
