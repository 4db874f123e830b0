#include "layout.h"

#include <algorithm>

#include "status.h"

namespace lscore {

static_assert(LORV_TYPE_STRING == 1 && LORV_TYPE_BINARY == 2 && LORV_TYPE_KEY == 9);

Layout::Layout(LayoutNumber number, LayoutNumber base, Token token, LayoutOrder order,
               std::vector<Column> const& columns)
    : number_(number), base_(base), token_(token), order_(order) {
  if (columns.size() + kFirstStoredColumn > kMaxColumns) Throw(LSCOREDB_TOO_LARGE);
  columns_.reserve(columns.size() + kFirstStoredColumn);
  Add(Token{LORV_TOKEN_ID}, LORV_TYPE_ULONG, false);
  Add(Token{LORV_TOKEN_SETSPEC}, LORV_TYPE_STRING, true);
  for (Column const& column : columns) Add(column.token, column.type, column.nullable);
  NumberBits();
  IndexTokens();
}

void Layout::Add(Token token, std::uint8_t type, bool nullable) {
  if (!IsColumnType(type)) Throw(LSCOREDB_INVALID_ARGUMENT);
  columns_.push_back({token, type, nullable, !IsVariableType(type), 0});
}

void Layout::NumberBits() {
  std::uint16_t bit = 0;
  for (bool const fixed : {true, false}) {
    for (std::uint32_t i = kFirstStoredColumn; i < column_count(); ++i) {
      if (columns_[i].fixed == fixed) columns_[i].bit = bit++;
    }
    if (fixed) fixed_count_ = bit;
  }
}

void Layout::IndexTokens() {
  for (std::uint32_t i = 0; i < column_count(); ++i) by_token_.emplace_back(columns_[i].token, i);
  std::sort(by_token_.begin(), by_token_.end());
  auto const same_token = [](auto const& a, auto const& b) { return a.first == b.first; };
  if (std::adjacent_find(by_token_.begin(), by_token_.end(), same_token) != by_token_.end()) {
    Throw(LORV_STATUS_DUPLICATE_TOKEN);
  }
}

int Layout::Find(Token token) const {
  auto const at = std::lower_bound(by_token_.begin(), by_token_.end(),
                                   std::pair<Token, std::uint32_t>(token, 0));
  return at != by_token_.end() && at->first == token ? static_cast<int>(at->second) : -1;
}

}  // namespace lscore
