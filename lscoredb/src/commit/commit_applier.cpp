#include "commit_applier.h"

#include <algorithm>
#include <utility>

#include "bytes.h"
#include "change_notes.h"
#include "format.h"
#include "index_builds.h"
#include "keys.h"
#include "overflow.h"

namespace lscore {
namespace {

constexpr std::uint32_t kNoChunk = 0xFFFFFFFF;  // images have fewer
constexpr std::size_t kHintedKeys = 256;        // more are looked up only if they have to be

void AddUniqueKeys(PendingChanges const& changes, std::vector<TreeKey>* hints) {
  std::size_t const before = hints->size();
  for (auto const& entries : changes.indexes()) {
    if (!entries->index().unique() || !entries->committed()) continue;
    entries->ForEach([&](PendingKey const& key, PendingEntry const& entry) {
      if (!IsChecked(entry)) return;
      hints->push_back({Tree::kIndex, SeekKey(entries->index(), key.encoded), true});
    });
  }
  if (hints->size() - before > kHintedKeys) hints->resize(before);
}

}  // namespace

void AddHints(CommitRequest const& request, std::vector<TreeKey>* hints) {
  std::set<LayoutNumber> counted;
  auto const add_row = [&](ObjectId object) {
    std::uint64_t const id = Raw(object);
    hints->push_back({Tree::kRows, std::string(BytesOf(id))});
  };
  request.changes.ForEachRow([&](PendingRow const& row) {
    if (!Matters(row)) return;
    add_row(row.id);
    if (!row.inserted()) counted.insert(row.original_layout->number());
    if (!row.deleted) counted.insert(row.layout->number());
  });
  request.changes.ForEachRequired(add_row);
  AddUniqueKeys(request.changes, hints);
  for (LayoutNumber const number : counted) hints->push_back({Tree::kMeta, CountKey(number)});
  for (auto const& layout : request.changes.layouts()) {
    hints->push_back({Tree::kDefinitions, LayoutKey(layout->number())});
  }
  if (request.build != nullptr) AddHints(*request.build, hints);
  for (std::string_view const key : {format::kIndexesKey, format::kNextIdKey}) {
    hints->push_back({Tree::kMeta, std::string(key)});
  }
}

// ---- checks ------------------------------------------------------------------------------------

// In key order neighbours share pages, and a tree that grows at its end fills its pages. The ids
// are beside the rows meanwhile, so that sorting touches no other memory.
void CommitApplier::CollectRows() {
  std::vector<std::pair<ObjectId, PendingRow const*>> found;
  found.reserve(request_.changes.row_count());
  request_.changes.ForEachRow([&](PendingRow const& row) {
    if (Matters(row)) found.emplace_back(row.id, &row);
  });
  std::sort(found.begin(), found.end());
  rows_.reserve(found.size());
  for (auto const& [id, row] : found) rows_.push_back(row);
}

void CommitApplier::Validate(bool nothing_between) {
  CollectRows();
  if (!nothing_between) {
    for (PendingRow const* const row : rows_) ValidateRow(*row);
    request_.changes.ForEachRequired([this](ObjectId id) { ValidateRequired(id); });
  }
  ValidateLayouts();
  ValidateIndexes();
  if (request_.build != nullptr) builds_.Validate(*request_.build);
  if (!nothing_between) ValidateSets();
  late_ = IndexVersion(batch_) != request_.index_version;
  if (late_) DeriveLateEntries();
  for (auto const& entries : request_.changes.indexes()) {
    if (IsLive(*entries)) CheckUnique(*entries, nothing_between);
  }
  for (auto const& [id, entries] : late_entries_) CheckUnique(*entries, nothing_between);
}

void CommitApplier::ValidateRow(PendingRow const& row) {
  if (row.inserted() && !row.given_id) return;
  std::uint64_t const id = Raw(row.id);
  std::string_view stored;
  if (row.given_id) ValidateChosen(row.id);
  bool const there = batch_.Get(Tree::kRows, BytesOf(id), &stored);
  if (there == row.inserted()) Throw(LSCOREDB_CONFLICT);
  if (!there) return;
  if (stored.size() < format::kHeaderSize) Throw(LSCOREDB_DAMAGED);
  if (RowImage(stored).commit() > request_.snapshot.id()) Throw(LSCOREDB_CONFLICT);
}

// Another process may have reserved the id for itself since the insert.
void CommitApplier::ValidateChosen(ObjectId id) const {
  if (!MayBeChosen(batch_, id, ReadIdMark(batch_))) Throw(LSCOREDB_ID_GIVEN_OUT);
}

// A required row is compared like a written one: it must exist and be no younger than the snapshot.
void CommitApplier::ValidateRequired(ObjectId object) {
  std::uint64_t const id = Raw(object);
  std::string_view stored;
  if (!batch_.Get(Tree::kRows, BytesOf(id), &stored)) Throw(LSCOREDB_CONFLICT);
  if (stored.size() < format::kHeaderSize) Throw(LSCOREDB_DAMAGED);
  if (RowImage(stored).commit() > request_.snapshot.id()) Throw(LSCOREDB_CONFLICT);
}

// Layout numbers are reserved before use, so one that is stored already means that a reservation
// was lost. The other layout is not overwritten.
void CommitApplier::ValidateLayouts() const {
  for (auto const& layout : request_.changes.layouts()) {
    std::string_view stored;
    if (batch_.Get(Tree::kDefinitions, LayoutKey(layout->number()), &stored)) {
      Throw(LSCOREDB_CONFLICT);
    }
  }
}

// A new index was filled from the snapshot. A row of its set that another transaction changed since
// would be missing or stale in it, hence the conflict; the store notes the last change of each set.
void CommitApplier::ValidateIndexes() const {
  for (IndexDefinition const* const index : request_.changes.dropped_indexes()) {
    if (!HasIndex(batch_, index->id)) Throw(LSCOREDB_CONFLICT);
  }
  for (AdoptedIndex const& adopted : request_.changes.adopted_indexes()) {
    std::optional<IndexBuild> const build = FindBuild(batch_, adopted.prepared->id);
    if (!build.has_value() || build->phase != BuildPhase::kReady) Throw(LSCOREDB_CONFLICT);
    if (!LoadIndex(batch_, build->id)->IsLike(*adopted.prepared)) Throw(LSCOREDB_CONFLICT);
  }
  for (auto const& index : request_.changes.created_indexes()) {
    if (SetChangedSince(batch_, index->setspec, request_.snapshot.id())) Throw(LSCOREDB_CONFLICT);
  }
}

// Whether the row's set differs from that in the snapshot; the new one is left in `text_`.
bool CommitApplier::EntersSet(PendingRow const& row) {
  if (row.deleted || !row.setspec.present) return false;
  std::u16string before;
  if (!row.inserted()) {
    Cell const own = OriginalOf(row).Setspec();
    if (own.present) Unpack(own.text(), before);
  }
  Unpack(row.setspec.text(), text_);
  return before != text_;
}

// The reverse of the writer's check: a set that was closed since the snapshot refuses rows that
// come into it here; one that was closed in the snapshot already refused the write.
void CommitApplier::ValidateSets() {
  CommitId const since = request_.snapshot.id();
  for (auto const& [setspec, unchanged] : request_.changes.closed_sets()) {
    if (unchanged && SetChangedSince(batch_, setspec, since)) Throw(LSCOREDB_CONFLICT);
  }
  for (std::u16string const& setspec : request_.changes.required_sets()) {
    if (SetChangedSince(batch_, setspec, since)) Throw(LSCOREDB_CONFLICT);
  }
  if (LastClosing(batch_) <= since) return;
  KnownOpenSet known;
  for (PendingRow const* const row : rows_) {
    if (EntersSet(*row) && known.IsClosed(batch_, text_)) Throw(LSCOREDB_SET_CLOSED);
  }
}

// Whether to write the entries: those of an index that another transaction dropped are not, nor
// those of a prepared one that it moved to another set. An index of this transaction is live
// although the batch does not have it yet.
bool CommitApplier::IsLive(PendingIndex const& entries) {
  if (!late_ || !entries.committed()) return true;
  IndexDefinition const* const index = now_->Find(batch_, entries.index().id);
  return index != nullptr && index->IsLike(entries.index());
}

// Whether the snapshot lacks the index, or has it over another set.
bool CommitApplier::IsNew(IndexDefinition const& index) {
  auto const [at, unknown] = new_.try_emplace(index.id, true);
  if (!unknown) return at->second;
  std::unique_ptr<IndexDefinition const> const before = LoadIndex(request_.snapshot, index.id);
  return at->second = before == nullptr || !before->IsLike(index);
}

// Indexes that were committed after the snapshot are unknown to the transaction, which wrote no
// entries for them. For every row that it wrote, the entry of the row as it was is removed and that
// of the row as it is now added, in every index over it that the snapshot lacks.
void CommitApplier::DeriveLateEntries() {
  now_ = std::make_unique<IndexCatalogue>(IndexVersion(batch_));
  for (PendingRow const* const row : rows_) DeriveLateEntries(*row);
}

void CommitApplier::DeriveLateEntries(PendingRow const& row) {
  for (bool const before : {true, false}) {
    if (before ? row.inserted() : row.deleted) continue;
    Cell const setspec = before ? OriginalOf(row).Setspec() : row.setspec;
    if (!setspec.present) continue;
    Unpack(setspec.text(), text_);
    for (IndexDefinition const* const index : now_->Covering(batch_, text_)) {
      if (IsNew(*index)) DeriveLateEntry(*index, row, before);
    }
  }
}

void CommitApplier::DeriveLateEntry(IndexDefinition const& index, PendingRow const& row,
                                    bool before) {
  PendingIndex& entries = LateEntries(index);
  KeyFacts const facts = encoder_.Encode(index, before ? OriginalOf(row) : RefOf(row), key_);
  if (before) {
    entries.Remove({key_, row.id}, 0, true);
  } else {
    entries.Add({{key_, row.id}, facts, row.layout->number(), true}, 0, true);
  }
}

PendingIndex& CommitApplier::LateEntries(IndexDefinition const& index) {
  std::unique_ptr<PendingIndex>& entries = late_entries_[index.id];
  if (entries == nullptr) entries = std::make_unique<PendingIndex>(index, true, arena_);
  return *entries;
}

// A prepared index may have begun or ceased to refuse duplicates since the snapshot.
bool CommitApplier::IsUnique(PendingIndex const& entries) {
  if (!late_ || !entries.committed()) return entries.index().unique();
  IndexDefinition const* const index = now_->Find(batch_, entries.index().id);
  return index != nullptr && index->unique();
}

// The last check for duplicates, against the store with all earlier tickets of the batch applied.
// When nothing was committed since the snapshot, keys that were unique when written still are.
void CommitApplier::CheckUnique(PendingIndex const& entries, bool nothing_between) {
  if (!IsUnique(entries) || (nothing_between && !entries.has_unproven())) return;
  auto const for_each_checked = [&](auto const& visit) {
    entries.ForEach([&](PendingKey const& key, PendingEntry const& entry) {
      if (IsChecked(entry) && !(nothing_between && entry.facts.known_unique)) visit(key);
    });
  };
  if (batch_.far()) {
    std::vector<std::string> sought;
    for_each_checked(
        [&](PendingKey const& key) { sought.push_back(SeekKey(entries.index(), key.encoded)); });
    batch_.PrefetchSeeks(Tree::kIndex, sought);
  }
  EntryCursor cursor;
  for_each_checked([&](PendingKey const& key) {
    ObjectId holder = entries.FindOther(key, true);
    if (holder == kNoObject) holder = FindOtherBelow(batch_, cursor, entries, key);
    if (holder == kNoObject || HasEntry(batch_, cursor, entries.index(), key)) return;
    Refuse(entries.index(), key, holder);
  });
}

void CommitApplier::Refuse(IndexDefinition const& index, PendingKey key, ObjectId holder) {
  request_.refused = {index.id, key.object, holder, ContractKey(key.encoded, index.key_columns)};
  Throw(LSCOREDB_DUPLICATE_KEY);
}

// ---- writes ------------------------------------------------------------------------------------

void CommitApplier::Apply() {
  if (request_.build != nullptr) builds_.Apply(*request_.build);
  for (PendingRow const* const row : rows_) ApplyRow(*row);
  for (auto const& entries : request_.changes.indexes()) {
    if (IsLive(*entries)) ApplyEntries(*entries);
  }
  for (auto const& [id, entries] : late_entries_) ApplyEntries(*entries);
  ApplyLayouts();
  ApplyClosings();
  ApplyIndexes();
  ApplyCounts();
  ApplySetChanges();
  if (batch_.takes_notes()) {
    std::string const note = NoteOf(request_.changes, rows_);
    if (!note.empty()) batch_.Note(note);
  }
}

void CommitApplier::ApplyRow(PendingRow const& row) {
  if (row.in_overflow) DeleteChunks(row.id);
  if (row.deleted) {
    std::uint64_t const id = Raw(row.id);
    batch_.Remove(Tree::kRows, BytesOf(id));
    deleted_.Add(row.id);
    kept_.Add(row, {}, batch_.id());
  } else {
    PutImage(row);
  }
  tally_.Add(row);
}

// Builds the row's image, whose header names this commit. An image of more than one chunk goes to
// the overflow tree, and a stub with its size and checksum takes its place among the rows.
void CommitApplier::PutImage(PendingRow const& row) {
  std::string_view image =
      builder_.Build(row.id, *row.layout, batch_.id(), row.setspec, row.all_cells());
  std::string stub;
  kept_.Add(row, image, batch_.id());
  if (image.size() > format::kChunkSize) {
    PutChunks(row.id, image);
    stub = ImageBuilder::Stub(image);
    image = stub;
  }
  std::uint64_t const id = Raw(row.id);
  if (!row.inserted()) {
    batch_.Put(Tree::kRows, BytesOf(id), image);
  } else if (!batch_.PutNew(Tree::kRows, BytesOf(id), image)) {
    Throw(LSCOREDB_CONFLICT);
  }
}

void CommitApplier::PutChunks(ObjectId id, std::string_view image) {
  for (std::uint32_t chunk = 0; !image.empty(); ++chunk) {
    batch_.Put(Tree::kOverflow, ChunkKey(id, chunk), image.substr(0, format::kChunkSize));
    image.remove_prefix(std::min(image.size(), format::kChunkSize));
  }
}

void CommitApplier::DeleteChunks(ObjectId id) {
  batch_.RemoveRange(Tree::kOverflow, ChunkKey(id, 0), ChunkKey(id, kNoChunk));
}

// Index ids ascend, so the entries of a new index mostly follow all others, unless an index with a
// higher id was committed before this one.
void CommitApplier::ApplyUntouched(SortedEntries const& entries) {
  AscendingEntries writer(batch_);
  Cursor cursor;
  cursor.Open(entries, Tree::kIndex);
  for (bool on = cursor.First(); on; on = cursor.Next()) writer.Put(cursor.key(), cursor.value());
}

// Removals come first: two keys of one object that differ only beyond the store's key length share
// one key of the store, and the new entry must survive.
void CommitApplier::ApplyEntries(PendingIndex const& entries) {
  IndexDefinition const& index = entries.index();
  if (entries.untouched() != nullptr) ApplyUntouched(*entries.untouched());
  if (entries.has_removed()) ApplyRemovals(entries);
  entries.ForEach([&](PendingKey const& key, PendingEntry const& entry) {
    if (entry.state != EntryState::kPresent) return;
    entries_.Put(index, key.encoded, key.object, entry.layout);
  });
}

void CommitApplier::ApplyRemovals(PendingIndex const& entries) {
  entries.ForEach([&](PendingKey const& key, PendingEntry const& entry) {
    if (entry.state != EntryState::kRemoved || !entry.may_be_committed) return;
    entries_.Delete(entries.index(), key.encoded, key.object);
  });
}

void CommitApplier::ApplyLayouts() {
  for (auto const& layout : request_.changes.layouts()) {
    WriteLayout(batch_, *layout, {batch_.id(), position_++});
  }
  for (LayoutNumber const number : request_.changes.released_layouts()) {
    WriteRelease(batch_, number);
  }
}

void CommitApplier::ApplyClosings() {
  for (auto const& closed : request_.changes.closed_sets()) WriteClosedSet(batch_, closed.first);
}

void CommitApplier::ApplyIndexes() {
  for (IndexDefinition const* const index : request_.changes.dropped_indexes()) {
    DeleteEntries(batch_, *index);
    DeleteIndex(batch_, *index);
  }
  for (auto const& index : request_.changes.created_indexes()) WriteIndex(batch_, *index);
  for (AdoptedIndex const& adopted : request_.changes.adopted_indexes()) {
    if (request_.changes.IsDropped(adopted.prepared->id)) continue;
    DeleteBuild(batch_, adopted.prepared->id);
    WriteIndex(batch_, *adopted.as);
  }
  if (request_.changes.changes_indexes()) WriteIndexVersion(batch_);
  for (MovedPrepared const& moved : request_.changes.moved_prepared()) ApplyMovedPrepared(moved);
}

// The moved objects have left the old entries by now. Others may be there still, of objects that
// belong to no table any more. Nothing is in the index over the new set until it is built, so it
// holds what index_builds.h demands. Another round tells those who sorted for the old one.
void CommitApplier::ApplyMovedPrepared(MovedPrepared const& moved) {
  for (IndexBuild build : AllBuilds(batch_)) {
    if (build.phase == BuildPhase::kAbandoned) continue;
    std::unique_ptr<IndexDefinition const> const before = LoadIndex(batch_, build.id);
    if (before == nullptr) Throw(LSCOREDB_DAMAGED);
    if (before->setspec != moved.from) continue;
    IndexDefinition after = *before;
    after.setspec = moved.to;
    for (IndexColumn& column : after.columns) {
      auto const token = moved.tokens.find(column.token);
      if (token != moved.tokens.end()) column.token = token->second;
    }
    after.phase = build.phase = BuildPhase::kFilling;
    build.done = build.total = 0;
    build.position.clear();
    ++build.round;
    DeleteEntries(batch_, *before);
    DeleteIndex(batch_, *before);
    WriteIndex(batch_, after);
    WriteBuild(batch_, build);
    WriteIndexVersion(batch_);
  }
}

// The store counts the objects of each layout, with the set of one of them as an example.
void CommitApplier::ApplyCounts() {
  for (auto const& [number, delta] : tally_.counts()) {
    bool const names_set = delta.names_set();
    if (delta.objects == 0 && !names_set) continue;
    LayoutCount count = ReadCount(batch_, number);
    bool const sets = names_set && !(count.has_setspec && count.objects > 0);
    if (delta.objects == 0 && !sets) continue;
    count.objects =
        static_cast<std::uint64_t>(static_cast<std::int64_t>(count.objects) + delta.objects);
    if (sets) Unpack(delta.example->setspec.text(), count.setspec);
    count.has_setspec = count.objects > 0 && (count.has_setspec || sets);
    WriteCount(batch_, number, count);
  }
}

void CommitApplier::ApplySetChanges() {
  for (std::u16string const& setspec : tally_.changed_sets()) WriteSetChange(batch_, setspec);
}

}  // namespace lscore
