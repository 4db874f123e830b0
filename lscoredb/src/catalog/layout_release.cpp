#include "layout_release.h"

#include <map>
#include <set>

#include "definitions.h"

namespace lscore {
namespace {

std::set<LayoutNumber> ReleasedAndEmpty(View const& view) {
  std::set<LayoutNumber> unused;
  for (LayoutNumber const number : ReleasedLayouts(view)) {
    if (ReadCount(view, number).objects == 0) unused.insert(number);
  }
  return unused;
}

// Removes from `unused` all layouts that a remaining one is based on, directly or through others.
void KeepBases(View const& view, std::set<LayoutNumber>& unused) {
  std::map<LayoutNumber, LayoutNumber> const bases = LayoutBases(view);
  auto const base_of = [&](LayoutNumber number) {
    auto const found = bases.find(number);
    return found == bases.end() ? kNoLayout : found->second;
  };
  for (auto const& [number, base] : bases) {
    if (unused.contains(number)) continue;
    LayoutNumber kept = base;
    while (unused.erase(kept) != 0) kept = base_of(kept);
  }
}

}  // namespace

// A layout is removed if it was released, no object uses it, and no remaining layout is based on
// it, directly or through others. With A <- B <- C and D on B, all released but D, and no objects:
// C is removed, A and B stay for D. The caller is alone with the database, so no process knows the
// numbers that become free.
std::vector<LayoutNumber> CollectLayouts(Store& store) {
  std::unique_ptr<Batch> const batch = store.BeginBatch();
  std::set<LayoutNumber> unused = ReleasedAndEmpty(*batch);
  if (unused.empty()) return {};
  KeepBases(*batch, unused);
  if (unused.empty()) return {};
  for (LayoutNumber const number : unused) DeleteLayout(*batch, number);
  batch->Commit();
  return {unused.begin(), unused.end()};
}

}  // namespace lscore
