#include "transaction.h"

#include <algorithm>
#include <utility>

namespace lscore {

Transaction::Transaction(std::shared_ptr<Database> database)
    : database_(std::move(database)), kept_rows_(database_->rows()) {}

Transaction::~Transaction() {
  if (open()) Rollback();
}

void Transaction::Begin(bool read_only) {
  Store& store = database_->store();
  snapshot_ = store.Begin();
  kept_rows_.Begin(snapshot_->id(), store.Notice(*snapshot_));
  read_only_ = read_only;
}

Status Transaction::Commit() {
  Status status = doomed_;
  if (status == LORV_STATUS_OK && (!changes_.empty() || changes_.requires_any())) {
    status = Guarded([&] {
      CommitRequest request{changes_, *snapshot_, catalogue().version()};
      return database_->commits().Run(request);
    });
  }
  End();
  return status;
}

void Transaction::Rollback() noexcept { End(); }

void Transaction::End() noexcept {
  scans_.EndAll();
  result_buffers_.Clear();
  changes_.Clear();
  assembled_.clear();
  assembled_ids_.clear();
  scopes_.clear();
  catalogue_.reset();
  known_open_.Forget();
  savepoints_.clear();
  database_->ids().Forget(chosen_);
  chosen_.clear();
  doomed_ = LORV_STATUS_OK;
  now_ = 0;
  cache_.Clear();
  kept_rows_.End();
  database_->store().End(std::move(snapshot_));
}

void Transaction::BeginScope() {
  scopes_.reserve(scopes_.size() + 1);
  result_buffers_.BeginScope();
  scopes_.push_back(assembled_.size());
}

// Images that were put together inside the scope go with it, but for those that written rows refer
// to.
bool Transaction::EndScope() {
  if (!result_buffers_.EndScope()) return false;
  for (Savepoint& savepoint : savepoints_) {
    savepoint.handed_out = std::min(savepoint.handed_out, result_buffers_.made());
  }
  std::size_t kept = scopes_.back();
  scopes_.pop_back();
  if (kept == assembled_.size()) return true;
  for (std::size_t i = kept; i < assembled_.size(); ++i) {
    if (changes_.FindRow(assembled_ids_[i]) == nullptr) continue;
    std::swap(assembled_[kept], assembled_[i]);
    std::swap(assembled_ids_[kept], assembled_ids_[i]);
    ++kept;
  }
  assembled_.resize(kept);
  assembled_ids_.resize(kept);
  cache_.Clear();
  return true;
}

Status Transaction::OpenIterator(Iterator& iterator, IndexId id, ScanRange const& range) {
  IndexDefinition const* const index = FindIndex(id);
  if (index == nullptr) return LORV_STATUS_NO_INDEX;
  return scans_.Open(iterator, SourceOfScans(), *index, range);
}

ScanSource Transaction::SourceOfScans() {
  return {snapshot_.get(), &changes_, &cache_, &kept_rows_, now_};
}

void Transaction::CloseIterator(Iterator& iterator) { scans_.Close(iterator); }

IndexCatalogue& Transaction::catalogue() {
  if (catalogue_ == nullptr) catalogue_ = database_->catalogues().For(*snapshot_);
  return *catalogue_;
}

}  // namespace lscore
