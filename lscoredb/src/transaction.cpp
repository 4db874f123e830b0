#include "transaction.h"

namespace lscore {

Transaction::Transaction(std::shared_ptr<Database> database) : database_(std::move(database)) {}

Transaction::~Transaction() {
  if (open()) Rollback();
}

void Transaction::Begin(bool read_only) {
  snapshot_ = database_->store().Begin();
  read_only_ = read_only;
}

Status Transaction::Commit() {
  Status status = doomed_;
  if (status == LORV_STATUS_OK && !changes_.empty()) {
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
  for (Iterator* const iterator : open_iterators_) iterator->Finish();
  open_iterators_.clear();
  handouts_.Clear();
  changes_.Clear();
  examples_.Clear();
  assembled_.clear();
  assembled_ids_.clear();
  catalogue_.reset();
  doomed_ = LORV_STATUS_OK;
  now_ = 0;
  ++epoch_;
  database_->store().End(std::move(snapshot_));
}

IndexCatalogue& Transaction::catalogue() {
  if (catalogue_ == nullptr) catalogue_ = database_->catalogues().For(*snapshot_);
  return *catalogue_;
}

}  // namespace lscore
