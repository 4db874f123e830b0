// The sort form of texts, as hosts put it into keys: a header, then every unit of the text.

#include <lscoredb/lscoredb.h>

#include <cstdint>
#include <limits>
#include <string_view>

#include "keys.h"

namespace {

// No spare bits at the payload's end; the high bit says that this header byte is the last one.
constexpr std::uint8_t kHeader = 0x80;

std::u16string_view View(char16_t const* text) {
  return text == nullptr ? std::u16string_view() : std::u16string_view(text);
}

std::uint64_t SizeNeeded(std::u16string_view text, bool upper) {
  std::uint64_t size = sizeof kHeader + (upper ? sizeof lscore::kTextUpperBound : 0);
  for (char16_t const unit : text) size += lscore::UnitBytes(unit);
  return size;
}

std::uint32_t Convert(std::u16string_view text, bool upper, std::uint8_t* to, std::uint32_t size) {
  std::uint64_t const needed = SizeNeeded(text, upper);
  if (needed > std::numeric_limits<std::uint32_t>::max())
    return std::numeric_limits<std::uint32_t>::max();
  if (needed <= size && to != nullptr) {
    *to++ = kHeader;
    for (char16_t const unit : text) to = lscore::WriteUnit(unit, to);
    if (upper) *to = lscore::kTextUpperBound;
  }
  return static_cast<std::uint32_t>(needed);
}

}  // namespace

uint32_t lorv_convert_ucs2_to_turbotext(char16_t const* text, uint32_t flags, uint8_t* buffer,
                                        uint32_t size) {
  return Convert(View(text), (flags & 1) != 0, buffer, size);
}

uint32_t lorv_convert_ucs2_to_setspectt(char16_t const* text, uint32_t upper, uint8_t* buffer,
                                        uint32_t size) {
  return Convert(View(text), upper != 0, buffer, size);
}
