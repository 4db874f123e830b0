#ifndef LSCOREDB_SRC_NUMBERED_VALUES_H
#define LSCOREDB_SRC_NUMBERED_VALUES_H

// Values that hold a number which the server sets in a column beside them.
//
// A commit in one round trip does not know its number before the server gives it one, nor how many
// objects a layout has by then. The values that it sends hold a guess:
//
//   rows                                   the commit that wrote the row, in its header
//   meta: indexes, closings, 'W'           the commit, the first eight bytes
//   meta: next-id, 'C'                     a mark, and a count of objects, the first eight bytes
//
// What the column `number` says counts. A reader puts it into the value and corrects the checksum,
// so that damage to either is found as before. The column is null in what earlier programs wrote.

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

#include "connection.h"
#include "store.h"

namespace lscore {

// Converts a key between ours and the server's form, which orders by bytes: the number of a row has
// its bytes reversed, other keys are the same. Its own inverse.
std::string ServerKey(Tree tree, std::string_view key);

// Whether values under the key have such a number. `key` is in our form.
bool HoldsNumber(Tree tree, std::string_view key);
// The number in a value; 0 if it has none.
std::uint64_t NumberIn(Tree tree, std::string_view key, std::string_view value);
// The value with another number. REQUIRES: HoldsNumber, and the value is large enough.
std::string Renumbered(Tree tree, std::string_view key, std::string_view value,
                       std::uint64_t number);

// Reads values from replies, and keeps those that it had to correct.
class NumberedValues {
 public:
  // `numbered`: HasNumbers of the tables. The last column of replies is then the number if the tree
  // has one.
  explicit NumberedValues(bool numbered) : numbered_(numbered) {}

  // The value in a column of a row.
  std::string_view Read(Tree tree, std::string_view key, Result const& reply, std::size_t row,
                        std::size_t column);

 private:
  bool const numbered_;
  std::deque<std::string> corrected_;
};

}  // namespace lscore

#endif
