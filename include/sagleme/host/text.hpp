#ifndef SAGLEME_HOST_TEXT_HPP
#define SAGLEME_HOST_TEXT_HPP

// UTF-8 outside, UTF-16 inside.
//
// Functions take texts as TextView and structs hold them as Text; both are made from UTF-16 and
// from UTF-8, from literals (u"x", "x", u8"x"), strings and views.
//
// The database takes lone surrogates, and so do these functions: one becomes three bytes like any
// other unit of its size, and such bytes become a lone surrogate again, so every stored text
// survives a round trip.

#include <sagleme/export.h>

#include <cstdint>
#include <sagleme/cxx20.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace sagleme {

// Bytes that are not UTF-8. `offset` is that of the first wrong byte.
class SAGLEME_EXCEPTION BadUtf8 : public std::invalid_argument {
 public:
  explicit BadUtf8(std::size_t offset)
      : std::invalid_argument("byte " + std::to_string(offset + 1) + " is not UTF-8"),
        offset_(offset) {}
  std::size_t offset() const { return offset_; }

 private:
  std::size_t offset_;
};

namespace detail {

inline bool IsHigh(char32_t unit) { return unit >= 0xD800 && unit < 0xDC00; }
inline bool IsLow(char32_t unit) { return unit >= 0xDC00 && unit < 0xE000; }

inline void AppendUtf8(std::string& out, char32_t point) {
  auto const tail = [&](int shift) {
    out.push_back(static_cast<char>(0x80 | (point >> shift & 0x3F)));
  };
  if (point < 0x80) {
    out.push_back(static_cast<char>(point));
  } else if (point < 0x800) {
    out.push_back(static_cast<char>(0xC0 | point >> 6));
    tail(0);
  } else if (point < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | point >> 12));
    tail(6);
    tail(0);
  } else {
    out.push_back(static_cast<char>(0xF0 | point >> 18));
    tail(12);
    tail(6);
    tail(0);
  }
}

inline void AppendUtf16(std::u16string& out, char32_t point) {
  if (point < 0x10000) {
    out.push_back(static_cast<char16_t>(point));
    return;
  }
  out.push_back(static_cast<char16_t>(0xD800 + ((point - 0x10000) >> 10)));
  out.push_back(static_cast<char16_t>(0xDC00 + ((point - 0x10000) & 0x3FF)));
}

// The length of the sequence that `lead` opens, 0 for none.
inline std::size_t SequenceLength(unsigned char lead) {
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead < 0xE0) return 2;
  if (lead >= 0xE0 && lead < 0xF0) return 3;
  return lead >= 0xF0 && lead < 0xF5 ? 4 : 0;
}

// The lowest point that needs a sequence of `length` bytes: anything lower is an overlong form.
inline char32_t LeastPoint(std::size_t length) {
  return length == 4 ? 0x10000 : length == 3 ? 0x800 : length == 2 ? 0x80 : 0;
}

// Reads the point at `at` and moves past it.
inline char32_t NextPoint(std::string_view text, std::size_t& at) {
  auto const lead = static_cast<unsigned char>(text[at]);
  std::size_t const length = SequenceLength(lead);
  if (length == 0 || text.size() - at < length) throw BadUtf8(at);
  char32_t point = length == 1 ? lead : lead & (0x7Fu >> length);
  for (std::size_t i = 1; i < length; ++i) {
    auto const byte = static_cast<unsigned char>(text[at + i]);
    if ((byte & 0xC0) != 0x80) throw BadUtf8(at + i);
    point = point << 6 | (byte & 0x3F);
  }
  if (point < LeastPoint(length) || point > 0x10FFFF) throw BadUtf8(at);
  at += length;
  return point;
}

}  // namespace detail

inline std::string ToUtf8(std::u16string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    char32_t point = text[i];
    if (detail::IsHigh(point) && i + 1 < text.size() && detail::IsLow(text[i + 1])) {
      point = 0x10000 + ((point - 0xD800) << 10) + (text[++i] - 0xDC00u);
    }
    detail::AppendUtf8(out, point);
  }
  return out;
}

// Throws BadUtf8.
inline std::u16string ToUtf16(std::string_view text) {
  std::u16string out;
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    detail::AppendUtf16(out, detail::NextPoint(text, at));
  }
  return out;
}

// Whether every surrogate of `text` has its other half, so that it can stand in strict UTF-8.
inline bool IsWellFormed(std::u16string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (detail::IsLow(text[i])) return false;
    if (!detail::IsHigh(text[i])) continue;
    if (++i == text.size() || !detail::IsLow(text[i])) return false;
  }
  return true;
}

inline std::u16string ToUtf16(std::u8string_view text) {
  return ToUtf16(std::string_view(reinterpret_cast<char const*>(text.data()), text.size()));
}

// A text as a parameter: a view of UTF-16, or UTF-16 that it owns, converted from UTF-8. What it
// views must outlive it. The constructors from UTF-8 throw BadUtf8.
class TextView {
 public:
  TextView() = default;
  TextView(char16_t const* text) : view_(text) {}
  TextView(std::u16string_view text) : view_(text) {}
  TextView(std::u16string const& text) : view_(text) {}
  TextView(char const* utf8) : TextView(std::string_view(utf8)) {}
  TextView(std::string_view utf8) : converted_(ToUtf16(utf8)), view_(converted_) {}
  TextView(std::string const& utf8) : TextView(std::string_view(utf8)) {}
  TextView(char8_t const* utf8) : TextView(std::u8string_view(utf8)) {}
  TextView(std::u8string_view utf8) : converted_(ToUtf16(utf8)), view_(converted_) {}
  TextView(std::u8string const& utf8) : TextView(std::u8string_view(utf8)) {}
  TextView(TextView const&) = delete;  // the view may be of the object itself
  TextView& operator=(TextView const&) = delete;

  operator std::u16string_view() const { return view_; }
  std::u16string_view view() const { return view_; }
  std::u16string str() const { return std::u16string(view_); }
  bool empty() const { return view_.empty(); }

 private:
  std::u16string converted_;
  std::u16string_view view_;
};

// A text that owns its units. The constructors from UTF-8 throw BadUtf8.
class Text : public std::u16string {
 public:
  Text() = default;
  Text(std::u16string text) : std::u16string(std::move(text)) {}
  Text(std::u16string_view text) : std::u16string(text) {}
  Text(char16_t const* text) : std::u16string(text) {}
  Text(std::string_view utf8) : std::u16string(ToUtf16(utf8)) {}
  Text(std::string const& utf8) : std::u16string(ToUtf16(utf8)) {}
  Text(char const* utf8) : std::u16string(ToUtf16(utf8)) {}
  Text(std::u8string_view utf8) : std::u16string(ToUtf16(utf8)) {}
  Text(std::u8string const& utf8) : std::u16string(ToUtf16(utf8)) {}
  Text(char8_t const* utf8) : std::u16string(ToUtf16(utf8)) {}
};

}  // namespace sagleme

#endif
