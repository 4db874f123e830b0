#ifndef SAGLEME_TOOL_OUTPUT_TIME_TEXT_H
#define SAGLEME_TOOL_OUTPUT_TIME_TEXT_H

// Times of commits, in microseconds since 1970.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tool {

// "2026-03-01T09:30:00.000000Z"
std::string TimeText(std::uint64_t microseconds);

// Reads what TimeText writes, and the same with a blank for the T, without the fraction or the
// seconds, and with another zone, such as +01:00; without a zone it is the local time.
std::optional<std::uint64_t> ParseTime(std::string_view text);

}  // namespace tool

#endif
