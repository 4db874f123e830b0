#include "text.h"

#include <algorithm>
#include <cstring>

namespace lscore {

bool NeedsWide(std::u16string_view text) {
  char16_t all = 0;
  for (char16_t const unit : text) all = static_cast<char16_t>(all | unit);
  return all > 0xFF;
}

void Pack(std::u16string_view text, bool wide, char* out) {
  if (wide) {
    std::memcpy(out, text.data(), text.size() * 2);
  } else {
    std::transform(text.begin(), text.end(), out, [](char16_t u) { return static_cast<char>(u); });
  }
}

void Unpack(PackedText text, char16_t* out) {
  if (text.wide) {
    std::memcpy(out, text.bytes.data(), text.bytes.size());
  } else {
    std::transform(text.bytes.begin(), text.bytes.end(), out,
                   [](char c) { return static_cast<char16_t>(static_cast<unsigned char>(c)); });
  }
}

void Unpack(PackedText text, std::u16string& out) {
  out.resize(UnitCount(text));
  Unpack(text, out.data());
}

}  // namespace lscore
