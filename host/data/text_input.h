#ifndef SAGLEME_HOST_DATA_TEXT_INPUT_H
#define SAGLEME_HOST_DATA_TEXT_INPUT_H

// The text of a file as UTF-8, piece by piece: gzip's compression is unpacked, UTF-16 that begins
// with a byte order mark converted, a mark of UTF-8 passed over. The stream is read forwards only,
// so that it may be a pipe.

#include <cstdint>
#include <istream>
#include <memory>
#include <string>
#include <string_view>

namespace sagleme {

// Gives bytes, in one piece after the other.
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
  // The stream has to outlive it. Failure of kBadInput for compressed data of an unknown kind.
  explicit TextInput(std::istream& input);
  ~TextInput();

  // What was read and not consumed yet. Ends with the next call of More or NextLine.
  std::string_view rest() const { return std::string_view(buffer_).substr(consumed_); }
  // Reads on behind `rest`, which moves; false at the end. Failure of kBadData when the text cannot
  // be unpacked or converted.
  bool More();
  void Consume(std::size_t size) { consumed_ += size; }

  // The next line, without its end; false when there is none. Ends with the next call.
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
