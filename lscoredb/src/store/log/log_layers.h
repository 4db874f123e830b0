#ifndef LSCOREDB_SRC_LOG_LAYERS_H
#define LSCOREDB_SRC_LOG_LAYERS_H

// The layers above the image: the generations of the log that it does not hold, or not yet for all
// readers, with the active one on top. Only the active overlay changes, by new commits, so a
// snapshot keeps its layers by sharing them.

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "log_files.h"
#include "log_format.h"
#include "overlay.h"

namespace lscore {

struct LogLayer {
  // `at`: where the generation begins. `content_format`: the format record as it would be without a
  // log.
  LogLayer(LogPosition const& at, std::string_view content_format);

  logformat::Generation number;
  CommitId base;         // the last commit before it
  std::uint32_t before;  // the checksum of its record
  Overlay changes;
};

struct LogLayers {
  std::shared_ptr<LogLayer> active;
  std::shared_ptr<LogLayer> frozen;  // the generation before it; may be null

  CommitId base() const { return frozen != nullptr ? frozen->base : active->base; }
  // The topmost version of a key in a state; null: the image decides.
  OverlayVersion const* Find(OrderedKey const& key, CommitId state) const {
    OverlayVersion const* const version = active->changes.Find(key, state);
    if (version != nullptr || frozen == nullptr) return version;
    return frozen->changes.Find(key, state);
  }
};

// The log as far as this process has applied it to its overlays. One thread at a time changes it;
// any may get the layers, which hold every commit that was applied before.
class LogTail {
 public:
  explicit LogTail(LogFiles& files) : files_(files) {}

  // Starts again at the position of the image.
  void Restart(View const& image, logformat::ImagePosition const& position);
  // Reads and applies the next record of the log. Returns false when there is none.
  bool Advance();
  // Starts the next generation. REQUIRES: the image holds the frozen one, if any.
  void Rotate();
  // Drops the frozen layer if the image holds it.
  void DropHeld(logformat::ImagePosition const& position);
  // After this process appended a record whose changes are in the active overlay already.
  void Appended(LogPosition const& at) { SetPosition(at); }

  // Whether commits after the position are to be kept. This changes only with a commit that goes
  // straight into the image, after which the tail starts again.
  bool keeps_changes() const { return keeps_changes_; }
  LogPosition const& position() const { return position_; }
  CommitId applied() const { return CommitId{applied_.load(std::memory_order_acquire)}; }
  std::shared_ptr<LogLayers const> layers() const;
  // Appends the objects that other processes changed in commits after `after`. Returns false when
  // not all of them are remembered.
  bool ListOthers(CommitId after, std::vector<ObjectId>* changed) const;
  // Bytes of the log that the image does not hold; of the active generation.
  std::uint64_t Size() const;
  std::uint64_t ActiveSize() const { return size_; }
  // Bytes of all layers in memory, including those that only old snapshots keep.
  std::uint64_t Memory() const;

 private:
  void SetLayers(LogLayers layers);
  void SetPosition(LogPosition const& at);
  void NoteOthers(CommitId commit, std::vector<ObjectId> const& changed);

  static constexpr std::size_t kMostRemembered = 100'000;
  struct Changed {
    CommitId commit;
    ObjectId object;
  };

  LogFiles& files_;
  LogPosition position_;
  std::atomic<std::uint64_t> applied_{0};
  std::atomic<bool> keeps_changes_{false};
  std::atomic<std::uint64_t> size_{0};         // of the records before the position, in its file
  std::atomic<std::uint64_t> frozen_size_{0};  // of those in the other one
  std::mutex mutable mutex_;
  std::shared_ptr<LogLayers const> layers_;
  std::vector<std::weak_ptr<LogLayer>> all_layers_;
  std::deque<Changed> others_;   // changes of other processes, in commit order
  CommitId remembered_from_{0};  // others_ is complete after this commit
};

}  // namespace lscore

#endif
