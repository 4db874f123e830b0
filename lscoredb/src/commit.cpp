#include "commit.h"

#include "commit_work.h"

namespace lscore {

Status CommitQueue::Run(CommitRequest& request) {
  std::unique_lock lock(mutex_);
  waiting_.push_back(&request);
  changed_.wait(lock, [&] { return request.done || !leading_; });
  if (request.done) return request.status;
  leading_ = true;
  std::vector<CommitRequest*> requests;
  requests.swap(waiting_);
  lock.unlock();
  Lead(requests);
  lock.lock();
  for (CommitRequest* const finished : requests) finished->done = true;
  leading_ = false;
  changed_.notify_all();
  return request.status;
}

void CommitQueue::RequireSync() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return !leading_; });
  store_.RequireSync();
}

void CommitQueue::Lead(std::vector<CommitRequest*> const& requests) noexcept {
  auto const attempt = [this](std::vector<CommitRequest*> const& some) {
    TryAll(some);
    return LORV_STATUS_OK;
  };
  Status together = Guarded([&] { return attempt(requests); });
  if (together == LSCOREDB_MAP_FULL) {
    together = Guarded([&] { return store_.FreeDeadReaders() ? attempt(requests) : together; });
  }
  if (together == LORV_STATUS_OK) return;
  for (CommitRequest* const request : requests) {
    Status const alone =
        requests.size() == 1 ? together : Guarded([&] { return attempt({request}); });
    if (alone != LORV_STATUS_OK) request->status = alone;
  }
}

void CommitQueue::TryAll(std::vector<CommitRequest*> const& requests) {
  Batch batch(store_);
  std::uint32_t position = 0;
  bool anything = false;
  for (CommitRequest* const request : requests) {
    CommitWork work(batch, *request, position);
    request->status = Guarded([&] {
      work.Validate();
      return LORV_STATUS_OK;
    });
    if (request->status != LORV_STATUS_OK) continue;
    work.Apply();
    anything = true;
  }
  if (!anything) return;
  IdRange const block = ids_.TopUp(batch);
  batch.Commit();
  ids_.Install(block);
}

}  // namespace lscore
