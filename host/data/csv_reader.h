#ifndef SAGLEME_TOOL_DATA_CSV_READER_H
#define SAGLEME_TOOL_DATA_CSV_READER_H

// Lines of values separated by commas, as RFC 4180 has them, with the place of every value, which
// is why it is written here. A quoted empty value is the empty text, a bare one is null.

#include <cstddef>
#include <istream>
#include <stdexcept>
#include <string>
#include <vector>

namespace tool {

// A place in a text file, counted from 1; columns in bytes.
struct FilePlace {
  std::size_t line = 1;
  std::size_t column = 1;
};

// What is wrong with a row, and where. `what()` without the place.
class BadRow : public std::runtime_error {
 public:
  BadRow(FilePlace place, std::string const& what) : std::runtime_error(what), place_(place) {}
  FilePlace place() const { return place_; }

 private:
  FilePlace place_;
};

struct CsvField {
  std::string text;
  bool quoted = false;
  FilePlace place;
};

class CsvReader {
 public:
  explicit CsvReader(std::istream& input);

  // False at the end. Empty lines are passed over. After BadRow the next line can be read.
  bool Next(std::vector<CsvField>& fields);
  // The bytes of the row read last, as they stand in the file.
  std::string const& raw() const { return raw_; }
  std::size_t bytes() const { return bytes_; }

 private:
  int Take();
  int Peek() { return input_.peek(); }
  bool AtLineEnd();
  void EndLine();
  void SkipLine();
  CsvField ReadField();
  void ReadQuoted(CsvField& field);
  bool ReadRow(std::vector<CsvField>& fields);

  std::istream& input_;
  std::string raw_;
  FilePlace place_;
  std::size_t bytes_ = 0;
};

}  // namespace tool

#endif
