#include "postgres_store.h"

#include <lscoredb/watch.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <random>
#include <thread>
#include <utility>

#include "bytes.h"
#include "format.h"
#include "postgres_batch.h"
#include "postgres_blind_batch.h"
#include "refusal.h"
#include "server_changes.h"
#include "server_reservations.h"
#include "status.h"
#include "unix_time.h"

namespace lscore {
namespace {

constexpr std::size_t kIdleConnections = 16;
constexpr std::size_t kTicketSize = 16;
constexpr std::uint64_t kKeptShare = 16;  // one in so many bytes of the memory for rows
// Above all states.
constexpr CommitId kNever{std::numeric_limits<std::int64_t>::max()};
constexpr int kCreationTimeouts = 10;
constexpr std::chrono::milliseconds kCreationPause{50};
constexpr std::size_t kAttempts = 5;  // at creating tables that others drop meanwhile

Status StatusOf(std::function<void()> const& work) {
  return Guarded([&] {
    work();
    return LORV_STATUS_OK;
  });
}

}  // namespace

std::string NewTicket() {
  std::random_device source;
  std::string ticket;
  while (ticket.size() < kTicketSize) ticket.push_back(static_cast<char>(source()));
  return ticket;
}

// ---- opening -----------------------------------------------------------------------------------

PostgresStore::PostgresStore(std::string_view url, StoreOptions const& options)
    : url_(ParseServerUrl(url)),
      options_(options),
      statements_(url_.schema),
      feed_statements_(url_.schema),
      blind_statements_(url_.schema),
      waits_{std::make_shared<std::atomic<std::uint64_t>>(0), options.stops_wait},
      sync_(options.sync),
      kept_answers_(options.row_memory / kKeptShare) {
  auto connection = std::make_unique<Connection>(url_, waits_);
  std::uint64_t version = 0;
  auto const read_version = [&] {
    Result const state = connection->Run(statements_.read_state);
    if (state.size() != 1) Throw(LSCOREDB_NOT_A_DATABASE);
    version = state.Number(0, 1);
  };
  if (Status const status = StatusOf(read_version);
      status == LSCOREDB_NOT_A_DATABASE && !read_only()) {
    RequireNoForeignTables(*connection);
    MakeTables(*connection, statements_.make);
    read_version();
  } else {
    Check(status);
  }
  if (version > kNewestTablesVersion) Throw(LSCOREDB_NEWER_FORMAT);
  if (!HasNumbers(version) && !read_only()) {
    AddNumbers(*connection);
    read_version();
  }
  version_ = version;
  CheckFormat(*connection);
  WaitForStandby(*connection);
  idle_.push_back(std::move(connection));
  if (options.reserve_layouts && !read_only()) {
    UseReservations(std::make_shared<ServerReservations>(url_, statements_, waits_));
  }
}

bool PostgresStore::Exists(std::string_view url, StopsWait stops_wait) {
  ServerUrl const parsed = ParseServerUrl(url);
  Connection connection(parsed, {nullptr, stops_wait});
  Statements const statements(parsed.schema);
  Status const status = StatusOf([&] { connection.Run(statements.read_state); });
  if (status != LSCOREDB_NOT_A_DATABASE) Check(status);
  return status == LORV_STATUS_OK;
}

// Only the owner of the tables can, and only while nobody reads them for long. Without it commits
// take two round trips.
void PostgresStore::AddNumbers(Connection& connection) const {
  Status const status = StatusOf([&] {
    for (Statement const& statement : statements_.add_numbers) connection.Add(statement);
    connection.Exchange();
  });
  if (status == LORV_STATUS_OK) return;
  if (status == LSCOREDB_SERVER_LOST || status == LSCOREDB_STOPPED) Throw(status);
  connection.Run(statements_.rollback);
}

// An incomplete copy has no format record (CopyStore).
void PostgresStore::CheckFormat(Connection& connection) const {
  ServerView view(connection, statements_, numbered());
  std::string_view record;
  if (!view.Get(Tree::kMeta, format::kFormatKey, &record) ||
      record.size() != format::kMagic.size() + 4 || !record.starts_with(format::kMagic)) {
    Throw(LSCOREDB_NOT_A_DATABASE);
  }
  if (Load<std::uint32_t>(record.data() + format::kMagic.size()) > format::kNewestVersion) {
    Throw(LSCOREDB_NEWER_FORMAT);
  }
}

// Tables of other programs are neither used nor, when a copy fails, dropped.
void PostgresStore::RequireNoForeignTables(Connection& connection) const {
  Result const found =
      connection.Run(statements_.find_foreign, Parameters().Bytes(url_.schema_name));
  if (found.size() == 0) return;
  NoteRefusal("the schema " + url_.schema + " holds tables of another program");
  Throw(LSCOREDB_CANNOT_OPEN);
}

// Each statement is a transaction of its own. When several processes create the same tables at
// once, the server may refuse one of them in spite of IF NOT EXISTS, which then starts over. It can
// lose at each statement once: from then on what it asks for is there.
void PostgresStore::MakeTables(Connection& connection, std::vector<Statement> const& tables) const {
  Status status = LORV_STATUS_OK;
  std::size_t const attempts = kAttempts + tables.size();
  for (std::size_t attempt = 0; attempt < attempts; ++attempt) {
    status = StatusOf([&] {
      for (Statement const& statement : tables) connection.Run(statement);
    });
    if (status == LORV_STATUS_OK) return;
    if (status == LSCOREDB_SERVER_LOST || status == LSCOREDB_CANNOT_OPEN) break;
  }
  Throw(status == LSCOREDB_IO_ERROR || status == LSCOREDB_WRITE_REFUSED ? LSCOREDB_CANNOT_OPEN
                                                                        : status);
}

// The lock is a row lock of a transaction that stays open. The server ends it with the connection,
// so a process that dies leaves no lock. Polls, since a waiting statement would meet the timeout of
// replies.
std::shared_ptr<void> PostgresStore::WaitForCreationLock() {
  auto const begun = std::chrono::steady_clock::now();
  auto lock = std::make_shared<Connection>(url_, waits_);
  for (;;) {
    Status const status = StatusOf([&] {
      lock->Add(statements_.begin_batch);
      lock->Add(statements_.lock_creation);
      lock->Exchange();
    });
    if (status == LORV_STATUS_OK) return lock;
    if (status != LSCOREDB_CONFLICT) Throw(status);
    lock->Run(statements_.rollback);
    if (IsOver(begun, kCreationTimeouts)) Throw(status);
    if (waits_.stopped()) Throw(LSCOREDB_STOPPED);
    std::this_thread::sleep_for(kCreationPause);
  }
}

// Drops the tables in the transaction that holds the lock, so that the next holder finds none.
void PostgresStore::Discard(std::shared_ptr<void> lock) {
  auto& connection = *static_cast<Connection*>(lock.get());
  connection.Add(statements_.drop_tables);
  connection.Add(statements_.commit);
  connection.Exchange();
}

// ---- connections -------------------------------------------------------------------------------

void LetGo::operator()(Connection* connection) const noexcept {
  store->GiveBack(std::unique_ptr<Connection>(connection));
}

// A primary that was stopped and started shows commits that its synchronous standby may not have
// yet, and that a failover would take back. A write waits until the standby has all before it, so
// what a connection reads after one of its own is there to stay. Writes one of 256 rows, so that
// connections neither fill the table nor wait for one another. Who may only read does without.
void PostgresStore::WaitForStandby(Connection& connection) const {
  if (read_only()) return;
  std::string const row = NewTicket().substr(0, 1);
  Status const status =
      StatusOf([&] { connection.Run(statements_.fence_ticket, Parameters().Bytes(row)); });
  if (status == LORV_STATUS_OK) connection.SetPrimary(Connection::Primary::kNow);
  if (status != LSCOREDB_WRITE_REFUSED && status != LSCOREDB_CANNOT_OPEN) Check(status);
}

// An idle connection of the pool, or a new one. Connects without the mutex.
UsedConnection PostgresStore::TakeConnection() const {
  bool others = false;
  {
    std::lock_guard const lock(mutex_);
    others = in_use_ > 0;
    ++in_use_;
    if (!idle_.empty()) {
      UsedConnection connection(idle_.back().release(), LetGo{this});
      idle_.pop_back();
      return connection;
    }
  }
  std::unique_ptr<Connection> made;
  Status const status = StatusOf([&] {
    made = std::make_unique<Connection>(url_, waits_);
    WaitForStandby(*made);
  });
  if (status == LORV_STATUS_OK) return {made.release(), LetGo{this}};
  GiveBack(nullptr);
  // The server accepted our other connections, so a refusal now means that it has no room for more.
  Throw(others && status == LSCOREDB_CANNOT_OPEN ? LSCOREDB_TOO_MANY_READERS : status);
}

void PostgresStore::GiveBack(std::unique_ptr<Connection> connection) const noexcept {
  std::lock_guard const lock(mutex_);
  --in_use_;
  if (connection == nullptr || !connection->usable() || idle_.size() == kIdleConnections) return;
  static_cast<void>(StatusOf([&] { idle_.push_back(std::move(connection)); }));
}

// ---- snapshots ---------------------------------------------------------------------------------

// Most transactions ask first whether the indexes are those that the process knows, and those that
// insert, whether any set was closed. The answers come with the state.
PostgresSnapshot::PostgresSnapshot(PostgresStore& store, bool anew)
    : store_(store),
      connection_(store.TakeConnection()),
      view_(*connection_, store.statements(), store.numbered()) {
  static std::vector<TreeKey> const asked_by_most = {
      {Tree::kMeta, std::string(format::kIndexesKey)},
      {Tree::kMeta, std::string(format::kClosingsKey)}};
  state_ = store.BeginAt(*connection_, BeginsFor::kSnapshot, view_, asked_by_most);
  set_id(state_.id);
  if (anew) return;
  auto known = store.kept_answers().Take(state_.id, view_.numbered());
  if (known != nullptr) view_.Adopt(std::move(known));
}

// Posts the end of the transaction without waiting, since it has only read.
PostgresSnapshot::~PostgresSnapshot() {
  static_cast<void>(StatusOf([this] { connection_->Add(store_.statements().commit); }));
  connection_->Post();
  store_.kept_answers().Keep(state_.id, view_.Release());
}

void PostgresSnapshot::OpenCursor(Tree tree, std::unique_ptr<TreeCursor>& cursor) const {
  cursor = std::make_unique<ServerCursor>(store_, view_, tree);
}

bool PostgresStore::IsOver(std::chrono::steady_clock::time_point since, int times) const {
  bool const limited = url_.timeout.count() != 0;
  return limited && std::chrono::steady_clock::now() - since >= times * url_.timeout;
}

// An idle connection may have been cut since it was last used. That says nothing about the server,
// so others are tried until a new one decides, or the time is over: a server that is silent is so
// on all of them.
void PostgresStore::WithConnections(std::function<void()> const& attempt) const {
  auto const begun = std::chrono::steady_clock::now();
  Status status = StatusOf(attempt);
  for (std::size_t i = 0; status == LSCOREDB_SERVER_LOST && i <= kIdleConnections; ++i) {
    if (IsOver(begun)) break;
    status = StatusOf(attempt);
  }
  Check(status);
}

std::unique_ptr<Snapshot> PostgresStore::Begin() { return BeginSnapshot(false); }

std::unique_ptr<Snapshot> PostgresStore::BeginVerified(FaultReport const&) {
  return BeginSnapshot(true);
}

std::unique_ptr<Snapshot> PostgresStore::BeginSnapshot(bool anew) {
  {
    std::lock_guard const lock(mutex_);
    if (readers_.size() >= options_.max_readers) Throw(LSCOREDB_TOO_MANY_READERS);
  }
  std::unique_ptr<Snapshot> snapshot;
  WithConnections([&] { snapshot = std::make_unique<PostgresSnapshot>(*this, anew); });
  std::lock_guard const lock(mutex_);
  readers_.insert(snapshot->id());
  return snapshot;
}

void PostgresStore::End(std::unique_ptr<Snapshot> snapshot) noexcept {
  {
    std::lock_guard const lock(mutex_);
    readers_.erase(readers_.find(snapshot->id()));
  }
  snapshot.reset();
}

std::unique_ptr<Batch> PostgresStore::BeginBatch(std::vector<TreeKey> const& hints) {
  if (read_only()) Throw(LSCOREDB_READ_ONLY_DATABASE);
  return std::make_unique<PostgresBatch>(*this, hints);
}

// Not while something else has to be done with a commit, and not without a state to begin from.
std::unique_ptr<BlindBatch> PostgresStore::BeginBlindBatch() {
  std::uint64_t const version = version_;
  if (read_only() || !HasNumbers(version) || tidying_due_) return nullptr;
  std::lock_guard const lock(mutex_);
  if (known_ == CommitId{0}) return nullptr;
  return std::make_unique<PostgresBlindBatch>(*this, known_, version);
}

void PostgresStore::NoteBlindCommit(CommitId state) noexcept {
  NoteKnown(state);
  bool const trims = lscore::KeepsChanges(version_) && Raw(state) % kTrimEvery == 0;
  if (trims || Raw(state) % kTidyEvery == 0) tidying_due_ = true;
}

// ---- what others change ------------------------------------------------------------------------

// The changes are read after the state, in the same round trip: a batch first waits there for the
// lock, and must see what was committed until then. A process that knows no state has nothing in
// memory that could have changed, so it asks for no changes.
StateRead PostgresStore::BeginAt(Connection& connection, BeginsFor what, ServerView& view,
                                 std::vector<TreeKey> const& hints) const {
  bool const numbered = view.numbered();
  bool const locks = what == BeginsFor::kBatch;
  StateRead read;
  SeenState seen;
  {
    std::lock_guard const lock(mutex_);
    read.changes_after = known_ == CommitId{0} ? kNever : known_;
    seen = seen_;
  }
  Parameters const ticket = Parameters().Bytes(seen.ticket);
  connection.Add(locks ? statements_.begin_batch : statements_.begin_snapshot);
  connection.Add(locks ? statements_.lock_state : statements_.read_history,
                 locks ? Parameters() : ticket);
  connection.Add(statements_.read_changes,
                 Parameters().Number(Raw(read.changes_after)).Number(kMostChanges + 1));
  if (locks) connection.Add(statements_.read_ticket, ticket);
  std::size_t const before = connection.added();
  ServerView::Asked const asked = view.Ask(hints);
  std::vector<Result> results = connection.Exchange();
  view.Take(asked, std::span(results).subspan(before));
  Result const& row = results[1];
  if (row.size() != 1) Throw(LSCOREDB_NOT_A_DATABASE);
  read.version = row.Number(0, 1);
  if (read.version > kNewestTablesVersion) Throw(LSCOREDB_NEWER_FORMAT);
  version_ = read.version;
  // Another program has brought the tables up to date: once more, as on a connection that was cut.
  if (HasNumbers(read.version) != numbered) Throw(LSCOREDB_SERVER_LOST);
  read.id = CommitId{row.Number(0, 0)};
  bool const found = locks ? results[3].size() > 0 : row.Number(0, 3) > 0;
  RequireSameHistory(connection, seen, found, read.id);
  if (!locks && !row.IsNull(0, 4)) NoteSeen({read.id, std::string(row.Bytes(0, 4))});
  read.listed = CommitId{row.Number(0, 2)};
  read.changes = std::move(results[2]);
  if (read.changes_after == kNever) NoteKnown(read.id);
  return read;
}

// A server that was set back, by its operator or by a failover to a standby that lacked commits,
// counts on from an earlier state and gives the numbers of lost commits to others. What a process
// has in memory of lost ones, ids that it reserved among them, would then count as theirs. `found`:
// the ticket of the seen state. Tickets of old commits are dropped. A connection that is not to the
// primary may be to a standby that is behind, and one of the pool to a primary of the past: then
// others are tried.
void PostgresStore::RequireSameHistory(Connection& connection, SeenState const& seen, bool found,
                                       CommitId now) const {
  Connection::Primary const primary = connection.primary();
  if (primary == Connection::Primary::kNow) connection.SetPrimary(Connection::Primary::kBefore);
  if (found || seen.ticket.empty() || Raw(now) > Raw(seen.id) + kTicketsKept) return;
  if (primary == Connection::Primary::kPerhaps && now < seen.id) return;
  if (primary != Connection::Primary::kBefore) Throw(LSCOREDB_SERVER_SET_BACK);
  connection.GiveUp();
  Throw(LSCOREDB_SERVER_LOST);
}

void PostgresStore::NoteSeen(SeenState seen) const {
  std::lock_guard const lock(mutex_);
  if (seen.id > seen_.id) seen_ = std::move(seen);
}

SeenState PostgresStore::seen() const {
  std::lock_guard const lock(mutex_);
  return seen_;
}

void PostgresStore::NoteKnown(CommitId state) const noexcept {
  std::lock_guard const lock(mutex_);
  known_ = std::max(known_, state);
}

Result PostgresSnapshot::ReadChanges(CommitId after) const {
  return connection_->Run(store_.statements().read_changes,
                          Parameters().Number(Raw(after)).Number(kMostChanges + 1));
}

// Mostly answered by what BeginAt has read. Asks again if the caller's rows are older than that;
// returns false if the list has been cut since, or is too long.
bool PostgresStore::ListChanges(View const& view, CommitId after,
                                std::vector<ObjectId>* changed) const {
  auto const* const batch = dynamic_cast<PostgresBatch const*>(&view);
  auto const* const snapshot = dynamic_cast<PostgresSnapshot const*>(&view);
  StateRead const& state = batch != nullptr ? batch->state() : snapshot->state();
  NoteKnown(state.id);
  if (after < state.listed) return false;
  Result more;
  bool const asked = after < state.changes_after;
  if (asked) more = batch != nullptr ? batch->ReadChanges(after) : snapshot->ReadChanges(after);
  Result const& keys = asked ? more : state.changes;
  if (keys.size() > kMostChanges) return false;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    std::string const key = ServerKey(Tree::kRows, keys.Bytes(i, 0));
    changed->push_back(ObjectId{Load<std::uint64_t>(key.data())});
  }
  return true;
}

