#include "index_builder.h"

#include <algorithm>

#include "keys.h"

namespace lscore {
namespace {

constexpr int kAttempts = 100;
// A batch holds what it writes in memory.
constexpr std::size_t kMostBytes = std::size_t{8} << 20;

}  // namespace

// A snapshot for the time of one step.
class IndexBuilder::Reading {
 public:
  explicit Reading(IndexBuilder& builder) : builder_(builder) {
    Store& store = builder.state_.database->store();
    builder.state_.snapshot = store.Begin();
    builder.reader_.Begin(store.Notice(*builder.state_.snapshot));
  }
  ~Reading() {
    builder_.schema_.End();
    builder_.reader_.End();
    builder_.state_.database->store().End(std::move(builder_.state_.snapshot));
  }
  Reading(Reading const&) = delete;
  Reading& operator=(Reading const&) = delete;

 private:
  IndexBuilder& builder_;
};

Status IndexBuilder::Commit(BuildChange const& change) {
  if (state_.database->store().read_only()) return LSCOREDB_READ_ONLY_DATABASE;
  CommitRequest request{state_.changes, *state_.snapshot, schema_.version()};
  request.build = &change;
  return state_.database->commits().Run(request);
}

Status IndexBuilder::Continue(IndexDefinition const& index, IndexBuild const& before,
                              IndexBuild const& after) {
  BuildChange change;
  change.index = &index;
  change.before = before;
  change.after = after;
  return Commit(change);
}

// ---- the beginning and the end -----------------------------------------------------------------

Status IndexBuilder::Prepare(std::unique_ptr<IndexDefinition> index, std::u16string name,
                             IndexId* out) {
  Reading const reading(*this);
  for (IndexBuild const& build : AllBuilds(*state_.snapshot)) {
    std::unique_ptr<IndexDefinition const> const there = LoadIndex(*state_.snapshot, build.id);
    if (there == nullptr || !there->IsLike(*index)) continue;
    *out = build.id;
    return LORV_STATUS_OK;
  }
  index->id = IndexId{state_.NextId()};
  ++state_.ids.next;
  index->phase = BuildPhase::kFilling;
  index->Prepare();
  BuildChange change;
  change.kind = BuildChange::Kind::kPrepare;
  change.index = index.get();
  change.after.id = index->id;
  change.after.name = std::move(name);
  *out = index->id;
  return Commit(change);
}

// What entries writers add until the commit are removed with the batch that they are in.
Status IndexBuilder::TryAbandon(IndexId id, std::uint64_t most, Listed* out) {
  Reading const reading(*this);
  std::optional<IndexBuild> const build = FindBuild(*state_.snapshot, id);
  if (!build.has_value()) return LORV_STATUS_NO_INDEX;
  bool const begun = build->phase == BuildPhase::kAbandoned;
  std::shared_ptr<IndexDefinition const> const index = Definition(*build);
  BuildChange change;
  change.kind = begun ? BuildChange::Kind::kRemove : BuildChange::Kind::kAbandon;
  change.index = index.get();
  change.before = *build;
  std::uint64_t count = 0;
  change.left = KeyBehind(*state_.snapshot, *index, most, &count);
  IndexBuild& after = change.after;
  after = *build;
  after.phase = BuildPhase::kAbandoned;
  after.done = begun ? build->done + count : count;
  after.total = 0;
  after.position.clear();
  Status const status = Commit(change);
  if (status != LORV_STATUS_OK) return status;
  *out = {after, index};
  if (change.left.empty()) out->build.phase = BuildPhase::kNone;
  return status;
}

// Somebody who continues the build meanwhile is no reason to leave it.
Status IndexBuilder::Abandon(IndexId id, std::uint64_t most, Listed* out) {
  sorted_.erase(id);
  verified_.erase(id);
  Status status = TryAbandon(id, most, out);
  for (int i = 1; i < kAttempts && status == LSCOREDB_CONFLICT; ++i) {
    status = TryAbandon(id, most, out);
  }
  return status;
}

// Others may remove entries of the same index, and the last ones too.
Status IndexBuilder::AbandonAll(IndexId id, std::uint64_t most) {
  WatchedWork work;
  for (bool begun = false;; begun = true) {
    Listed left;
    Status const status = Abandon(id, most, &left);
    if (begun && status == LORV_STATUS_NO_INDEX) return LORV_STATUS_OK;
    if (status != LORV_STATUS_OK || left.build.phase == BuildPhase::kNone) return status;
    work.AdvanceTo(left.build.done);
  }
}

std::shared_ptr<IndexDefinition const> IndexBuilder::Definition(IndexBuild const& build) const {
  bool const abandoned = build.phase == BuildPhase::kAbandoned;
  auto index =
      abandoned ? LoadAbandoned(*state_.snapshot, build.id) : LoadIndex(*state_.snapshot, build.id);
  if (index == nullptr) Throw(LSCOREDB_DAMAGED);
  return index;
}

std::vector<IndexBuilder::Listed> IndexBuilder::List() {
  Reading const reading(*this);
  std::vector<Listed> listed;
  for (IndexBuild& build : AllBuilds(*state_.snapshot)) {
    std::shared_ptr<IndexDefinition const> index = Definition(build);
    listed.push_back({std::move(build), std::move(index)});
  }
  return listed;
}

// ---- steps -------------------------------------------------------------------------------------

// Drops what is kept for other phases than the present one: others may have gone on with the build.
void IndexBuilder::Forget(IndexId id, BuildPhase phase, std::uint32_t round) {
  auto const sorted = sorted_.find(id);
  bool const stale =
      phase != BuildPhase::kFilling || (sorted != sorted_.end() && sorted->second.round != round);
  if (stale) sorted_.erase(id);
  if (phase != BuildPhase::kVerifying) verified_.erase(id);
}

Status IndexBuilder::Step(IndexId id, std::uint64_t most, Listed* out) {
  Reading const reading(*this);
  std::optional<IndexBuild> const build = FindBuild(*state_.snapshot, id);
  bool const there = build.has_value() && build->phase != BuildPhase::kAbandoned;
  Forget(id, there ? build->phase : BuildPhase::kReady, there ? build->round : 0);
  if (!there) return LORV_STATUS_NO_INDEX;
  std::shared_ptr<IndexDefinition const> const index = Definition(*build);
  *out = {*build, index};
  if (build->phase == BuildPhase::kReady) return LORV_STATUS_OK;
  if (state_.database->store().read_only()) return LSCOREDB_READ_ONLY_DATABASE;
  switch (build->phase) {
    case BuildPhase::kFilling:
      if (sorted_.contains(id)) return AddEntries(*index, most, &out->build);
      return Sort(*index, &out->build);
    case BuildPhase::kVerifying:
      return Verify(*index, most, &out->build);
    default:
      return Enforce(*index, &out->build);
  }
}

// Entries that the stored state says were dealt with are left out.
Status IndexBuilder::Sort(IndexDefinition const& index, IndexBuild* build) {
  Sorted sorted;
  std::uint64_t count = 0;
  sorted.entries = filler_.Sort(index, build->position, &count);
  sorted.from = state_.snapshot->id();
  sorted.total = build->done + count;
  sorted.round = build->round;
  build->total = sorted.total;
  sorted_[index.id] = std::move(sorted);
  return LORV_STATUS_OK;
}

Status IndexBuilder::AddEntries(IndexDefinition const& index, std::uint64_t most,
                                IndexBuild* build) {
  Sorted const& sorted = sorted_[index.id];
  BuildChange change;
  change.index = &index;
  change.before = *build;
  change.entries = sorted.entries.get();
  change.read = sorted.from;
  change.set_quiet = !SetChangedSince(*state_.snapshot, index.setspec, sorted.from);
  IndexBuild& after = change.after;
  after = *build;
  after.total = sorted.total;
  bool more = false;
  if (sorted.entries != nullptr) {
    Cursor cursor;
    cursor.Open(*sorted.entries, Tree::kIndex);
    more = build->position.empty() ? cursor.First() : cursor.Seek(build->position);
    if (more && cursor.key() == build->position) more = cursor.Next();
    std::size_t bytes = 0;
    for (std::uint64_t i = 0; more && i < most && bytes < kMostBytes; more = cursor.Next(), ++i) {
      bytes += cursor.key().size() + cursor.value().size();
      after.position = cursor.key();
      ++after.done;
    }
  }
  if (!more) {
    after.position.clear();
    after.done = after.total;
    after.phase = index.declared_unique() ? BuildPhase::kVerifying : BuildPhase::kReady;
    after.round += index.declared_unique() ? 1 : 0;
  }
  Status const status = Commit(change);
  if (status != LORV_STATUS_OK) return status;
  *build = after;
  if (!more) sorted_.erase(index.id);
  return status;
}

// ---- duplicates --------------------------------------------------------------------------------

bool IndexBuilder::HasNull(IndexDefinition const& index, ObjectId object) {
  KeyBytes key;
  RowRef const* const row = reader_.FindRow(object);
  if (row == nullptr) Throw(LSCOREDB_DAMAGED);
  return encoder_.Encode(index, *row, key).has_null;
}

// Scans about `most` entries from the key `*position` on, equal keys never in part, and leaves the
// next key there; empty: the end was reached. Calls `visit` with each entry's object whose key an
// earlier entry has, and with that one's object, until it returns false, which this returns too.
// Keys with a null collide with nothing; whether they have one, equal keys have in common.
template <typename Visit>
bool IndexBuilder::CompareNeighbours(IndexDefinition const& index, std::uint64_t most,
                                     std::string* position, std::uint64_t* compared,
                                     Visit&& visit) {
  WatchedWork work;
  EntryCursor cursor;
  cursor.Open(*state_.snapshot, index);
  cursor.SeekFirst(*position);
  std::string key;
  bool seen_twice = false;
  bool has_null = false;  // once the key was seen twice
  ObjectId first = kNoObject;
  for (; cursor.valid(); cursor.Next()) {
    work.Linger();
    Entry const& entry = cursor.entry();
    bool const same = first != kNoObject && Compare(entry.key, {key, {}}) == 0;
    if (!same && *compared >= most) {
      position->assign(entry.key.head).append(entry.key.tail);
      return true;
    }
    ++*compared;
    if (!same) {
      key.assign(entry.key.head).append(entry.key.tail);
      first = entry.object;
      seen_twice = false;
      continue;
    }
    if (!seen_twice) has_null = HasNull(index, entry.object);
    seen_twice = true;
    if (!has_null && !visit(entry.object, first)) return false;
  }
  position->clear();
  return true;
}

// No commit makes a new duplicate while the index is verified, so it may take several snapshots: a
// duplicate that is there at the end has been there all the time. A position of another round says
// nothing, since duplicates were not refused in between.
Status IndexBuilder::Verify(IndexDefinition const& index, std::uint64_t most, IndexBuild* build) {
  Verified& verified = verified_[index.id];
  if (verified.round != build->round) verified = {build->round, 0, {}};
  std::uint64_t compared = 0;
  bool const none = CompareNeighbours(index, most, &verified.to, &compared,
                                      [](ObjectId, ObjectId) { return false; });
  verified.count += compared;
  build->done = std::min(verified.count, build->total);
  if (none && !verified.to.empty()) return LORV_STATUS_OK;
  IndexBuild before = *build;
  before.done = build->total;
  IndexBuild after = before;
  after.phase = none ? BuildPhase::kReady : BuildPhase::kDuplicates;
  verified_.erase(index.id);
  Status const status = Continue(index, before, after);
  if (status != LORV_STATUS_OK) return status;
  *build = after;
  return none ? LORV_STATUS_OK : LSCOREDB_DUPLICATE_KEY;
}

Status IndexBuilder::Enforce(IndexDefinition const& index, IndexBuild* build) {
  IndexBuild after = *build;
  after.phase = BuildPhase::kVerifying;
  ++after.round;
  Status const status = Continue(index, *build, after);
  if (status == LORV_STATUS_OK) *build = after;
  return status;
}

Status IndexBuilder::ForEachDuplicate(IndexId id,
                                      std::function<bool(ObjectId, ObjectId)> const& visit) {
  Reading const reading(*this);
  std::optional<IndexBuild> const build = FindBuild(*state_.snapshot, id);
  bool const there = build.has_value() && build->phase != BuildPhase::kAbandoned;
  if (!there) return LORV_STATUS_NO_INDEX;
  std::shared_ptr<IndexDefinition const> const index = Definition(*build);
  std::string position;
  std::uint64_t compared = 0;
  CompareNeighbours(*index, ~std::uint64_t{0}, &position, &compared, visit);
  return LORV_STATUS_OK;
}

}  // namespace lscore
