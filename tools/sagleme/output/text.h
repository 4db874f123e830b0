#ifndef SAGLEME_TOOL_OUTPUT_TEXT_H
#define SAGLEME_TOOL_OUTPUT_TEXT_H

// Texts for terminals and files: widths, control characters, JSON strings.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tool {

// The columns that UTF-8 takes on a terminal: wide letters take two, combining marks none.
std::size_t DisplayWidth(std::string_view text);

// With control characters made visible, so that stored text cannot steer a terminal or break a
// line.
std::string Visible(std::string_view text);

// A JSON string with its quotes. `text` is UTF-8 that may hold lone surrogates, which become
// escapes.
std::string JsonString(std::string_view text);

// A field of a CSV line, quoted where it must be.
std::string CsvText(std::string_view text);

// "1 object", "2 objects", "0 indexes", "1 index": a count with its noun, given in the plural.
std::string Counted(std::uint64_t count, std::string_view plural);

}  // namespace tool

#endif