// ---- the feed of changes -----------------------------------------------------------------------

std::vector<Result> PostgresStore::Ask(std::function<void(Connection&)> const& add) const {
  std::vector<Result> results;
  WithConnections([&] {
    UsedConnection const connection = TakeConnection();
    add(*connection);
    results = connection->Exchange();
  });
  return results;
}

CommitId PostgresStore::KeepingState(Result const& state) {
  if (state.size() != 1) Throw(LSCOREDB_NOT_A_DATABASE);
  std::uint64_t const version = state.Number(0, 1);
  if (version > kNewestTablesVersion) Throw(LSCOREDB_NEWER_FORMAT);
  if (!lscore::KeepsChanges(version)) Throw(LSCOREDB_NO_CHANGES);
  return CommitId{state.Number(0, 0)};
}

// Only the owner of the schema can, so nothing is asked for that is there.
void PostgresStore::MakeFeed() const {
  UsedConnection const connection = TakeConnection();
  Status const status = StatusOf([&] { connection->Run(feed_statements_.read_retention); });
  if (status == LORV_STATUS_OK) return;
  if (status != LSCOREDB_NOT_A_DATABASE) Throw(status);
  MakeTables(*connection, feed_statements_.make);
}

// Runs `deletes`, of a number and the most rows, until it deletes nothing more. Each time is a
// transaction that locks the state: two that delete the same rows in different orders could
// otherwise make a commit fail.
void PostgresStore::TidyFeed(Statement const& deletes, std::uint64_t number) const {
  constexpr std::uint64_t kAtOnce = 10'000;
  std::optional<std::uint64_t> before;
  for (;;) {
    std::vector<Result> const results = Ask([&](Connection& connection) {
      connection.Add(statements_.begin_batch);
      connection.Add(statements_.lock_state);
      connection.Add(deletes, Parameters().Number(number).Number(kAtOnce));
      connection.Add(feed_statements_.trim_parts);
      connection.Add(feed_statements_.read_ends);
      connection.Add(statements_.commit);
    });
    Result const& ends = results[4];
    std::uint64_t const oldest = ends.size() == 0 ? 0 : ends.Number(0, 0);
    if (oldest == before) return;
    before = oldest;
  }
}

