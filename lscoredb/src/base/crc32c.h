#ifndef LSCOREDB_SRC_CRC32C_H
#define LSCOREDB_SRC_CRC32C_H

#include <cstdint>
#include <string_view>

namespace lscore {

// The CRC-32C checksum of the concatenation of `first` and `second`, by the processor's instruction
// if it has one. Pure, any thread.
std::uint32_t Crc32c(std::string_view first, std::string_view second = {});

// Continues the checksum `before` of earlier bytes with `bytes`.
std::uint32_t Crc32cExtend(std::uint32_t before, std::string_view bytes);

// The same as Crc32cExtend without the processor's instruction; both agree on every input.
std::uint32_t Crc32cPortable(std::string_view bytes, std::uint32_t before = 0);

}  // namespace lscore

#endif
