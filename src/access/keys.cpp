#include <algorithm>
#include <bit>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <sagleme/metalayer/keys.hpp>

namespace ukf {
namespace {

constexpr unsigned char kInteger = 0x28;
constexpr unsigned char kNull = 0x60;
constexpr unsigned char kText = 0x20;
constexpr unsigned char kTextEnd = 0x80;
constexpr unsigned char kKeyEnd = 0xC0;

constexpr unsigned int kMaxChunk = 31;
constexpr unsigned char kLastHeaderByte = 0x80;

// The payload of a converted text, after its header.
struct Payload {
  unsigned char const* bytes;
  unsigned int size;       // from the header
  unsigned int available;  // bytes that are really there
};

Payload PayloadOf(unsigned char const* text, unsigned int size) {
  unsigned int spare_bits = 0;
  for (unsigned int i = 0; i < size; ++i) {
    spare_bits = spare_bits << 7 | (text[i] & 0x7Fu);
    if ((text[i] & kLastHeaderByte) == 0) continue;
    unsigned int const left = size - i - 1;
    return {text + i + 1, (8 * left - spare_bits + 7) / 8, left};
  }
  return {text, 0, 0};  // the header never ended
}

// The bytes that a text of `n` payload bytes takes in a key.
unsigned long TextFieldSize(unsigned long n) {
  return n <= kMaxChunk ? n + 2 : n + (n + kMaxChunk - 1) / kMaxChunk + 1;
}

}  // namespace

unsigned char const full_key_ukn[8] = {kNull, kKeyEnd, 0, 0, 0, 0, 0, 0};

void encode_tt4(unsigned char const* text, unsigned int size, ENCODER& encoder) {
  auto const [bytes, n, available] = PayloadOf(text, size);
  unsigned char* to = encoder.position;
  unsigned int done = std::min(n, kMaxChunk);
  *to++ = static_cast<unsigned char>(kText + done);
  to = std::copy_n(bytes, done, to);
  while (done < n) {
    unsigned int const count = std::min(n - done, kMaxChunk);
    *to++ = static_cast<unsigned char>(count);
    to = std::copy_n(bytes + done, count, to);
    done += count;
  }
  *to++ = kTextEnd;
  encoder.position = to;
}

}  // namespace ukf

namespace db_util {
namespace {

constexpr unsigned int kOutOfMemory = SAGLEME_NO_MEMORY;
constexpr unsigned int kKeyDoesNotFit = SAGLEME_NAME_TOO_LONG;

constexpr unsigned long kIntegerSize = 9;
constexpr unsigned long kSignBit = 1ul << 63;
constexpr unsigned long kAlignment = 8;

// Floating-point values as integers of the same order; zero has one form, and NaN is above all
// values.
unsigned long OrderedBits(double value) {
  constexpr unsigned long kAboveInfinity = 0xFFF8000000000000;
  if (value != value) return kAboveInfinity;
  unsigned long const bits = std::bit_cast<unsigned long>(value + 0.0);
  return (bits & kSignBit) != 0 ? ~bits : bits | kSignBit;
}

// A text in the kernel's sort-order form: on the stack, or on the heap when it is long.
class ConvertedBytes {
 public:
  template <typename Convert>
  explicit ConvertedBytes(Convert const& convert) {
    unsigned int room = sizeof local_;
    while ((size_ = convert(bytes_, room)) > room) {
      room = size_;
      heap_.reset();
      heap_.reset(new (std::nothrow) unsigned char[room]);
      if (heap_ == nullptr) db_exception::check(kOutOfMemory);
      bytes_ = heap_.get();
    }
  }

  unsigned char const* bytes() const { return bytes_; }
  unsigned int size() const { return size_; }

 private:
  unsigned char local_[128];
  std::unique_ptr<unsigned char[]> heap_;
  unsigned char* bytes_ = local_;
  unsigned int size_ = 0;
};

}  // namespace

void KeyBuf::resize(unsigned long) { db_exception::check(kKeyDoesNotFit); }

KeyWriter<KeyBuf>::KeyWriter(KeyBuf buffer)
    : ENCODER{buffer.start()}, buffer_(buffer), unwinding_(std::uncaught_exceptions()) {}

KeyWriter<KeyBuf>::~KeyWriter() noexcept(false) {
  // While an exception is in flight the key is useless, so a key without room for its end mark
  // stays open.
  bool const failing = std::uncaught_exceptions() > unwinding_;
  if (!finished_ && !(failing && Padding() > Room())) UpdateHeader();
}

unsigned long KeyWriter<KeyBuf>::Used() const {
  return static_cast<unsigned long>(position - buffer_.start());
}

unsigned long KeyWriter<KeyBuf>::Padding() const { return kAlignment - Used() % kAlignment; }

void KeyWriter<KeyBuf>::Reserve(unsigned long bytes) {
  if (bytes > Room()) buffer_.resize(Used() + bytes);
}

KeyWriter<KeyBuf>& KeyWriter<KeyBuf>::Null() {
  Reserve(1);
  *position++ = ukf::kNull;
  return *this;
}

KeyWriter<KeyBuf>& KeyWriter<KeyBuf>::ULong(unsigned long value) {
  Reserve(kIntegerSize);
  *position++ = ukf::kInteger;
  for (int shift = 56; shift >= 0; shift -= 8)
    *position++ = static_cast<unsigned char>(value >> shift);
  return *this;
}

KeyWriter<KeyBuf>& KeyWriter<KeyBuf>::Long(long value) {
  return ULong(static_cast<unsigned long>(value) ^ kSignBit);
}

KeyWriter<KeyBuf>& KeyWriter<KeyBuf>::Double(double value) { return ULong(OrderedBits(value)); }

KeyWriter<KeyBuf>& KeyWriter<KeyBuf>::SetspecLowerBound(char16_t const* setspec) {
  return Converted(lorv_convert_ucs2_to_setspectt, setspec, 0);
}

KeyWriter<KeyBuf>& KeyWriter<KeyBuf>::SetspecUpperBound(char16_t const* setspec) {
  return Converted(lorv_convert_ucs2_to_setspectt, setspec, 1);
}

KeyWriter<KeyBuf>& KeyWriter<KeyBuf>::ConvertedText(char16_t const* text, unsigned int flags) {
  return Converted(lorv_convert_ucs2_to_turbotext, text, flags);
}

KeyWriter<KeyBuf>& KeyWriter<KeyBuf>::Converted(Converter convert, char16_t const* text,
                                                unsigned int flags) {
  if (text == nullptr) return Null();
  ConvertedBytes const converted(
      [&](unsigned char* bytes, unsigned int size) { return convert(text, flags, bytes, size); });
  ukf::Payload const payload = ukf::PayloadOf(converted.bytes(), converted.size());
  // A header that claims too much would copy bytes from beyond the text.
  if (payload.size > payload.available) buffer_.resize(payload.size);
  Reserve(ukf::TextFieldSize(payload.size));
  ukf::encode_tt4(converted.bytes(), converted.size(), *this);
  return *this;
}

void KeyWriter<KeyBuf>::UpdateHeader() {
  finished_ = true;
  unsigned long const padding = Padding();
  Reserve(padding);
  *position = ukf::kKeyEnd;
  std::memset(position + 1, 0, padding - 1);
  position += padding;
}

}  // namespace db_util
