#ifndef LSCOREDB_TESTS_CONTRACT_KEY_H
#define LSCOREDB_TESTS_CONTRACT_KEY_H

// Keys in the contract's byte format, written here a second time and on purpose apart from the
// kernel's reader, so that the two can disagree:
//
//     Key().Long(3).Text(u"x").Bytes()
//
// A key is a value; Bytes() ends it with the mark and pads it to a multiple of eight.

#include <lscoredb/lscoredb.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace lscoredb_test {

class Key {
 public:
  Key& Unsigned(std::uint64_t value) {
    bytes_.push_back(0x28);
    for (int shift = 56; shift >= 0; shift -= 8)
      bytes_.push_back(static_cast<std::uint8_t>(value >> shift));
    return *this;
  }

  Key& Long(std::int64_t value) {
    return Unsigned(static_cast<std::uint64_t>(value) + (std::uint64_t{1} << 63));
  }

  // The bits in order: all of a negative value's bits turned over, the sign bit of any other.
  Key& Double(double value) {
    std::uint64_t const bits = std::bit_cast<std::uint64_t>(value);
    std::uint64_t const sign = std::uint64_t{1} << 63;
    return Unsigned((bits & sign) != 0 ? ~bits : bits + sign);
  }

  Key& Null() {
    bytes_.push_back(0x60);
    return *this;
  }

  Key& Text(std::u16string const& text) {
    return Converted(text, 0, lorv_convert_ucs2_to_turbotext);
  }
  Key& AboveTexts(std::u16string const& prefix) {
    return Converted(prefix, 1, lorv_convert_ucs2_to_turbotext);
  }
  Key& Setspec(std::u16string const& text) {
    return Converted(text, 0, lorv_convert_ucs2_to_setspectt);
  }
  Key& AboveSetspecs(std::u16string const& prefix) {
    return Converted(prefix, 1, lorv_convert_ucs2_to_setspectt);
  }

  // The chunks of a text or binary field: a tag with the first count, a plain count before each
  // other.
  Key& Chunks(std::span<std::uint8_t const> payload) {
    std::size_t const first = std::min<std::size_t>(payload.size(), 31);
    bytes_.push_back(static_cast<std::uint8_t>(0x20 + first));
    Append(payload.first(first));
    for (payload = payload.subspan(first); !payload.empty();) {
      std::size_t const count = std::min<std::size_t>(payload.size(), 31);
      bytes_.push_back(static_cast<std::uint8_t>(count));
      Append(payload.first(count));
      payload = payload.subspan(count);
    }
    bytes_.push_back(0x80);
    return *this;
  }

  // Bytes as they come, for keys that are wrong.
  Key& Raw(std::vector<std::uint8_t> const& bytes) {
    Append(bytes);
    return *this;
  }

  std::vector<std::uint8_t> Bytes() const {
    std::vector<std::uint8_t> key = bytes_;
    key.push_back(0xC0);
    key.resize((key.size() + 7) / 8 * 8);
    return key;
  }

 private:
  using Convert = std::uint32_t (*)(char16_t const*, std::uint32_t, std::uint8_t*, std::uint32_t);

  // What the conversion gives has a header of one byte here and no spare bits behind the payload.
  Key& Converted(std::u16string const& text, std::uint32_t upper, Convert convert) {
    std::vector<std::uint8_t> converted(convert(text.c_str(), upper, nullptr, 0));
    convert(text.c_str(), upper, converted.data(), static_cast<std::uint32_t>(converted.size()));
    return Chunks(std::span<std::uint8_t const>(converted).subspan(1));
  }

  void Append(std::span<std::uint8_t const> bytes) {
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
  }

  std::vector<std::uint8_t> bytes_;
};

}  // namespace lscoredb_test

#endif
