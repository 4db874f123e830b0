#include "log_batch.h"

#include <algorithm>

#include "bytes.h"
#include "status.h"
#include "unix_time.h"

namespace lscore {
namespace {

constexpr unsigned kManyNewRows = 16;

void CheckKey(Tree tree, std::string_view key) {
  bool const fits = tree == Tree::kRows ? key.size() == sizeof(std::uint64_t)
                                        : !key.empty() && key.size() <= kMaxKeySize;
  if (!fits) Throw(LSCOREDB_TOO_LARGE);
}

}  // namespace

LogBatch::LogBatch(LogStore& store)
    : store_(store),
      lock_(store.batch_mutex_),
      layers_(store.PrepareBatch()),
      view_(store, *store.image_),
      record_(layers_->active->changes) {
  CommitId const state = store.tail_.applied();
  set_id(CommitId{Raw(state) + 1});
  view_.Set(layers_, id(), nullptr);
  layers_->active->changes.BeginChanges();
}

LogBatch::~LogBatch() { End(); }

// Removes the batch's versions from the overlay unless its commit was applied.
void LogBatch::End() noexcept {
  if (over_) return;
  over_ = true;
  image_.reset();
  if (store_.tail_.applied() < id()) layers_->active->changes.RollBack(id());
  view_.EndImage();
  store_.board_.Release(LogBoard::Lock::kCommit);
  lock_.unlock();
}

std::uint64_t LogBatch::LastRow() const {
  Cursor cursor;
  cursor.Open(*this, Tree::kRows);
  return cursor.Last() ? Load<std::uint64_t>(cursor.key().data()) : 0;
}

// Whether the row's id is above all that there are, so that it need not be looked up. A batch of
// many new rows puts them in ascending order; for fewer, finding the last row does not pay.
bool LogBatch::IsBehindRows(std::string_view key) {
  if (new_rows_ == kManyNewRows) return Load<std::uint64_t>(key.data()) > last_row_;
  if (++new_rows_ == kManyNewRows) last_row_ = LastRow();
  return false;
}

// The record holds the bytes; the overlay's entry points at them.
void LogBatch::Write(logformat::Change const& change) {
  if (change.tree == Tree::kRows) {
    last_row_ = std::max(last_row_, Load<std::uint64_t>(change.key.data()));
  }
  KeyValue const kept = record_.Add(change);
  layers_->active->changes.Write({change.tree, kept.key}, kept.value, change.deleted, id());
  bool const outgrown = record_.size() > store_.options_.log_limit;
  if (outgrown && image_ == nullptr && !retention_.has_value() && !takes_notes()) MoveToImage();
}

void LogBatch::MoveToImage() {
  std::unique_ptr<Batch> image = store_.WriteLayers(*layers_, id(), nullptr);
  view_.ReadImageBatch(*image);
  image_ = std::move(image);
}

void LogBatch::Put(Tree tree, std::string_view key, std::string_view value) {
  CheckKey(tree, key);
  if (Batch* const image = ImageFor(tree)) return image->Put(tree, key, value);
  Write({tree, key, value, false});
}

void LogBatch::Append(Tree tree, std::string_view key, std::string_view value) {
  CheckKey(tree, key);
  if (Batch* const image = ImageFor(tree)) return image->Append(tree, key, value);
  Write({tree, key, value, false});
}

bool LogBatch::PutNew(Tree tree, std::string_view key, std::string_view value) {
  std::string_view there;
  CheckKey(tree, key);
  if (Batch* const image = ImageFor(tree)) return image->PutNew(tree, key, value);
  bool const behind = tree == Tree::kRows && IsBehindRows(key);
  if (!behind && Get(tree, key, &there)) return false;
  Write({tree, key, value, false});
  return true;
}

bool LogBatch::Delete(Tree tree, std::string_view key) {
  std::string_view there;
  CheckKey(tree, key);
  if (Batch* const image = ImageFor(tree)) return image->Delete(tree, key);
  if (!Get(tree, key, &there)) return false;
  Write({tree, key, {}, true});
  return true;
}

void LogBatch::Remove(Tree tree, std::string_view key) {
  CheckKey(tree, key);
  if (Batch* const image = ImageFor(tree)) return image->Remove(tree, key);
  Write({tree, key, {}, true});
}

// The snapshot of the image that the batch has read ends first, so that it keeps no page from being
// reused by a batch of the image.
void LogBatch::Commit() {
  try {
    if (!record_.empty()) {
      view_.EndImage();
      bool const sync = store_.sync_ || asks_for_sync();
      bool const log_is_good = !sync || !store_.sync_failed();
      bool const fits = !retention_.has_value() && store_.FitsLog(record_.size(), *layers_);
      if (image_ == nullptr && log_is_good && fits) {
        CommitToLog(sync);
      } else {
        CommitToImage();
      }
    }
  } catch (...) {
    End();
    throw;
  }
  End();
}

bool LogBatch::takes_notes() const { return store_.tail_.keeps_changes(); }

void LogBatch::Note(std::string_view note) { record_.Add({logformat::kNote, {}, note, false}); }

void LogBatch::SetRetention(Retention const& retention) {
  record_.Begin();
  retention_ = retention;
}

std::span<iovec> LogBatch::FinishRecord(LogPosition const& at) {
  head_.before = at.before;
  head_.generation = at.generation;
  head_.commit = id();
  head_.synced = store_.board_.Synced();
  head_.time = UnixMicroseconds();
  return record_.Finish(head_, store_.files_.identity());
}

void LogBatch::CommitToLog(bool sync) {
  LogPosition const at = store_.tail_.position();
  std::span<iovec> const pieces = FinishRecord(at);
  store_.AppendRecord(*this, at, head_, pieces, sync);
}

void LogBatch::CommitToImage() {
  if (image_ != nullptr) {
    store_.CommitToImage(*this, *layers_, {{}, {}, image_.get()});
    image_.reset();
    return;
  }
  std::span<iovec> const pieces = FinishRecord(store_.tail_.position());
  store_.CommitToImage(*this, *layers_, {pieces, retention_, nullptr});
}

}  // namespace lscore
