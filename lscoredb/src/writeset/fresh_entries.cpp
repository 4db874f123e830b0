#include "fresh_entries.h"

#include <algorithm>
#include <functional>

namespace lscore {
namespace {

constexpr std::size_t kFirstSlots = 64;

std::uint64_t HashOf(PendingKey const& key) { return std::hash<std::string_view>()(key.encoded); }

std::uint32_t PartOf(std::uint64_t hash) { return static_cast<std::uint32_t>(hash >> 32); }

}  // namespace

void FreshEntries::Add(PendingKey const& key, PendingEntry const& entry) {
  items_.push_back({key, entry});
  if (searchable_) NoteKey(items_.size() - 1);
}

// The slots go too: filling them with zeros would cost as much as the largest number of items ever,
// each time.
void FreshEntries::Clear() {
  items_.clear();
  order_.clear();
  slots_.clear();
}

// Keeps at least half of the slots free, so that probing ends soon.
void FreshEntries::NoteKey(std::size_t item) {
  if (2 * (item + 1) <= slots_.size()) return Fill(item);
  slots_.assign(std::max(kFirstSlots, 2 * slots_.size()), Slot{});
  for (std::size_t i = 0; i <= item; ++i) Fill(i);
}

void FreshEntries::Fill(std::size_t item) {
  std::uint64_t const hash = HashOf(items_[item].key);
  std::size_t at = Home(hash);
  while (slots_[at].item != 0) at = (at + 1) & (slots_.size() - 1);
  slots_[at] = {PartOf(hash), static_cast<std::uint32_t>(item + 1)};
}

ObjectId FreshEntries::FindOther(PendingKey const& key, bool count_unwritten) const {
  if (empty()) return kNoObject;
  std::uint64_t const hash = HashOf(key);
  for (std::size_t at = Home(hash); slots_[at].item != 0; at = (at + 1) & (slots_.size() - 1)) {
    if (slots_[at].hash != PartOf(hash)) continue;
    Item const& item = items_[slots_[at].item - 1];
    bool const counts = count_unwritten || !item.entry.facts.has_unwritten;
    if (counts && item.key.object != key.object && item.key.encoded == key.encoded) {
      return item.key.object;
    }
  }
  return kNoObject;
}

void FreshEntries::Sort() {
  order_.clear();
  order_.reserve(items_.size());
  for (std::size_t i = 0; i < items_.size(); ++i) order_.push_back({items_[i].key.head, i});
  std::sort(order_.begin(), order_.end(), [this](SortKey const& a, SortKey const& b) {
    if (a.head != b.head) return a.head < b.head;
    return PendingKeyLess()(items_[a.item].key, items_[b.item].key);
  });
}

}  // namespace lscore
