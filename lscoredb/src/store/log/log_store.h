#ifndef LSCOREDB_SRC_LOG_STORE_H
#define LSCOREDB_SRC_LOG_STORE_H

// The store with a log: a commit is one record, appended and synced once, and lies in an overlay in
// memory until a checkpoint writes it into the image, another store.
//
//   commit     batch -> overlay (active) -> record in the log -> sync -> published
//   rotation   the log is at its limit: the active overlay is frozen, and the other file taken
//   checkpoint frozen overlay -> one batch of the image, with the position of the log behind it
//   snapshot   layers (active, frozen) as of the published commit, over a snapshot of the image
//
// Why a snapshot is whole: the published commit is read first, then the layers that hold all up to
// it, then the image, which can only be newer than when the layers were made. What the image holds
// is at most the published commit, or that is read again; what it does not hold yet is in the
// layers. What both hold is the same in both.
//
// A commit that the log has no room for, or that may not fit into the image, goes into the image
// at once, together with all layers.
//
// Processes share the log: one at a time holds the commit lock and appends, the others read its
// records when they see that a later commit is published. One that is so far behind that the file
// was taken again begins at the image. Who gets the commit lock looks whether its holder died over
// a commit: a record that is whole is published, another one is written over.
//
// Locks of a process, outermost first: batch, commit (of the processes), the image's batch, tail.

#include <atomic>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "log_board.h"
#include "log_files.h"
#include "log_layers.h"
#include "log_view.h"
#include "status.h"
#include "store.h"

namespace lscore {

class LogStore final : public Store {
 public:
  // Over an image, in `directory`. Null when the image has no log.
  static std::unique_ptr<LogStore> Open(std::unique_ptr<Store>& image, std::string directory,
                                        StoreOptions const& options);
  // Makes the image one with a log. REQUIRES: nobody else has it open, nor opens it meanwhile.
  static void Convert(Store& image);
  // How many readers more than its users have the image is to have room for.
  static constexpr std::uint32_t kOwnReaders = 8;

  ~LogStore() override;

  std::unique_ptr<Snapshot> Begin() override;
  void End(std::unique_ptr<Snapshot> snapshot) noexcept override;
  std::unique_ptr<Batch> BeginBatch() override;
  std::unique_ptr<Snapshot> BeginVerified(FaultReport const& report) override;
  void Verify() override;
  StoreStatistics Statistics() const override;
  void RequireSync() override { sync_ = true; }
  bool FreeDeadReaders() override { return image_->FreeDeadReaders(); }
  void Upkeep() noexcept override;

 protected:
  bool ListChanges(View const& view, CommitId after, std::vector<ObjectId>* changed) const override;

 private:
  friend class LogBatch;

  LogStore(std::unique_ptr<Store> image, std::string directory, StoreOptions const& options,
           logformat::ImagePosition const& position);

  // Opening and closing, behind the door.
  void Recover();
  void Join();
  void CloseAlone();

  logformat::ImagePosition PositionOf(Snapshot const& image);
  std::shared_ptr<LogLayers const> LayersAt(CommitId state);
  void CatchUp(CommitId state);
  // A snapshot over one of the image, which then is gone; null: begin again with another image.
  std::unique_ptr<Snapshot> Over(std::unique_ptr<Snapshot>& image,
                                 std::shared_ptr<LogLayers const> layers, CommitId state);
  void Enter(LogSnapshot& snapshot);

  // For a batch, which holds the commit lock from the first of them on.
  std::shared_ptr<LogLayers const> PrepareBatch();
  void FinishForOther();
  void SettleImage();
  void FollowRotation();
  void MakeRoomInLog();
  void MarkUsed();
  bool FitsLog(std::uint64_t size, LogLayers const& layers) const;
  void AppendRecord(Batch const& batch, LogPosition const& at, logformat::Head const& head,
                    std::span<iovec> pieces);
  void CommitToImage(Batch const& batch, LogLayers const& layers);
  void SyncUpTo(CommitId commit);
  Status TryTakeBack(LogPosition const& at) noexcept;
  // All up to `state` into the image, in one batch of it.
  void WriteAll(LogLayers const& layers, CommitId state, bool clean);

  // Brings the frozen layer into the image.
  void Checkpoint(LogLayers const& layers);

  std::unique_ptr<Store> const image_;
  StoreOptions const options_;
  LogFiles files_;
  LogBoard board_;
  std::atomic<bool> sync_;

  std::mutex batch_mutex_;
  std::mutex tail_mutex_;  // held to change the tail
  LogTail tail_;
  bool spoiled_ = false;  // behind the tail lies a record whose commit failed
  bool used_ = false;     // the image says that the log is in use, and its files are there
  bool open_ = false;

  std::atomic<bool> checkpoint_due_{false};

  std::mutex mutable readers_mutex_;
  std::vector<LogSnapshot*> readers_;
  CommitId known_image_{0};  // the state of the image that the position is of
  logformat::ImagePosition known_position_;
  std::atomic<std::uint64_t> image_size_{0};  // of its file, when its position was last looked at
};

}  // namespace lscore

#endif
