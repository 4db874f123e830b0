#include "data/new_ids.h"

#include <algorithm>

namespace sagleme {

void NewIds::Add(std::uint64_t old) {
  if (!runs_.empty() && runs_.back().old_first + runs_.back().count == old) {
    ++runs_.back().count;
  } else {
    runs_.push_back({old, next_, 1});
  }
  ++next_;
}

void NewIds::Finish() {
  std::sort(runs_.begin(), runs_.end(),
            [](Run const& a, Run const& b) { return a.old_first < b.old_first; });
}

ObjectId NewIds::Find(std::uint64_t old) const {
  auto const after =
      std::upper_bound(runs_.begin(), runs_.end(), old,
                       [](std::uint64_t wanted, Run const& run) { return wanted < run.old_first; });
  if (after == runs_.begin()) return {};
  Run const& run = *std::prev(after);
  return {old - run.old_first < run.count ? run.new_first + (old - run.old_first) : 0};
}

}  // namespace sagleme
