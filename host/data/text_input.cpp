#include "data/text_input.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <optional>
#include <sagleme/failure.hpp>
#include <sagleme/host/text.hpp>

namespace sagleme {
namespace {

constexpr std::size_t kPiece = std::size_t{256} * 1024;
constexpr std::size_t kMagic = 6;  // bytes that show what a file is
constexpr std::size_t kHuge = std::size_t{1024} * 1024;

[[noreturn]] void RefuseData(std::string const& what) {
  throw Failure(Failure::Kind::kBadData, what);
}

class StreamSource : public ByteSource {
 public:
  StreamSource(std::istream& input, std::uint64_t& bytes) : input_(*input.rdbuf()), bytes_(bytes) {}

  // Reads what is available: the reader of a pipe should not wait for a whole piece.
  bool Read(std::string& out) override {
    if (input_.sgetc() == std::char_traits<char>::eof()) return false;
    auto const there = std::clamp<std::streamsize>(input_.in_avail(), 1, kPiece);
    std::size_t const before = out.size();
    out.resize(before + static_cast<std::size_t>(there));
    auto const got = static_cast<std::size_t>(input_.sgetn(out.data() + before, there));
    out.resize(before + got);
    bytes_ += got;
    return got != 0;
  }

 private:
  std::streambuf& input_;
  std::uint64_t& bytes_;
};

// A file may hold several compressed pieces in sequence.
class GzipSource : public ByteSource {
 public:
  GzipSource(std::unique_ptr<ByteSource> source, std::string begin)
      : source_(std::move(source)), packed_(std::move(begin)) {
    constexpr int kGzipOnly = 16;
    if (inflateInit2(&stream_, MAX_WBITS + kGzipOnly) != Z_OK) throw std::bad_alloc();
  }
  ~GzipSource() override { inflateEnd(&stream_); }

  bool Read(std::string& out) override {
    std::size_t const before = out.size();
    while (out.size() == before) {
      if (used_ == packed_.size() && !ReadPacked()) {
        if (inside_) RefuseData("the compressed data ends too early");
        return false;
      }
      Unpack(out);
    }
    return true;
  }

 private:
  bool ReadPacked() {
    packed_.clear();
    used_ = 0;
    return source_->Read(packed_);
  }
  void Unpack(std::string& out) {
    if (!inside_) inflateReset(&stream_);
    inside_ = true;
    std::size_t const before = out.size();
    out.resize(before + kPiece);
    stream_.next_in = reinterpret_cast<Bytef*>(packed_.data() + used_);
    stream_.avail_in = static_cast<uInt>(packed_.size() - used_);
    stream_.next_out = reinterpret_cast<Bytef*>(out.data() + before);
    stream_.avail_out = static_cast<uInt>(kPiece);
    int const result = inflate(&stream_, Z_NO_FLUSH);
    std::size_t const unused = stream_.avail_out;
    out.resize(before + (kPiece - unused));
    used_ = packed_.size() - stream_.avail_in;
    if (result == Z_STREAM_END) inside_ = false;
    if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR) {
      RefuseData("the compressed data is damaged");
    }
  }

  std::unique_ptr<ByteSource> source_;
  std::string packed_;
  std::size_t used_ = 0;
  z_stream stream_{};
  bool inside_ = false;
};

// Unpaired surrogates pass, since the database takes them.
class Utf16Source : public ByteSource {
 public:
  Utf16Source(std::unique_ptr<ByteSource> source, std::string begin, bool big)
      : source_(std::move(source)), bytes_(std::move(begin)), big_(big) {}

  bool Read(std::string& out) override {
    while (bytes_.size() < 2 || (bytes_.size() == 2 && detail::IsHigh(UnitAt(0)))) {
      if (!source_->Read(bytes_)) return Finish(out);
    }
    std::size_t units = bytes_.size() / 2;
    if (detail::IsHigh(UnitAt(units - 1))) --units;  // its other half is still to come
    Convert(units, out);
    return true;
  }

 private:
  char16_t UnitAt(std::size_t i) const {
    auto const first = static_cast<unsigned char>(bytes_[2 * i]);
    auto const second = static_cast<unsigned char>(bytes_[2 * i + 1]);
    return static_cast<char16_t>(big_ ? first << 8 | second : second << 8 | first);
  }
  void Convert(std::size_t count, std::string& out) {
    units_.clear();
    for (std::size_t i = 0; i < count; ++i) units_.push_back(UnitAt(i));
    bytes_.erase(0, 2 * count);
    out += ToUtf8(units_);
  }
  bool Finish(std::string& out) {
    if (bytes_.size() % 2 != 0) RefuseData("the UTF-16 text ends in the middle of a character");
    if (bytes_.empty()) return false;
    Convert(bytes_.size() / 2, out);
    return true;
  }

