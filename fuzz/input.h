#ifndef SAGLEME_FUZZ_INPUT_H
#define SAGLEME_FUZZ_INPUT_H

// What the fuzzers have in common: taking values off the bytes of an input, and saying that
// something is wrong. An input that has run out goes on with zeros, so every input is a legal one.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

// One input. The driver, or the fuzzing engine, calls it again and again.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

namespace sagleme_fuzz {

// Ends the process unless `holds`.
inline void Require(bool holds, char const* what) {
  if (holds) return;
  std::fprintf(stderr, "wrong: %s\n", what);
  std::abort();
}

class Input {
 public:
  Input(std::uint8_t const* data, std::size_t size) : next_(data), left_(size) {}

  bool empty() const { return left_ == 0; }

  template <typename Number>
  Number Take() {
    Number number{};
    std::size_t const count = left_ < sizeof number ? left_ : sizeof number;
    if (count > 0) std::memcpy(&number, next_, count);
    next_ += count;
    left_ -= count;
    return number;
  }
  std::uint8_t Byte() { return Take<std::uint8_t>(); }
  std::size_t Below(std::size_t end) { return Byte() % end; }
  bool Flag() { return (Byte() & 1) != 0; }

  std::vector<std::uint8_t> Bytes(std::size_t most) {
    std::vector<std::uint8_t> bytes(Below(most + 1));
    for (std::uint8_t& byte : bytes) byte = Byte();
    return bytes;
  }
  std::vector<std::uint8_t> Rest() {
    std::vector<std::uint8_t> rest(next_, next_ + left_);
    left_ = 0;
    return rest;
  }
  // Up to `most` units; any unit may be zero and so the end of the text.
  std::u16string Text(std::size_t most) {
    std::u16string text(Below(most + 1), u'\0');
    bool const wide = Flag();
    for (char16_t& unit : text) unit = wide ? Take<char16_t>() : Byte();
    return text;
  }

 private:
  std::uint8_t const* next_;
  std::size_t left_;
};

}  // namespace sagleme_fuzz

#endif
