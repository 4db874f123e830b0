#ifndef SAGLEME_METALAYER_KEYS_HPP
#define SAGLEME_METALAYER_KEYS_HPP

// Part of the binary interface for makers of bindings; see <sagleme/metalayer.hpp>.
//
// The keys of all index accesses, as bytes.
//
// A key is the fields of the index's columns in order, the end mark 0xC0, and zero bytes up to a
// multiple of 8. A prefix of the columns is a valid key and bounds a range.
//
//   0x60                       null, below every value
//   0x28 + 8 bytes             an integer, most significant first: unsigned as it is, signed with
//                              its top bit flipped, a reference by its oid
//   0x20+min(n,31) ... 0x80    a text of n packed bytes in chunks of at most 31

#include <sagleme/metalayer/records.hpp>

namespace ukf {

// The key of one null field: the lowest possible bound.
SAGLEME_API extern unsigned char const full_key_ukn[8];

struct ENCODER {
  unsigned char* position;
};

// Writes a text field from the bytes that the kernel's text conversion returned, and advances
// the position. Does not check for room.
SAGLEME_API void encode_tt4(unsigned char const* text, unsigned int size, ENCODER& encoder);

}  // namespace ukf

namespace db_util {

// A fixed area for one key. It cannot grow.
class SAGLEME_API KeyBuf {
 public:
  KeyBuf(unsigned char* start, unsigned long size) : start_(start), size_(size) {}
  template <std::size_t Size>
  explicit KeyBuf(unsigned char (&area)[Size]) : KeyBuf(area, Size) {}

  unsigned char* start() const { return start_; }
  unsigned long size() const { return size_; }
  [[noreturn]] void resize(unsigned long size);  // always SAGLEME_NAME_TOO_LONG

 private:
  unsigned char* start_;
  unsigned long size_;
};

// Writes one key, field by field, in the order of the index's columns. A field or an end mark
// that does not fit throws SAGLEME_NAME_TOO_LONG and writes nothing. UpdateHeader or the destructor
// finishes the key, so the key of a temporary is complete at the end of its statement. Throws
// SAGLEME_NO_MEMORY if there is no memory for a long text. REQUIRES: the buffer is
// aligned to 8.
template <typename Buffer>
class KeyWriter;

template <>
class SAGLEME_API KeyWriter<KeyBuf> : public ukf::ENCODER {
 public:
  explicit KeyWriter(KeyBuf buffer);
  template <std::size_t Size>
  explicit KeyWriter(unsigned char (&area)[Size]) : KeyWriter(KeyBuf(area)) {}
  KeyWriter(KeyWriter const&) = delete;
  KeyWriter& operator=(KeyWriter const&) = delete;
  ~KeyWriter() noexcept(false);

  KeyWriter& Null();
  KeyWriter& ULong(unsigned long value);
  KeyWriter& Long(long value);
  KeyWriter& Double(double value);
  KeyWriter& Ref(LS_OBJ_REF const& value) { return ULong(value.oid); }
  // A null pointer writes the null field.
  KeyWriter& Text(char16_t const* text) { return ConvertedText(text, 0); }
  // The bound above all texts that begin with `text`.
  KeyWriter& TextUpperBound(char16_t const* text) { return ConvertedText(text, 1); }
  // The bounds of all set specifiers that begin with `setspec`.
  KeyWriter& SetspecLowerBound(char16_t const* setspec);
  KeyWriter& SetspecUpperBound(char16_t const* setspec);

  // Writes the end mark and the padding. Runs once.
  void UpdateHeader();

 private:
  using Converter = uint32_t (*)(char16_t const*, uint32_t, uint8_t*, uint32_t);

  KeyWriter& ConvertedText(char16_t const* text, unsigned int flags);
  KeyWriter& Converted(Converter convert, char16_t const* text, unsigned int flags);
  void Reserve(unsigned long bytes);
  unsigned long Used() const;
  unsigned long Room() const { return buffer_.size() - Used(); }
  unsigned long Padding() const;  // the end mark and the zero bytes after it

  KeyBuf buffer_;
  int unwinding_;  // exceptions in flight when the writer was created
  bool finished_ = false;
};

}  // namespace db_util

namespace metalayer {
using Key = db_util::KeyWriter<db_util::KeyBuf>;
}

#endif
