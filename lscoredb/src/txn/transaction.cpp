#include "transaction.h"

#include <utility>

#include "heap.h"

namespace lscore {

Transaction::Transaction(std::shared_ptr<Database> database) : state_(std::move(database)) {}

Transaction::~Transaction() {
  if (open()) Rollback();
}

void Transaction::Begin(bool read_only) {
  Store& store = state_.database->store();
  in_doubt_ = {};
  sync_ = false;
  state_.snapshot = store.Begin();
  reader_.Begin(store.Notice(*state_.snapshot));
  refusal_ = read_only ? LSCOREDB_WRITE_REFUSED : LSCOREDB_READ_ONLY_DATABASE;
  read_only_ = read_only || store.read_only();
  state_.refused.reset();
}

// A transaction that wrote and required nothing ends without the queue: its snapshot was consistent
// all along. The request refers to the write set and the snapshot, which End frees only after
// Run returned.
Status Transaction::Commit() {
  Status status = state_.doomed;
  state_.refused.reset();
  PendingChanges& changes = state_.changes;
  if (status == LORV_STATUS_OK && (!changes.empty() || changes.requires_any())) {
    status = Guarded([&] {
      changes.SortEntries();
      CommitRequest request{changes, *state_.snapshot, schema_.version()};
      request.sync = sync_;
      Status const ended = state_.database->commits().Run(request);
      if (ended == LSCOREDB_DUPLICATE_KEY) state_.refused = std::move(request.refused);
      in_doubt_ = std::move(request.in_doubt);
      return ended;
    });
  }
  if (status == LORV_STATUS_OK && sync_ && changes.empty()) {
    status = Guarded([&] {
      state_.database->store().Sync();
      return LORV_STATUS_OK;
    });
  }
  End();
  return status;
}

Status Transaction::AskOutcome(bool* committed) const {
  if (in_doubt_.ticket.empty()) return LSCOREDB_NO_TRANSACTION;
  *committed = state_.database->store().AskOutcome(in_doubt_);
  return LORV_STATUS_OK;
}

// Scans end before the write set that they point into is cleared. The snapshot goes last: rows and
// cells point into it.
void Transaction::End() noexcept {
  bool const large = state_.changes.large();
  scans_.EndAll();
  result_buffers_.Clear();
  many_values_.Clear();
  savepoints_.End();
  writer_.End();
  schema_.End();
  state_.changes.Clear();
  state_.doomed = LORV_STATUS_OK;
  state_.now = 0;
  state_.far_lookups = 0;
  reader_.End();
  state_.database->store().End(std::move(state_.snapshot));
  if (large) ReturnFreeHeap();
}

// An object that the transaction itself inserted needs no check: nobody else can see it.
Status Transaction::Require(ObjectId id) {
  RowRef const* row = nullptr;
  Status const status = reader_.FindLive(id, &row);
  if (status != LORV_STATUS_OK) return status;
  if (!row->inserted()) state_.changes.Require(id);
  return LORV_STATUS_OK;
}

void Transaction::BeginScope() {
  reader_.BeginScope();
  result_buffers_.BeginScope();
}

bool Transaction::EndScope() {
  if (!result_buffers_.EndScope()) return false;
  savepoints_.ForgetResults();
  reader_.EndScope();
  return true;
}

Status Transaction::OpenIterator(Iterator& iterator, IndexId id, ScanRange const& range) {
  IndexDefinition const* const index = schema_.FindIndex(id);
  if (index == nullptr) return LORV_STATUS_NO_INDEX;
  return scans_.Open(iterator, reader_.scan_source(), *index, range);
}

}  // namespace lscore
