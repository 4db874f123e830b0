#ifndef LSCOREDB_SRC_LOG_LAYERS_H
#define LSCOREDB_SRC_LOG_LAYERS_H

// What lies over the image: the generations of the log that it does not hold, or not yet for all
// readers, the active one on top. Immutable but for the commits that go into the active overlay, so
// that a snapshot keeps its layers by sharing them.

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
  // `at`: where the generation begins. `content_format`: the record of the format, as it would
  // be without a log.
  LogLayer(LogPosition const& at, std::string_view content_format);

  logformat::Generation number;
  CommitId base;         // the last commit before it
  std::uint32_t before;  // the checksum of that
  Overlay changes;
};

struct LogLayers {
  std::shared_ptr<LogLayer> active;
  std::shared_ptr<LogLayer> frozen;  // before it; may be null

  CommitId base() const { return frozen != nullptr ? frozen->base : active->base; }
  // The topmost version of a key in a state; null: as the image has it.
  OverlayVersion const* Find(OrderedKey const& key, CommitId state) const {
    OverlayVersion const* const version = active->changes.Find(key, state);
    if (version != nullptr || frozen == nullptr) return version;
    return frozen->changes.Find(key, state);
  }
};

// The log as far as this process has read it. One thread at a time changes it; any may ask for the
// layers, which hold every commit that was applied then.
class LogTail {
 public:
  explicit LogTail(LogFiles& files) : files_(files) {}

  // Begins at the position of the image.
  void Restart(View const& image, logformat::ImagePosition const& position);
  // Reads the next record of the log. Returns false when there is none.
  bool Advance();
  // Has commits go to the next generation. REQUIRES: the image holds the frozen one, if any.
  void Rotate();
  // Lets go of what the image holds.
  void DropHeld(logformat::ImagePosition const& position);
  // After a record was appended that is in the active overlay already.
  void Appended(LogPosition const& at) { SetPosition(at); }

  LogPosition const& position() const { return position_; }
  CommitId applied() const { return CommitId{applied_.load(std::memory_order_acquire)}; }
  std::shared_ptr<LogLayers const> layers() const;
  // Appends the objects that commits after `after` changed, but for those that were appended here.
  // Returns false when it does not remember them all.
  bool ListOthers(CommitId after, std::vector<ObjectId>* changed) const;
  // Bytes of the log behind what the image holds.
  std::uint64_t Size() const;
  // Bytes of all layers that anybody keeps.
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
  std::atomic<std::uint64_t> size_{0};         // of the records before the position, in its file
  std::atomic<std::uint64_t> frozen_size_{0};  // of those in the other one
  std::mutex mutable mutex_;
  std::shared_ptr<LogLayers const> layers_;
  std::vector<std::weak_ptr<LogLayer>> all_layers_;
  std::deque<Changed> others_;   // what others changed, in the order of their commits
  CommitId remembered_from_{0};  // all of them after this commit are there
};

}  // namespace lscore

#endif
