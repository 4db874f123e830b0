#ifndef LSCOREDB_SRC_MANY_VALUES_H
#define LSCOREDB_SRC_MANY_VALUES_H

// Reads one column of many objects. Rows are looked for together, before the first of them is read.
// One thread at a time.

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
  // Frees a buffer that is larger than usual.
  void Clear() noexcept;

 private:
  enum class Kind { kUnknown, kText, kBinary };

  Status NextBytes(ObjectId id, LayoutNumber as, std::uint32_t column, std::uint8_t* state);
  void Append(Cell const& cell, bool is_text);

  RowReader& reader_;
  std::string buffer_;
  Kind kind_ = Kind::kUnknown;  // of the values in the buffer
};

}  // namespace lscore

#endif
