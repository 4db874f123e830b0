#ifndef PACKAGES_TEXT_H
#define PACKAGES_TEXT_H

// Between the UTF-8 of files and terminals and the UTF-16 of the database.

#include <optional>
#include <string>
#include <string_view>

namespace packages {

// Nothing when `text` is not well-formed UTF-8 or holds a zero byte.
std::optional<std::u16string> ToUtf16(std::string_view text);
// Lone surrogates become U+FFFD.
std::string ToUtf8(std::u16string_view text);

std::string_view Trim(std::string_view text);
// The parts of `text` between separators, trimmed; empty parts are left out.
template <typename Consumer>
void Split(std::string_view text, char separator, Consumer&& consume) {
  while (!text.empty()) {
    std::size_t const end = std::min(text.find(separator), text.size());
    std::string_view const part = Trim(text.substr(0, end));
    if (!part.empty()) consume(part);
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

}  // namespace packages

#endif
