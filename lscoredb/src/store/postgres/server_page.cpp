#include "server_page.h"

#include <algorithm>

#include "bytes.h"

namespace lscore {
namespace {

constexpr std::size_t kLargestPlain = 1024;  // larger values are not copied into the page
constexpr std::size_t kFullPage = 48 << 10;
constexpr std::uint16_t kElsewhere = 1;

}  // namespace

bool KeyLess(Tree tree, std::string_view a, std::string_view b) {
  if (tree != Tree::kRows) return a < b;
  return Load<std::uint64_t>(a.data()) < Load<std::uint64_t>(b.data());
}

ServerPage::ServerPage(Tree tree, Result rows, NumberedValues& numbers, std::size_t asked,
                       bool falling)
    : tree_(tree), asked_(asked), rows_(std::move(rows)) {
  std::size_t const count = rows_.size();
  numbers_.reserve(sizeof(std::uint64_t) * count);
  entries_.reserve(count);
  for (std::size_t n = 0; n < count; ++n) AddEntry(rows_, numbers, falling ? count - 1 - n : n);
}

ServerPage::ServerPage(Tree tree, Result const& rows, NumberedValues& numbers, std::size_t first,
                       std::size_t count, std::size_t asked)
    : tree_(tree), asked_(asked) {
  numbers_.reserve(sizeof(std::uint64_t) * count);
  entries_.reserve(count);
  for (std::size_t i = first; i < first + count; ++i) AddEntry(rows, numbers, i);
}

void ServerPage::AddEntry(Result const& rows, NumberedValues& numbers, std::size_t i) {
  std::string_view key = rows.Bytes(i, 0);
  if (tree_ == Tree::kRows) {
    numbers_ += ServerKey(tree_, key);
    key = std::string_view(numbers_).substr(numbers_.size() - sizeof(std::uint64_t));
  }
  entries_.push_back({key, numbers.Read(tree_, key, rows, i, 1)});
}

std::size_t ServerPage::LowerBound(std::string_view key) const {
  auto const at = std::lower_bound(
      entries_.begin(), entries_.end(), key,
      [this](KeyValue const& entry, std::string_view k) { return KeyLess(tree_, entry.key, k); });
  return static_cast<std::size_t>(at - entries_.begin());
}

// An entry is the size of its value, a flag, the size of its key, the key, and a small value
// itself; the offsets of the entries follow at the end of the page.
void ServerPage::BuildSlotted() const {
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    if (slotted_.empty() || slotted_.back().bytes.size() > kFullPage)
      slotted_.push_back({i, {}, {}});
    Slotted& page = slotted_.back();
    auto const& [key, value] = entries_[i];
    bool const plain = value.size() <= kLargestPlain;
    page.offsets.push_back(static_cast<std::uint16_t>(page.bytes.size()));
    Append(page.bytes, static_cast<std::uint32_t>(value.size()));
    Append(page.bytes, plain ? EntryPage::kPlain : kElsewhere);
    Append(page.bytes, static_cast<std::uint16_t>(key.size()));
    page.bytes += key;
    if (plain) page.bytes += value;
  }
  for (Slotted& page : slotted_) {
    for (std::uint16_t const offset : page.offsets) Append(page.bytes, offset);
  }
}

bool ServerPage::Enter(std::size_t i, EntryPage* page) const {
  if (slotted_.empty()) BuildSlotted();
  auto const after =
      std::upper_bound(slotted_.begin(), slotted_.end(), i,
                       [](std::size_t at, Slotted const& one) { return at < one.first; });
  Slotted const& found = *std::prev(after);
  std::size_t const slots = found.bytes.size() - 2 * found.offsets.size();
  return page->Enter(found.bytes.data(), found.bytes.size(), slots, found.offsets.size(),
                     found.offsets[i - found.first]);
}

}  // namespace lscore
