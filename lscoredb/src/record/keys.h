#ifndef LSCOREDB_SRC_KEYS_H
#define LSCOREDB_SRC_KEYS_H

// Index keys: from the byte format of the contract, and from column values, to the kernel's own
// form, in which memcmp gives index order.
//
// The kernel's form of one column is prefix-free: no encoding of a column is a prefix of another
// one of the same type. So keys of several columns concatenate, and a key that stops early is a
// bound for everything that begins with it. A descending column has all its bytes inverted.
// Everything here is pure: no state, any thread.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "bytes.h"

namespace lscore {

// One UTF-16 unit in the sort form of texts: one to three bytes, surrogates like any other unit, so
// that byte order is unit order. No byte of it is ever kTextUpperBound, and only U+0000 has a zero
// byte.
inline constexpr std::size_t kMaxUnitBytes = 3;
inline constexpr std::uint8_t kTextUpperBound = 0xFF;  // above whatever may follow a prefix

constexpr std::size_t UnitBytes(char16_t unit) {
  return unit < 0x80 ? 1 : unit < 0x800 ? 2 : kMaxUnitBytes;
}

// Writes UnitBytes(unit) bytes to `to` and returns the position after them.
inline std::uint8_t* WriteUnit(char16_t unit, std::uint8_t* to) {
  if (unit < 0x80) {
    *to++ = static_cast<std::uint8_t>(unit);
    return to;
  }
  if (unit < 0x800) {
    *to++ = static_cast<std::uint8_t>(0xC0 | unit >> 6);
  } else {
    *to++ = static_cast<std::uint8_t>(0xE0 | unit >> 12);
    *to++ = static_cast<std::uint8_t>(0x80 | (unit >> 6 & 0x3F));
  }
  *to++ = static_cast<std::uint8_t>(0x80 | (unit & 0x3F));
  return to;
}

// What a key needs to know of one indexed column.
struct KeyColumn {
  std::uint8_t type;  // LORV_TYPE_*
  bool descending;
};

// A growing byte string that keeps its memory: a transaction owns one and reuses it.
using KeyBytes = std::string;

// Appends one column value in the kernel's form.
void AppendNull(KeyBytes& out, bool descending);
void AppendUnsigned(KeyBytes& out, std::uint64_t value, bool descending);
void AppendSigned(KeyBytes& out, std::int64_t value, bool descending);
void AppendFloat(KeyBytes& out, float value, bool descending);    // -0 equals 0, NaN above all
void AppendDouble(KeyBytes& out, double value, bool descending);  // likewise
// A text ends at its first zero unit, if it has one.
void AppendText(KeyBytes& out, std::u16string_view text, bool descending);
void AppendBinary(KeyBytes& out, std::span<std::uint8_t const> bytes, bool descending);

// Appends a whole key of the contract's byte format, read with the types of the index's columns.
// `key` points to bytes ended by the mark 0xC0; the reader stops at the mark and never reads past a
// byte that cannot be part of a well-formed key. Returns false, with `out` unchanged, when the
// bytes are not a key for these columns. Integers of the contract are already in order; float and
// double columns are keyed by the 8-byte form of OrderedBits.
bool AppendContractKey(KeyBytes& out, void const* key, std::span<KeyColumn const> columns);

// Converts a key from the kernel's form to the contract's byte format. Values that sort alike
// become one of them: -0 becomes 0, every NaN the usual one. REQUIRES: `encoded` is a whole key of
// these columns.
KeyBytes ContractKey(std::string_view encoded, std::span<KeyColumn const> columns);

// The order-preserving 64 bits of a floating-point value, as contract keys have them.
std::uint64_t OrderedBits(double value);

// Object ids and index ids as order-preserving bytes of variable length, self-delimiting from the
// front. ReadOrderedId returns the number of bytes read, 0 when the bytes are not one.
void AppendOrderedId(KeyBytes& out, std::uint64_t id);
std::size_t ReadOrderedId(std::string_view bytes, std::uint64_t* id);
// An id up to this one is one byte; a longer one has its number of bytes before it, above this.
inline constexpr std::uint8_t kMaxShortId = 0xFF - sizeof(std::uint64_t);
// The id whose ordered form is the last `size` of the bytes; 0 when they are none. Without a loop
// where that is possible, since a scan does this at each step.
inline std::uint64_t OrderedIdAtEnd(std::string_view bytes, std::size_t size) {
  if (size < 2 || size > sizeof(std::uint64_t) || bytes.size() < sizeof(std::uint64_t)) {
    std::uint64_t id = 0;
    bool const whole =
        size <= bytes.size() && ReadOrderedId(bytes.substr(bytes.size() - size), &id) == size;
    return whole ? id : 0;
  }
  char const* const end = bytes.data() + bytes.size();
  std::size_t const digits = 8 * (size - 1);  // bits
  std::uint64_t const id =
      LoadBig<std::uint64_t>(end - sizeof(std::uint64_t)) & ((std::uint64_t{1} << digits) - 1);
  bool const sound = static_cast<std::uint8_t>(*(end - size)) == kMaxShortId + size - 1 &&
                     id > kMaxShortId && id >> (digits - 8) != 0;
  return sound ? id : 0;
}

}  // namespace lscore

#endif
