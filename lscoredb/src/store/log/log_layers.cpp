#include "log_layers.h"

#include <set>
#include <utility>

#include "format.h"
#include "status.h"

namespace lscore {
namespace {

constexpr CommitId kAlways{0};

std::string_view Kept(Overlay& overlay, std::string_view bytes) {
  char* const at = overlay.TakeBytes(bytes.size());
  std::copy(bytes.begin(), bytes.end(), at);
  return {at, bytes.size()};
}

}  // namespace

// Versions that every reader sees make the image look like a store without a log: its records of
// the log and of the kept changes are deleted, and its format is that of the content.
LogLayer::LogLayer(LogPosition const& at, std::string_view content_format)
    : number(at.generation), base(at.commit), before(at.before) {
  changes.Write({Tree::kMeta, logformat::kImageKey}, {}, true, kAlways);
  changes.Write({Tree::kMeta, logformat::kChangesKey}, {}, true, kAlways);
  changes.Write({Tree::kMeta, format::kFormatKey}, Kept(changes, content_format), false, kAlways);
}

void LogTail::Restart(View const& image, logformat::ImagePosition const& position) {
  LogPosition const at = LogPosition::At(position);
  SetLayers({std::make_shared<LogLayer>(at, logformat::ContentFormat(image)), nullptr});
  keeps_changes_ = logformat::ReadRetention(image).keeps();
  {
    std::lock_guard const lock(mutex_);
    others_.clear();
    remembered_from_ = at.commit;
  }
  SetPosition(at);
}

void LogTail::NoteOthers(CommitId commit, std::vector<ObjectId> const& changed) {
  std::lock_guard const lock(mutex_);
  for (ObjectId const object : changed) others_.push_back({commit, object});
  while (others_.size() > kMostRemembered) {
    remembered_from_ = others_.front().commit;
    others_.pop_front();
  }
}

bool LogTail::ListOthers(CommitId after, std::vector<ObjectId>* changed) const {
  std::lock_guard const lock(mutex_);
  if (after < remembered_from_) return false;
  for (auto at = others_.rbegin(); at != others_.rend() && at->commit > after; ++at) {
    changed->push_back(at->object);
  }
  return true;
}

// The overlay takes over the bytes of the record, and its entries point into them. The changed rows
// are remembered, so that they can be evicted from the shared row cache.
bool LogTail::Advance() {
  std::optional<LogRecord> record = files_.ReadNext(position_);
  if (!record.has_value()) return false;
  if (record->head.generation != position_.generation) Rotate();
  Overlay& overlay = layers()->active->changes;
  LogPosition const behind = record->PositionAfter(position_);
  overlay.BeginChanges();
  std::string_view rest = record->changes();
  overlay.Keep(std::move(record->bytes), record->head.size);
  std::vector<ObjectId> changed;
  logformat::Change change;
  while (logformat::NextChange(rest, &change)) {
    if (change.tree == logformat::kNote) continue;
    overlay.Write({change.tree, change.key}, change.value, change.deleted, record->head.commit);
    if (change.tree == Tree::kRows)
      changed.push_back(ObjectId{Load<std::uint64_t>(change.key.data())});
  }
  NoteOthers(record->head.commit, changed);
  SetPosition(behind);
  return true;
}

// The active layer becomes the frozen one, and a new layer begins with the format record as the old
// one has it.
void LogTail::Rotate() {
  std::shared_ptr<LogLayers const> const now = layers();
  OverlayVersion const* const format =
      now->active->changes.Find({Tree::kMeta, format::kFormatKey}, position_.commit);
  frozen_size_ = size_.load();
  LogPosition next = position_;
  next.generation = logformat::After(position_.generation);
  next.offset = logformat::kTitleSize;
  SetLayers({std::make_shared<LogLayer>(next, format->value), now->active});
  SetPosition(next);
}

void LogTail::DropHeld(logformat::ImagePosition const& position) {
  std::shared_ptr<LogLayers const> const now = layers();
  if (now->frozen == nullptr || position.commit < now->active->base) return;
  SetLayers({now->active, nullptr});
}

void LogTail::SetPosition(LogPosition const& at) {
  position_ = at;
  applied_.store(Raw(at.commit), std::memory_order_release);
  size_ = at.offset - logformat::kTitleSize;
}

std::shared_ptr<LogLayers const> LogTail::layers() const {
  std::lock_guard const lock(mutex_);
  return layers_;
}

void LogTail::SetLayers(LogLayers layers) {
  auto shared = std::make_shared<LogLayers const>(std::move(layers));
  std::lock_guard const lock(mutex_);
  std::erase_if(all_layers_, [](auto const& layer) { return layer.expired(); });
  all_layers_.push_back(shared->active);
  layers_.swap(shared);
}

std::uint64_t LogTail::Size() const {
  std::lock_guard const lock(mutex_);
  return size_ + (layers_->frozen != nullptr ? frozen_size_.load() : 0);
}

std::uint64_t LogTail::Memory() const {
  std::lock_guard const lock(mutex_);
  std::set<LogLayer const*> counted;
  std::uint64_t bytes = 0;
  for (std::weak_ptr<LogLayer> const& weak : all_layers_) {
    std::shared_ptr<LogLayer> const layer = weak.lock();
    if (layer != nullptr && counted.insert(layer.get()).second) bytes += layer->changes.bytes();
  }
  return bytes;
}

}  // namespace lscore
