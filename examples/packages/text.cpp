#include "text.h"

namespace packages {

bool IsStorable(std::string_view text) {
  if (text.find('\0') != std::string_view::npos) return false;
  try {
    return sagleme::IsWellFormed(sagleme::ToUtf16(text));
  } catch (sagleme::BadUtf8 const&) {
    return false;
  }
}

std::string_view Trim(std::string_view text) {
  constexpr std::string_view kBlank = " \t\r\n";
  std::size_t const first = text.find_first_not_of(kBlank);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlank) - first + 1);
}

}  // namespace packages
