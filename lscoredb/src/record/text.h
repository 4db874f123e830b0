#ifndef LSCOREDB_SRC_TEXT_H
#define LSCOREDB_SRC_TEXT_H

// Texts as rows keep them: one byte a unit when all units are below 256, else two. The choice is
// determined by the text, so equal texts have equal bytes. Pure, any thread.

#include <cstdint>
#include <string>
#include <string_view>

namespace lscore {

struct PackedText {
  std::string_view bytes;
  bool wide = false;
  friend bool operator==(PackedText const&, PackedText const&) = default;
};

inline std::size_t UnitCount(PackedText text) {
  return text.wide ? text.bytes.size() / 2 : text.bytes.size();
}

bool NeedsWide(std::u16string_view text);
inline std::size_t PackedSize(std::u16string_view text, bool wide) {
  return wide ? text.size() * 2 : text.size();
}
// Writes PackedSize bytes.
void Pack(std::u16string_view text, bool wide, char* out);
// Writes UnitCount units.
void Unpack(PackedText text, char16_t* out);
void Unpack(PackedText text, std::u16string& out);

}  // namespace lscore

#endif
