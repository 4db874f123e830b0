#include "page_builder.h"

#include <algorithm>
#include <array>
#include <utility>

#include "bytes.h"

namespace lscore {

// The same bytes as a page of the image: entries (size of the value, flags, size of the key, key,
// value), then their offsets in key order.
bool PageBuilder::Add(KeyValue const& entry) {
  std::string& bytes = page_.bytes;
  if (offsets_.size() >= kMostEntries || entry.value.size() > kLargestValue ||
      bytes.size() > kMostBytes) {
    return false;
  }
  if (offsets_.empty()) {
    offsets_.reserve(kMostEntries);
    bytes.reserve(kUsualBytes);
  }
  offsets_.push_back(static_cast<std::uint16_t>(bytes.size()));
  std::array<char, EntryPage::kEntryHead> head{};
  StoreAt(head.data(), static_cast<std::uint32_t>(entry.value.size()));
  StoreAt(head.data() + 4, EntryPage::kPlain);
  StoreAt(head.data() + 6, static_cast<std::uint16_t>(entry.key.size()));
  bytes.append(head.data(), head.size()).append(entry.key).append(entry.value);
  return true;
}

BuiltPage PageBuilder::Finish() {
  page_.slots = page_.bytes.size();
  page_.count = offsets_.size();
  if (!rising_) std::reverse(offsets_.begin(), offsets_.end());
  for (std::uint16_t const offset : offsets_) Append(page_.bytes, offset);
  return std::move(page_);
}

}  // namespace lscore
