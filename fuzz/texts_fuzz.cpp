// The conversions of texts to key bytes, and the string functions, in buffers of just the size that
// they are promised.

#include <lscoredb/lscoredb.h>
#include <sagleme/ucs2.h>

#include <algorithm>

#include "input.h"

using sagleme_fuzz::Input;
using sagleme_fuzz::Require;

namespace {

constexpr char16_t kUntouched = 0xA5A5;

using Convert = std::uint32_t (*)(char16_t const*, std::uint32_t, std::uint8_t*, std::uint32_t);

std::vector<std::uint8_t> Converted(Convert convert, std::u16string const& text, bool upper) {
  std::uint32_t const needed = convert(text.c_str(), upper ? 1 : 0, nullptr, 0);
  std::vector<std::uint8_t> bytes(needed);
  Require(convert(text.c_str(), upper ? 1 : 0, bytes.data(), needed) == needed,
          "the size told is the size used");
  Require(needed > 0 && (bytes[0] & 0x80) != 0, "the header is one byte");
  return bytes;
}

void ConvertTexts(Input& input) {
  bool const setspec = input.Flag();
  Convert const convert = setspec ? lorv_convert_ucs2_to_setspectt : lorv_convert_ucs2_to_turbotext;
  std::u16string const one = input.Text(60).c_str();
  std::u16string const other = input.Text(60).c_str();
  auto const one_bytes = Converted(convert, one, false);
  auto const other_bytes = Converted(convert, other, false);
  auto const upper = Converted(convert, one, true);
  Require((one < other) == (one_bytes < other_bytes), "byte order is text order");
  Require((one == other) == (one_bytes == other_bytes), "equal bytes are those of equal texts");
  bool const inside = one_bytes <= other_bytes && other_bytes < upper;
  Require(inside == other.starts_with(one), "the bounds enclose what begins so");
  std::vector<std::uint8_t> small(input.Below(one_bytes.size() + 1));
  Require(convert(one.c_str(), 0, small.data(), static_cast<std::uint32_t>(small.size())) ==
              one_bytes.size(),
          "a small buffer does not change the size");
}

void CopyStrings(Input& input) {
  std::u16string const source = input.Text(30).c_str();
  std::u16string const start = input.Text(30).c_str();
  std::vector<char16_t> room(1 + input.Below(40), kUntouched);
  int const copied = ucs2_scpy_s(room.data(), room.size(), source.c_str());
  Require((copied == 0) == (source.size() < room.size()), "a copy succeeds when there is room");
  Require(std::u16string(room.data()) == (copied == 0 ? source : u""), "a copy is all or nothing");
  std::fill(room.begin(), room.end(), kUntouched);
  std::copy_n(start.begin(), std::min(start.size(), room.size()), room.begin());
  if (start.size() < room.size()) room[start.size()] = 0;
  std::u16string const both = start + source;
  int const joined = ucs2_strcat_s(room.data(), room.size(), source.c_str());
  if (start.size() >= room.size()) {
    Require(joined == 22, "a string without an end is not appended to");
  } else {
    Require((joined == 0) == (both.size() < room.size()), "an end fits when there is room");
    Require(std::u16string(room.data()) == (joined == 0 ? both : u""), "all or nothing");
  }
}

void CompareStrings(Input& input) {
  std::u16string const one = input.Text(30).c_str();
  std::u16string const other = input.Text(30).c_str();
  int const order = ucs2_cmp(one.c_str(), other.c_str());
  Require((order < 0) == (one < other) && (order == 0) == (one == other), "units decide");
  Require(ucs2_icmp(one.c_str(), other.c_str()) == -ucs2_icmp(other.c_str(), one.c_str()),
          "names compare the same from both sides");
  std::u16string turned = one;
  ucs2_reverse(turned.data(), static_cast<int>(turned.size()));
  Require(std::equal(one.rbegin(), one.rend(), turned.begin(), turned.end()), "turned round");
}

void ConvertToBytes(Input& input) {
  std::u16string const text = input.Text(40).c_str();
  std::vector<unsigned char> bytes(ucs2_utf8_len(text.c_str()) + 1);
  Require(ucs2_to_utf8(text.c_str(), bytes.data()) == bytes.size() - 1, "as long as was told");
  std::vector<char16_t> back(text.size() + 1);
  Require(utf8_to_ucs2(bytes.data(), back.data()) == text.size(), "as many units");
  Require(text == back.data(), "bytes read back");
  std::vector<char> ascii(text.size() + 1);
  Require(ucs2_to_ascii(text.c_str(), ascii.data()) <= text.size(), "never longer");
}

// Any bytes, read into as many units as there are said to be.
void ConvertFromBytes(Input& input) {
  std::vector<unsigned char> bytes = input.Bytes(60);
  bytes.push_back(0);
  std::uint32_t const units = utf8_to_ucs2_s(bytes.data(), nullptr, 0);
  std::vector<char16_t> all(units + 1);
  Require(utf8_to_ucs2(bytes.data(), all.data()) == units, "both count the same");
  std::vector<char16_t> some(1 + input.Below(70), kUntouched);
  std::uint32_t const capacity = static_cast<std::uint32_t>(some.size());
  Require(utf8_to_ucs2_s(bytes.data(), some.data(), capacity) == units, "room changes no count");
  std::size_t const written = std::min(some.size(), all.size());
  Require(
      std::equal(some.begin(), some.begin() + static_cast<std::ptrdiff_t>(written), all.begin()),
      "as far as there is room both write the same");
}

void ReadNumbers(Input& input) {
  std::u16string const text = input.Text(60).c_str();
  char16_t const* end = text.c_str();
  ucs2_toi64_base10(text.c_str(), &end);
  Require(end > text.c_str() && end <= text.c_str() + text.size() + 1, "ends in the string");
  ucs2_toui64_base10(text.c_str(), nullptr);
  ucs2_tof(text.c_str());
  auto const number = input.Take<std::uint64_t>();
  char16_t digits[21];
  Require(u64_to_ucs2(number, digits) == ucs2_len(digits), "as long as was told");
  Require(ucs2_toui64_base10(digits, nullptr) == number, "numbers read back");
  auto const other = static_cast<std::int64_t>(number);
  Require(i64_to_ucs2(other, digits) == ucs2_len(digits), "as long as was told");
  Require(ucs2_toi64_base10(digits, nullptr) == other, "numbers read back");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  constexpr void (*kRuns[])(Input&) = {ConvertTexts,   CopyStrings,      CompareStrings,
                                       ConvertToBytes, ConvertFromBytes, ReadNumbers};
  Input input(data, size);
  kRuns[input.Below(std::size(kRuns))](input);
  return 0;
}
