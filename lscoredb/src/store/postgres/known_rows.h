#ifndef LSCOREDB_SRC_KNOWN_ROWS_H
#define LSCOREDB_SRC_KNOWN_ROWS_H

// What a view has read of rows, by id. A scan notes them by the thousand, so this is a table
// without a node for each. One thread at a time.

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace lscore {

class KnownRows {
 public:
  using Row = std::optional<std::string_view>;  // no value: there is no such row

  // Returns whether the row is known; `*row` is set iff it is.
  bool Find(std::uint64_t id, Row* row) const;
  bool Contains(std::uint64_t id) const;
  // A row that is known stays as it is. The bytes outlive the table.
  void Note(std::uint64_t id, Row const& row);
  void Reserve(std::size_t more);
  std::size_t memory() const { return slots_.size() * sizeof(Slot); }

 private:
  enum class State : std::uint8_t { kFree, kMissing, kThere };
  struct Slot {
    std::uint64_t id = 0;
    char const* bytes = nullptr;
    std::uint32_t size = 0;
    State state = State::kFree;
  };

  std::size_t SlotOf(std::uint64_t id) const;
  void Resize(std::size_t slots);

  std::vector<Slot> slots_;  // a power of two of them, at most half in use
  std::size_t used_ = 0;
};

}  // namespace lscore

#endif
