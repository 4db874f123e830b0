#include "fetch_rows.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <vector>

#include "bytes.h"

namespace lscore {
namespace {

constexpr std::size_t kMostTogether = 8192;

bool IsAtHand(ScanSource const& source, ObjectId id) {
  return id == kNoObject || source.rows->Find(id) != nullptr ||
         source.shared_rows->Find(id) != nullptr;
}

// A single row is as well fetched when it is read.
std::size_t FetchFromServer(ScanSource const& source, std::span<std::uint64_t const> ids) {
  std::vector<std::string_view> keys;
  for (std::uint64_t const& id : ids) {
    if (!IsAtHand(source, ObjectId{id})) keys.push_back(BytesOf(id));
  }
  if (keys.size() < 2) return 0;
  std::vector<std::optional<std::string_view>> rows(keys.size());
  source.snapshot->GetMany(Tree::kRows, keys, rows);
  return keys.size();
}

}  // namespace

std::size_t FetchRows(ScanSource const& source, std::span<std::uint64_t const> ids) {
  if (source.far) {
    std::size_t asked = 0;
    for (; !ids.empty(); ids = ids.subspan(std::min(ids.size(), kMostTogether))) {
      asked += FetchFromServer(source, ids.first(std::min(ids.size(), kMostTogether)));
    }
    return asked;
  }
  for (std::uint64_t const id : ids) source.shared_rows->PrefetchSlot(ObjectId{id});
  for (std::uint64_t const id : ids) source.shared_rows->FetchRow(ObjectId{id});
  return 0;
}

}  // namespace lscore
