#include "pending.h"

#include <algorithm>
#include <bit>

#include "keys.h"
#include "status.h"

namespace lscore {

// ---- keys of rows ------------------------------------------------------------------------------

namespace {

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

PendingEntry& PendingIndex::Change(Map::iterator at, Sequence now, bool keep_history) {
  PendingEntry& entry = at->second;
  if (keep_history) {
    entry.older = new (arena_->Allocate(sizeof(PendingEntry))) PendingEntry(entry);
  } else {
    entry.older = nullptr;
  }
  entry.since = now;
  return entry;
}

void PendingIndex::Add(PendingKey key, KeyFacts facts, bool may_be_committed, Sequence now,
                       bool keep_history) {
  auto at = map_.find(key);
  if (at == map_.end()) {
    char* const bytes = arena_->Allocate(key.encoded.size());
    std::copy(key.encoded.begin(), key.encoded.end(), bytes);
    key.encoded = {bytes, key.encoded.size()};
    at = map_.emplace(key, PendingEntry{}).first;
    at->second.may_be_committed = may_be_committed;
    at->second.since = now;
  } else {
    Change(at, now, keep_history);
  }
  at->second.state = EntryState::kPresent;
  at->second.facts = facts;
}

void PendingIndex::AddUntouched(PendingKey key, KeyFacts facts, LayoutNumber layout, Sequence now) {
  Add(key, facts, false, now, false);
  map_.find(key)->second.layout = layout;
}

void PendingIndex::Remove(PendingKey key, Sequence now, bool keep_history) {
  auto const at = map_.find(key);
  if (at == map_.end()) {
    Add(key, {}, true, now, keep_history);
    map_.find(key)->second.state = EntryState::kRemoved;
  } else if (!keep_history && !at->second.may_be_committed) {
    map_.erase(at);
  } else {
    Change(at, now, keep_history).state = EntryState::kRemoved;
  }
}

void PendingIndex::SetFacts(PendingKey key, KeyFacts facts) {
  auto const at = map_.find(key);
  if (at != map_.end()) at->second.facts = facts;
}

bool PendingIndex::HasOther(PendingKey key, bool count_unwritten) const {
  for (auto at = map_.lower_bound(PendingKey{key.encoded, kNoObject});
       at != map_.end() && at->first.encoded == key.encoded; ++at) {
    PendingEntry const& entry = at->second;
    if (at->first.object != key.object && entry.state == EntryState::kPresent &&
        (count_unwritten || !entry.facts.has_unwritten)) {
      return true;
    }
  }
  return false;
}

bool CommittedHasOther(View const& view, EntryCursor& cursor, PendingIndex const& pending,
                       PendingKey key) {
  cursor.Open(view, pending.index());
  for (cursor.SeekFirst(key.encoded);
       cursor.valid() && ComparePrefix(cursor.entry().key, key.encoded) == 0; cursor.Next()) {
    ObjectId const object = cursor.entry().object;
    if (object == key.object) continue;
    PendingEntry const* const touched = pending.Find(key.encoded, object);
    if (touched == nullptr || touched->state != EntryState::kRemoved) return true;
  }
  return false;
}

// ---- all of it ---------------------------------------------------------------------------------

PendingRow& PendingChanges::AddRow(ObjectId id) {
  auto* const row = new (arena_.Allocate(sizeof(PendingRow))) PendingRow();
  row->id = id;
  rows_.Insert(Raw(id), row);
  return *row;
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
  indexes_.push_back(std::make_unique<PendingIndex>(index, committed, arena_));
  index_by_id_.Insert(Raw(index.id), indexes_.back().get());
  return *indexes_.back();
}

void PendingChanges::CreateIndex(std::unique_ptr<IndexDefinition const> index,
                                 std::unique_ptr<PendingIndex> entries) {
  created_.reserve(created_.size() + 1);
  indexes_.reserve(indexes_.size() + 1);
  index_by_id_.Insert(Raw(index->id), entries.get());
  indexes_.push_back(std::move(entries));
  created_.push_back(std::move(index));
}

void PendingChanges::DropIndex(IndexDefinition const& index) {
  forgotten_.reserve(forgotten_.size() + 1);
  created_and_dropped_.reserve(created_and_dropped_.size() + 1);
  dropped_.reserve(dropped_.size() + 1);
  auto const same_entries = [&](auto const& entries) { return &entries->index() == &index; };
  auto const entries = std::find_if(indexes_.begin(), indexes_.end(), same_entries);
  if (entries != indexes_.end()) {
    index_by_id_.Erase(Raw(index.id));
    forgotten_.push_back(std::move(*entries));
    indexes_.erase(entries);
  }
  auto const same = [&](auto const& created) { return created.get() == &index; };
  auto const created = std::find_if(created_.begin(), created_.end(), same);
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

bool PendingChanges::IsDropped(IndexId id) const {
  return std::any_of(dropped_.begin(), dropped_.end(),
                     [id](IndexDefinition const* index) { return index->id == id; });
}

bool PendingChanges::empty() const {
  bool changed = !layouts_.empty() || !released_.empty() || !created_.empty() || !dropped_.empty();
  ForEachRow([&](PendingRow const& row) { changed = changed || row.changed; });
  return !changed;
}

void PendingChanges::Clear() {
  indexes_.clear();
  forgotten_.clear();
  index_by_id_.Clear();
  rows_.Clear();
  layouts_.clear();
  released_.clear();
  created_.clear();
  created_and_dropped_.clear();
  dropped_.clear();
  arena_.Release();
}

}  // namespace lscore