// What was kept is deleted by its numbers, so that it may be kept again meanwhile.
void PostgresStore::KeepChanges(Retention const& retention) {
  if (read_only()) Throw(LSCOREDB_READ_ONLY_DATABASE);
  if (retention.keeps()) MakeFeed();
  CommitId state{0};
  {
    PostgresBatch batch(*this, {});
    if (!retention.keeps() && !batch.takes_notes()) return;
    batch.SetRetention(retention);
    batch.Commit();
    state = batch.id();
  }
  if (retention.keeps()) {
    TidyFeed(feed_statements_.trim, UnixMicroseconds());
  } else {
    TidyFeed(feed_statements_.drop, Raw(state));
  }
}

// Commits without a gap up to the newest one. A gap at the end is a commit by a program that does
// not know of the feed.
KeptChanges PostgresStore::Kept() {
  auto const read_state = [&](Connection& connection) { connection.Add(statements_.read_state); };
  KeepingState(Ask(read_state)[0]);
  std::vector<Result> const results = Ask([&](Connection& connection) {
    read_state(connection);
    connection.Add(feed_statements_.read_retention);
    connection.Add(feed_statements_.read_ends);
  });
  KeptChanges kept;
  kept.last = KeepingState(results[0]);
  kept.first = CommitId{Raw(kept.last) + 1};
  Result const& retention = results[1];
  if (retention.size() == 1) kept.retention = {retention.Number(0, 0), retention.Number(0, 1)};
  Result const& ends = results[2];
  if (ends.size() == 1 && ends.Number(0, 1) >= Raw(kept.last)) {
    CommitId const first{std::max(ends.Number(0, 0), ends.Number(0, 2))};
    kept.first = std::min(first, kept.first);
  }
  return kept;
}

