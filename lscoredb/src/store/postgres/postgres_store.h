#ifndef LSCOREDB_SRC_POSTGRES_STORE_H
#define LSCOREDB_SRC_POSTGRES_STORE_H

// A store on a server that speaks PostgreSQL's protocol.
//
// A snapshot is a read-only transaction of the server at REPEATABLE READ, on a connection of its
// own, which returns to the pool afterwards. Beginning one is a round trip, ending one none. What
// it has read serves the next ones of the process as long as they find the same state. A batch
// locks the one row of the table `state`, which orders the batches of all processes and machines,
// reads what it needs, and keeps its writes in memory until Commit sends them together.
//
// When the reply to a commit is lost, the store asks for the outcome over a new connection: it
// inserts the batch's ticket as not committed. If that succeeds, the commit can no longer take
// place, since it would insert the same ticket; if the ticket exists, it has taken place. When the
// server does not answer within the time limit, the outcome stays open: LSCOREDB_COMMIT_UNKNOWN.

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "blind_statements.h"
#include "connection.h"
#include "feed_statements.h"
#include "kept_answers.h"
#include "server_view.h"
#include "statements.h"
#include "store.h"

namespace lscore {

class PostgresStore;

// A connection of the pool in use; its deleter returns it.
struct LetGo {
  PostgresStore const* store;
  void operator()(Connection* connection) const noexcept;
};
using UsedConnection = std::unique_ptr<Connection, LetGo>;

// A state of the database, and the rows that changed before it.
struct StateRead {
  CommitId id{0};
  std::uint64_t version = 0;  // of the tables
  CommitId listed{0};         // changes after this state are listed on the server
  CommitId changes_after{0};  // `changes` has those after this state
  Result changes;             // keys of rows
};

// A state of the database that a process has seen, and the ticket of its commit; empty: none.
struct SeenState {
  CommitId id{0};
  std::string ticket;
};

// A commit's random name, by which its outcome can be asked for.
std::string NewTicket();

enum class BeginsFor : std::uint8_t { kSnapshot, kBatch };

class PostgresStore final : public Store {
 public:
  // Connects, and creates missing tables unless the store is opened read-only.
  PostgresStore(std::string_view url, StoreOptions const& options);
  // Whether the tables of a database exist.
  static bool Exists(std::string_view url, StopsWait stops_wait = nullptr);

  std::unique_ptr<Snapshot> Begin() override;
  void End(std::unique_ptr<Snapshot> snapshot) noexcept override;
  std::unique_ptr<Batch> BeginBatch() override { return BeginBatch({}); }
  bool takes_hints() const override { return true; }
  std::unique_ptr<Batch> BeginBatch(std::vector<TreeKey> const& hints) override;
  std::unique_ptr<BlindBatch> BeginBlindBatch() override;
  // Reads everything from the server.
  std::unique_ptr<Snapshot> BeginVerified(FaultReport const&) override;
  void Verify() override;
  StoreStatistics Statistics() const override;
  void RequireSync() override;
  void Sync() override;
  bool read_only() const override { return options_.access == Access::kRead; }
  bool FreeDeadReaders() override { return false; }
  void Discard(std::shared_ptr<void> lock) override;
  void KeepChanges(Retention const& retention) override;
  KeptChanges Kept() override;
  std::unique_ptr<ChangeSource> OpenChanges(CommitId after) override;
  bool AskOutcome(CommitInDoubt const& commit) const override { return Ask(commit, waits_); }

  // For snapshots and batches.
  Statements const& statements() const { return statements_; }
  bool sync() const;
  // Whether the tables have the column `number`, as last seen.
  bool numbered() const { return HasNumbers(version_); }
  // Begins a transaction and reads, or locks, the newest state, in one round trip with the changes
  // since the known state and the hints for a view.
  StateRead BeginAt(Connection& connection, BeginsFor what, ServerView& view,
                    std::vector<TreeKey> const& hints) const;
  // The newest state that a transaction of this process began at.
  SeenState seen() const;
  // This process has evicted all rows that changed up to the state.
  void NoteKnown(CommitId state) const noexcept;
  // What a commit of an unknown number counts for in the feed, besides its notes.
  static constexpr std::uint64_t kCommitBytes = 64;
  // A commit in one round trip made the state. It leaves what is done from time to time to the next
  // batch of this process.
  void NoteBlindCommit(CommitId state) noexcept;
  // Whether a batch has to do that.
  bool TakeTidying() { return tidying_due_.exchange(false); }
  KeptAnswers& kept_answers() { return kept_answers_; }
  BlindStatements const& blind_statements() const { return blind_statements_; }
  // AskOutcome for the batch itself, whose wait is not stopped.
  bool AskOwnOutcome(CommitInDoubt const& commit) const {
    return Ask(commit, waits_.Unstoppable());
  }
  // Whether so many times the time limit of a reply have passed.
  bool IsOver(std::chrono::steady_clock::time_point since, int times = 1) const;
  std::mutex& batch_mutex() { return batch_mutex_; }
  UsedConnection TakeConnection() const;

