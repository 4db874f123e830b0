#include "postgres_blind_batch.h"

#include <algorithm>
#include <utility>

#include "numbered_values.h"
#include "server_page.h"
#include "status.h"
#include "unix_time.h"

namespace lscore {
namespace {

// A larger commit takes its turn first, so that others wait no longer than they must.
constexpr std::size_t kMostBytes = std::size_t{1} << 20;

std::vector<std::string_view> ViewsOf(std::vector<std::string> const& strings) {
  return {strings.begin(), strings.end()};
}

std::string RowKey(ObjectId id) {
  std::uint64_t const number = Raw(id);
  return ServerKey(Tree::kRows, BytesOf(number));
}

std::size_t SizeOf(std::vector<std::string> const& strings) {
  std::size_t size = 0;
  for (std::string const& one : strings) size += one.size();
  return size;
}

}  // namespace

// ---- what it writes and takes for granted ------------------------------------------------------

void PostgresBlindBatch::InsertRow(ObjectId id, std::string_view image) {
  inserted_.keys.push_back(RowKey(id));
  inserted_.values.emplace_back(image);
  changed_.push_back(inserted_.keys.back());
}

void PostgresBlindBatch::UpdateRow(ObjectId id, CommitId since, std::string_view image) {
  updated_.keys.push_back(RowKey(id));
  updated_.numbers.push_back(Raw(since));
  updated_.values.emplace_back(image);
  changed_.push_back(updated_.keys.back());
}

void PostgresBlindBatch::DeleteRow(ObjectId id, CommitId since) {
  RequireRow(id, since);
  deleted_.push_back(RowKey(id));
  changed_.push_back(deleted_.back());
}

void PostgresBlindBatch::RequireRow(ObjectId id, CommitId since) {
  checked_.keys.push_back(RowKey(id));
  checked_.numbers.push_back(Raw(since));
}

void PostgresBlindBatch::RequireNoLater(std::string_view key, CommitId since) {
  unchanged_.keys.emplace_back(key);
  unchanged_.numbers.push_back(Raw(since));
}

void PostgresBlindBatch::PutStamped(std::string_view key, std::string_view value) {
  stamped_.keys.emplace_back(key);
  stamped_.values.emplace_back(value);
}

void PostgresBlindBatch::AddToCount(std::string_view key, std::int64_t objects, bool named) {
  counts_.keys.emplace_back(key);
  counts_.numbers.push_back(static_cast<std::uint64_t>(objects));
  counts_.others.emplace_back(named ? "1" : "");
}

void PostgresBlindBatch::RequireGivenIds(std::string_view mark, ObjectId highest,
                                         std::string_view low, std::string_view high) {
  given_ = {std::string(mark), highest, std::string(low), std::string(high)};
}

void PostgresBlindBatch::PutEntry(std::string_view key, std::string_view value) {
  entries_.insert_or_assign(std::string(key), std::string(value));
}

void PostgresBlindBatch::RemoveEntry(std::string_view key) {
  entries_.insert_or_assign(std::string(key), std::nullopt);
}

void PostgresBlindBatch::RequireFree(std::string_view low, std::string_view high,
                                     std::string_view own) {
  free_.keys.emplace_back(low);
  free_.values.emplace_back(high);
  free_.others.emplace_back(own);
}

// ---- sending -----------------------------------------------------------------------------------

bool PostgresBlindBatch::IsTooLarge() {
  std::size_t size = SizeOf(inserted_.values) + SizeOf(updated_.values);
  for (auto const& [key, value] : entries_) size += key.size() + value.value_or("").size();
  if (takes_notes()) size += notes_.Finish(CommitId{0}).size();
  return size > kMostBytes;
}

void PostgresBlindBatch::SendRows(Connection& connection) const {
  BlindStatements const& statements = store_.blind_statements();
  if (!checked_.empty()) {
    connection.Add(statements.check_rows, Parameters()
                                              .ManyBytes(ViewsOf(checked_.keys))
                                              .ManyNumbers(checked_.numbers)
                                              .Number(checked_.keys.size()));
  }
  if (!updated_.empty()) {
    connection.Add(statements.update_rows, Parameters()
                                               .ManyBytes(ViewsOf(updated_.keys))
                                               .ManyNumbers(updated_.numbers)
                                               .ManyBytes(ViewsOf(updated_.values))
                                               .Number(updated_.keys.size()));
  }
  if (!inserted_.empty()) {
    connection.Add(
        statements.insert_rows,
        Parameters().ManyBytes(ViewsOf(inserted_.keys)).ManyBytes(ViewsOf(inserted_.values)));
  }
  if (deleted_.empty()) return;
  connection.Add(store_.statements().Of(Tree::kRows, true).remove,
                 Parameters().ManyBytes(ViewsOf(deleted_)));
}

void PostgresBlindBatch::SendMeta(Connection& connection) const {
  BlindStatements const& statements = store_.blind_statements();
  connection.Add(statements.check_meta,
                 Parameters().ManyBytes(ViewsOf(unchanged_.keys)).ManyNumbers(unchanged_.numbers));
  if (given_.has_value()) {
    connection.Add(statements.check_ids, Parameters()
                                             .Bytes(given_->mark)
                                             .Number(Raw(given_->highest))
                                             .Bytes(given_->low)
                                             .Bytes(given_->high));
  }
  if (!counts_.empty()) {
    std::vector<std::uint64_t> named;
    for (std::string const& one : counts_.others) named.push_back(one.empty() ? 0 : 1);
    connection.Add(statements.add_counts, Parameters()
                                              .ManyBytes(ViewsOf(counts_.keys))
                                              .ManyNumbers(counts_.numbers)
                                              .ManyNumbers(named)
                                              .Number(counts_.keys.size()));
  }
  if (stamped_.empty()) return;
  connection.Add(
      statements.put_stamped,
      Parameters().ManyBytes(ViewsOf(stamped_.keys)).ManyBytes(ViewsOf(stamped_.values)));
}

// What is removed may hold a key that another entry takes.
void PostgresBlindBatch::SendEntries(Connection& connection) const {
  TreeStatements const& statements = store_.statements().Of(Tree::kIndex, true);
  std::vector<std::string_view> removed;
  std::vector<std::string_view> keys;
  std::vector<std::string_view> values;
  for (auto const& [key, value] : entries_) {
    (value.has_value() ? keys : removed).push_back(key);
    if (value.has_value()) values.push_back(*value);
  }
  if (!removed.empty()) connection.Add(statements.remove, Parameters().ManyBytes(removed));
  if (!free_.empty()) {
    connection.Add(store_.blind_statements().check_free, Parameters()
                                                             .ManyBytes(ViewsOf(free_.keys))
                                                             .ManyBytes(ViewsOf(free_.values))
                                                             .ManyBytes(ViewsOf(free_.others)));
  }
  if (!keys.empty()) connection.Add(statements.put, Parameters().ManyBytes(keys).ManyBytes(values));
}

// What others changed is read behind the commit, when the lock is free again.
void PostgresBlindBatch::Send(Connection& connection) {
  Statements const& statements = store_.statements();
  BlindStatements const& blind = store_.blind_statements();
  std::size_t count = 0;
  auto const add = [&](Statement const& statement, Parameters const& parameters = {}) {
    connection.Add(statement, parameters);
    return count++;
  };
  add(statements.begin_batch);
  if (!store_.sync() && !asks_for_sync_) add(statements.no_wait_for_disk);
  advance_at_ = add(blind.advance, Parameters()
                                       .Number(version_)
                                       .Bytes(in_doubt_.ticket)
                                       .ManyBytes(ViewsOf(changed_))
                                       .Bytes(store_.seen().ticket));
  std::size_t const before = connection.added();
  SendMeta(connection);
  SendRows(connection);
  SendEntries(connection);
  if (takes_notes()) {
    std::string_view const notes = notes_.Finish(CommitId{0});
    connection.Add(blind.put_commit, Parameters()
                                         .Number(UnixMicroseconds())
                                         .Number(notes.size() + PostgresStore::kCommitBytes)
                                         .Bytes(notes));
  }
  count += connection.added() - before;
  commit_at_ = add(statements.commit);
  add(blind.read_changes, Parameters().Number(Raw(known_)).Number(kMostChanges + 1));
  add(statements.read_state);
}

// ---- committing --------------------------------------------------------------------------------

// The reply is lost. A commit that did not take place never will; it is tried in another way unless
// the time is over.
PostgresBlindBatch::Outcome PostgresBlindBatch::AskWhetherMade(
    std::chrono::steady_clock::time_point begun) const {
  if (store_.AskOwnOutcome(in_doubt_)) return Outcome::kMadeUnseen;
  if (store_.IsOver(begun)) Throw(LSCOREDB_SERVER_LOST);
  return Outcome::kRefused;
}

PostgresBlindBatch::Outcome PostgresBlindBatch::Exchange(Connection& connection,
                                                         std::vector<Result>* results) {
  auto const begun = std::chrono::steady_clock::now();
  try {
    *results = connection.Exchange(Lost::kPerhapsDone);
    return Outcome::kMade;
  } catch (ReplyLost const&) {
    return AskWhetherMade(begun);
  } catch (Failure const&) {
    if (connection.refused_at() > commit_at_) return Outcome::kMadeUnseen;
  }
  connection.Add(store_.statements().rollback);
  connection.Post();
  return Outcome::kRefused;
}

bool PostgresBlindBatch::Commit(Made const& made) {
  if (IsTooLarge()) return false;
  std::lock_guard const lock(store_.batch_mutex());
  in_doubt_ = {NewTicket(), guess()};
  UsedConnection const connection = store_.TakeConnection();
  Send(*connection);
  std::vector<Result> results;
  Outcome const outcome = Exchange(*connection, &results);
  if (outcome == Outcome::kMade) NoteMade(results, made);
  return outcome != Outcome::kRefused;
}

// The list of changes may have been cut meanwhile: the state is read behind it.
void PostgresBlindBatch::NoteMade(std::vector<Result> const& results, Made const& made) const {
  CommitId const state{results[advance_at_].Number(0, 0)};
  Result const& changes = results[commit_at_ + 1];
  Result const& newest = results[commit_at_ + 2];
  auto const list = [&](CommitId after, std::vector<ObjectId>* changed) {
    bool const cut = newest.size() != 1 || newest.Number(0, 2) > Raw(known_);
    if (cut || after < known_ || changes.size() > kMostChanges) return false;
    for (std::size_t i = 0; i < changes.size(); ++i) {
      if (changes.Number(i, 0) >= Raw(state)) continue;
      std::string const key = ServerKey(Tree::kRows, changes.Bytes(i, 1));
      changed->push_back(ObjectId{Load<std::uint64_t>(key.data())});
    }
    return true;
  };
  store_.foreign_commits().NoteOwnCommit(state, list, made);
  store_.NoteBlindCommit(state);
}

}  // namespace lscore
