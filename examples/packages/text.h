#ifndef PACKAGES_TEXT_H
#define PACKAGES_TEXT_H

// Small helpers for the text of files and command lines.

#include <algorithm>
#include <sagleme/host/text.hpp>
#include <string_view>

namespace packages {

// Whether the database can hold the text as one value: UTF-8 without a zero byte in it.
bool IsStorable(std::string_view text);

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