std::unique_ptr<ChangeSource> PostgresStore::OpenChanges(CommitId after) {
  std::vector<Result> const state =
      Ask([&](Connection& connection) { connection.Add(statements_.read_state); });
  if (after > KeepingState(state[0])) Throw(LSCOREDB_INVALID_ARGUMENT);
  return std::make_unique<ServerChanges>(*this, after);
}

// ---- maintenance -------------------------------------------------------------------------------

// The server checks its own pages; all that can be checked here is that the tables exist.
void PostgresStore::Verify() {
  if (Raw(NewestState()) == 0) Throw(LSCOREDB_DAMAGED);
}

CommitId PostgresStore::NewestState() const {
  Result const state = TakeConnection()->Run(statements_.read_state);
  return state.size() == 1 ? CommitId{state.Number(0, 0)} : CommitId{0};
}

StoreStatistics PostgresStore::Statistics() const {
  StoreStatistics statistics;
  statistics.last_commit = NewestState();
  std::lock_guard const lock(mutex_);
  if (sync_) statistics.synced_commit = statistics.last_commit;
  statistics.oldest_commit = readers_.empty() ? statistics.last_commit : *readers_.begin();
  statistics.readers = static_cast<std::uint32_t>(readers_.size());
  statistics.max_readers = options_.max_readers;
  statistics.round_trips = *waits_.count;
  return statistics;
}

