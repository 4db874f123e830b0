#include "postgres_batch.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "bytes.h"
#include "checksummed_record.h"
#include "format.h"
#include "status.h"
#include "unix_time.h"

namespace lscore {
namespace {

constexpr std::size_t kStatementBytes = std::size_t{8} << 20;
constexpr std::size_t kStatementEntries = 10'000;

// The feed of changes: how many commits are looked at when one trims it, which is more than came in
// between.
constexpr std::uint64_t kTrimmedAtOnce = 4 * kTrimEvery;
constexpr std::size_t kTrimAfterBytes = std::size_t{1} << 20;
constexpr std::size_t kPartBytes = std::size_t{8} << 20;
// Of a retention, which the server counts in numbers with a sign, and in microseconds.
constexpr std::uint64_t kMostBytes = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t kMostSeconds = std::uint64_t{1} << 42;

void CheckKey(std::string_view key) {
  if (key.empty() || key.size() > kMaxKeySize) Throw(LSCOREDB_TOO_LARGE);
}

// Merges the batch's writes with the server's entries.
class BatchCursor final : public TreeCursor {
 public:
  BatchCursor(Store const& store, ServerView& view, Tree tree, Written const& written,
              RemovedRanges const& removed)
      : TreeCursor(store),
        server_(store, view, tree),
        tree_(tree),
        written_(written),
        removed_(removed) {}

  bool Seek(std::string_view key, KeyValue* entry) override {
    KeyValue server;
    bool const there = server_.Seek(key, &server);
    return Rise(written_.lower_bound(key), there, server, entry);
  }
  bool First(KeyValue* entry) override {
    KeyValue server;
    bool const there = server_.First(&server);
    return Rise(written_.begin(), there, server, entry);
  }
  bool Next(KeyValue* entry) override {
    KeyValue server{entry->key, {}};
    bool const there = server_.Next(&server);
    return Rise(written_.upper_bound(entry->key), there, server, entry);
  }
  bool Last(KeyValue* entry) override {
    KeyValue server;
    bool const there = server_.Last(&server);
    return Fall(written_.end(), there, server, entry);
  }
  bool Previous(KeyValue* entry) override {
    KeyValue server{entry->key, {}};
    bool const there = server_.Previous(&server);
    return Fall(written_.lower_bound(entry->key), there, server, entry);
  }
  bool EnterPage(KeyValue const&, EntryPage*) override { return false; }

 private:
  // The lowest entry of both sides. A write hides the server's entry with the same key.
  bool Rise(Written::const_iterator ours, bool there, KeyValue server, KeyValue* entry) {
    for (;;) {
      while (RemovedRanges::Range const* range = Removed(there, server)) {
        there = server_.Seek(range->high, &server);
      }
      bool const any = ours != written_.end();
      if (any && (!there || !KeyLess(tree_, server.key, ours->first))) {
        if (there && server.key == ours->first) there = server_.Next(&server);
        if (Give(*ours++, entry)) return true;
        continue;
      }
      if (there) *entry = server;
      return there;
    }
  }
  // The highest one below `above`.
  bool Fall(Written::const_iterator above, bool there, KeyValue server, KeyValue* entry) {
    for (;;) {
      while (RemovedRanges::Range const* range = Removed(there, server)) {
        server.key = range->low;
        there = server_.Previous(&server);
      }
      bool const any = above != written_.begin();
      if (any && (!there || !KeyLess(tree_, std::prev(above)->first, server.key))) {
        --above;
        if (there && server.key == above->first) there = server_.Previous(&server);
        if (Give(*above, entry)) return true;
        continue;
      }
      if (there) *entry = server;
      return there;
    }
  }
  RemovedRanges::Range const* Removed(bool there, KeyValue const& server) const {
    return there ? removed_.Find(server.key) : nullptr;
  }
  static bool Give(Written::value_type const& ours, KeyValue* entry) {
    if (!ours.second.has_value()) return false;
    *entry = {ours.first, *ours.second};
    return true;
  }

