#include "index_filler.h"

#include <optional>

#include "bytes.h"
#include "keys.h"
#include "text.h"

namespace lscore {

// Entries of rows that this transaction wrote are pending: they may change again, and scans follow
// their history. All others come from the snapshot and cannot change, so they go into a sorter,
// which spills to temporary files, and stay with the index as its untouched part until commit
// writes them in order. Uniqueness is checked afterwards: equal keys are neighbours then.
void IndexFiller::Fill(PendingIndex& entries) {
  work_ = WatchedWork();
  KeyBytes key;
  EntryRecord record;
  EntrySorter sorter(state_.database->directory(), entries.index().entry_prefix.size());
  ++state_.now;
  ForEachObjectOfSet(entries.index().setspec, [&](RowRef const& row) {
    KeyFacts const facts = encoder_.Encode(entries.index(), row, key);
    if (row.pending() != nullptr) {
      entries.Add({{key, row.id}, facts, row.layout->number(), false}, state_.now, false);
    } else {
      BuildRecord(entries.index(), key, row.id, row.layout->number(), record);
      sorter.Add(record.key, record.value);
    }
  });
  entries.SetUntouched(sorter.Finish(work_));
  if (!entries.index().unique()) return;
  CheckUnique(entries);
  if (entries.untouched() != nullptr) CheckUntouchedUnique(entries);
}

// The image of a large row is given back as soon as its key is made.
std::unique_ptr<SortedEntries const> IndexFiller::Sort(IndexDefinition const& index,
                                                       std::string_view position,
                                                       std::uint64_t* count) {
  work_ = WatchedWork();
  KeyBytes key;
  EntryRecord record;
  EntrySorter sorter(state_.database->directory(), index.entry_prefix.size());
  *count = 0;
  reader_.BeginScope();
  ForEachObjectOfSet(index.setspec, [&](RowRef const& row) {
    ObjectId const id = row.id;
    encoder_.Encode(index, row, key);
    BuildRecord(index, key, id, row.layout->number(), record);
    if (record.key > position) {
      sorter.Add(record.key, record.value);
      ++*count;
    }
    if (!reader_.IsAssembled(id)) return;
    reader_.EndScope();
    reader_.BeginScope();
  });
  reader_.EndScope();
  return sorter.Finish(work_);
}

// Scans an index whose first column is the set specifier if one covers the set, otherwise all rows.
template <typename Visit>
void IndexFiller::ForEachObjectOfSet(std::u16string const& setspec, Visit&& visit) {
  if (IndexDefinition const* const index = FindSetIndex(setspec)) {
    ScanSetIndex(*index, setspec, visit);
  } else {
    ScanRows(setspec, visit);
  }
}

IndexDefinition const* IndexFiller::FindSetIndex(std::u16string const& setspec) {
  auto const by_set = [](IndexDefinition const& index) {
    return !index.columns.empty() && index.columns[0].token == Token{LORV_TOKEN_SETSPEC};
  };
  for (auto const& index : state_.changes.created_indexes()) {
    if (by_set(*index) && index->Covers(setspec)) return index.get();
  }
  for (IndexDefinition const* const index : schema_.CommittedCovering(setspec)) {
    if (index->prepared() || state_.changes.IsDropped(index->id)) continue;
    if (by_set(*index)) return index;
  }
  return nullptr;
}

template <typename Visit>
void IndexFiller::ScanSetIndex(IndexDefinition const& index, std::u16string const& setspec,
                               Visit&& visit) {
  std::string prefix;
  AppendText(prefix, setspec, index.key_columns[0].descending);
  prefix.pop_back();  // the terminator: without it the text is a prefix of all descendants' sets
  Iterator scan;
  scan.SetPrefix(prefix);
  scan.Start(reader_.scan_source(), index);
  ObjectId object{};
  LayoutNumber layout{};
  for (;;) {
    work_.Advance();
    Check(scan.Next(&object, &layout));
    if (object == kNoObject) return;
    RowRef const* const row = reader_.FindRow(object);
    if (row == nullptr) Throw(LSCOREDB_DAMAGED);
    visit(*row);
  }
}

// The snapshot's rows, in their pending form where the transaction changed them, and then the rows
// that it inserted, which no snapshot has.
template <typename Visit>
void IndexFiller::ScanRows(std::u16string const& setspec, Visit&& visit) {
  auto const visit_if_in_set = [&](RowRef const& row) {
    Cell const own = row.Setspec();
    if (row.deleted() || !own.present) return;
    Unpack(own.text(), text_);
    if (text_.starts_with(setspec)) visit(row);
  };
  Cursor cursor;
  cursor.Open(*state_.snapshot, Tree::kRows);
  for (bool on = cursor.First(); on; on = cursor.Next()) {
    work_.Advance();
    if (cursor.key().size() != sizeof(std::uint64_t)) Throw(LSCOREDB_DAMAGED);
    RowRef const* const row = reader_.FindRow(ObjectId{Load<std::uint64_t>(cursor.key().data())});
    if (row != nullptr) visit_if_in_set(*row);
  }
  state_.changes.ForEachRow([&](PendingRow const& row) {
    if (row.inserted()) visit_if_in_set(RefOf(row));
  });
}

void IndexFiller::Refuse(IndexDefinition const& index, PendingKey const& key, ObjectId holder) {
  state_.refused = {index.id, key.object, holder, ContractKey(key.encoded, index.key_columns)};
  Throw(LSCOREDB_DUPLICATE_KEY);
}

// Checks the pending entries against each other, which are neighbours in the map, and against the
// untouched ones. Null and not yet written columns collide with nothing.
void IndexFiller::CheckUnique(PendingIndex const& entries) {
  EntryCursor cursor;
  PendingKey const* last = nullptr;  // the last one that can collide
  for (auto const& [key, entry] : entries.map()) {
    work_.Linger();
    if (entry.facts.has_null || entry.facts.has_unwritten) continue;
    if (last != nullptr && last->encoded == key.encoded) {
      Refuse(entries.index(), key, last->object);
    }
    ObjectId const holder = FindOtherBelow(*state_.snapshot, cursor, entries, key);
    if (holder != kNoObject) Refuse(entries.index(), key, holder);
    last = &key;
  }
}

// Checks the untouched entries against each other. Equal keys are neighbours. An entry does not
// say whether its key has a null, which collides with nothing, so the row is read in that case.
void IndexFiller::CheckUntouchedUnique(PendingIndex const& entries) {
  KeyBytes key;
  EntryCursor cursor;
  cursor.Open(*entries.untouched(), entries.index());
  cursor.SeekFirst({});
  for (std::optional<Entry> last; cursor.valid(); cursor.Next()) {
    work_.Linger();
    Entry const& entry = cursor.entry();
    if (last.has_value() && Compare(last->key, entry.key) == 0) {
      RowRef const* const row = reader_.FindRow(entry.object);
      if (row == nullptr) Throw(LSCOREDB_DAMAGED);
      if (!encoder_.Encode(entries.index(), *row, key).has_null) {
        Refuse(entries.index(), {key, entry.object}, last->object);
      }
    }
    last = entry;
  }
}

}  // namespace lscore
