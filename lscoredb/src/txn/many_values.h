#ifndef LSCOREDB_SRC_MANY_VALUES_H
#define LSCOREDB_SRC_MANY_VALUES_H

// Reads one column of many objects. Rows are looked for together, before the first of them is read,
// and kept for the next call, which is often for another column of the same objects. One thread at
// a time.

#include <array>
#include <cstdint>
#include <span>
#include <string>

#include "row_reader.h"
#include "status.h"

namespace lscore {

class ManyValues {
 public:
  explicit ManyValues(RowReader& reader) : reader_(reader) {}

  // Of a fixed column. `values` and `states` have an entry for each object; the states are those of
  // lscoredb/bulk.h.
  Status Words(std::span<std::uint64_t const> ids, LayoutNumber as, std::uint32_t column,
               std::uint64_t* values, std::uint8_t* states);
  // Of a variable column. Fills buffer(); value i lies from offsets[i] to offsets[i + 1].
  Status Bytes(std::span<std::uint64_t const> ids, LayoutNumber as, std::uint32_t column,
               std::uint64_t* offsets, std::uint8_t* states);
  // Valid until the next call of Bytes, or Clear.
  char const* buffer() const { return buffer_.data(); }
  // Forgets rows, and frees a buffer that is larger than usual.
  void Clear() noexcept;

 private:
  enum class Kind { kUnknown, kText, kBinary };
  static constexpr std::size_t kTogether = 256;  // objects whose rows are looked for together

  CachedRow const* const* FindRows(std::span<std::uint64_t const> ids);
  Status NextBytes(ObjectId id, LayoutNumber as, std::uint32_t column, std::uint8_t* state);
  void Append(Cell const& cell, bool is_text);

  RowReader& reader_;
  std::array<std::uint64_t, kTogether> found_ids_;  // of the rows found last
  std::array<CachedRow const*, kTogether> found_;
  std::size_t found_count_ = 0;
  std::string buffer_;
  Kind kind_ = Kind::kUnknown;  // of the values in the buffer
};

}  // namespace lscore

#endif
