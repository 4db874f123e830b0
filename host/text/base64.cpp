#include <array>
#include <sagleme/value_text.hpp>

namespace sagleme {
namespace {

constexpr std::string_view kDigits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::uint32_t Digit(char digit) {
  auto const value = kDigits.find(digit);
  if (value == std::string_view::npos) throw BadValue("the text is not base64");
  return static_cast<std::uint32_t>(value);
}

}  // namespace

std::string Base64(Bytes const& bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    std::size_t const count = std::min<std::size_t>(3, bytes.size() - i);
    std::uint32_t group = 0;
    for (std::size_t j = 0; j < 3; ++j) group = group << 8 | (j < count ? bytes[i + j] : 0u);
    for (std::size_t j = 0; j < 4; ++j) {
      text += j <= count ? kDigits[group >> (18 - 6 * j) & 0x3F] : '=';
    }
  }
  return text;
}

Bytes ParseBase64(std::string_view text) {
  if (text.size() % 4 != 0)
    throw BadValue("the text is not base64: its length is not a multiple of 4");
  Bytes bytes;
  bytes.reserve(text.size() / 4 * 3);
  for (std::size_t i = 0; i < text.size(); i += 4) {
    bool const last = i + 4 == text.size();
    std::size_t const padding =
        last ? (text[i + 3] == '=') + (text[i + 2] == '=' && text[i + 3] == '=') : 0;
    std::uint32_t group = 0;
    for (std::size_t j = 0; j < 4; ++j)
      group = group << 6 | (j < 4 - padding ? Digit(text[i + j]) : 0);
    for (std::size_t j = 0; j < 3 - padding; ++j) {
      bytes.push_back(static_cast<std::uint8_t>(group >> (16 - 8 * j)));
    }
  }
  return bytes;
}

}  // namespace sagleme
