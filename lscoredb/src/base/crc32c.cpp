#include "crc32c.h"

#include <array>

#include "bytes.h"

namespace lscore {
namespace {

constexpr std::uint32_t kPolynomial = 0x82F63B78;  // reflected

using Table = std::array<std::uint32_t, 256>;

constexpr Table MakeTable() {
  Table table{};
  for (std::uint32_t i = 0; i < 256; ++i) {
    std::uint32_t value = i;
    for (int bit = 0; bit < 8; ++bit) value = (value >> 1) ^ ((value & 1) != 0 ? kPolynomial : 0);
    table[i] = value;
  }
  return table;
}

constexpr Table kTable = MakeTable();

#if defined(__x86_64__)
__attribute__((target("sse4.2"))) inline std::uint32_t Advance(std::uint32_t before,
                                                               std::string_view bytes) {
  std::uint64_t crc = before;
  char const* at = bytes.data();
  std::size_t left = bytes.size();
  for (; left >= 8; at += 8, left -= 8) {
    crc = __builtin_ia32_crc32di(crc, Load<std::uint64_t>(at));
  }
  auto tail = static_cast<std::uint32_t>(crc);
  if ((left & 4) != 0) {
    tail = __builtin_ia32_crc32si(tail, Load<std::uint32_t>(at));
    at += 4;
  }
  if ((left & 2) != 0) {
    tail = __builtin_ia32_crc32hi(tail, Load<std::uint16_t>(at));
    at += 2;
  }
  return (left & 1) == 0 ? tail : __builtin_ia32_crc32qi(tail, static_cast<unsigned char>(*at));
}

__attribute__((target("sse4.2"))) std::uint32_t Crc32cHardware(std::string_view first,
                                                               std::string_view second) {
  return ~Advance(Advance(~std::uint32_t{0}, first), second);
}

__attribute__((target("sse4.2"))) std::uint32_t ExtendHardware(std::uint32_t before,
                                                               std::string_view bytes) {
  return ~Advance(~before, bytes);
}
#endif

}  // namespace

std::uint32_t Crc32cPortable(std::string_view bytes, std::uint32_t before) {
  std::uint32_t crc = ~before;
  for (char const c : bytes)
    crc = (crc >> 8) ^ kTable[(crc ^ static_cast<unsigned char>(c)) & 0xFF];
  return ~crc;
}

std::uint32_t Crc32c(std::string_view first, std::string_view second) {
#if defined(__x86_64__)
  if (__builtin_cpu_supports("sse4.2")) return Crc32cHardware(first, second);
#endif
  return Crc32cPortable(second, Crc32cPortable(first));
}

std::uint32_t Crc32cExtend(std::uint32_t before, std::string_view bytes) {
#if defined(__x86_64__)
  if (__builtin_cpu_supports("sse4.2")) return ExtendHardware(before, bytes);
#endif
  return Crc32cPortable(bytes, before);
}

}  // namespace lscore
