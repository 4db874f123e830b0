#include "pending.h"

#include <algorithm>
#include <bit>

#include "keys.h"
#include "status.h"

namespace lscore {

// ---- keys of rows ------------------------------------------------------------------------------

namespace {

// The value of an index's column in a row, matched by token, so that rows under superseded layouts
// and of descendant tables are indexed alike. A column that the row's layout lacks, or has with
// another type, counts as not present: null, or zero if the index's column is not nullable.
Cell ReadForIndex(IndexColumn const& column, RowRef const& row, bool* null) {
  *null = column.nullable;
  Cell cell;
  if (column.token == Token{LORV_TOKEN_ID}) {
    cell.present = true;
    cell.bits = Raw(row.id);
  } else if (column.token == Token{LORV_TOKEN_SETSPEC}) {
    cell = row.Setspec();
  } else if (int const at = row.layout->Find(column.token); at >= 0) {
    Column const& own = row.layout->column(static_cast<std::uint32_t>(at));
    if (own.type == column.type) {
      cell = row.Read(static_cast<std::uint32_t>(at));
      *null = *null && own.nullable;
    }
  }
  if (cell.present) *null = false;
  return cell;
}

}  // namespace

KeyFacts KeyEncoder::Encode(IndexDefinition const& index, RowRef const& row, KeyBytes& out) {
  KeyFacts facts;
  out.clear();
  for (std::size_t i = 0; i < index.columns.size(); ++i) {
    bool null = false;
    Cell const cell = ReadForIndex(index.columns[i], row, &null);
    bool const descending = index.key_columns[i].descending;
    facts.has_null = facts.has_null || null;
    facts.has_unwritten = facts.has_unwritten || (!cell.present && row.inserted());
    if (null) {
      AppendNull(out, descending);
    } else {
      AppendValue(index.columns[i], descending, cell, out);
    }
  }
  return facts;
}

void KeyEncoder::AppendValue(IndexColumn const& column, bool descending, Cell const& cell,
                             KeyBytes& out) {
  switch (column.type) {
    case LORV_TYPE_STRING:
      Unpack(cell.text(), text_);
      AppendText(out, text_, descending);
      break;
    case LORV_TYPE_BINARY:
      AppendBinary(out, {reinterpret_cast<std::uint8_t const*>(cell.data), cell.size}, descending);
      break;
    case LORV_TYPE_LONG:
    case LORV_TYPE_DECIMAL:
      AppendSigned(out, static_cast<std::int64_t>(cell.bits), descending);
      break;
    case LORV_TYPE_FLOAT:
      AppendFloat(out, std::bit_cast<float>(static_cast<std::uint32_t>(cell.bits)), descending);
      break;
    case LORV_TYPE_DOUBLE:
      AppendDouble(out, std::bit_cast<double>(cell.bits), descending);
      break;
    default:
      AppendUnsigned(out, cell.bits, descending);
  }
}

// ---- index entries -----------------------------------------------------------------------------

PendingEntry const* PendingIndex::Find(std::string_view encoded, ObjectId object) const {
  auto const at = map_.find(PendingKey{encoded, object});
  return at == map_.end() ? nullptr : &at->second;
}

void PendingIndex::RecordChange(PendingEntry& entry) {
  if (recording()) undo_->Record(undo::EntryChanged{&entry, entry});
}

PendingEntry& PendingIndex::Change(Map::iterator at, Sequence now, bool keep_history) {
  PendingEntry& entry = at->second;
  RecordChange(entry);
  if (keep_history) {
    entry.older = new (arena_->Allocate(sizeof(PendingEntry))) PendingEntry(entry);
  } else {
    entry.older = nullptr;
  }
  entry.since = now;
  return entry;
}

// Starts from the position that FindOther found: the check for a unique key comes right before the
// key is added, so the second search of the tree is mostly saved. It is verified, since the map may
// have changed in between.
PendingIndex::Map::iterator PendingIndex::LowerBound(PendingKey const& key) {
  auto const below = map_.key_comp();
  bool const above = sought_ != map_.end() && below(sought_->first, key);
  bool const fits = !above && (sought_ == map_.begin() || below(std::prev(sought_)->first, key));
  // Erasing an empty range turns the const_iterator into an iterator.
  return fits ? map_.erase(sought_, sought_) : map_.lower_bound(key);
}

// The key with its bytes copied into the arena.
PendingKey PendingIndex::Kept(PendingKey key) {
  char* const bytes = arena_->Allocate(key.encoded.size());
  std::copy(key.encoded.begin(), key.encoded.end(), bytes);
  key.encoded = {bytes, key.encoded.size()};
  return key;
}

// While changes are recorded entries go to the map: undo removes single entries, which the list
// cannot do.
void PendingIndex::AddFresh(NewEntry const& added) {
  if (recording()) return Add(added, 0, false);
  removed_.Break(added.key);
  PendingEntry entry;
  entry.state = EntryState::kPresent;
  entry.layout = added.layout;
  SetFactsOf(entry, added.facts);
  fresh_.Add(Kept(added.key), entry);
}

void PendingIndex::Settle() {
  if (fresh_.empty()) return;
  fresh_.Sort();
  fresh_.ForEach([this](FreshEntries::Item const& item) { map_.emplace(item.key, item.entry); });
  fresh_.Clear();
}

void PendingIndex::Add(NewEntry const& added, Sequence now, bool keep_history) {
  Settle();
  last_added_ = std::max(last_added_, now);
  removed_.Break(added.key);
  auto at = LowerBound(added.key);
  if (at == map_.end() || map_.key_comp()(added.key, at->first)) {
    PendingKey const key = Kept(added.key);
    if (recording()) undo_->Record(undo::EntryAdded{this, key});
    at = map_.emplace_hint(at, key, PendingEntry{});
    at->second.may_be_committed = added.may_be_committed;
    at->second.since = now;
  } else {
    Change(at, now, keep_history);
  }
  at->second.state = EntryState::kPresent;
  at->second.layout = added.layout;
  SetFactsOf(at->second, added.facts);
}

void PendingIndex::SetFactsOf(PendingEntry& entry, KeyFacts facts) {
  entry.facts = facts;
  if (!facts.known_unique && !facts.has_null) has_unproven_ = true;
}

void PendingIndex::SetRemoved(PendingEntry& entry) {
  entry.state = EntryState::kRemoved;
  has_removed_ = true;
}

// An entry that was never written is marked as removed, to hide the committed one. One that this
// transaction added, and that the snapshot cannot have, simply goes if no scan needs its history.
void PendingIndex::Remove(PendingKey key, Sequence now, bool keep_history) {
  Settle();
  auto const at = map_.find(key);
  if (at == map_.end()) {
    Add({key, {}, {}, true}, now, keep_history);
    SetRemoved(map_.find(key)->second);
  } else if (!keep_history && !at->second.may_be_committed) {
    Erase(at);
  } else {
    SetRemoved(Change(at, now, keep_history));
  }
}

// The undo step keeps the extracted node, so that undoing allocates nothing and cannot fail.
void PendingIndex::Erase(Map::iterator at) {
  sought_ = map_.end();
  if (!recording()) {
    map_.erase(at);
    return;
  }
  undo::EntryErased& step = undo_->Record(undo::EntryErased{this, {}});
  step.entry = map_.extract(at);
}

void PendingIndex::SetFacts(PendingKey key, KeyFacts facts) {
  Settle();
  auto const at = map_.find(key);
  if (at == map_.end()) return;
  RecordChange(at->second);
  SetFactsOf(at->second, facts);
}

void PendingIndex::TakeBack(undo::EntryAdded const& added) {
  sought_ = map_.end();
  auto const at = map_.find(added.key);
  if (at != map_.end()) map_.erase(at);
}

ObjectId PendingIndex::FindOther(PendingKey key, bool count_unwritten) const {
  sought_ = map_.lower_bound(PendingKey{key.encoded, kNoObject});
  for (auto at = sought_; at != map_.end() && at->first.encoded == key.encoded; ++at) {
    PendingEntry const& entry = at->second;
    if (at->first.object != key.object && entry.state == EntryState::kPresent &&
        (count_unwritten || !entry.facts.has_unwritten)) {
      return at->first.object;
    }
  }
  return fresh_.FindOther(key, count_unwritten);
}

// Goes through the committed entries with the same encoding, one per object. One counts unless the
// transaction removed it.
ObjectId FindOtherBelow(View const& committed, EntryCursor& cursor, PendingIndex const& pending,
                        PendingKey key) {
  View const* const below = pending.Below(committed);
  if (below == nullptr) return kNoObject;
  cursor.Open(*below, pending.index());
  for (cursor.SeekFirst(key.encoded);
       cursor.valid() && ComparePrefix(cursor.entry().key, key.encoded) == 0; cursor.Next()) {
    ObjectId const object = cursor.entry().object;
    if (object == key.object) continue;
    PendingEntry const* const touched = pending.Find(key.encoded, object);
    if (touched == nullptr || touched->state != EntryState::kRemoved) return object;
  }
  return kNoObject;
}

bool HasEntry(View const& committed, EntryCursor& cursor, IndexDefinition const& index,
              PendingKey key) {
  cursor.Open(committed, index);
  for (cursor.SeekFirst(key.encoded);
       cursor.valid() && ComparePrefix(cursor.entry().key, key.encoded) == 0; cursor.Next()) {
    if (cursor.entry().object == key.object) return true;
  }
  return false;
}

// ---- the write set -----------------------------------------------------------------------------

PendingRow& PendingChanges::AddRow(ObjectId id) {
  if (undo_.recording()) undo_.Record(undo::RowAdded{id});
  auto* const row = new (arena_.Allocate(sizeof(PendingRow))) PendingRow();
  row->id = id;
  rows_.Insert(Raw(id), row);
  return *row;
}

void PendingChanges::WillChange(PendingRow& row) {
  if (!undo_.recording()) return;
  auto* const before = new (arena_.Allocate(sizeof(PendingRow))) PendingRow(row);
  undo_.Record(undo::RowChanged{&row, before});
}

void PendingChanges::WillChange(PendingRow& row, Cell& cell) {
  if (undo_.recording()) undo_.Record(undo::CellChanged{&row, &cell, cell, row.changed});
}

PendingRow const* PendingChanges::FindExample(LayoutNumber layout) const {
  auto const* const found = examples_.Find(Raw(layout));
  return found == nullptr ? nullptr : *found;
}

void PendingChanges::NoteExample(PendingRow const& row) {
  std::uint64_t const number = Raw(row.layout->number());
  PendingRow const** const example = examples_.Find(number);
  if (undo_.recording()) {
    undo_.Record(undo::ExampleNoted{row.layout->number(), example == nullptr ? nullptr : *example});
  }
  if (example != nullptr) {
    *example = &row;
  } else {
    examples_.Insert(number, &row);
  }
}

Cell* PendingChanges::NewCells(Layout const& layout) {
  auto* const cells = reinterpret_cast<Cell*>(arena_.Allocate(sizeof(Cell) * layout.bit_count()));
  std::uninitialized_value_construct_n(cells, layout.bit_count());
  return cells;
}

PendingIndex* PendingChanges::FindIndex(IndexId id) const {
  auto const* const found = index_by_id_.Find(Raw(id));
  return found == nullptr ? nullptr : *found;
}

PendingIndex& PendingChanges::AddIndex(IndexDefinition const& index, bool committed) {
  auto entries = std::make_unique<PendingIndex>(index, committed, arena_);
  entries->RecordIn(undo_);
  if (undo_.recording()) undo_.Record(undo::IndexAdded{indexes_.size(), created_.size()});
  indexes_.push_back(std::move(entries));
  index_by_id_.Insert(Raw(index.id), indexes_.back().get());
  return *indexes_.back();
}

void PendingChanges::AddLayout(std::unique_ptr<Layout const> layout) {
  if (undo_.recording()) undo_.Record(undo::LayoutAdded{layouts_.size()});
  layouts_.push_back(std::move(layout));
}

void PendingChanges::ReleaseLayout(LayoutNumber number) {
  if (released_.contains(number)) return;
  if (undo_.recording()) undo_.Record(undo::LayoutReleased{number});
  released_.insert(number);
}

void PendingChanges::CloseSet(std::u16string_view setspec, bool unchanged) {
  if (undo_.recording()) undo_.Record(undo::SetClosed{std::u16string(setspec)});
  closed_.emplace(setspec, unchanged);
}

void PendingChanges::Require(ObjectId id) {
  if (required_.Find(Raw(id)) != nullptr) return;
  if (undo_.recording()) undo_.Record(undo::ObjectRequired{id});
  required_.Insert(Raw(id), true);
}

void PendingChanges::RequireSet(std::u16string_view setspec) {
  bool const added = required_sets_.emplace(setspec).second;
  if (added && undo_.recording()) undo_.Record(undo::SetRequired{std::u16string(setspec)});
}

void PendingChanges::CreateIndex(std::unique_ptr<IndexDefinition const> index,
                                 std::unique_ptr<PendingIndex> entries) {
  if (undo_.recording()) undo_.Record(undo::IndexAdded{indexes_.size(), created_.size()});
  entries->RecordIn(undo_);
  created_.reserve(created_.size() + 1);
  indexes_.reserve(indexes_.size() + 1);
  index_by_id_.Insert(Raw(index->id), entries.get());
  indexes_.push_back(std::move(entries));
  created_.push_back(std::move(index));
}

void PendingChanges::AdoptIndex(AdoptedIndex index) {
  if (undo_.recording()) undo_.Record(undo::IndexAdopted{adopted_.size()});
  adopted_.push_back(std::move(index));
}

namespace {

template <typename All>
std::size_t PositionIn(All const& all, typename All::iterator at) {
  return at == all.end() ? undo::IndexDropped::kNowhere
                         : static_cast<std::size_t>(at - all.begin());
}

// Moves the last element of `from` back to its former position in `to`. Allocates nothing: `to` had
// room for it.
template <typename All>
void MoveBack(All& from, All& to, std::size_t position) {
  to.insert(to.begin() + static_cast<std::ptrdiff_t>(position), std::move(from.back()));
  from.pop_back();
}

}  // namespace

// Reserves everything first, so that nothing fails half-way. The entries and a created definition
// are set aside instead of destroyed: open scans and undo steps still refer to them.
void PendingChanges::DropIndex(IndexDefinition const& index) {
  forgotten_.reserve(forgotten_.size() + 1);
  created_and_dropped_.reserve(created_and_dropped_.size() + 1);
  dropped_.reserve(dropped_.size() + 1);
  auto const same_entries = [&](auto const& entries) { return &entries->index() == &index; };
  auto const entries = std::find_if(indexes_.begin(), indexes_.end(), same_entries);
  auto const same = [&](auto const& created) { return created.get() == &index; };
  auto const created = std::find_if(created_.begin(), created_.end(), same);
  if (undo_.recording()) {
    undo_.Record(undo::IndexDropped{PositionIn(indexes_, entries), PositionIn(created_, created)});
  }
  if (entries != indexes_.end()) {
    index_by_id_.Erase(Raw(index.id));
    forgotten_.push_back(std::move(*entries));
    indexes_.erase(entries);
  }
  if (created == created_.end()) {
    dropped_.push_back(&index);
    return;
  }
  created_and_dropped_.push_back(std::move(*created));
  created_.erase(created);
}

IndexDefinition const* PendingChanges::FindCreated(IndexId id) const {
  for (auto const& index : created_) {
    if (index->id == id) return index.get();
  }
  return nullptr;
}

AdoptedIndex const* PendingChanges::FindAdopted(IndexId id) const {
  for (AdoptedIndex const& index : adopted_) {
    if (index.prepared->id == id) return &index;
  }
  return nullptr;
}

void PendingChanges::MovePrepared(MovedPrepared moved) {
  if (undo_.recording()) undo_.Record(undo::PreparedMoved{moved_prepared_.size()});
  moved_prepared_.push_back(std::move(moved));
}

bool PendingChanges::IsDropped(IndexId id) const {
  return std::any_of(dropped_.begin(), dropped_.end(),
                     [id](IndexDefinition const* index) { return index->id == id; });
}

bool PendingChanges::empty() const {
  bool changed = !layouts_.empty() || !released_.empty() || !closed_.empty() || changes_indexes() ||
                 !moved_prepared_.empty();
  ForEachRow([&](PendingRow const& row) { changed = changed || row.changed; });
  return !changed;
}

// ---- savepoints --------------------------------------------------------------------------------
//
// Each TakeBack reverses one step of undo_log.h. A step may have been recorded for a change that
// then failed, so each looks whether there is anything to undo.

void PendingChanges::SortEntries() {
  for (auto const& index : indexes_) index->Sort();
}

// Settles all entries first: a later Settle would put them into arena memory after the mark, which
// a rollback to it releases.
PendingChanges::Mark PendingChanges::SetMark() {
  for (auto const& index : indexes_) index->Settle();
  undo_.Start();
  return {undo_.size(), arena_.mark()};
}

ObjectId PendingChanges::TakeBack(undo::RowAdded const& added) {
  if (FindRow(added.id) != nullptr) rows_.Erase(Raw(added.id));
  return added.id;
}

ObjectId PendingChanges::TakeBack(undo::CellChanged const& changed) {
  *changed.cell = changed.before;
  changed.row->changed = changed.changed;
  return kNoObject;
}

ObjectId PendingChanges::TakeBack(undo::RowChanged const& changed) {
  *changed.row = *changed.before;
  return changed.row->id;
}

ObjectId PendingChanges::TakeBack(undo::ExampleNoted const& noted) {
  std::uint64_t const number = Raw(noted.layout);
  PendingRow const** const example = examples_.Find(number);
  if (example != nullptr && noted.before == nullptr) {
    examples_.Erase(number);
  } else if (example != nullptr) {
    *example = noted.before;
  }
  return kNoObject;
}

ObjectId PendingChanges::TakeBack(undo::EntryAdded const& added) {
  added.index->TakeBack(added);
  return kNoObject;
}

ObjectId PendingChanges::TakeBack(undo::EntryChanged const& changed) {
  *changed.entry = changed.before;
  return kNoObject;
}

ObjectId PendingChanges::TakeBack(undo::EntryErased& erased) {
  erased.index->TakeBack(erased);
  return kNoObject;
}

ObjectId PendingChanges::TakeBack(undo::LayoutAdded const& added) {
  layouts_.resize(added.layouts);
  return kNoObject;
}

ObjectId PendingChanges::TakeBack(undo::LayoutReleased const& released) {
  released_.erase(released.number);
  return kNoObject;
}

ObjectId PendingChanges::TakeBack(undo::SetClosed const& closed) {
  closed_.erase(closed.setspec);
  return kNoObject;
}

ObjectId PendingChanges::TakeBack(undo::IndexAdded const& added) {
  for (; indexes_.size() > added.indexes; indexes_.pop_back()) {
    std::uint64_t const id = Raw(indexes_.back()->index().id);
    if (index_by_id_.Find(id) != nullptr) index_by_id_.Erase(id);
  }
  created_.resize(added.created);
  return kNoObject;
}

ObjectId PendingChanges::TakeBack(undo::IndexAdopted const& adopted) {
  adopted_.resize(adopted.adopted);
  return kNoObject;
}

ObjectId PendingChanges::TakeBack(undo::IndexDropped const& dropped) {
  if (dropped.created_at != undo::IndexDropped::kNowhere) {
    MoveBack(created_and_dropped_, created_, dropped.created_at);
  } else {
    dropped_.pop_back();
  }
  if (dropped.entries_at != undo::IndexDropped::kNowhere) {
    PendingIndex& entries = *forgotten_.back();
    MoveBack(forgotten_, indexes_, dropped.entries_at);
    index_by_id_.Insert(Raw(entries.index().id), &entries);
  }
  return kNoObject;
}

ObjectId PendingChanges::TakeBack(undo::PreparedMoved const& moved) {
  moved_prepared_.resize(std::min(moved.moved, moved_prepared_.size()));
  return kNoObject;
}

ObjectId PendingChanges::TakeBack(undo::ObjectRequired const& required) {
  if (required_.Find(Raw(required.id)) != nullptr) required_.Erase(Raw(required.id));
  return kNoObject;
}

ObjectId PendingChanges::TakeBack(undo::SetRequired const& required) {
  required_sets_.erase(required.setspec);
  return kNoObject;
}

bool PendingChanges::large() const {
  constexpr std::size_t kLarge = std::size_t{32} << 20;
  return arena_.from_system() >= kLarge ||
         std::any_of(indexes_.begin(), indexes_.end(), [](auto const& index) {
           return index->untouched() != nullptr && index->untouched()->in_file();
         });
}

void PendingChanges::Clear() {
  undo_.Stop();
  examples_.Clear();
  required_.Clear();
  required_sets_.clear();
  indexes_.clear();
  forgotten_.clear();
  index_by_id_.Clear();
  rows_.Clear();
  layouts_.clear();
  released_.clear();
  closed_.clear();
  created_.clear();
  created_and_dropped_.clear();
  adopted_.clear();
  dropped_.clear();
  moved_prepared_.clear();
  arena_.Release();
}

}  // namespace lscore
