#include <sagleme/ucs2.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <limits>

namespace {

constexpr char16_t kBlank = u' ';
constexpr char16_t kTab = u'\t';

int Failed(int code) {
  errno = code;
  return code;
}

char16_t const* SkipBlanks(char16_t const* s) {
  while (*s == kBlank || *s == kTab) ++s;
  return s;
}

bool IsDigit(char16_t c) { return c >= u'0' && c <= u'9'; }

// Appends a decimal digit to `value`; false when the result would pass `limit`.
bool AppendDigit(uint64_t limit, char16_t digit, uint64_t* value) {
  uint64_t const unit = static_cast<uint64_t>(digit - u'0');
  if (*value > (limit - unit) / 10) return false;
  *value = *value * 10 + unit;
  return true;
}

// Reads digits from `*s`, and leaves it on the first other unit. For a value above `limit` the
// result is `overflow`, and the remaining digits are read too.
uint64_t ReadDigits(char16_t const** s, uint64_t limit, uint64_t overflow) {
  uint64_t value = 0;
  bool fits = true;
  for (; IsDigit(**s); ++*s) fits = fits && AppendDigit(limit, **s, &value);
  return fits ? value : overflow;
}

uint64_t NullArgument(char16_t const** end) {
  errno = EINVAL;
  if (end != nullptr) *end = nullptr;
  return 0;
}

// The case-blind form of a unit: its low byte alone, lowered by the C locale's table.
signed char Lowered(char16_t unit) {
  auto const low = static_cast<signed char>(static_cast<unsigned char>(unit & 0xFF));
  // The table is defined for a byte as unsigned; the sign comes back with the narrowing.
  return static_cast<signed char>(std::tolower(static_cast<unsigned char>(low)));
}

template <typename Unsigned>
uint32_t WriteDecimal(Unsigned value, char16_t* out) {
  uint32_t count = 0;
  do {
    out[count++] = static_cast<char16_t>(u'0' + value % 10);
    value = static_cast<Unsigned>(value / 10);
  } while (value != 0);
  std::reverse(out, out + count);
  out[count] = 0;
  return count;
}

// The low bits of a continuation byte, which is not checked to be one. The terminator is never
// stepped over: what it cuts short reads as if zero bits followed.
unsigned int Continuation(unsigned char const** s) { return **s == 0 ? 0 : *(*s)++ & 0x3Fu; }

// Decodes the character at `*s` and moves on. The lead byte alone decides its length.
char16_t DecodeUtf8(unsigned char const** s) {
  unsigned int const lead = *(*s)++;
  if (lead < 0x80) return static_cast<char16_t>(lead);
  unsigned int const second = Continuation(s);
  if (lead < 0xE0) return static_cast<char16_t>((lead & 0x1F) << 6 | second);
  unsigned int const third = Continuation(s);
  return static_cast<char16_t>((lead & 0x0F) << 12 | second << 6 | third);
}

}  // namespace

uint32_t ucs2_len(char16_t const* s) {
  char16_t const* end = s;
  while (*end != 0) ++end;
  return static_cast<uint32_t>(end - s);
}

void ucs2_memcpy(char16_t* dst, char16_t const* src, size_t n) {
  for (size_t i = 0; i < n; ++i) dst[i] = src[i];
}

void ucs2_scpy(char16_t* dst, char16_t const* src) {
  while ((*dst++ = *src++) != 0) {
  }
}

int ucs2_scpy_s(char16_t* dst, size_t size, char16_t const* src) {
  if (dst == nullptr) return Failed(EINVAL);
  *dst = 0;
  if (src == nullptr) return Failed(EINVAL);
  for (size_t i = 0; i < size; ++i) {
    dst[i] = src[i];
    if (src[i] == 0) return 0;
  }
  *dst = 0;
  return Failed(ERANGE);
}

int ucs2_strcat_s(char16_t* dst, size_t size, char16_t const* src) {
  if (dst == nullptr) return Failed(EINVAL);
  if (src == nullptr || size == 0) {
    *dst = 0;
    return Failed(src == nullptr ? EINVAL : ERANGE);
  }
  size_t used = 0;
  while (used < size && dst[used] != 0) ++used;
  if (used == size) return Failed(EINVAL);
  for (; used < size; ++used, ++src) {
    dst[used] = *src;
    if (*src == 0) return 0;
  }
  *dst = 0;
  return Failed(ERANGE);
}

uint32_t ascii_to_ucs2(char const* src, char16_t* dst) {
  uint32_t length = 0;
  do dst[length] = static_cast<char16_t>(static_cast<signed char>(src[length]));
  while (src[length++] != 0);
  return length - 1;
}

uint32_t ucs2_to_ascii(char16_t const* src, char* dst) {
  char* out = dst;
  for (; *src != 0; ++src)
    if (*src < 0x80) *out++ = static_cast<char>(*src);
  *out = 0;
  return static_cast<uint32_t>(out - dst);
}

