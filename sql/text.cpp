#include "text.h"

#include <algorithm>
#include <new>
#include <sagleme/host/text.hpp>

namespace sagleme::sql {
namespace {

// Most texts are ASCII, which is copied unit by unit without a look at pairs.
std::size_t CopyAscii(std::u16string_view text, std::string& out) {
  out.resize(text.size());
  std::size_t at = 0;
  while (at < text.size() && text[at] < 0x80) {
    out[at] = static_cast<char>(text[at]);
    ++at;
  }
  return at;
}

}  // namespace

char const* TextBytes(sqlite3_value* value) {
  auto const* const bytes = reinterpret_cast<char const*>(sqlite3_value_text(value));
  if (bytes == nullptr && sqlite3_value_type(value) != SQLITE_NULL) throw std::bad_alloc();
  return bytes == nullptr ? "" : bytes;
}

std::optional<std::u16string> TextIn(sqlite3_value* value) {
  if (sqlite3_value_type(value) == SQLITE_NULL) return std::nullopt;
  char const* const bytes = TextBytes(value);
  auto const size = static_cast<std::size_t>(sqlite3_value_bytes(value));
  std::string_view const text(bytes, size);
  if (text.find('\0') != std::string_view::npos) return std::nullopt;
  try {
    std::u16string made = ToUtf16(text);
    if (!IsWellFormed(made)) return std::nullopt;
    return made;
  } catch (BadUtf8 const&) {
    return std::nullopt;
  }
}

void ToSqlText(std::u16string_view text, std::string& out) {
  std::size_t const ascii = CopyAscii(text, out);
  if (ascii == text.size()) return;
  out.resize(ascii);
  for (std::size_t i = ascii; i < text.size(); ++i) {
    char32_t point = text[i];
    bool const pair = detail::IsHigh(point) && i + 1 < text.size() && detail::IsLow(text[i + 1]);
    if (pair) {
      point = 0x10000 + ((point - 0xD800) << 10) + (text[++i] - 0xDC00u);
    } else if (detail::IsHigh(point) || detail::IsLow(point)) {
      point = 0xFFFD;
    }
    detail::AppendUtf8(out, point);
  }
}

}  // namespace sagleme::sql
