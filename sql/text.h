#ifndef SAGLEME_SQL_TEXT_H
#define SAGLEME_SQL_TEXT_H

// Texts between SQLite's UTF-8 and the database's UTF-16.

#include <optional>
#include <string>
#include <string_view>

#include "api.h"

namespace sagleme::sql {

// The UTF-8 of a value as SQLite converts it; empty for NULL. Throws
// std::bad_alloc when it has no memory for that.
char const* TextBytes(sqlite3_value* value);

// The text of a value; nothing when its bytes are no text that the database can hold: not UTF-8, or
// with a zero byte in it.
std::optional<std::u16string> TextIn(sqlite3_value* value);

// UTF-8 for SQLite. A lone surrogate, which UTF-8 has no place for, becomes U+FFFD. `out` is
// replaced.
void ToSqlText(std::u16string_view text, std::string& out);
inline std::string ToSqlText(std::u16string_view text) {
  std::string out;
  ToSqlText(text, out);
  return out;
}

}  // namespace sagleme::sql

#endif
