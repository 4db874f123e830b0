#include "text.h"

namespace packages {
namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr char32_t kFirstSupplementary = 0x10000;

bool IsHighSurrogate(char32_t unit) { return unit >= 0xD800 && unit < 0xDC00; }
bool IsLowSurrogate(char32_t unit) { return unit >= 0xDC00 && unit < 0xE000; }

// The length of the sequence that `lead` opens, 0 for a byte that opens none.
std::size_t SequenceLength(unsigned char lead) {
  if (lead < 0x80) return lead == 0 ? 0 : 1;
  if (lead >= 0xC2 && lead < 0xE0) return 2;
  if (lead >= 0xE0 && lead < 0xF0) return 3;
  if (lead >= 0xF0 && lead < 0xF5) return 4;
  return 0;
}

bool IsShortestForm(char32_t code, std::size_t length) {
  constexpr char32_t kLowest[] = {0, 0, 0x80, 0x800, kFirstSupplementary};
  return code >= kLowest[length];
}

// Takes one code point off the front of `text`.
std::optional<char32_t> TakeCodePoint(std::string_view& text) {
  auto const lead = static_cast<unsigned char>(text.front());
  std::size_t const length = SequenceLength(lead);
  if (length == 0 || length > text.size()) return std::nullopt;
  char32_t code = length == 1 ? lead : lead & (0x7Fu >> length);
  for (std::size_t i = 1; i < length; ++i) {
    auto const byte = static_cast<unsigned char>(text[i]);
    if ((byte & 0xC0) != 0x80) return std::nullopt;
    code = code << 6 | (byte & 0x3Fu);
  }
  bool const is_surrogate = IsHighSurrogate(code) || IsLowSurrogate(code);
  if (!IsShortestForm(code, length) || is_surrogate || code > 0x10FFFF) return std::nullopt;
  text.remove_prefix(length);
  return code;
}

void AppendUtf16(std::u16string& out, char32_t code) {
  if (code < kFirstSupplementary) {
    out += static_cast<char16_t>(code);
    return;
  }
  code -= kFirstSupplementary;
  out += static_cast<char16_t>(0xD800 + (code >> 10));
  out += static_cast<char16_t>(0xDC00 + (code & 0x3FF));
}

void AppendUtf8(std::string& out, char32_t code) {
  auto const tail = [&](int shift) { out += static_cast<char>(0x80 | (code >> shift & 0x3F)); };
  if (code < 0x80) {
    out += static_cast<char>(code);
  } else if (code < 0x800) {
    out += static_cast<char>(0xC0 | code >> 6);
    tail(0);
  } else if (code < kFirstSupplementary) {
    out += static_cast<char>(0xE0 | code >> 12);
    tail(6), tail(0);
  } else {
    out += static_cast<char>(0xF0 | code >> 18);
    tail(12), tail(6), tail(0);
  }
}

char32_t TakeUtf16(std::u16string_view& text) {
  char32_t const first = text.front();
  text.remove_prefix(1);
  if (IsHighSurrogate(first) && !text.empty() && IsLowSurrogate(text.front())) {
    char32_t const second = text.front();
    text.remove_prefix(1);
    return kFirstSupplementary + ((first - 0xD800) << 10) + (second - 0xDC00);
  }
  return IsHighSurrogate(first) || IsLowSurrogate(first) ? kReplacement : first;
}

}  // namespace

std::optional<std::u16string> ToUtf16(std::string_view text) {
  std::u16string out;
  out.reserve(text.size());
  while (!text.empty()) {
    std::optional<char32_t> const code = TakeCodePoint(text);
    if (!code) return std::nullopt;
    AppendUtf16(out, *code);
  }
  return out;
}

std::string ToUtf8(std::u16string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) AppendUtf8(out, TakeUtf16(text));
  return out;
}

std::string_view Trim(std::string_view text) {
  constexpr std::string_view kBlank = " \t\r\n";
  std::size_t const first = text.find_first_not_of(kBlank);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlank) - first + 1);
}

}  // namespace packages
