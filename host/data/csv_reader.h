#ifndef SAGLEME_HOST_DATA_CSV_READER_H
#define SAGLEME_HOST_DATA_CSV_READER_H

// Lines of values separated by commas, as RFC 4180 has them, with the place of every value, which
// is why it is written here. A quoted empty value is the empty text, a bare one is null.

#include <cstddef>
#include <istream>
#include <sagleme/host/rows.hpp>
#include <string>
#include <vector>

namespace sagleme {

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

}  // namespace sagleme

#endif
