#include "many_values.h"

#include <lscoredb/bulk.h>

#include <algorithm>
#include <array>

#include "text.h"

namespace lscore {
namespace {

constexpr std::size_t kKept = 65536;  // bytes of memory for the next transaction
constexpr TypeSet kFixedTypes = TypeBit(LORV_TYPE_LONG) | TypeBit(LORV_TYPE_ULONG) |
                                TypeBit(LORV_TYPE_DECIMAL) | TypeBit(LORV_TYPE_FLOAT) |
                                TypeBit(LORV_TYPE_DOUBLE) | TypeBit(LORV_TYPE_REFERENCE) |
                                TypeBit(LORV_TYPE_KEY);
constexpr TypeSet kTexts = TypeBit(LORV_TYPE_STRING);
constexpr TypeSet kBinaries = TypeBit(LORV_TYPE_BINARY);

// Turns what an object's read returned into its state. Returns what the whole call fails with.
Status Settle(Status status, std::uint8_t* state) {
  bool const gone = status == LORV_STATUS_NO_OBJECT || status == LORV_STATUS_UNREACHABLE;
  bool const null = status == LORV_STATUS_NULL;
  *state = gone ? LSCOREDB_IS_GONE : null ? LSCOREDB_IS_NULL : LSCOREDB_HAS_VALUE;
  return gone || null ? LORV_STATUS_OK : status;
}

std::span<std::uint64_t const> Ahead(std::span<std::uint64_t const> ids, std::size_t from,
                                     std::size_t most) {
  return ids.subspan(from, std::min(most, ids.size() - from));
}

}  // namespace

// Rows that were found stay valid as long as the snapshot, but the transaction may have written
// newer ones.
CachedRow const* const* ManyValues::FindRows(std::span<std::uint64_t const> ids) {
  bool const same = found_count_ == ids.size() && !reader_.has_written() &&
                    std::equal(ids.begin(), ids.end(), found_ids_.begin());
  if (same) return found_.data();
  found_count_ = 0;
  reader_.FindMany(ids, found_.data());
  if (reader_.has_written()) return found_.data();
  std::copy(ids.begin(), ids.end(), found_ids_.begin());
  found_count_ = ids.size();
  return found_.data();
}

Status ManyValues::Words(std::span<std::uint64_t const> ids, LayoutNumber as, std::uint32_t column,
                         std::uint64_t* values, std::uint8_t* states) {
  CachedRow const* const* rows = nullptr;
  for (std::size_t i = 0; i < ids.size(); ++i) {
    if (i % kTogether == 0) rows = FindRows(Ahead(ids, i, kTogether));
    CachedRow const* const row = rows[i % kTogether];
    values[i] = 0;
    Status status = row != nullptr
                        ? reader_.ReadFixedOf(*row, as, column, kFixedTypes, &values[i])
                        : reader_.ReadFixed(ObjectId{ids[i]}, as, column, kFixedTypes, &values[i]);
    status = Settle(status, &states[i]);
    if (status != LORV_STATUS_OK) return status;
  }
  return LORV_STATUS_OK;
}

Status ManyValues::Bytes(std::span<std::uint64_t const> ids, LayoutNumber as, std::uint32_t column,
                         std::uint64_t* offsets, std::uint8_t* states) {
  if (ids.empty()) buffer_ = std::string();
  buffer_.clear();
  kind_ = Kind::kUnknown;
  offsets[0] = 0;
  for (std::size_t i = 0; i < ids.size(); ++i) {
    if (i % kTogether == 0) reader_.Fetch(Ahead(ids, i, kTogether));
    Status const status = NextBytes(ObjectId{ids[i]}, as, column, &states[i]);
    if (status != LORV_STATUS_OK) return status;
    offsets[i + 1] = buffer_.size();
  }
  return LORV_STATUS_OK;
}

// The column's type may only be asked of one that the layout has: first as a text, then as a binary
// value. Objects of several layouts may have both kinds, which cannot share a buffer.
Status ManyValues::NextBytes(ObjectId id, LayoutNumber as, std::uint32_t column,
                             std::uint8_t* state) {
  Cell cell;
  Status status = reader_.Read(id, as, column, kTexts, &cell);
  bool const is_text = status != LSCOREDB_WRONG_TYPE;
  if (!is_text) status = reader_.Read(id, as, column, kBinaries, &cell);
  if (status == LORV_STATUS_OK) {
    Kind const kind = is_text ? Kind::kText : Kind::kBinary;
    if (kind_ != Kind::kUnknown && kind_ != kind) return LSCOREDB_WRONG_TYPE;
    kind_ = kind;
    Append(cell, is_text);
  }
  return Settle(status, state);
}

void ManyValues::Append(Cell const& cell, bool is_text) {
  if (!is_text) {
    buffer_.append(cell.bytes());
    return;
  }
  PackedText const text = cell.text();
  std::size_t const at = buffer_.size();
  buffer_.resize(at + UnitCount(text) * sizeof(char16_t));
  Unpack(text, reinterpret_cast<char16_t*>(buffer_.data() + at));
}

void ManyValues::Clear() noexcept {
  found_count_ = 0;
  if (buffer_.capacity() > kKept) buffer_ = std::string();
}

}  // namespace lscore