int ucs2_cmp(char16_t const* a, char16_t const* b) {
  for (; *a == *b && *a != 0; ++a, ++b) {
  }
  return static_cast<int>(*a) - static_cast<int>(*b);
}

int ucs2_icmp(char16_t const* a, char16_t const* b) {
  for (;; ++a, ++b) {
    signed char const x = Lowered(*a);
    signed char const y = Lowered(*b);
    if (x != y) return x > y ? 1 : -1;
    if (x == 0) return 0;
  }
}

uint64_t ucs2_toui64_base10(char16_t const* s, char16_t const** end) {
  if (s == nullptr) return NullArgument(end);
  constexpr uint64_t kMax = std::numeric_limits<uint64_t>::max();
  s = SkipBlanks(s);
  if (*s == u'+') ++s;
  return ReadDigits(&s, kMax, kMax);
}

int64_t ucs2_toi64_base10(char16_t const* s, char16_t const** end) {
  if (s == nullptr) return static_cast<int64_t>(NullArgument(end));
  constexpr uint64_t kMax = std::numeric_limits<int64_t>::max();
  constexpr uint64_t kOverflow = std::numeric_limits<uint64_t>::max();
  s = SkipBlanks(s);
  bool const negative = *s == u'-';
  if (negative || *s == u'+') ++s;
  // Only the negative side saturates: its magnitude may be one greater. The positive side overflows
  // to all ones, which is -1.
  uint64_t const value =
      negative ? 0 - ReadDigits(&s, kMax + 1, kMax + 1) : ReadDigits(&s, kMax, kOverflow);
  // Callers expect the position after the unit that stopped the number.
  if (end != nullptr) *end = s + 1;
  return static_cast<int64_t>(value);
}

double ucs2_tof(char16_t const* s) {
  constexpr size_t kMaxUnits = 127;
  char narrow[kMaxUnits + 1];
  s = SkipBlanks(s);
  size_t count = 0;
  for (; count < kMaxUnits && s[count] != 0; ++count)
    narrow[count] = static_cast<char>(static_cast<unsigned char>(s[count] & 0xFF));
  narrow[count] = 0;
  return std::strtod(narrow, nullptr);
}

uint32_t ucs2_char_to_utf8(char16_t c, unsigned char* out) {
  if (c < 0x80) {
    out[0] = static_cast<unsigned char>(c);
    return 1;
  }
  if (c < 0x800) {
    out[0] = static_cast<unsigned char>(0xC0 | c >> 6);
    out[1] = static_cast<unsigned char>(0x80 | (c & 0x3F));
    return 2;
  }
  out[0] = static_cast<unsigned char>(0xE0 | c >> 12);
  out[1] = static_cast<unsigned char>(0x80 | (c >> 6 & 0x3F));
  out[2] = static_cast<unsigned char>(0x80 | (c & 0x3F));
  return 3;
}

uint32_t ucs2_char_utf8_size(char16_t c) { return c < 0x80 ? 1 : c < 0x800 ? 2 : 3; }

uint32_t ucs2_utf8_len(char16_t const* s) {
  uint32_t bytes = 0;
  for (; *s != 0; ++s) bytes += ucs2_char_utf8_size(*s);
  return bytes;
}

uint32_t ucs2_to_utf8(char16_t const* s, unsigned char* out) {
  uint32_t bytes = 0;
  for (; *s != 0; ++s) bytes += ucs2_char_to_utf8(*s, out + bytes);
  out[bytes] = 0;
  return bytes;
}

int ucs2_reverse(char16_t* s, int length) {
  if (length > 1) std::reverse(s, s + length);
  return length;
}

uint32_t u32_to_ucs2(uint32_t value, char16_t* out) { return WriteDecimal(value, out); }

uint32_t i64_to_ucs2(int64_t value, char16_t* out) {
  if (value >= 0) return WriteDecimal(static_cast<uint64_t>(value), out);
  *out = u'-';
  return 1 + WriteDecimal(0 - static_cast<uint64_t>(value), out + 1);
}

uint32_t u64_to_ucs2(uint64_t value, char16_t* out) { return WriteDecimal(value, out); }

uint32_t utf8_to_ucs2(unsigned char const* s, char16_t* out) {
  uint32_t count = 0;
  while (*s != 0) out[count++] = DecodeUtf8(&s);
  out[count] = 0;
  return count;
}

uint32_t utf8_to_ucs2_s(unsigned char const* s, char16_t* out, unsigned int capacity) {
  uint32_t count = 0;
  for (; *s != 0; ++count) {
    char16_t const unit = DecodeUtf8(&s);
    if (count < capacity) out[count] = unit;
  }
  if (count < capacity) out[count] = 0;
  return count;
}
