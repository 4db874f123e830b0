#ifndef LSCOREDB_SRC_BYTES_H
#define LSCOREDB_SRC_BYTES_H

// Numbers in stored bytes. Values are little endian and may be at any address; numbers inside keys
// are big endian, so that byte order is numeric order.

#include <bit>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace lscore {

static_assert(std::endian::native == std::endian::little, "stored numbers are little endian");

template <typename T>
T Load(char const* from) {
  T value;
  std::memcpy(&value, from, sizeof value);
  return value;
}

template <typename T>
void StoreAt(char* to, T value) {
  std::memcpy(to, &value, sizeof value);
}

template <typename T>
void Append(std::string& out, T value) {
  char bytes[sizeof value];
  std::memcpy(bytes, &value, sizeof value);
  out.append(bytes, sizeof bytes);
}

// Its bytes in the other order. Spelt out with the compiler's own functions, since a loop over the
// bytes stays one.
template <typename T>
T SwapBytes(T value) {
  static_assert(sizeof value == 2 || sizeof value == 4 || sizeof value == 8);
  if constexpr (sizeof value == 2) return static_cast<T>(__builtin_bswap16(value));
  if constexpr (sizeof value == 4) return static_cast<T>(__builtin_bswap32(value));
  return static_cast<T>(__builtin_bswap64(value));
}

template <typename T>
void AppendBig(std::string& out, T value) {
  Append(out, SwapBytes(value));
}

template <typename T>
T LoadBig(char const* from) {
  return SwapBytes(Load<T>(from));
}

// The bytes of a number as a key of a tree that is ordered by integers.
inline std::string_view BytesOf(std::uint64_t const& number) {
  return {reinterpret_cast<char const*>(&number), sizeof number};
}

// Reads fields one after another out of a stored record; `ok` turns false when it ends too early.
class FieldReader {
 public:
  explicit FieldReader(std::string_view bytes) : rest_(bytes) {}

  template <typename T>
  T Next() {
    if (rest_.size() < sizeof(T)) {
      ok_ = false;
      return T{};
    }
    T const value = Load<T>(rest_.data());
    rest_.remove_prefix(sizeof(T));
    return value;
  }

  std::string_view Bytes(std::size_t size) {
    if (rest_.size() < size) {
      ok_ = false;
      return {};
    }
    std::string_view const bytes = rest_.substr(0, size);
    rest_.remove_prefix(size);
    return bytes;
  }

  bool ok() const { return ok_; }
  bool at_end() const { return ok_ && rest_.empty(); }

 private:
  std::string_view rest_;
  bool ok_ = true;
};

}  // namespace lscore

#endif
