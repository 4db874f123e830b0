#ifndef LSCOREDB_SRC_CRC32C_H
#define LSCOREDB_SRC_CRC32C_H

#include <cstdint>
#include <string_view>

namespace lscore {

// The CRC-32C checksum of the concatenation of `first` and `second`, by the processor's instruction
// if it has one. Pure, any thread.
std::uint32_t Crc32c(std::string_view first, std::string_view second = {});

// The same, of `bytes` behind those whose checksum is `before`.
std::uint32_t Crc32cExtend(std::uint32_t before, std::string_view bytes);

// Of bytes behind those whose checksum is `before`, without the instruction; the two agree on every
// input.
std::uint32_t Crc32cPortable(std::string_view bytes, std::uint32_t before = 0);

}  // namespace lscore

#endif
