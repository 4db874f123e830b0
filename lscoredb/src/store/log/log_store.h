#ifndef LSCOREDB_SRC_LOG_STORE_H
#define LSCOREDB_SRC_LOG_STORE_H

// The store with a write-ahead log. A commit is one record, appended and synced once; its changes
// stay in an overlay in memory until a checkpoint writes them into the image, another store.
//
//   commit     batch -> overlay (active) -> record in the log -> sync -> published
//              (with a delay, the sync follows: late_sync.h)
//   rotation   the log reaches its limit: the active overlay is frozen, the other file is next
//   checkpoint frozen overlay -> batches of the image, the last with the log's position after it
//   snapshot   layers (active, frozen) as of the published commit, over a snapshot of the image
//
// Why a snapshot is consistent: the published commit is read first, then layers that hold
// everything up to it, then the image, which can only be newer than the layers. If the image is
// ahead of the published commit, the snapshot starts over or takes the image's commit. What the
// image does not hold yet is in the layers. What both hold is the same in both.
//
// A commit that is too large for the log, or whose layers might not fit into the image later, goes
// into the image at once, together with all layers (LogBatch::MoveToImage).
//
// Processes share the log. One at a time holds the commit lock and appends; the others read its
// records when they see that a later commit is published. One that is so far behind that its file
// was reused starts again at the image. Whoever gets the commit lock checks whether the last holder
// died during a commit: a whole record is published, a torn one is overwritten.
//
// If changes are kept, the log's commits move into segments (change_segments.h) before the image
// holds them. A commit that goes straight into the image gets a segment of its own before that. If
// a segment cannot be written (a full disk), the checkpoint after a commit is put off; the next one
// that a commit has to wait for removes the oldest segments, and if that does not help, leaves a
// gap, which readers of changes are told about: commits do not fail for them.
//
// A store that is opened only to be read takes part, as far as the system allows it to write the
// shared words; but it never writes the log or the image. Where it may not, nobody writes while it
// is open (Store::frozen), so it reads the log once and shares nothing.
//
// Locks of a process, outermost first: sync, batch, commit (of the processes), checkpoint, the
// image's batch, tail.

#include <atomic>
#include <limits>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "change_segments.h"
#include "checkpoint.h"
#include "late_sync.h"
#include "log_board.h"
#include "log_files.h"
#include "log_layers.h"
#include "log_view.h"
#include "status.h"
#include "store.h"

namespace lscore {

class LogStore final : public Store {
 public:
  // Opens the log of an image, in `directory`, and takes the image over. Null when it has no log;
  // then the image's log state tells whether one was refused.
  static std::unique_ptr<LogStore> Open(std::unique_ptr<Store>& image, std::string directory,
                                        StoreOptions const& options);
  // Gives the image a log. REQUIRES: nobody else has it open or opens it meanwhile.
  static void Convert(Store& image, std::string const& directory);
  // Remembers that the image is to have none. REQUIRES: it has none.
  static void Refuse(Store& image);
  // The reader slots of the image that this store needs itself, besides those of its users.
  static constexpr std::uint32_t kOwnReaders = 8;

  ~LogStore() override;

  std::unique_ptr<Snapshot> Begin() override;
  void End(std::unique_ptr<Snapshot> snapshot) noexcept override;
  std::unique_ptr<Batch> BeginBatch() override;
  std::unique_ptr<Snapshot> BeginVerified(FaultReport const& report) override;
  void Verify() override;
  StoreStatistics Statistics() const override;
  bool read_only() const override { return image_->read_only(); }
  bool frozen() const override { return image_->frozen(); }
  void RequireSync() override;
  void RequireSyncWithin(std::chrono::milliseconds delay) override;
  void Sync() override;
  void Checkpoint() override;
  bool FreeDeadReaders() override { return image_->FreeDeadReaders(); }
  void Upkeep() noexcept override;
  void KeepChanges(Retention const& retention) override;
  KeptChanges Kept() override;
  std::unique_ptr<ChangeSource> OpenChanges(CommitId after) override;

 protected:
  bool ListChanges(View const& view, CommitId after, std::vector<ObjectId>* changed) const override;

 private:
  friend class LogBatch;
  friend class LogChanges;

  LogStore(std::unique_ptr<Store> image, std::string directory, StoreOptions const& options,
           logformat::ImagePosition const& position);

  // Opening and closing, under the door lock.
  void Recover();
  void RecoverFromFiles(logformat::ImagePosition const& position);
  void Join();
  void CloseAlone();

  logformat::ImagePosition PositionOf(Snapshot const& image);
  std::shared_ptr<LogLayers const> LayersAt(CommitId state);
  void CatchUp(CommitId state);
  // A snapshot over `image`, which is consumed; null: the image does not fit the layers, try again.
  // `most`: readers of this process, or it throws LSCOREDB_TOO_MANY_READERS.
  std::unique_ptr<Snapshot> Over(std::unique_ptr<Snapshot>& image,
                                 std::shared_ptr<LogLayers const> layers, CommitId state,
                                 std::size_t most);
  void Enter(LogSnapshot& snapshot, std::size_t most);

