#include "schema_editor.h"

#include <algorithm>
#include <utility>

namespace lscore {

// ---- layouts -----------------------------------------------------------------------------------

LayoutNumber SchemaEditor::CreateLayout(Token token, LayoutNumber base,
                                        std::vector<Column> const& columns) {
  std::vector<Column> all;
  if (base != kNoLayout) {
    Layout const* const inherited = schema_.FindLayout(base);
    if (inherited == nullptr) Throw(LSCOREDB_UNKNOWN_LAYOUT);
    for (std::uint32_t i = kFirstStoredColumn; i < inherited->column_count(); ++i) {
      all.push_back(inherited->column(i));
    }
  }
  all.insert(all.end(), columns.begin(), columns.end());
  LayoutOrder const order{kNotCommitted,
                          static_cast<std::uint32_t>(state_.changes.layouts().size())};
  Layout const checked(kNoLayout, base, token, order, all);  // throws before a number is used up
  LayoutNumber const number = state_.database->layout_numbers().Take(*state_.snapshot);
  state_.changes.AddLayout(std::make_unique<Layout const>(number, base, token, order, all));
  return number;
}

std::vector<LayoutNumber> SchemaEditor::UsedLayouts() {
  std::vector<LayoutNumber> numbers = AllLayouts(*state_.snapshot);
  for (auto const& layout : state_.changes.layouts()) numbers.push_back(layout->number());
  std::sort(numbers.begin(), numbers.end());
  std::erase_if(numbers, [this](LayoutNumber number) {
    bool const released =
        state_.changes.released_layouts().contains(number) || IsReleased(*state_.snapshot, number);
    return released && CountObjects(number) == 0;
  });
  return numbers;
}

// Only marks the layout. It is removed when the database is next opened by a process that is alone
// with it (layout_release.h), unless an object or another layout came to use it meanwhile.
Status SchemaEditor::ReleaseLayout(LayoutNumber number) {
  if (schema_.FindLayout(number) == nullptr) return LSCOREDB_UNKNOWN_LAYOUT;
  if (CountObjects(number) != 0) return LSCOREDB_LAYOUT_IN_USE;
  if (!IsReleased(*state_.snapshot, number)) state_.changes.ReleaseLayout(number);
  return LORV_STATUS_OK;
}

// The count of the snapshot, corrected by the rows of the write set.
std::uint64_t SchemaEditor::CountObjects(LayoutNumber number) {
  std::uint64_t count = ReadCount(*state_.snapshot, number).objects;
  state_.changes.ForEachRow([&](PendingRow const& row) {
    if (!row.inserted() && row.original_layout->number() == number) --count;
    if (!row.deleted && row.layout->number() == number) ++count;
  });
  return count;
}

void SchemaEditor::CloseSet(std::u16string_view setspec, bool empty) {
  if (!schema_.IsClosed(setspec)) state_.changes.CloseSet(setspec, empty);
}

// ---- indexes -----------------------------------------------------------------------------------

// Adopts a prepared index if one is ready. Otherwise the index is filled before the write set knows
// it, so a duplicate leaves nothing behind but a used id.
IndexId SchemaEditor::CreateIndex(std::unique_ptr<IndexDefinition> index) {
  if (IndexDefinition const* const ready = schema_.FindReady(*index)) {
    index->id = ready->id;
    index->Prepare();
    state_.changes.AdoptIndex({ready, std::move(index)});
    return ready->id;
  }
  IndexId const id{state_.NextId()};
  ++state_.ids.next;
  index->id = id;
  index->Prepare();
  auto entries = std::make_unique<PendingIndex>(*index, false, state_.changes.arena());
  filler_.Fill(*entries);
  state_.changes.CreateIndex(std::move(index), std::move(entries));
  return id;
}

Status SchemaEditor::DropIndex(IndexId id) {
  IndexDefinition const* const index = schema_.FindIndex(id);
  if (index == nullptr) return LORV_STATUS_NO_INDEX;
  AdoptedIndex const* const adopted = state_.changes.FindAdopted(id);
  state_.changes.DropIndex(adopted == nullptr ? *index : *adopted->prepared);
  return LORV_STATUS_OK;
}

}  // namespace lscore
