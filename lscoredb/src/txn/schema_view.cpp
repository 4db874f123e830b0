#include "schema_view.h"

#include <algorithm>

#include "index_builds.h"

namespace lscore {

Layout const* SchemaView::FindLayout(LayoutNumber number) const {
  for (auto const& layout : state_.changes.layouts()) {
    if (layout->number() == number) return layout.get();
  }
  return state_.database->layouts().Find(*state_.snapshot, number);
}

std::vector<Layout const*> SchemaView::LayoutsOf(Token token) const {
  std::vector<Layout const*> found;
  for (auto const& layout : state_.changes.layouts()) {
    if (layout->token() == token) found.push_back(layout.get());
  }
  for (auto const& [order, number] : LayoutsOfToken(*state_.snapshot, token)) {
    Layout const* const layout = FindLayout(number);
    if (layout == nullptr) Throw(LSCOREDB_DAMAGED);
    found.push_back(layout);
  }
  std::sort(found.begin(), found.end(),
            [](Layout const* a, Layout const* b) { return a->order() > b->order(); });
  return found;
}

IndexDefinition const* SchemaView::FindIndex(IndexId id) {
  if (IndexDefinition const* const created = state_.changes.FindCreated(id)) return created;
  if (state_.changes.IsDropped(id)) return nullptr;
  if (AdoptedIndex const* const adopted = state_.changes.FindAdopted(id)) return adopted->as.get();
  IndexDefinition const* const index = catalogue().Find(*state_.snapshot, id);
  return index == nullptr || index->prepared() ? nullptr : index;
}

IndexDefinition const* SchemaView::FindReady(IndexDefinition const& like) {
  for (IndexBuild const& build : AllBuilds(*state_.snapshot)) {
    bool const taken =
        state_.changes.IsDropped(build.id) || state_.changes.FindAdopted(build.id) != nullptr;
    if (build.phase != BuildPhase::kReady || taken) continue;
    IndexDefinition const* const index = catalogue().Find(*state_.snapshot, build.id);
    if (index == nullptr) Throw(LSCOREDB_DAMAGED);
    if (index->IsLike(like)) return index;
  }
  return nullptr;
}

std::vector<IndexDefinition const*> SchemaView::IndexesOf(Token token) {
  std::vector<IndexDefinition const*> found;
  for (IndexId const id : IndexesOfToken(*state_.snapshot, token)) {
    if (IndexDefinition const* const index = FindIndex(id)) found.push_back(index);
  }
  for (auto const& index : state_.changes.created_indexes()) {
    if (index->token == token) found.push_back(index.get());
  }
  for (AdoptedIndex const& index : state_.changes.adopted_indexes()) {
    if (index.as->token == token && FindIndex(index.as->id) != nullptr) {
      found.push_back(index.as.get());
    }
  }
  std::sort(found.begin(), found.end(),
            [](IndexDefinition const* a, IndexDefinition const* b) { return a->id > b->id; });
  return found;
}

IndexCatalogue& SchemaView::catalogue() {
  if (catalogue_ == nullptr) catalogue_ = state_.database->catalogues().For(*state_.snapshot);
  return *catalogue_;
}

}  // namespace lscore
