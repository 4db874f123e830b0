#include "group_commit.h"

#include <optional>

#include "blind_commit.h"
#include "commit_applier.h"
#include "watched_work.h"

namespace lscore {
namespace {

CommitRequest& RequestOf(CommitTicket* ticket) { return static_cast<CommitRequest&>(*ticket); }

// Whether the batch holds the request's changes: it was valid and had any.
bool TookPart(CommitRequest const& request) {
  return request.status == LORV_STATUS_OK && !request.empty();
}

}  // namespace

Status GroupCommit::Run(CommitRequest& request) {
  CommitQueue::Tickets batch;
  if (!queue_.Enter(request, &batch)) return request.status;
  auto const begin = std::chrono::steady_clock::now();
  Lead(batch);
  queue_.Finish(batch, std::chrono::steady_clock::now() - begin);
  store_.Upkeep();
  return request.status;
}

void GroupCommit::RequireSync(std::chrono::milliseconds delay) {
  queue_.BetweenBatches([&] {
    if (delay == delay.zero()) return store_.RequireSync();
    store_.RequireSyncWithin(delay);
  });
}

// Tries all tickets in one batch. A full map is tried once more if removing dead readers may have
// freed pages. When the batch fails as a whole, nothing of it is in the store, and each ticket gets
// a batch of its own, except after an unknown outcome: its changes may be in the store already.
//
// The leader's watch stops its own transaction, never those of others.
void GroupCommit::Lead(Tickets tickets) noexcept {
  std::optional<WatchHold> hold;
  if (tickets.size() > 1) hold.emplace();
  auto const attempt = [this](Tickets some) {
    TryAll(some);
    return LORV_STATUS_OK;
  };
  Status together = Guarded([&] { return attempt(tickets); });
  if (together == LSCOREDB_MAP_FULL) {
    together = Guarded([&] { return store_.FreeDeadReaders() ? attempt(tickets) : together; });
  }
  if (together == LORV_STATUS_OK) return;
  if (together == LSCOREDB_COMMIT_UNKNOWN) return LeaveOpen(tickets);
  for (CommitTicket* const& ticket : tickets) {
    Status const alone = tickets.size() == 1 ? together : Guarded([&] {
      return attempt({&ticket, 1});
    });
    if (alone != LORV_STATUS_OK) RequestOf(ticket).status = alone;
  }
}

// Tickets whose changes were in the batch may have been committed and must not be tried again.
void GroupCommit::LeaveOpen(Tickets tickets) noexcept {
  for (CommitTicket* const ticket : tickets) {
    CommitRequest& request = RequestOf(ticket);
    if (TookPart(request)) request.status = LSCOREDB_COMMIT_UNKNOWN;
  }
}

std::unique_ptr<Batch> GroupCommit::BeginBatch(Tickets tickets) {
  if (!store_.takes_hints()) return store_.BeginBatch();
  std::vector<TreeKey> hints;
  for (CommitTicket* const ticket : tickets) AddHints(RequestOf(ticket), &hints);
  return store_.BeginBatch(hints);
}

// Whether nothing that a transaction can have read changed between its snapshot and a batch.
// Commits that only reserved ids do not count: a large transaction causes them itself.
bool GroupCommit::IsNext(CommitId snapshot, CommitId batch) {
  std::uint64_t const between = Raw(batch) - Raw(snapshot) - 1;
  return between == 0 || between == ids_.ReservationsBetween(snapshot, batch);
}

// When the store cannot say whether the batch took effect (a lost connection), each request gets
// what Store::AskOutcome needs to find out later.
template <typename Work>
void GroupCommit::Commit(Tickets tickets, auto const& batch, Work&& work) {
  try {
    work();
  } catch (Failure const& failure) {
    if (failure.status() == LSCOREDB_COMMIT_UNKNOWN) {
      for (CommitTicket* const ticket : tickets) {
        if (TookPart(RequestOf(ticket))) RequestOf(ticket).in_doubt = batch.in_doubt();
      }
    }
    throw;
  }
}

// All tickets in one round trip, if the store can do that and all of them are of the usual kind.
// Returns false when nothing was committed.
bool GroupCommit::TryBlind(Tickets tickets) {
  if (!identity_.known() || ids_.RunsLow()) return false;
  std::unique_ptr<BlindBatch> const batch = store_.BeginBlindBatch();
  if (batch == nullptr) return false;
  BlindCommit work(*batch, rows_);
  for (CommitTicket* const ticket : tickets) {
    CommitRequest& request = RequestOf(ticket);
    request.status = LORV_STATUS_OK;
    if (!work.Add(request)) return false;
  }
  bool committed = false;
  Commit(tickets, *batch, [&] { committed = work.Commit(); });
  return committed;
}

// One batch of the store for all tickets. In their order:
//
//   1. validate: no other transaction has committed a row that this one wrote or required since its
//      snapshot, nothing changed in the set of an index that it created, no unique key is taken.
//      Entries for indexes that others created meanwhile are derived. A transaction that fails here
//      is refused alone and has changed nothing. When nothing was committed between the snapshot
//      and this batch, rows are not compared.
//   2. apply: rows, entries, definitions, counts. The next ticket is validated against the result.
//
// Then the replaced rows are evicted from the shared cache, the batch is committed, and the new
// images are cached: a reader of the new state never finds an old row, and a reader of an older
// state never uses a new one. A failure from 2 on discards the batch as a whole; see Lead.
void GroupCommit::TryAll(Tickets tickets) {
  if (TryBlind(tickets)) return;
  std::unique_ptr<Batch> const batch = BeginBatch(tickets);
  std::uint32_t position = 0;
  bool anything = false;
  CachedRowChanges kept(rows_);
  for (CommitTicket* const ticket : tickets) {
    CommitRequest& request = RequestOf(ticket);
    CommitApplier work(*batch, request, position, kept);
    bool const next = IsNext(request.snapshot.id(), batch->id());
    request.status = Guarded([&] {
      work.Validate(next && !anything);
      return LORV_STATUS_OK;
    });
    if (request.status != LORV_STATUS_OK || request.empty()) continue;
    work.Apply();
    if (request.sync) batch->AskForSync();
    anything = true;
  }
  if (!anything) return;
  identity_.Assure(*batch);
  IdRange const block = ids_.TopUp(*batch);
  kept.TakeOut(batch->id());
  Commit(tickets, *batch, [&] { batch->Commit(); });
  kept.PutBack();
  ids_.Install(block);
}

}  // namespace lscore