void PostgresStore::RequireSync() {
  std::lock_guard const lock(mutex_);
  sync_ = true;
}

// A transaction that has a number writes a record when it commits, and waits until the server's log
// is on disk up to that record.
void PostgresStore::Sync() {
  if (read_only() || sync()) return;
  static_cast<void>(TakeConnection()->Run(statements_.wait_for_disk));
}

bool PostgresStore::sync() const {
  std::lock_guard const lock(mutex_);
  return sync_;
}

// Fences the ticket and then reads it: after the first statement the commit either has taken place
// or cannot. That statement writes even where the ticket is there, and so waits until a synchronous
// standby has the commit too. A ticket so old that it may have been dropped proves nothing.
bool PostgresStore::Ask(CommitInDoubt const& commit, Waits const& waits) const {
  bool committed = false;
  Status const status = StatusOf([&] {
    Connection connection(url_, waits);
    connection.Add(statements_.fence_ticket, Parameters().Bytes(commit.ticket));
    connection.Add(statements_.read_ticket, Parameters().Bytes(commit.ticket));
    connection.Add(statements_.read_state);
    std::vector<Result> const results = connection.Exchange();
    committed = results[1].size() > 0;
    bool const kept = results[2].Number(0, 0) <= Raw(commit.state) + kTicketsKept;
    if (!committed && !kept) Throw(LSCOREDB_COMMIT_UNKNOWN);
  });
  if (status != LORV_STATUS_OK) Throw(LSCOREDB_COMMIT_UNKNOWN);
  return committed;
}

}  // namespace lscore
