#include "group_commit.h"

#include "commit_applier.h"

namespace lscore {
namespace {

CommitRequest& RequestOf(CommitTicket* ticket) { return static_cast<CommitRequest&>(*ticket); }

}  // namespace

Status GroupCommit::Run(CommitRequest& request) {
  CommitQueue::Tickets batch;
  if (!queue_.Enter(request, &batch)) return request.status;
  auto const begin = std::chrono::steady_clock::now();
  Lead(batch);
  queue_.Finish(batch, std::chrono::steady_clock::now() - begin);
  return request.status;
}

void GroupCommit::RequireSync() {
  queue_.BetweenBatches([this] { store_.RequireSync(); });
}

void GroupCommit::Lead(Tickets tickets) noexcept {
  auto const attempt = [this](Tickets some) {
    TryAll(some);
    return LORV_STATUS_OK;
  };
  Status together = Guarded([&] { return attempt(tickets); });
  if (together == LSCOREDB_MAP_FULL) {
    together = Guarded([&] { return store_.FreeDeadReaders() ? attempt(tickets) : together; });
  }
  if (together == LORV_STATUS_OK) return;
  for (CommitTicket* const& ticket : tickets) {
    Status const alone = tickets.size() == 1 ? together : Guarded([&] {
      return attempt({&ticket, 1});
    });
    if (alone != LORV_STATUS_OK) RequestOf(ticket).status = alone;
  }
}

void GroupCommit::TryAll(Tickets tickets) {
  std::unique_ptr<Batch> const batch = store_.BeginBatch();
  std::uint32_t position = 0;
  bool anything = false;
  CachedRowChanges kept(rows_);
  for (CommitTicket* const ticket : tickets) {
    CommitRequest& request = RequestOf(ticket);
    CommitApplier work(*batch, request, position, kept);
    bool const next = Raw(batch->id()) == Raw(request.snapshot.id()) + 1;
    request.status = Guarded([&] {
      work.Validate(next && !anything);
      return LORV_STATUS_OK;
    });
    if (request.status != LORV_STATUS_OK || request.changes.empty()) continue;
    work.Apply();
    anything = true;
  }
  if (!anything) return;
  IdRange const block = ids_.TopUp(*batch);
  kept.TakeOut(batch->id());
  batch->Commit();
  kept.PutBack();
  ids_.Install(block);
}

}  // namespace lscore
