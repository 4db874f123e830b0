#include "numbered_values.h"

#include <algorithm>

#include "bytes.h"
#include "checksummed_record.h"
#include "crc32c.h"
#include "format.h"

namespace lscore {
namespace {

constexpr std::size_t kNumberSize = sizeof(std::uint64_t);

std::size_t NumberOffset(Tree tree) { return tree == Tree::kRows ? format::kCommitOffset : 0; }

bool IsLargeEnough(Tree tree, std::string_view value) {
  return value.size() >=
         NumberOffset(tree) + kNumberSize + (tree == Tree::kMeta ? kChecksumSize : 0);
}

std::uint32_t ExtendByZeros(std::uint32_t checksum, std::size_t count) {
  static std::string const zeros(4096, '\0');
  for (; count > zeros.size(); count -= zeros.size()) checksum = Crc32cExtend(checksum, zeros);
  return Crc32cExtend(checksum, std::string_view(zeros).substr(0, count));
}

// By how much the checksum of a row changes. That covers what only its layout tells, so it cannot
// be computed anew; but it is linear: two values of one length differ in it by what the checksum of
// their difference, which is zero but for the number, differs from that of nothing but zeros.
std::uint32_t ChecksumChange(std::uint64_t difference, std::size_t behind) {
  return ExtendByZeros(Crc32cExtend(0, BytesOf(difference)), behind) ^
         ExtendByZeros(0, kNumberSize + behind);
}

std::string RenumberedRow(std::string_view value, std::uint64_t number) {
  std::string row(value);
  std::size_t const at = format::kCommitOffset;
  std::uint64_t const difference = Load<std::uint64_t>(row.data() + at) ^ number;
  std::uint32_t const checksum = Load<std::uint32_t>(row.data() + format::kCrcOffset);
  StoreAt(row.data() + at, number);
  StoreAt(row.data() + format::kCrcOffset,
          checksum ^ ChecksumChange(difference, row.size() - at - kNumberSize));
  return row;
}

}  // namespace

std::string ServerKey(Tree tree, std::string_view key) {
  return tree == Tree::kRows ? std::string(key.rbegin(), key.rend()) : std::string(key);
}

bool HoldsNumber(Tree tree, std::string_view key) {
  if (tree == Tree::kRows) return true;
  if (tree != Tree::kMeta || key.empty()) return false;
  return key.front() == format::kCountLetter || key.front() == format::kSetChangeLetter ||
         key == format::kIndexesKey || key == format::kClosingsKey || key == format::kNextIdKey;
}

std::uint64_t NumberIn(Tree tree, std::string_view key, std::string_view value) {
  if (!HoldsNumber(tree, key) || !IsLargeEnough(tree, value)) return 0;
  return Load<std::uint64_t>(value.data() + NumberOffset(tree));
}

// A record whose checksum is wrong stays as it is, so that it is found.
std::string Renumbered(Tree tree, std::string_view key, std::string_view value,
                       std::uint64_t number) {
  if (tree == Tree::kRows) return RenumberedRow(value, number);
  std::string record(value);
  if (!HasValidChecksum(key, record)) return record;
  record.resize(record.size() - kChecksumSize);
  StoreAt(record.data(), number);
  AppendChecksum(key, record);
  return record;
}

std::string_view NumberedValues::Read(Tree tree, std::string_view key, Result const& reply,
                                      std::size_t row, std::size_t column) {
  std::string_view const value = reply.Bytes(row, column);
  if (!numbered_ || !HoldsNumber(tree, key) || !IsLargeEnough(tree, value)) return value;
  std::size_t const last = reply.columns() - 1;
  if (reply.IsNull(row, last)) return value;
  std::uint64_t const number = reply.Number(row, last);
  if (number == NumberIn(tree, key, value)) return value;
  return corrected_.emplace_back(Renumbered(tree, key, value, number));
}

}  // namespace lscore
