#include <fmt/format.h>

#include <sagleme/host/text.hpp>
#include <sagleme/value_text.hpp>

namespace sagleme {
namespace {

bool IsControl(char32_t point) { return point < 0x20 || (point >= 0x7F && point < 0xA0); }
bool IsSurrogate(char32_t point) { return point >= 0xD800 && point < 0xE000; }

// Calls `each` with every code point of a text and its bytes; bytes that are not UTF-8 come one by
// one as U+FFFD.
template <typename Each>
void ForEachPoint(std::string_view text, Each&& each) {
  for (std::size_t at = 0; at < text.size();) {
    std::size_t const start = at;
    char32_t point = 0xFFFD;
    try {
      point = detail::NextPoint(text, at);
    } catch (BadUtf8 const&) {
      at = start + 1;
    }
    each(point, text.substr(start, at - start));
  }
}

std::string VisibleControl(char32_t point) {
  switch (point) {
    case '\n':
      return "\\n";
    case '\t':
      return "\\t";
    case '\r':
      return "\\r";
    default:
      return fmt::format("\\x{:02x}", static_cast<unsigned>(point));
  }
}

std::string JsonPoint(char32_t point, std::string_view bytes) {
  switch (point) {
    case '"':
      return "\\\"";
    case '\\':
      return "\\\\";
    case '\n':
      return "\\n";
    case '\t':
      return "\\t";
    case '\r':
      return "\\r";
    default:
      break;
  }
  if (point < 0x20 || point == 0x7F || IsSurrogate(point)) {
    return fmt::format("\\u{:04x}", static_cast<unsigned>(point));
  }
  return std::string(bytes);
}

}  // namespace

std::string Visible(std::string_view text) {
  std::string visible;
  ForEachPoint(text, [&](char32_t point, std::string_view bytes) {
    if (IsControl(point)) {
      visible += VisibleControl(point);
    } else if (IsSurrogate(point)) {
      visible += fmt::format("\\u{:04x}", static_cast<unsigned>(point));
    } else {
      visible += bytes;
    }
  });
  return visible;
}

std::string JsonString(std::string_view text) {
  std::string quoted = "\"";
  ForEachPoint(text,
               [&](char32_t point, std::string_view bytes) { quoted += JsonPoint(point, bytes); });
  return quoted + '"';
}

std::string CsvText(std::string_view text) {
  bool const plain = text.find_first_of(",\"\r\n") == std::string_view::npos;
  if (plain && !text.starts_with(' ') && !text.ends_with(' ')) return std::string(text);
  std::string quoted = "\"";
  for (char const each : text) {
    if (each == '"') quoted += '"';
    quoted += each;
  }
  return quoted + '"';
}

std::string UnitsJson(std::u16string_view text) {
  std::string units;
  for (char16_t const unit : text) {
    units += (units.empty() ? "" : ", ") + std::to_string(static_cast<unsigned>(unit));
  }
  return "{\"utf16\": [" + units + "]}";
}

}  // namespace sagleme
