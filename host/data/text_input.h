#ifndef SAGLEME_HOST_DATA_TEXT_INPUT_H
#define SAGLEME_HOST_DATA_TEXT_INPUT_H

// The text of a file as UTF-8, piece by piece: gzip is unpacked, UTF-16 with a byte order mark is
// converted, a UTF-8 mark is skipped. The stream is only read forwards, so it may be a pipe.

#include <cstdint>
#include <istream>
#include <memory>
#include <string>
#include <string_view>

namespace sagleme {

// Gives bytes piece by piece.
class ByteSource {
 public:
  ByteSource() = default;
  ByteSource(ByteSource const&) = delete;
  ByteSource& operator=(ByteSource const&) = delete;
  virtual ~ByteSource() = default;

  // Appends some bytes; false at the end.
  virtual bool Read(std::string& out) = 0;
};

class TextInput {
 public:
  // The stream must outlive it. Throws Failure of kBadInput for unknown compression.
  explicit TextInput(std::istream& input);
  ~TextInput();

  // What was read and not consumed yet. Valid until the next call of More or NextLine.
  std::string_view rest() const { return std::string_view(buffer_).substr(consumed_); }
  // Reads more text after `rest`, which moves; false at the end. Throws Failure of kBadData if the
  // text cannot be unpacked or converted.
  bool More();
  void Consume(std::size_t size) { consumed_ += size; }

  // The next line, without its end; false if there is none. Valid until the next call.
  bool NextLine(std::string_view& line);

  // Of the file that have been read.
  std::uint64_t bytes() const { return bytes_; }

 private:
  std::uint64_t bytes_ = 0;
  std::unique_ptr<ByteSource> source_;
  std::string buffer_;
  std::size_t consumed_ = 0;
  bool at_end_ = false;
};

}  // namespace sagleme

#endif
