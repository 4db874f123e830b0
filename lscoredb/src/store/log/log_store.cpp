#include "log_store.h"

#include <algorithm>
#include <array>
#include <utility>

#include "checkpoint.h"
#include "log_batch.h"
#include "log_changes.h"
#include "status.h"

namespace lscore {

using logformat::ImagePosition;

LogStore::LogStore(std::unique_ptr<Store> image, std::string directory, StoreOptions const& options,
                   ImagePosition const& position)
    : image_(std::move(image)),
      options_(options),
      directory_(std::move(directory)),
      files_(directory_, position.identity, image_->read_only()),
      kept_files_(directory_, position.identity, image_->read_only()),
      segments_(directory_, kept_files_),
      sync_(options.sync),
      tail_(files_),
      late_([this] {
        return Guarded([this] {
          Sync();
          return LORV_STATUS_OK;
        });
      }) {
  UseReservations(image_->layout_reservations());
  SetLogState(LogState::kThere);
  image_->RequireSyncFromNowOn();  // the log drops what the image holds (Recover)
}

// ---- snapshots ---------------------------------------------------------------------------------

// Applies records until `state` is reached. When the next one is gone, its file was reused, so the
// image holds it and the tail starts again there.
void LogStore::CatchUp(CommitId state) {
  std::lock_guard const lock(tail_mutex_);
  while (tail_.applied() < state) {
    if (tail_.Advance()) continue;
    std::unique_ptr<Snapshot> image = image_->Begin();
    ImagePosition const position = logformat::ReadPosition(*image);
    // A published commit is in the log or in the image. Anything else is damage.
    if (position.commit <= tail_.applied()) Throw(LSCOREDB_DAMAGED);
    tail_.Restart(*image, position);
    image_->End(std::move(image));
  }
}

std::shared_ptr<LogLayers const> LogStore::LayersAt(CommitId state) {
  if (tail_.applied() < state) CatchUp(state);
  return tail_.layers();
}

// Cached for the newest state of the image, which changes only with checkpoints. A new position
// also frees the frozen layer, unless a batch is using the tail.
ImagePosition LogStore::PositionOf(Snapshot const& image) {
  {
    std::lock_guard const lock(readers_mutex_);
    if (known_image_ == image.id()) return known_position_;
  }
  ImagePosition const position = logformat::ReadPosition(image);
  image_size_ = image_->Statistics().file_size;
  {
    std::lock_guard const lock(readers_mutex_);
    if (known_image_ < image.id()) {
      known_image_ = image.id();
      known_position_ = position;
    }
  }
  std::unique_lock const lock(tail_mutex_, std::try_to_lock);
  if (lock.owns_lock()) tail_.DropHeld(position);
  return position;
}

// Checks that image and layers meet. An image that is ahead of `state` holds a later commit: if
// that is published already, the caller reads the published commit again; if not, the snapshot
// takes that commit's state. Layers that begin after the image's commit would leave a gap.
std::unique_ptr<Snapshot> LogStore::Over(std::unique_ptr<Snapshot>& image,
                                         std::shared_ptr<LogLayers const> layers, CommitId state,
                                         std::size_t most) {
  ImagePosition const position = PositionOf(*image);
  if (position.commit > state) {
    if (board_.Published() >= position.commit) return nullptr;
    // Committed directly to the image, and about to be published.
    state = position.commit;
    layers = LayersAt(state);
  }
  if (layers->base() > position.commit) return nullptr;
  auto snapshot =
      std::make_unique<LogSnapshot>(*this, *image_, std::move(layers), state, std::move(image));
  Enter(*snapshot, most);
  return snapshot;
}

// In this order: published commit, layers, image (log_store.h says why).
std::unique_ptr<Snapshot> LogStore::Begin() {
  for (;;) {
    CommitId const state = board_.Published();
    std::shared_ptr<LogLayers const> layers = LayersAt(state);
    std::unique_ptr<Snapshot> image = image_->Begin();
    std::unique_ptr<Snapshot> snapshot =
        Over(image, std::move(layers), state, options_.max_readers);
    if (snapshot != nullptr) return snapshot;
    image_->End(std::move(image));
  }
}

// A full table of readers does not keep it from looking.
std::unique_ptr<Snapshot> LogStore::BeginVerified(FaultReport const& report) {
  for (;;) {
    std::unique_ptr<Snapshot> image = image_->BeginVerified(report);
    CommitId const state = board_.Published();
    std::shared_ptr<LogLayers const> layers = LayersAt(state);
    std::unique_ptr<Snapshot> snapshot = Over(image, std::move(layers), state, kAll);
    if (snapshot != nullptr) return snapshot;
    image_->End(std::move(image));
  }
}

void LogStore::Enter(LogSnapshot& snapshot, std::size_t most) {
  std::lock_guard const lock(readers_mutex_);
  if (readers_.size() >= most) Throw(LSCOREDB_TOO_MANY_READERS);
  snapshot.index = readers_.size();
  readers_.push_back(&snapshot);
}

void LogStore::End(std::unique_ptr<Snapshot> snapshot) noexcept {
  std::unique_ptr<LogSnapshot> const ended(static_cast<LogSnapshot*>(snapshot.release()));
  std::lock_guard const lock(readers_mutex_);
  readers_[ended->index] = readers_.back();
  readers_[ended->index]->index = ended->index;
  readers_.pop_back();
}

// ---- batches -----------------------------------------------------------------------------------

std::unique_ptr<Batch> LogStore::BeginBatch() {
  if (read_only()) Throw(LSCOREDB_READ_ONLY_DATABASE);
  return std::make_unique<LogBatch>(*this);
}

// Under the commit lock: applies what other processes committed, finishes the commit of one that
// died, follows or starts a rotation, and erases a failed record of this process.
std::shared_ptr<LogLayers const> LogStore::PrepareBatch() {
  board_.Take(LogBoard::Lock::kCommit);
  try {
    CatchUp(board_.Published());
    if (board_.Writing()) FinishForOther();
    FollowRotation();
    Check(TryTakeBack(tail_.position()));
    MakeRoomInLog();
  } catch (...) {
    board_.Release(LogBoard::Lock::kCommit);
    throw;
  }
  return tail_.layers();
}

// Finishes the commit during which another process died. If the image or a whole record of the log
// has it, it is synced and published; otherwise it never took place, and its record is overwritten.
void LogStore::FinishForOther() {
  image_->Settle();
  {
    std::unique_ptr<Snapshot> image = image_->Begin();
    CommitId const in_image = logformat::ReadPosition(*image).commit;
    image_->End(std::move(image));
    CatchUp(in_image);
    std::lock_guard const lock(tail_mutex_);
    while (tail_.Advance()) {
    }
  }
  CommitId const last = tail_.applied();
  if (last > board_.Published()) {
    if (syncs() && files_.Open()) SyncUpTo(last);
    board_.SetGeneration(std::max(board_.Generation(), Raw(tail_.position().generation)));
    board_.SetPublished(last);
  }
  board_.SetWriting(false);
}

// Another process may have rotated the log and written nothing since, which no record shows.
void LogStore::FollowRotation() {
  std::lock_guard const lock(tail_mutex_);
  while (Raw(tail_.position().generation) < board_.Generation()) tail_.Rotate();
}

// Rotates when the active file has reached its limit, or its changes theirs in memory, where small
// ones take several times as much room. The other file can be reused only after the image holds the
// frozen generation in it. Its checkpoint is usually done by then: Upkeep does it after the commit
// that rotated.
void LogStore::MakeRoomInLog() {
  std::uint64_t const memory = tail_.layers()->active->changes.bytes();
  std::uint64_t const most = std::max(kLeastMemory, kMemoryForLimit * options_.log_limit);
  if (tail_.position().offset < options_.log_limit && memory < most) return;
  Rotate(IfNotKept::kLeaveGap);
  checkpoint_due_ = true;
}

void LogStore::Rotate(IfNotKept if_not) {
  std::shared_ptr<LogLayers const> const layers = tail_.layers();
  if (layers->frozen != nullptr) WriteFrozen(*layers, kAll, if_not);
  std::lock_guard const lock(tail_mutex_);
  tail_.Rotate();
  board_.SetGeneration(Raw(tail_.position().generation));
}

// The first commit after a clean close creates the files and then marks the image as not clean:
// from now on it cannot be opened without them. Who marks it has synced their names, even if he
// found the files there: their maker may have died before he did.
void LogStore::MarkUsed() {
  if (used_) return;
  {
    std::lock_guard const lock(tail_mutex_);
    files_.Create();
  }
  std::unique_ptr<Batch> const batch = image_->BeginBatch();
  ImagePosition position = logformat::ReadPosition(*batch);
  if (position.clean) {
    files_.SyncNames();
    position.clean = false;
    logformat::WritePosition(*batch, position);
    batch->Commit();
  }
  used_ = true;
}

// Whether the commit fits into one file of the log, and all layers into the image later. The
// estimate is the worst case: each changed entry takes a page of the image and one above it.
bool LogStore::FitsLog(std::uint64_t size, LogLayers const& layers) const {
  constexpr std::uint64_t kEntryNeeds = 2 * 4096;
  auto const needs = [](Overlay const& changes) {
    return changes.nodes() * kEntryNeeds + 2 * changes.bytes();
  };
  std::uint64_t needed = image_size_ + needs(layers.active->changes);
  if (layers.frozen != nullptr) needed += needs(layers.frozen->changes);
  return size <= options_.log_limit && needed <= options_.max_file_size;
}

// The durable part of a commit: write the record, sync if that is not to follow, publish. Room is
// made before the writing mark is set, since a full disk is an ordinary failure. Readers see a
// commit only after its sync.
void LogStore::AppendRecord(Batch const& batch, LogPosition const& at, logformat::Head const& head,
                            std::span<iovec> pieces, bool sync) {
  MarkUsed();
  LogFile& file = files_.Of(at.generation);
  file.MakeRoom(at.offset + head.size, options_.log_limit);
  board_.SetWriting(true);
  try {
    file.Write(at.offset, pieces);
    spoiled_ = sync;
    if (sync) SyncUpTo(head.commit);
    spoiled_ = false;
  } catch (...) {
    if (sync && board_.Synced() < at.commit) ++failed_syncs_;
    static_cast<void>(TryTakeBack(at));
    board_.SetWriting(false);
    throw;
  }
  {
    std::uint64_t const end = logformat::Aligned(at.offset + head.size);
    std::lock_guard const lock(tail_mutex_);
    tail_.Appended({at.generation, end, head.checksum, head.commit});
  }
  BeginOwnCommit(batch);
  board_.SetPublished(head.commit);
  EndOwnCommit(batch, true);
  board_.SetWriting(false);
  if (tail_.keeps_changes()) board_.ReportCommit();
  if (!sync) late_.Note();
}

// After a failed sync the record is whole and may be on disk, but its commit has failed, so
// recovery must not find it: its head is overwritten with zeros. If that fails too, the next batch
// tries again before it writes. A record that could not be written is not whole and needs nothing.
Status LogStore::TryTakeBack(LogPosition const& at) noexcept {
  if (!spoiled_) return LORV_STATUS_OK;
  return Guarded([&] {
    std::array<char, logformat::kHeadSize> zeros{};
    std::array<iovec, 1> piece{{{zeros.data(), zeros.size()}}};
    LogFile& file = files_.Of(at.generation);
    file.Write(at.offset, piece);
    file.Sync();
    spoiled_ = false;
    return LORV_STATUS_OK;
  });
}

// Syncs the file of the active generation. The other file, of the generation before, is synced
// first if its last commits were never synced (a writer without durability): a durable commit must
// not follow a gap.
void LogStore::SyncUpTo(CommitId commit) {
  LogPosition const at = tail_.position();
  CommitId const base = tail_.layers()->active->base;
  if (board_.Synced() < base) files_.Of(logformat::After(at.generation)).Sync();
  files_.Of(at.generation).Sync();
  board_.RaiseSynced(commit);
}

// ---- the image ---------------------------------------------------------------------------------

// Both layers, oldest first. The frozen one needs no commit of the active one to be in its batches.
std::unique_ptr<Batch> LogStore::WriteLayers(LogLayers const& layers, CommitId state,
                                             DirectCommit const* direct) {
  if (layers.frozen != nullptr) WriteFrozen(layers, kAll, IfNotKept::kLeaveGap);
  std::unique_ptr<Batch> batch = image_->BeginBatch();
  KeepCommits(*batch, tail_.applied(), direct, IfNotKept::kLeaveGap);
  WriteLayer(*batch, *layers.active, state);
  return batch;
}

// The log goes on with the generation after the active one. Of a batch that went on in the image,
// what it wrote to kMeta since is still in the layer.
void LogStore::WriteAll(LogLayers const& layers, CommitId state, bool clean,
                        DirectCommit const* direct) {
  std::unique_ptr<Batch> own;
  Batch* batch = direct == nullptr ? nullptr : direct->begun;
  if (batch == nullptr) {
    own = WriteLayers(layers, state, direct);
    batch = own.get();
  } else {
    WriteTree(*batch, *layers.active, state, Tree::kMeta);
  }
  ImagePosition position = logformat::ReadPosition(*batch);
  position.generation = logformat::After(layers.active->number);
  position.commit = state;
  position.before = tail_.position().before;
  position.clean = position.clean || clean;
  logformat::WritePosition(*batch, position);
  if (direct != nullptr && direct->retention.has_value()) {
    logformat::WriteRetention(*batch, *direct->retention);
  }
  batch->Commit();
}

// Commits a batch without the log. Readers may see the image's new state before it is published
// (Over). The tail is not moved; the next CatchUp starts it again at the image.
void LogStore::CommitToImage(Batch const& batch, LogLayers const& layers,
                             DirectCommit const& commit) {
  CommitId const state = batch.id();
  std::uint64_t const failed = failed_syncs_;
  board_.SetWriting(true);
  BeginOwnCommit(batch);
  try {
    WriteAll(layers, state, false, &commit);
  } catch (...) {
    EndOwnCommit(batch, false);
    board_.SetWriting(false);
    throw;
  }
  mended_syncs_ = failed;
  board_.RaiseSynced(state);
  board_.SetGeneration(Raw(logformat::After(layers.active->number)));
  board_.SetPublished(state);
  EndOwnCommit(batch, true);
  board_.SetWriting(false);
  board_.ReportCommit();
}

// Writes entries of the frozen layer into the image, unless another process has written all of
// them. With the last ones goes the log's position: from then on the layer's file of the log may be
// reused. A batch holds the pages that it changes in memory, and the file keeps both their old and
// their new copies until two batches later, so the entries go into many batches.
void LogStore::WriteFrozen(LogLayers const& layers, std::size_t most, IfNotKept if_not) {
  std::lock_guard const working(checkpoint_mutex_);
  std::size_t const at_once = std::min(most, kMostInBatch);
  bool const in_parts = layers.frozen->changes.nodes() > at_once && SyncForParts(*layers.active);
  ImagePosition position;
  // Where commits wait, what they are to write is counted by entries, as that takes the time.
  SliceLimit const part{at_once, most == kAll ? kAppendedInOne : 1};
  while (!WritePartOfFrozen(layers, in_parts ? part : SliceLimit{kAll}, if_not, &position)) {
    if (most <= at_once) return;
    most -= at_once;
  }
  std::lock_guard const lock(tail_mutex_);
  tail_.DropHeld(position);
  if (tail_.layers()->frozen == nullptr) checkpoint_due_ = false;
}

// A part of the frozen layer in the image is made whole from the log, which has to be on the disk
// before: after a power failure it could end before commits of that part. Returns whether it is;
// if not, the image gets all of the layer or nothing.
bool LogStore::SyncForParts(LogLayer const& active) {
  if (sync_failed()) return false;
  if (board_.Synced() >= active.base) return true;
  Status const synced = Guarded([&] {
    SyncFiles();
    return LORV_STATUS_OK;
  });
  if (synced == LORV_STATUS_OK) {
    board_.RaiseSynced(active.base);
  } else {
    ++failed_syncs_;
  }
  return synced == LORV_STATUS_OK;
}

bool LogStore::WritePartOfFrozen(LogLayers const& layers, SliceLimit const& limit, IfNotKept if_not,
                                 ImagePosition* position) {
  LogLayer const& active = *layers.active;
  std::unique_ptr<Batch> const batch = image_->BeginBatch();
  *position = logformat::ReadPosition(*batch);
  if (position->commit >= active.base) return true;
  CheckpointPlace place = checkpoint_;
  bool const whole = WriteSlice(*batch, *layers.frozen, active.base, &place, limit);
  if (whole) {
    KeepCommits(*batch, active.base, nullptr, if_not);
    position->generation = active.number;
    position->commit = active.base;
    position->before = active.before;
    logformat::WritePosition(*batch, *position);
  }
  batch->Commit();
  checkpoint_ = std::move(place);
  if (whole) board_.RaiseSynced(active.base);
  return whole;
}

// How many entries of the frozen layer the calling committer writes. Where commits wait for the
// disk, none of them shall wait much longer than the others, so each writes a slice, and they are
// done when half of the other file is full:
//
//   frozen layer written   0 ... 1/16 ... 2/16 ...          all
//   active file full       0 ... 1/32 ... 2/32 ...    1/2    ...     rotation
//
// Slices of large layers are smaller: a thousand entries take a few milliseconds. Where commits do
// not wait, the one that is due writes all of them, as each further batch is synced too.
std::size_t LogStore::SliceDue(LogLayers const& layers) {
  constexpr std::size_t kSlices = 16;
  constexpr std::size_t kLeastSlice = 64;
  constexpr std::size_t kMostSlice = 1024;
  if (!sync_) return kAll;
  std::lock_guard const lock(checkpoint_mutex_);
  std::size_t const all = layers.frozen->changes.nodes();
  std::size_t const written =
      checkpoint_.layer == layers.frozen->number ? checkpoint_.written : std::size_t{0};
  std::size_t const slice = std::clamp(all / kSlices + 1, kLeastSlice, kMostSlice);
  double const full =
      static_cast<double>(tail_.ActiveSize()) / static_cast<double>(options_.log_limit);
  auto const wanted = static_cast<std::size_t>(std::min(1.0, 2 * full) * static_cast<double>(all));
  return written > wanted ? 0 : std::max(slice, wanted - written);
}

// A failed checkpoint, on a full disk for example, is not reported here: the commit that needs the
// room tries it again and fails with the status.
void LogStore::Upkeep() noexcept {
  if (!checkpoint_due_) return;
  static_cast<void>(Guarded([&] {
    std::shared_ptr<LogLayers const> const layers = tail_.layers();
    if (layers->frozen == nullptr) {
      checkpoint_due_ = false;
      return LORV_STATUS_OK;
    }
    std::size_t const due = SliceDue(*layers);
    if (due != 0) WriteFrozen(*layers, due, IfNotKept::kFail);
    return LORV_STATUS_OK;
  }));
}

// On request. Other committers wait only for the rotation.
void LogStore::Checkpoint() {
  {
    std::lock_guard const lock(batch_mutex_);
    std::shared_ptr<LogLayers const> const layers = PrepareBatch();
    Status const rotated = Guarded([&] {
      if (tail_.position().offset > logformat::kTitleSize) Rotate(IfNotKept::kFail);
      return LORV_STATUS_OK;
    });
    board_.Release(LogBoard::Lock::kCommit);
    Check(rotated);
  }
  std::shared_ptr<LogLayers const> const layers = tail_.layers();
  if (layers->frozen != nullptr) WriteFrozen(*layers, kAll, IfNotKept::kFail);
}

// ---- syncs -------------------------------------------------------------------------------------

// Also for commits of before.
void LogStore::RequireSync() {
  if (read_only()) return;
  sync_ = true;
  Sync();
}

void LogStore::RequireSyncWithin(std::chrono::milliseconds delay) {
  if (read_only() || sync_) return;
  late_.Start(delay);
  late_.Note();
}

// A published commit is in one of the files, or it was synced with the image before its record was
// overwritten. After a sync that failed, the system may regard bytes as written that are not, so
// the commits go into the image instead.
void LogStore::Sync() {
  if (read_only()) return;
  std::lock_guard const lock(sync_mutex_);
  CommitId const state = board_.Published();
  if (board_.Synced() >= state && !sync_failed()) return;
  if (!sync_failed()) {
    Status const synced = Guarded([&] {
      SyncFiles();
      return LORV_STATUS_OK;
    });
    if (synced == LORV_STATUS_OK) return board_.RaiseSynced(state);
    ++failed_syncs_;
  }
  std::uint64_t const failed = failed_syncs_;
  Checkpoint();
  mended_syncs_ = failed;
}

void LogStore::SyncFiles() {
  logformat::Generation active{};
  {
    std::lock_guard const lock(tail_mutex_);
    if (!files_.Open()) return;  // nothing was ever appended
    active = tail_.position().generation;
  }
  files_.Of(logformat::After(active)).Sync();
  files_.Of(active).Sync();
}

// ---- verification ------------------------------------------------------------------------------

// Reads the chain of records from the image's position to the published commit. A chain that breaks
// off is damage unless a checkpoint overtook the reading: then the image holds more than before.
void LogStore::Verify() {
  image_->Verify();
  std::unique_ptr<Snapshot> image = image_->Begin();
  ImagePosition const position = logformat::ReadPosition(*image);
  LogPosition at = LogPosition::At(position);
  CommitId const last = board_.Published();
  bool whole = true;
  while (whole && at.commit < last) {
    std::lock_guard const lock(tail_mutex_);
    std::optional<LogRecord> const record = files_.ReadNext(at);
    whole = record.has_value();
    if (whole) at = record->PositionAfter(at);
  }
  image_->End(std::move(image));
  if (whole) return;
  image = image_->Begin();
  CommitId const held = logformat::ReadPosition(*image).commit;
  image_->End(std::move(image));
  if (held <= at.commit) Throw(LSCOREDB_DAMAGED);
}

bool LogStore::ListChanges(View const&, CommitId after, std::vector<ObjectId>* changed) const {
  return tail_.ListOthers(after, changed);
}

StoreStatistics LogStore::Statistics() const {
  StoreStatistics statistics = image_->Statistics();
  statistics.max_readers = options_.max_readers;
  statistics.last_commit = board_.Published();
  statistics.synced_commit = std::min(board_.Synced(), board_.Published());
  statistics.log_memory = tail_.Memory();
  statistics.log_size = tail_.Size();
  std::lock_guard const lock(readers_mutex_);
  // Readers of other processes are known only to the image, so their oldest state is assumed.
  CommitId oldest =
      statistics.readers > readers_.size() ? known_position_.commit : statistics.last_commit;
  for (LogSnapshot const* const reader : readers_) oldest = std::min(oldest, reader->id());
  statistics.oldest_commit = oldest;
  return statistics;
}

}  // namespace lscore
