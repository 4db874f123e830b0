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

bool FreshEntries::IsSorted() const {
  return std::is_sorted(items_.begin(), items_.end(), [](Item const& a, Item const& b) {
    return PendingKeyLess()(a.key, b.key);
  });
}

// The number of bytes that all keys begin with.
std::size_t FreshEntries::SharedSize() const {
  std::string_view shared = items_.front().key.encoded;
  for (Item const& item : items_) {
    std::string_view const key = item.key.encoded;
    if (key.starts_with(shared)) continue;
    auto const differs = std::mismatch(shared.begin(), shared.end(), key.begin(), key.end());
    shared = shared.substr(0, static_cast<std::size_t>(differs.first - shared.begin()));
  }
  return shared.size();
}

FreshEntries::SortKey FreshEntries::SortKeyOf(PendingKey const& key, std::size_t shared,
                                              std::size_t item) {
  std::string_view const rest = key.encoded.substr(shared);
  std::string_view const behind = rest.substr(std::min(rest.size(), sizeof(std::uint64_t)));
  return {PendingKey::HeadOf(rest), PendingKey::HeadOf(behind), key.object,
          static_cast<std::uint32_t>(item),
          static_cast<std::uint32_t>(std::min<std::size_t>(rest.size(), kLong))};
}

// Keys of which both are short and have equal numbers are equal as far as the shorter one goes.
// Entries that all have one key, or are added in the order of the index, are found in order.
void FreshEntries::Sort() {
  order_.clear();
  order_.reserve(items_.size());
  bool const sorted = IsSorted();
  std::size_t const shared = sorted ? 0 : SharedSize();
  for (std::size_t i = 0; i < items_.size(); ++i) {
    order_.push_back(SortKeyOf(items_[i].key, shared, i));
  }
  if (sorted) return;
  std::sort(order_.begin(), order_.end(), [this](SortKey const& a, SortKey const& b) {
    if (a.first != b.first) return a.first < b.first;
    if (a.second != b.second) return a.second < b.second;
    if (a.size == kLong || b.size == kLong) {
      return PendingKeyLess()(items_[a.item].key, items_[b.item].key);
    }
    return a.size != b.size ? a.size < b.size : a.object < b.object;
  });
}

}  // namespace lscore
