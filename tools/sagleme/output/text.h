#ifndef SAGLEME_TOOL_OUTPUT_TEXT_H
#define SAGLEME_TOOL_OUTPUT_TEXT_H

// Texts for terminals: widths, counts.

#include <cstddef>
#include <cstdint>
#include <sagleme/value_text.hpp>
#include <string>
#include <string_view>

namespace tool {

// The columns that UTF-8 takes on a terminal: wide letters take two, combining marks none.
std::size_t DisplayWidth(std::string_view text);

using sagleme::CsvText;
using sagleme::JsonString;
using sagleme::Visible;

// "1 object", "2 objects", "0 indexes", "1 index": a count with its noun, given in the plural.
std::string Counted(std::uint64_t count, std::string_view plural);

}  // namespace tool

#endif