  ServerCursor server_;
  Tree const tree_;
  Written const& written_;
  RemovedRanges const& removed_;
};

}  // namespace

RemovedRanges::Range const* RemovedRanges::Find(std::string_view key) const {
  for (Range const& range : ranges_) {
    if (key >= range.low && key < range.high) return &range;
  }
  return nullptr;
}

// ---- beginning and ending ----------------------------------------------------------------------

PostgresBatch::PostgresBatch(PostgresStore& store, std::vector<TreeKey> const& hints)
    : store_(store), lock_(store.batch_mutex()), connection_(nullptr, LetGo{&store}) {
  for (std::size_t i = 0; i < kTreeCount; ++i)
    written_[i] = Written(KeyOrder{static_cast<Tree>(i)});
  // Twice, since an idle connection may have been cut (PostgresStore::Begin).
  auto const begun = std::chrono::steady_clock::now();
  Status status = LSCOREDB_SERVER_LOST;
  for (int attempt = 0; status == LSCOREDB_SERVER_LOST && attempt < 2; ++attempt) {
    if (attempt > 0 && store_.IsOver(begun)) break;
    status = Guarded([&] {
      Begin(hints);
      return LORV_STATUS_OK;
    });
    if (status != LORV_STATUS_OK) Leave();
  }
  Check(status);
}

void PostgresBatch::Begin(std::vector<TreeKey> const& hints) {
  connection_ = store_.TakeConnection();
  view_ = std::make_unique<ServerView>(*connection_, store_.statements(), store_.numbered());
  state_ = store_.BeginAt(*connection_, BeginsFor::kBatch, *view_, hints);
  set_id(CommitId{Raw(state_.id) + 1});
}

// Rolls back without waiting and returns the connection, which also releases the lock on the state.
void PostgresBatch::Leave() noexcept {
  if (connection_ == nullptr) return;
  static_cast<void>(Guarded([this] {
    connection_->Add(store_.statements().rollback);
    return LORV_STATUS_OK;
  }));
  connection_->Post();
  connection_.reset();
}

PostgresBatch::~PostgresBatch() { Leave(); }

// ---- reading -----------------------------------------------------------------------------------

bool PostgresBatch::Get(Tree tree, std::string_view key, std::string_view* value) const {
  if (connection_ == nullptr) Throw(LSCOREDB_SERVER_LOST);
  auto const written = WrittenTo(tree).find(key);
  if (written == WrittenTo(tree).end()) {
    return RemovedFrom(tree).Find(key) == nullptr && view_->Get(tree, key, value);
  }
  if (written->second.has_value()) *value = *written->second;
  return written->second.has_value();
}

void PostgresBatch::GetMany(Tree tree, std::span<std::string_view const> keys,
                            std::span<std::optional<std::string_view>> values) const {
  if (connection_ == nullptr) Throw(LSCOREDB_SERVER_LOST);
  view_->GetMany(tree, keys, values);
  for (std::size_t i = 0; i < keys.size(); ++i) {
    auto const written = WrittenTo(tree).find(keys[i]);
    if (RemovedFrom(tree).Find(keys[i]) != nullptr) values[i].reset();
    if (written != WrittenTo(tree).end()) values[i] = written->second;
  }
}

void PostgresBatch::OpenCursor(Tree tree, std::unique_ptr<TreeCursor>& cursor) const {
  if (connection_ == nullptr) Throw(LSCOREDB_SERVER_LOST);
  cursor = std::make_unique<BatchCursor>(store_, *view_, tree, WrittenTo(tree), RemovedFrom(tree));
}

void PostgresBatch::PrefetchSeeks(Tree tree, std::vector<std::string> const& keys) const {
  if (connection_ == nullptr) Throw(LSCOREDB_SERVER_LOST);
  view_->PrefetchSeeks(tree, keys);
}

// ---- writing -----------------------------------------------------------------------------------

void PostgresBatch::Put(Tree tree, std::string_view key, std::string_view value) {
  CheckKey(key);
  WrittenTo(tree).insert_or_assign(std::string(key), std::string(value));
}

bool PostgresBatch::PutNew(Tree tree, std::string_view key, std::string_view value) {
  CheckKey(key);
  std::string_view known;
  if (Get(tree, key, &known)) return false;
  Put(tree, key, value);
  return true;
}

void PostgresBatch::Append(Tree tree, std::string_view key, std::string_view value) {
  Put(tree, key, value);
}

bool PostgresBatch::Delete(Tree tree, std::string_view key) {
  std::string_view known;
  if (!Get(tree, key, &known)) return false;
  WrittenTo(tree).insert_or_assign(std::string(key), std::nullopt);
  return true;
}

void PostgresBatch::Remove(Tree tree, std::string_view key) {
  WrittenTo(tree).insert_or_assign(std::string(key), std::nullopt);
}

void PostgresBatch::RemoveRange(Tree tree, std::string_view low, std::string_view high) {
  Written& written = WrittenTo(tree);
  written.erase(written.lower_bound(low), written.lower_bound(high));
  removed_[static_cast<std::size_t>(tree)].Add(low, high);
}

bool PostgresBatch::changed() const {
  if (retention_.has_value()) return true;
  auto const any_in = [](auto const& some) { return !some.empty(); };
  return std::any_of(written_.begin(), written_.end(), any_in) ||
         std::any_of(removed_.begin(), removed_.end(),
                     [](RemovedRanges const& removed) { return !removed.all().empty(); });
}

// ---- committing --------------------------------------------------------------------------------

void PostgresBatch::SendPuts(Tree tree, std::vector<std::string> const& keys,
                             std::vector<std::string_view> const& values) {
  if (keys.empty()) return;
  std::vector<std::string_view> const views(keys.begin(), keys.end());
  TreeStatements const& statements = StatementsOf(tree);
  Parameters parameters = Parameters().ManyBytes(views).ManyBytes(values);
  if (statements.numbered) {
    std::vector<std::uint64_t> numbers;
    for (std::size_t i = 0; i < keys.size(); ++i) {
      numbers.push_back(NumberIn(tree, ServerKey(tree, keys[i]), values[i]));
    }
    parameters.ManyNumbers(numbers);
  }
  connection_->Add(statements.put, parameters);
}

void PostgresBatch::Send(Tree tree) {
  for (auto const& [low, high] : RemovedFrom(tree).all()) {
    connection_->Add(StatementsOf(tree).remove_range, Parameters().Bytes(low).Bytes(high));
  }
  std::vector<std::string> removed;
  std::vector<std::string> keys;
  std::vector<std::string_view> values;
  std::size_t bytes = 0;
  for (auto const& [key, value] : WrittenTo(tree)) {
    if (!value.has_value()) {
      removed.push_back(ServerKey(tree, key));
      continue;
    }
    keys.push_back(ServerKey(tree, key));
    values.push_back(*value);
    bytes += key.size() + value->size();
    if (bytes < kStatementBytes && keys.size() < kStatementEntries) continue;
    SendPuts(tree, keys, values);
    keys.clear();
    values.clear();
    bytes = 0;
  }
  SendPuts(tree, keys, values);
  if (removed.empty()) return;
  std::vector<std::string_view> const views(removed.begin(), removed.end());
  connection_->Add(StatementsOf(tree).remove, Parameters().ManyBytes(views));
}

Result PostgresBatch::ReadChanges(CommitId after) const {
  return connection_->Run(store_.statements().read_changes,
                          Parameters().Number(Raw(after)).Number(kMostChanges + 1));
}

// Lists the rows that this commit changes, for the caches of other processes. A commit with too
// many starts the list anew: states before it must be forgotten as a whole. Lists older than
// kChangesKept states are deleted every kTidyEvery commits.
void PostgresBatch::SendChanges(std::uint64_t state) {
  Statements const& statements = store_.statements();
  std::uint64_t listed = Raw(state_.listed);
  Written const& rows = WrittenTo(Tree::kRows);
  if (rows.size() > kMostChanges) {
    listed = state;
  } else if (!rows.empty()) {
    std::vector<std::string> keys;
    for (auto const& [key, value] : rows) keys.push_back(ServerKey(Tree::kRows, key));
    std::vector<std::string_view> const views(keys.begin(), keys.end());
    connection_->Add(statements.put_changes, Parameters().Number(state).ManyBytes(views));
  }
  if (tidies_ && state > kChangesKept) {
    connection_->Add(statements.drop_changes, Parameters().Number(state - kChangesKept));
    listed = std::max(listed, state - kChangesKept);
  }
  connection_->Add(statements.advance_state, Parameters().Number(state).Number(listed));
}

void PostgresBatch::SendRetention() {
  FeedStatements const& feed = store_.feed_statements();
  connection_->Add(feed.set_retention, Parameters()
                                           .Number(std::min(retention_->bytes, kMostBytes))
                                           .Number(std::min(retention_->seconds, kMostSeconds)));
  connection_->Add(feed.set_version, Parameters().Number(TablesVersion(HasNumbers(state_.version),
                                                                       retention_->keeps())));
}

void PostgresBatch::SendNotes(std::uint64_t state) {
  FeedStatements const& feed = store_.feed_statements();
  std::string_view rest = notes_.Finish(CommitId{state});
  std::size_t const counted = rest.size() + PostgresStore::kCommitBytes;
  std::size_t const parts = rest.empty() ? 0 : (rest.size() - 1) / kPartBytes;
  connection_->Add(feed.put_commit, Parameters()
                                        .Number(state)
                                        .Number(Raw(state_.id))
                                        .Number(UnixMicroseconds())
                                        .Number(counted)
                                        .Number(parts)
                                        .Bytes(rest.substr(0, kPartBytes)));
  for (std::size_t part = 1; part <= parts; ++part) {
    rest.remove_prefix(kPartBytes);
    connection_->Add(feed.put_part,
                     Parameters().Number(state).Number(part).Bytes(rest.substr(0, kPartBytes)));
  }
  if (!trims_ && counted < kTrimAfterBytes) return;
  connection_->Add(feed.trim, Parameters().Number(UnixMicroseconds()).Number(kTrimmedAtOnce));
  connection_->Add(feed.trim_parts);
}

// The commit that switches the feed on is not in it, nor the one that switches it off.
void PostgresBatch::SendFeed(std::uint64_t state) {
  if (takes_notes() && (!retention_.has_value() || retention_->keeps())) SendNotes(state);
  if (retention_.has_value()) SendRetention();
}

// Sends all writes, the ticket, the list of changes, the new state and the commit in one round
// trip. The server executes nothing after a statement that fails, so the commit does not take place
// then.
bool PostgresBatch::SendAll() {
  Statements const& statements = store_.statements();
  std::uint64_t const state = Raw(id()) + TakeStatesBefore();
  in_doubt_ = {NewTicket(), CommitId{state}};
  bool const due = store_.TakeTidying();
  tidies_ = due || state % kTidyEvery == 0;
  trims_ = due || state % kTrimEvery == 0;
  if (!store_.sync() && !asks_for_sync()) connection_->Add(statements.no_wait_for_disk);
  for (std::size_t i = 0; i < kTreeCount; ++i) Send(static_cast<Tree>(i));
  connection_->Add(statements.put_ticket, Parameters().Bytes(in_doubt_.ticket).Number(state));
  SendChanges(state);
  SendFeed(state);
  if (tidies_ && state > kTicketsKept) {
    connection_->Add(statements.drop_tickets, Parameters().Number(state - kTicketsKept));
  }
  connection_->Add(statements.commit);
  try {
    connection_->Exchange(Lost::kPerhapsDone);
    return true;
  } catch (ReplyLost const&) {
    return store_.AskOwnOutcome(in_doubt_);
  }
}

// A copy has a record of how many states its source had, since its rows name their commits. Here
// the record is not kept; its number is added to that of the state.
std::uint64_t PostgresBatch::TakeStatesBefore() {
  Written& meta = WrittenTo(Tree::kMeta);
  auto const at = meta.find(format::kStatesBeforeKey);
  if (at == meta.end() || !at->second.has_value()) return 0;
  FieldReader fields(StripChecksum(format::kStatesBeforeKey, *at->second));
  auto const before = fields.Next<std::uint64_t>();
  meta.erase(at);
  return before;
}

// After a commit the connection is outside of any transaction and goes back as it is. Otherwise,
// the outcome unknown included, Leave rolls back what there may be.
void PostgresBatch::Commit() {
  if (connection_ == nullptr) Throw(LSCOREDB_SERVER_LOST);
  if (!changed()) {
    Leave();
    lock_.unlock();
    return;
  }
  store_.BeginOwnCommit(*this);
  bool done = false;
  Status const status = Guarded([&] {
    done = SendAll();
    return LORV_STATUS_OK;
  });
  store_.EndOwnCommit(*this, done);
  if (done) store_.NoteKnown(id());
  if (done) {
    connection_.reset();
  } else {
    Leave();
  }
  lock_.unlock();
  Check(status);
  if (!done) Throw(LSCOREDB_SERVER_LOST);
}

}  // namespace lscore