  std::unique_ptr<ByteSource> source_;
  std::string bytes_;
  std::u16string units_;
  bool big_;
};

// The bytes read ahead, and then the rest.
class JoinedSource : public ByteSource {
 public:
  JoinedSource(std::string begin, std::unique_ptr<ByteSource> rest)
      : begin_(std::move(begin)), rest_(std::move(rest)) {}

  bool Read(std::string& out) override {
    if (begin_.empty()) return rest_->Read(out);
    out += begin_;
    begin_.clear();
    return true;
  }

 private:
  std::string begin_;
  std::unique_ptr<ByteSource> rest_;
};

struct OtherPacking {
  std::string_view magic;
  char const* name;
  char const* program;
};

constexpr OtherPacking kOtherPackings[] = {{{"\x28\xB5\x2F\xFD", 4}, "Zstandard", "zstdcat"},
                                           {{"\xFD\x37zXZ\0", 6}, "xz", "xzcat"},
                                           {{"BZh", 3}, "bzip2", "bzcat"},
                                           {{"PK\x03\x04", 4}, "zip", "unzip -p"}};

void RefuseOtherPackings(std::string_view begin) {
  for (OtherPacking const& each : kOtherPackings) {
    if (!begin.starts_with(each.magic)) continue;
    throw Failure(
        Failure::Kind::kBadInput, std::string("the file is compressed by ") + each.name,
        std::string("Unpack it, for example with: ") + each.program + " FILE | sagleme ... -");
  }
}

// The first bytes, up to the number that identifies the kind of file.
std::string ReadBegin(ByteSource& source) {
  std::string begin;
  while (begin.size() < kMagic && source.Read(begin)) {
  }
  return begin;
}

std::unique_ptr<ByteSource> Unpacked(std::unique_ptr<ByteSource> source) {
  std::string begin = ReadBegin(*source);
  RefuseOtherPackings(begin);
  if (begin.starts_with("\x1F\x8B")) {
    return std::make_unique<GzipSource>(std::move(source), std::move(begin));
  }
  return std::make_unique<JoinedSource>(std::move(begin), std::move(source));
}

// No heading, JSON or value begins with U+0000: such bytes are another encoding, or no text.
void RefuseOtherText(std::string_view begin) {
  bool const utf32 = begin.starts_with(std::string_view("\xFF\xFE\0\0", 4)) ||
                     begin.starts_with(std::string_view("\0\0\xFE\xFF", 4));
  bool const marked = begin.starts_with("\xFE\xFF") || begin.starts_with("\xFF\xFE");
  if (utf32 || (!marked && begin.find('\0') != std::string_view::npos)) {
    throw Failure(Failure::Kind::kBadData,
                  "the file is neither UTF-8 nor UTF-16 with a byte order mark",
                  "Convert it, for example with: iconv -f UTF-16LE -t UTF-8 FILE | sagleme ... -");
  }
}

std::unique_ptr<ByteSource> AsUtf8(std::unique_ptr<ByteSource> source) {
  std::string begin = ReadBegin(*source);
  RefuseOtherText(std::string_view(begin).substr(0, kMagic));
  bool const big = begin.starts_with("\xFE\xFF");
  if (big || begin.starts_with("\xFF\xFE")) {
    return std::make_unique<Utf16Source>(std::move(source), begin.substr(2), big);
  }
  if (begin.starts_with("\xEF\xBB\xBF")) begin.erase(0, 3);
  return std::make_unique<JoinedSource>(std::move(begin), std::move(source));
}

}  // namespace

TextInput::TextInput(std::istream& input)
    : source_(AsUtf8(Unpacked(std::make_unique<StreamSource>(input, bytes_)))) {}

TextInput::~TextInput() = default;

bool TextInput::More() {
  if (at_end_) return false;
  buffer_.erase(0, consumed_);
  consumed_ = 0;
  std::size_t const before = buffer_.size();
  // Grows geometrically: a reader starts a huge value again after each piece.
  std::size_t const least = before < kHuge ? 1 : before;
  while (!at_end_ && buffer_.size() - before < least) at_end_ = !source_->Read(buffer_);
  return buffer_.size() != before;
}

bool TextInput::NextLine(std::string_view& line) {
  std::size_t looked_at = 0;
  for (;;) {
    std::string_view const text = rest();
    auto const end = text.find('\n', looked_at);
    if (end != std::string_view::npos) {
      line = text.substr(0, end);
      Consume(end + 1);
      return true;
    }
    looked_at = text.size();
    if (!More()) break;
  }
  line = rest();
  Consume(line.size());
  return !line.empty();
}

}  // namespace sagleme
