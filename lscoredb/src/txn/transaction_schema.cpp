#include <algorithm>

#include "transaction.h"

namespace lscore {

// ---- layouts -----------------------------------------------------------------------------------

Layout const* Transaction::FindLayout(LayoutNumber number) {
  for (auto const& layout : changes_.layouts()) {
    if (layout->number() == number) return layout.get();
  }
  return database_->layouts().Find(*snapshot_, number);
}

LayoutNumber Transaction::CreateLayout(Token token, LayoutNumber base,
                                       std::vector<Column> const& columns) {
  std::vector<Column> all;
  if (base != kNoLayout) {
    Layout const* const inherited = FindLayout(base);
    if (inherited == nullptr) Throw(LSCOREDB_UNKNOWN_LAYOUT);
    for (std::uint32_t i = kFirstStoredColumn; i < inherited->column_count(); ++i) {
      all.push_back(inherited->column(i));
    }
  }
  all.insert(all.end(), columns.begin(), columns.end());
  LayoutOrder const order{kNotCommitted, static_cast<std::uint32_t>(changes_.layouts().size())};
  Layout const checked(kNoLayout, base, token, order, all);  // before a number is used up
  LayoutNumber const number = database_->layout_numbers().Take(*snapshot_);
  changes_.AddLayout(std::make_unique<Layout const>(number, base, token, order, all));
  return number;
}

std::vector<Layout const*> Transaction::LayoutsOf(Token token) {
  std::vector<Layout const*> found;
  for (auto const& layout : changes_.layouts()) {
    if (layout->token() == token) found.push_back(layout.get());
  }
  for (auto const& [order, number] : LayoutsOfToken(*snapshot_, token)) {
    Layout const* const layout = FindLayout(number);
    if (layout == nullptr) Throw(LSCOREDB_DAMAGED);
    found.push_back(layout);
  }
  std::sort(found.begin(), found.end(),
            [](Layout const* a, Layout const* b) { return a->order() > b->order(); });
  return found;
}

std::vector<LayoutNumber> Transaction::UsedLayouts() {
  std::vector<LayoutNumber> numbers = AllLayouts(*snapshot_);
  for (auto const& layout : changes_.layouts()) numbers.push_back(layout->number());
  std::sort(numbers.begin(), numbers.end());
  std::erase_if(numbers, [this](LayoutNumber number) {
    bool const released =
        changes_.released_layouts().contains(number) || IsReleased(*snapshot_, number);
    return released && CountObjects(number) == 0;
  });
  return numbers;
}

// What comes under the layout later, or is made on it, is found when it is to be taken away.
Status Transaction::ReleaseLayout(LayoutNumber number) {
  if (FindLayout(number) == nullptr) return LSCOREDB_UNKNOWN_LAYOUT;
  if (CountObjects(number) != 0) return LSCOREDB_LAYOUT_IN_USE;
  if (!IsReleased(*snapshot_, number)) changes_.ReleaseLayout(number);
  return LORV_STATUS_OK;
}

std::uint64_t Transaction::CountObjects(LayoutNumber number) {
  std::uint64_t count = ReadCount(*snapshot_, number).objects;
  changes_.ForEachRow([&](PendingRow const& row) {
    if (!row.inserted() && row.original_layout->number() == number) --count;
    if (!row.deleted && row.layout->number() == number) ++count;
  });
  return count;
}

void Transaction::CloseSet(std::u16string_view setspec, bool empty) {
  if (changes_.IsClosed(setspec) || known_open_.IsClosed(*snapshot_, setspec)) return;
  changes_.CloseSet(setspec, empty);
}

// ---- indexes -----------------------------------------------------------------------------------

IndexDefinition const* Transaction::FindIndex(IndexId id) {
  if (IndexDefinition const* const created = changes_.FindCreated(id)) return created;
  if (changes_.IsDropped(id)) return nullptr;
  return catalogue().Find(*snapshot_, id);
}

std::vector<IndexDefinition const*> Transaction::IndexesOf(Token token) {
  std::vector<IndexDefinition const*> found;
  for (IndexId const id : IndexesOfToken(*snapshot_, token)) {
    if (IndexDefinition const* const index = FindIndex(id)) found.push_back(index);
  }
  for (auto const& index : changes_.created_indexes()) {
    if (index->token == token) found.push_back(index.get());
  }
  std::sort(found.begin(), found.end(),
            [](IndexDefinition const* a, IndexDefinition const* b) { return a->id > b->id; });
  return found;
}

IndexId Transaction::CreateIndex(std::unique_ptr<IndexDefinition> index) {
  if (ids_.empty()) ids_ = database_->ids().Take();
  IndexId const id{ids_.next++};
  index->id = id;
  index->Prepare();
  auto entries = std::make_unique<PendingIndex>(*index, false, changes_.arena());
  FillIndex(*entries);
  if (index->unique()) CheckFilled(*entries);
  changes_.CreateIndex(std::move(index), std::move(entries));
  return id;
}

Status Transaction::DropIndex(IndexId id) {
  IndexDefinition const* const index = FindIndex(id);
  if (index == nullptr) return LORV_STATUS_NO_INDEX;
  changes_.DropIndex(*index);
  return LORV_STATUS_OK;
}

// ---- filling a new index -----------------------------------------------------------------------

void Transaction::FillIndex(PendingIndex& entries) {
  KeyBytes key;
  ++now_;
  ForEachObjectOfSet(entries.index().setspec, [&](RowRef const& row) {
    KeyFacts const facts = encoder_.Encode(entries.index(), row, key);
    if (row.pending != nullptr) {
      entries.Add({key, row.id}, facts, false, now_, false);
    } else {
      entries.AddUntouched({key, row.id}, facts, row.layout->number(), now_);
    }
  });
}

// Through an index that is ordered by set specifier when there is one, else through all rows.
template <typename Visit>
void Transaction::ForEachObjectOfSet(std::u16string const& setspec, Visit&& visit) {
  if (IndexDefinition const* const index = FindSetIndex(setspec)) {
    WalkSetIndex(*index, setspec, visit);
  } else {
    ScanRows(setspec, visit);
  }
}

IndexDefinition const* Transaction::FindSetIndex(std::u16string const& setspec) {
  auto const by_set = [](IndexDefinition const& index) {
    return !index.columns.empty() && index.columns[0].token == Token{LORV_TOKEN_SETSPEC};
  };
  for (auto const& index : changes_.created_indexes()) {
    if (by_set(*index) && index->Covers(setspec)) return index.get();
  }
  for (IndexDefinition const* const index : catalogue().Covering(*snapshot_, setspec)) {
    if (by_set(*index) && !changes_.IsDropped(index->id)) return index;
  }
  return nullptr;
}

template <typename Visit>
void Transaction::WalkSetIndex(IndexDefinition const& index, std::u16string const& setspec,
                               Visit&& visit) {
  std::string prefix;
  AppendText(prefix, setspec, index.key_columns[0].descending);
  prefix.pop_back();  // without its end the text is a bound for all that begin with it
  Iterator scan;
  scan.SetPrefix(prefix);
  scan.Start(SourceOfScans(), index);
  ObjectId object{};
  LayoutNumber layout{};
  for (;;) {
    Check(scan.Next(&object, &layout));
    if (object == kNoObject) return;
    RowRef const* const row = FindRow(object);
    if (row == nullptr) Throw(LSCOREDB_DAMAGED);
    visit(*row);
  }
}

template <typename Visit>
void Transaction::ScanRows(std::u16string const& setspec, Visit&& visit) {
  auto const visit_if_in_set = [&](RowRef const& row) {
    Cell const own = row.Setspec();
    if (row.deleted() || !own.present) return;
    Unpack(own.text(), text_);
    if (text_.starts_with(setspec)) visit(row);
  };
  Cursor cursor;
  cursor.Open(*snapshot_, Tree::kRows);
  for (bool on = cursor.First(); on; on = cursor.Next()) {
    if (cursor.key().size() != sizeof(std::uint64_t)) Throw(LSCOREDB_DAMAGED);
    RowRef const* const row = FindRow(ObjectId{Load<std::uint64_t>(cursor.key().data())});
    if (row != nullptr) visit_if_in_set(*row);
  }
  changes_.ForEachRow([&](PendingRow const& row) {
    if (row.inserted()) visit_if_in_set(RefOf(row));
  });
}

void Transaction::CheckFilled(PendingIndex const& entries) const {
  PendingKey const* last = nullptr;  // the last one that can collide
  for (auto const& [key, entry] : entries.map()) {
    if (entry.facts.has_null || entry.facts.has_unwritten) continue;
    if (last != nullptr && last->encoded == key.encoded) Throw(LSCOREDB_DUPLICATE_KEY);
    last = &key;
  }
}

}  // namespace lscore
