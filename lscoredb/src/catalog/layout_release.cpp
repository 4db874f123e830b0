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

// A layout that stays keeps its base, that one's base, and so on.
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

// A layout goes when it was released, no object stands under it, and no layout that stays was made
// on it, directly or through others. So with A <- B <- C and D on B, all released but D, and no
// objects anywhere: C goes, A and B stay for D. The caller is alone with the database, so that no
// process knows the numbers that become free.
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