  // Parts of a batch, which holds the commit lock from PrepareBatch on.
  std::shared_ptr<LogLayers const> PrepareBatch();
  void FinishForOther();
  void FollowRotation();
  void MakeRoomInLog();
  void MarkUsed();
  bool FitsLog(std::uint64_t size, LogLayers const& layers) const;
  void AppendRecord(Batch const& batch, LogPosition const& at, logformat::Head const& head,
                    std::span<iovec> pieces, bool sync);
  // Of a commit that goes into the image: its record, for those who read changes, and a new
  // retention.
  struct DirectCommit {
    std::span<iovec> record;
    std::optional<Retention> retention;
    Batch* begun;  // that has all layers and the commit, as WriteLayers begins it; null: none
  };
  void CommitToImage(Batch const& batch, LogLayers const& layers, DirectCommit const& commit);
  void SyncUpTo(CommitId commit);
  void SyncFiles();
  // Whether commits are synced at all, at once or late.
  bool syncs() const { return sync_ || late_.running(); }
  // Whether the system may have dropped bytes of the log that it did not write: a sync that
  // succeeds then says nothing.
  bool sync_failed() const { return failed_syncs_ != mended_syncs_; }
  Status TryTakeBack(LogPosition const& at) noexcept;
  // Begins a batch of the image and writes everything up to `state` into it.
  std::unique_ptr<Batch> WriteLayers(LogLayers const& layers, CommitId state,
                                     DirectCommit const* direct);
  // The same, and moves the log's position past it.
  void WriteAll(LogLayers const& layers, CommitId state, bool clean,
                DirectCommit const* direct = nullptr);

  // What to do when the log's commits cannot be kept for readers of changes.
  enum class IfNotKept : std::uint8_t { kFail, kLeaveGap };
  // Before the image holds commits: keeps those of the log up to `last`, then the one that goes
  // into the image, if changes are kept.
  void KeepCommits(Batch const& image, CommitId last, DirectCommit const* direct, IfNotKept if_not);
  void TryKeepCommits(LogPosition const& from, CommitId last, DirectCommit const* direct);

  // Freezes the active layer, after a checkpoint of the one before it. REQUIRES: the commit lock.
  void Rotate(IfNotKept if_not);
  // Writes the frozen layer into the image, or goes on with it: `most` entries.
  void WriteFrozen(LogLayers const& layers, std::size_t most, IfNotKept if_not);
  bool SyncForParts(LogLayer const& active);
  // In one batch. Returns whether the image then has all of the layer.
  bool WritePartOfFrozen(LogLayers const& layers, SliceLimit const& limit, IfNotKept if_not,
                         logformat::ImagePosition* position);
  std::size_t SliceDue(LogLayers const& layers);
  static constexpr std::uint64_t kMemoryForLimit = 4;  // bytes in memory for one of the log's limit
  static constexpr std::uint64_t kLeastMemory = std::uint64_t{1} << 20;
  static constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max();
  // Entries of a layer in a batch of the image, which may change a page for each: 64 MiB.
  static constexpr std::size_t kMostInBatch = 16384;
  static constexpr std::size_t kAppendedInOne = 16;  // that fit into a page, and more

  std::unique_ptr<Store> const image_;
  StoreOptions const options_;
  std::string const directory_;
  LogFiles files_;
  LogFiles kept_files_;      // the same, for segments_
  ChangeSegments segments_;  // under the lock of the image's batch
  LogBoard board_;
  std::atomic<bool> sync_;  // each commit, before it is published

  std::mutex sync_mutex_;  // held by Sync
  std::atomic<std::uint64_t> failed_syncs_{0};
  std::atomic<std::uint64_t> mended_syncs_{0};  // of those, the image has what they were for

  std::mutex batch_mutex_;
  std::mutex tail_mutex_;  // held to change the tail
  LogTail tail_;
  bool spoiled_ = false;  // a record of a failed commit may follow the tail
  bool used_ = false;     // the log's files exist, and the image says that they are needed
  bool open_ = false;

  std::atomic<bool> checkpoint_due_{false};
  std::mutex checkpoint_mutex_;
  CheckpointPlace checkpoint_;

  std::mutex mutable readers_mutex_;
  std::vector<LogSnapshot*> readers_;
  CommitId known_image_{0};  // the image's state for which known_position_ was read
  logformat::ImagePosition known_position_;
  std::atomic<std::uint64_t> image_size_{0};  // of its file, as of known_position_

  LateSync late_;
};

}  // namespace lscore

#endif
