#include "hierarchy/known_referrers.h"

#include <lscoredb/require.h>

#include <algorithm>

namespace sagleme {
namespace {

constexpr std::size_t kMost = 1000000;  // references that are kept of a column

std::uint64_t LastChange(Transaction const& transaction, Table const& table) {
  std::uint64_t commit = 0;
  detail::CheckKernel(lscoredb_set_changed(transaction.context(), table.setspec.c_str(), &commit));
  return commit;
}

}  // namespace

KnownReferrers::KnownReferrers(std::span<ObjectId const> objects) {
  objects_.reserve(objects.size());
  for (ObjectId const object : objects) objects_.push_back(object.value);
  std::sort(objects_.begin(), objects_.end());
}

void KnownReferrers::Find(Transaction& transaction, Table const& table, Column const& column,
                          ReferrerQuery const& query, std::vector<Referrer>& found) {
  Known& known = columns_[column.id.value];
  std::uint64_t const changed = LastChange(transaction, table);
  bool const holds = known.whole && known.setspec == table.setspec && known.changed == changed;
  if (!holds) {
    known = {table.setspec, changed, false, {}};
    Read(transaction, table, column, query, known, found);
    return;
  }
  for (ObjectId const target : query.objects) {
    auto at = std::lower_bound(known.references.begin(), known.references.end(),
                               Reference{target.value, 0});
    for (; at != known.references.end() && at->target == target.value; ++at) {
      auto const object = Object::Find(transaction, {at->object});
      if (object) AddIfItLeaves(*object, table, column, query, found);
    }
  }
}

void KnownReferrers::Read(Transaction& transaction, Table const& table, Column const& column,
                          ReferrerQuery const& query, Known& known,
                          std::vector<Referrer>& found) const {
  known.whole = true;
  for (Object const& object : Range::Subtree(transaction, table)) {
    auto const target = TargetOf(object, table, column);
    if (!target || !std::binary_search(objects_.begin(), objects_.end(), target->value)) continue;
    if (query.leaves(*target)) found.push_back({object.id(), table.name, column.name, *target});
    known.whole = known.whole && known.references.size() < kMost;
    if (known.whole) known.references.push_back({target->value, object.id().value});
  }
  if (!known.whole) known.references = {};
  std::sort(known.references.begin(), known.references.end());
}

}  // namespace sagleme
