#include "output/text.h"

#include <fmt/format.h>
#include <utf8proc.h>

#include <algorithm>
#include <sagleme/host/text.hpp>

namespace tool {
namespace {

// Reads the code point at `at` and moves past it; bytes that are not UTF-8 come one by one as
// U+FFFD.
char32_t PointAt(std::string_view text, std::size_t& at) {
  std::size_t const start = at;
  try {
    return sagleme::detail::NextPoint(text, at);
  } catch (sagleme::BadUtf8 const&) {
    at = start + 1;
    return 0xFFFD;
  }
}

}  // namespace

std::size_t DisplayWidth(std::string_view text) {
  std::size_t width = 0;
  for (std::size_t at = 0; at < text.size();) {
    int const own = utf8proc_charwidth(static_cast<utf8proc_int32_t>(PointAt(text, at)));
    width += static_cast<std::size_t>(std::max(own, 0));
  }
  return width;
}

std::string Counted(std::uint64_t count, std::string_view plural) {
  if (count == 1) plural.remove_suffix(plural.ends_with("xes") ? 2 : 1);
  return fmt::format("{} {}", count, plural);
}

}  // namespace tool
