#include "blind_commit.h"

#include <algorithm>

#include "change_notes.h"
#include "chosen_ids.h"
#include "closed_sets.h"
#include "format.h"

namespace lscore {
namespace {

constexpr std::size_t kMostRows = 1000;

// Changes of the schema read much of it.
bool IsUsual(CommitRequest const& request) {
  PendingChanges const& changes = request.changes;
  return request.build == nullptr && changes.layouts().empty() &&
         changes.released_layouts().empty() && changes.closed_sets().empty() &&
         changes.required_sets().empty() && !changes.changes_indexes() &&
         changes.moved_prepared().empty() &&
         std::all_of(changes.indexes().begin(), changes.indexes().end(), [](auto const& entries) {
           return entries->committed() && entries->untouched() == nullptr;
         });
}

}  // namespace

bool BlindCommit::Add(CommitRequest const& request) {
  if (!IsUsual(request) || !AddRows(request) || !AddRequired(request)) return false;
  for (auto const& entries : request.changes.indexes()) {
    if (!AddEntries(*entries)) return false;
  }
  // Neither indexes nor closed sets that the transaction does not know.
  for (std::string_view const key : {format::kIndexesKey, format::kClosingsKey}) {
    batch_.RequireNoLater(key, request.snapshot.id());
  }
  if (request.sync) batch_.AskForSync();
  return true;
}

bool BlindCommit::AddRows(CommitRequest const& request) {
  std::vector<PendingRow const*> rows;
  request.changes.ForEachRow([&](PendingRow const& row) {
    if (Matters(row)) rows.push_back(&row);
  });
  if (written_.size() + rows.size() > kMostRows) return false;
  std::sort(rows.begin(), rows.end(),
            [](PendingRow const* a, PendingRow const* b) { return a->id < b->id; });
  for (PendingRow const* const row : rows) {
    if (!AddRow(*row, request.snapshot.id())) return false;
  }
  anything_ |= !rows.empty();
  if (batch_.takes_notes()) {
    std::string const note = NoteOf(request.changes, rows);
    if (!note.empty()) batch_.Note(note);
  }
  return true;
}

bool BlindCommit::AddRow(PendingRow const& row, CommitId since) {
  if (row.given_id || row.in_overflow || !written_.insert(row.id).second) return false;
  tally_.Add(row);
  if (row.deleted) {
    highest_deleted_ = std::max(highest_deleted_, row.id);
    batch_.DeleteRow(row.id, since);
    kept_.Add(row, {}, batch_.guess());
    return true;
  }
  std::string_view const image =
      builder_.Build(row.id, *row.layout, batch_.guess(), row.setspec, row.all_cells());
  if (image.size() > format::kChunkSize) return false;
  kept_.Add(row, image, batch_.guess());
  if (row.inserted()) {
    batch_.InsertRow(row.id, image);
  } else {
    batch_.UpdateRow(row.id, since, image);
  }
  return true;
}

// What a transaction writes itself is checked when it is written, and another one of this batch
// must not have written it.
bool BlindCommit::AddRequired(CommitRequest const& request) {
  bool collides = false;
  request.changes.ForEachRequired([&](ObjectId id) {
    PendingRow const* const own = request.changes.FindRow(id);
    if (own != nullptr && Matters(*own)) return;
    collides |= written_.contains(id);
    batch_.RequireRow(id, request.snapshot.id());
  });
  return !collides;
}

// Removals come first: see CommitApplier::ApplyEntries.
bool BlindCommit::AddEntries(PendingIndex const& entries) {
  IndexDefinition const& index = entries.index();
  entries.ForEach([&](PendingKey const& key, PendingEntry const& entry) {
    if (entry.state != EntryState::kRemoved || !entry.may_be_committed) return;
    BuildRecord(index, key.encoded, key.object, LayoutNumber{}, record_);
    batch_.RemoveEntry(record_.key);
  });
  bool usual = true;
  entries.ForEach([&](PendingKey const& key, PendingEntry const& entry) {
    if (!usual || entry.state != EntryState::kPresent) return;
    BuildRecord(index, key.encoded, key.object, entry.layout, record_);
    batch_.PutEntry(record_.key, record_.value);
    if (index.unique() && IsChecked(entry)) usual = RequireFree(entries, key, record_.key);
  });
  return usual;
}

// Entries of one key of an index have it as their beginning, unless it is too long for the store.
bool BlindCommit::RequireFree(PendingIndex const& entries, PendingKey const& key,
                              std::string const& own) {
  if (key.encoded.size() >= format::kKeyPrefix) return false;
  if (entries.FindOther(key, true) != kNoObject) return false;
  std::string const low = SeekKey(entries.index(), key.encoded);
  std::string const high = LeastAbove(low);
  if (high.empty() || !taken_.insert(low).second) return false;
  batch_.RequireFree(low, high, own);
  return true;
}

// A count that stays is looked at only if no row vouches for it: see CommitApplier::ApplyCounts.
void BlindCommit::AddCounts() {
  for (auto const& [number, count] : tally_.counts()) {
    if (count.objects == 0 && (count.has_steady || !count.names_set())) continue;
    batch_.AddToCount(CountKey(number), count.objects, count.names_set());
  }
}

void BlindCommit::AddSets() {
  for (std::u16string const& setspec : tally_.changed_sets()) {
    DefinitionRecord const record = SetChangeRecord(setspec, batch_.guess());
    batch_.PutStamped(record.key, record.value);
  }
}

bool BlindCommit::Commit() {
  if (!anything_) return false;
  AddCounts();
  AddSets();
  if (highest_deleted_ != kNoObject) {
    std::string const free(1, format::kFreeIdsLetter);
    batch_.RequireGivenIds(format::kNextIdKey, highest_deleted_, free, LeastAbove(free));
  }
  bool made = false;
  bool const committed = batch_.Commit([&](CommitId state) {
    kept_.Renumber(state);
    kept_.TakeOut(state);
    made = true;
  });
  if (made) kept_.PutBack();
  return committed;
}

}  // namespace lscore