  // For readers of changes.
  FeedStatements const& feed_statements() const { return feed_statements_; }
  std::chrono::milliseconds changes_interval() const { return url_.changes_interval; }
  bool stopped() const { return waits_.stopped(); }
  // What `add` adds to a connection, in one round trip outside of any transaction of ours.
  std::vector<Result> Ask(std::function<void(Connection&)> const& add) const;
  // The state in a result of read_state. Throws LSCOREDB_NO_CHANGES if none are kept.
  static CommitId KeepingState(Result const& state);

 private:
  friend struct LetGo;
  void GiveBack(std::unique_ptr<Connection> connection) const noexcept;
  bool ListChanges(View const& view, CommitId after, std::vector<ObjectId>* changed) const override;
  std::string ShownName() const override { return "the database at " + url_.shown; }
  std::shared_ptr<void> WaitForCreationLock() override;
  void AddNumbers(Connection& connection) const;
  void CheckFormat(Connection& connection) const;
  void RequireNoForeignTables(Connection& connection) const;
  void MakeTables(Connection& connection, std::vector<Statement> const& tables) const;
  void MakeFeed() const;
  void TidyFeed(Statement const& deletes, std::uint64_t number) const;
  void WithConnections(std::function<void()> const& attempt) const;
  std::unique_ptr<Snapshot> BeginSnapshot(bool anew);
  void WaitForStandby(Connection& connection) const;
  CommitId NewestState() const;
  void NoteSeen(SeenState seen) const;
  void RequireSameHistory(Connection& connection, SeenState const& seen, bool found,
                          CommitId now) const;
  bool Ask(CommitInDoubt const& commit, Waits const& waits) const;

  ServerUrl const url_;
  StoreOptions const options_;
  Statements const statements_;
  FeedStatements const feed_statements_;
  BlindStatements const blind_statements_;
  Waits const waits_;
  std::atomic<std::uint64_t> mutable version_{0};  // of the tables, as last seen
  std::atomic<bool> tidying_due_{false};
  std::mutex batch_mutex_;  // held by the open batch
  std::mutex mutable mutex_;
  bool sync_;
  std::vector<std::unique_ptr<Connection>> mutable idle_;
  std::size_t mutable in_use_ = 0;
  CommitId mutable known_{0};  // see NoteKnown
  SeenState mutable seen_;
  std::multiset<CommitId> readers_;
  KeptAnswers kept_answers_;
};

class PostgresSnapshot final : public Snapshot {
 public:
  // `anew`: without what earlier snapshots have read.
  PostgresSnapshot(PostgresStore& store, bool anew);
  ~PostgresSnapshot() override;

  StateRead const& state() const { return state_; }
  // Costs a round trip.
  Result ReadChanges(CommitId after) const;

  bool Get(Tree tree, std::string_view key, std::string_view* value) const override {
    return view_.Get(tree, key, value);
  }
  void GetMany(Tree tree, std::span<std::string_view const> keys,
               std::span<std::optional<std::string_view>> values) const override {
    view_.GetMany(tree, keys, values);
  }
  bool far() const override { return true; }
  void PrefetchSeeks(Tree tree, std::vector<std::string> const& keys) const override {
    view_.PrefetchSeeks(tree, keys);
  }
  void OpenCursor(Tree tree, std::unique_ptr<TreeCursor>& cursor) const override;

 private:
  PostgresStore& store_;
  UsedConnection connection_;
  StateRead state_;
  ServerView mutable view_;
};

}  // namespace lscore

#endif
