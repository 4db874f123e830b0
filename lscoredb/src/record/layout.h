#ifndef LSCOREDB_SRC_LAYOUT_H
#define LSCOREDB_SRC_LAYOUT_H

// A layout: the numbered columns of a kind of rows. Immutable once built, and so free for any
// thread. Committed layouts belong to the database and live as long as it is open; those of a
// transaction that is still open belong to it.

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ids.h"

namespace lscore {

inline constexpr std::uint32_t kIdColumn = 0;
inline constexpr std::uint32_t kSetspecColumn = 1;
inline constexpr std::uint32_t kFirstStoredColumn = 2;
inline constexpr std::size_t kMaxColumns = 1000;

struct Column {
  Token token{};
  std::uint8_t type = 0;  // LORV_TYPE_*
  bool nullable = false;
  bool fixed = false;     // eight bytes in a row image; otherwise text or binary
  std::uint16_t bit = 0;  // its presence bit in a row image; fixed columns come first
};

// When a layout was made: later ones compare greater. Layouts of an open transaction come after all
// committed ones.
struct LayoutOrder {
  CommitId commit{};
  std::uint32_t position = 0;
  friend auto operator<=>(LayoutOrder const&, LayoutOrder const&) = default;
};

inline constexpr CommitId kNotCommitted{~std::uint64_t{0}};

class Layout {
 public:
  // `columns` are those after columns 0 and 1, which this adds.
  // Throws LORV_STATUS_DUPLICATE_TOKEN, LSCOREDB_INVALID_ARGUMENT or LSCOREDB_TOO_LARGE.
  Layout(LayoutNumber number, LayoutNumber base, Token token, LayoutOrder order,
         std::vector<Column> const& columns);

  LayoutNumber number() const { return number_; }
  LayoutNumber base() const { return base_; }
  Token token() const { return token_; }
  LayoutOrder order() const { return order_; }

  std::uint32_t column_count() const { return static_cast<std::uint32_t>(columns_.size()); }
  // The columns that a row stores, one presence bit each.
  std::uint32_t bit_count() const { return column_count() - kFirstStoredColumn; }
  std::uint32_t fixed_count() const { return fixed_count_; }
  // REQUIRES: number < column_count().
  Column const& column(std::uint32_t number) const { return columns_[number]; }

  // The number of the column with that token, or -1.
  int Find(Token token) const;

 private:
  void Add(Token token, std::uint8_t type, bool nullable);
  void NumberBits();
  void IndexTokens();

  LayoutNumber number_;
  LayoutNumber base_;
  Token token_;
  LayoutOrder order_;
  std::uint32_t fixed_count_ = 0;
  std::vector<Column> columns_;
  std::vector<std::pair<Token, std::uint32_t>> by_token_;
};

constexpr bool IsColumnType(std::uint8_t type) { return type >= 1 && type <= 9; }
constexpr bool IsVariableType(std::uint8_t type) { return type == 1 || type == 2; }

}  // namespace lscore

#endif
