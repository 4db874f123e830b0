#ifndef LSCOREDB_SRC_CRC32C_H
#define LSCOREDB_SRC_CRC32C_H

#include <cstdint>
#include <string_view>

namespace lscore {

// The CRC-32C checksum of `bytes`, by the processor's instruction where it has one. With `before`,
// the checksum of other bytes, it is that of those and these one after another. Pure, any thread.
std::uint32_t Crc32c(std::string_view bytes, std::uint32_t before = 0);

// The same without the instruction; the two agree on every input.
std::uint32_t Crc32cPortable(std::string_view bytes, std::uint32_t before = 0);

}  // namespace lscore

#endif
