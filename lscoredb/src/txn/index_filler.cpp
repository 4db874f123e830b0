#include "index_filler.h"

#include <optional>

#include "bytes.h"
#include "keys.h"
#include "text.h"

namespace lscore {

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

// Through an index that is ordered by set specifier when there is one, else through all rows.
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
    if (by_set(*index) && !state_.changes.IsDropped(index->id)) return index;
  }
  return nullptr;
}

template <typename Visit>
void IndexFiller::ScanSetIndex(IndexDefinition const& index, std::u16string const& setspec,
                               Visit&& visit) {
  std::string prefix;
  AppendText(prefix, setspec, index.key_columns[0].descending);
  prefix.pop_back();  // without its end the text is a bound for all that begin with it
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

// Of the entries that were written, against one another and against the others.
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

// Equal ones are neighbours. They collide unless they have a null, which the row tells.
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
