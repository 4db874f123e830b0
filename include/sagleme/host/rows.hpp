#ifndef SAGLEME_HOST_ROWS_HPP
#define SAGLEME_HOST_ROWS_HPP

// Rows of named values from a file: CSV with a heading line, or JSON Lines.
//
// The file may be a pipe: it is read once, from beginning to end, and only the current row is held
// in memory. Files compressed by gzip are unpacked. Text is UTF-8, or UTF-16 if the file begins
// with a byte order mark. One thread at a time.

#include <sagleme/export.h>

#include <cstddef>
#include <cstdint>
#include <istream>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace sagleme {

// Line and column in a text file, both from 1; columns count bytes of UTF-8.
struct FileLocation {
  std::size_t line = 1;
  std::size_t column = 1;
};

// What is wrong with a row, and where. `what()` does not contain the location.
class SAGLEME_EXCEPTION BadRow : public std::runtime_error {
 public:
  BadRow(FileLocation location, std::string const& what)
      : std::runtime_error(what), location_(location) {}
  FileLocation location() const { return location_; }

 private:
  FileLocation location_;
};

// One value of a row, as the file has it. Valid until the next row is read.
struct RowValue {
  enum class Kind : std::uint8_t { kNull, kText, kNumber, kBool, kUnits, kArray, kObject };

  std::size_t name = 0;  // its number among the names of the source
  Kind kind = Kind::kNull;
  std::string_view text;      // of kText, kNumber and kBool
  std::u16string_view units;  // of kUnits: a text that no strict UTF-8 can hold
};

class SAGLEME_HOST_API RowSource {
 public:
  RowSource() = default;
  RowSource(RowSource const&) = delete;
  RowSource& operator=(RowSource const&) = delete;
  virtual ~RowSource() = default;

  // Reads the next row; false at the end. Throws BadRow for a bad row, after which the next one can
  // be read, and Failure of kBadData if compressed data is truncated or the file holds no text.
  virtual bool Next() = 0;
  // The values of the row read last, in its order.
  virtual std::span<RowValue const> values() const = 0;
  // The names seen so far. Each keeps its number.
  virtual std::vector<std::string> const& names() const = 0;
  // Whether the file names its columns once, before the first row.
  virtual bool has_heading() const = 0;

  // Where the row read last begins, where one of its values is, and where the heading has a name.
  virtual FileLocation location() const = 0;
  virtual FileLocation LocationOf(RowValue const& value) const = 0;
  virtual FileLocation LocationOfName(std::size_t name) const = 0;
  // The row read last, exactly as in the file, with its end of line.
  virtual std::string raw() const = 0;
  // What must precede raw rows in a file of the same form.
  virtual std::string heading() const = 0;
  // How much of the file has been read.
  virtual std::uint64_t bytes() const = 0;
};

enum class FileForm { kCsv, kJsonLines };

struct RowFormat {
  FileForm form = FileForm::kCsv;
  // Separates the values of a CSV file. 0: comma, semicolon, tab or bar, whichever its heading has
  // most of.
  char separator = 0;
};

// The stream must outlive the source. Throws BadRow if a CSV file has no heading line, or one that
// names a column twice, and Failure of kBadInput for compression other than gzip's.
SAGLEME_HOST_API std::unique_ptr<RowSource> OpenRows(std::istream& input, RowFormat const& format);

}  // namespace sagleme

#endif
