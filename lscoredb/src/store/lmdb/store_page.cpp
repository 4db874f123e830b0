#include "store_page.h"

#include "bytes.h"

namespace lscore::pages {
namespace {

bool KeyHolds(std::uint16_t key_kind, std::string_view key) {
  return key_kind == kIntegerKeys ? key.size() == sizeof(std::uint64_t)
                                  : !key.empty() && key.size() <= kMaxKey;
}

}  // namespace

std::uint16_t Page::Short(std::size_t at) const {
  return lscore::Load<std::uint16_t>(bytes_.data() + at);
}

char const* Page::Load(std::uint64_t number, std::size_t page_size, bool leaf,
                       std::string_view bytes) {
  bytes_ = bytes;
  leaf_ = leaf;
  if (bytes_.size() < page_size) return "the file ends before it";
  if (lscore::Load<std::uint64_t>(bytes_.data()) != number) return "it bears another number";
  if (Short(10) != (leaf ? kLeaf : kBranch)) return "it is of another kind";
  std::size_t const lower = Short(12);
  std::size_t const upper = Short(14);
  if (lower < kPageHead || lower % 2 != 0 || upper < lower || upper > page_size) {
    return "its head contradicts itself";
  }
  count_ = (lower - kPageHead) / 2;
  std::size_t used = 0;
  for (std::size_t i = 0; i < count_; ++i) {
    std::size_t const size = Offset(i) < upper ? 0 : NodeSize(Offset(i));
    if (size == 0) return "an entry lies outside of it";
    used += size;
  }
  return used == page_size - upper ? nullptr : "its entries overlap";
}

void Page::Reload(bool leaf, std::string_view bytes) {
  bytes_ = bytes;
  leaf_ = leaf;
  count_ = (Short(12) - kPageHead) / 2;
}

std::size_t Page::NodeSize(std::size_t at) const {
  if (at % 2 != 0 || at + kNodeHead > bytes_.size()) return 0;
  std::uint64_t size = kNodeHead + std::uint64_t{Short(at + 6)};
  if (leaf_) {
    bool const on_overflow = (Short(at + 4) & kValueOnOverflow) != 0;
    size += on_overflow ? sizeof(std::uint64_t) : lscore::Load<std::uint32_t>(bytes_.data() + at);
  }
  return at + size > bytes_.size() ? 0 : static_cast<std::size_t>(size + size % 2);
}

Node Page::At(std::size_t i) const {
  char const* const at = bytes_.data() + Offset(i);
  Node node;
  node.key = {at + kNodeHead, lscore::Load<std::uint16_t>(at + 6)};
  if (leaf_) {
    node.value_kind = lscore::Load<std::uint16_t>(at + 4);
    node.value_size = lscore::Load<std::uint32_t>(at);
    node.value = at + kNodeHead + node.key.size();
  } else {
    node.child =
        lscore::Load<std::uint32_t>(at) | std::uint64_t{lscore::Load<std::uint16_t>(at + 4)} << 32;
  }
  return node;
}

bool IsBelow(std::uint16_t key_kind, std::string_view a, std::string_view b) {
  if (key_kind != kIntegerKeys) return a < b;
  return Load<std::uint64_t>(a.data()) < Load<std::uint64_t>(b.data());
}

// The first key of a branch page is ignored: its child has everything below the second key.
bool KeysHold(Page const& page, bool leaf, std::uint16_t key_kind, Bounds bounds) {
  std::string_view before;
  for (std::size_t i = leaf ? 0 : 1; i < page.count(); ++i) {
    std::string_view const key = page.At(i).key;
    if (!KeyHolds(key_kind, key)) return false;
    if (!before.empty() && !IsBelow(key_kind, before, key)) return false;
    if (before.empty() && !bounds.low.empty() && IsBelow(key_kind, key, bounds.low)) return false;
    before = key;
  }
  return before.empty() || bounds.high.empty() || IsBelow(key_kind, before, bounds.high);
}

}  // namespace lscore::pages
