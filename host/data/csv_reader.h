#ifndef SAGLEME_HOST_DATA_CSV_READER_H
#define SAGLEME_HOST_DATA_CSV_READER_H

// Lines of values with a separator between them, as RFC 4180 has them, with the location of every
// value, which is why it is written here. A quoted empty value is the empty text, a bare one is
// null. Values are views into the text that was read, so that a row costs no memory of its own.

#include <deque>
#include <sagleme/host/rows.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "data/text_input.h"

namespace sagleme {

struct CsvField {
  std::string_view text;
  bool quoted = false;
  std::size_t offset = 0;  // in the row, of its quotation mark if it has one
};

class CsvReader {
 public:
  // `separator` 0: the one that the first line has most of. The input has to outlive it.
  CsvReader(TextInput& input, char separator);

  // False at the end. Empty lines are passed over. After BadRow the next line can be read.
  bool Next();
  // The row read last; valid until the next call.
  std::vector<CsvField> const& fields() const { return fields_; }
  // Its bytes in the file, with the line end.
  std::string_view raw() const { return input_.rest().substr(0, size_); }
  // Of an offset in the row.
  FileLocation LocationOf(std::size_t offset) const;

 private:
  // Whether there is a byte at an offset; reads more input if needed.
  bool Has(std::size_t at);
  bool Is(std::size_t at, char byte) { return Has(at) && text_[at] == byte; }
  bool AtLineEnd(std::size_t at) { return !Has(at) || text_[at] == '\n' || text_[at] == '\r'; }
  std::size_t EndOfLine(std::size_t at);
  void PassOver();
  void SkipLine(std::size_t at);
  std::size_t ReadField(std::size_t at);
  std::size_t ReadBare(std::size_t at);
  std::size_t ReadQuoted(std::size_t at);
  void ReadRow();
  char FindSeparator();

  struct Piece {
    std::size_t begin = 0;
    std::size_t end = 0;
    bool quoted = false;
    bool escaped = false;  // has doubled quotation marks
  };

  TextInput& input_;
  char separator_ = ',';
  std::string_view text_;  // what was read and is not behind us, from the row on
  std::size_t size_ = 0;   // of the row
  FileLocation location_;
  std::vector<Piece> pieces_;
  std::vector<CsvField> fields_;
  std::deque<std::string> unescaped_;
};

}  // namespace sagleme

#endif
