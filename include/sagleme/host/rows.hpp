#ifndef SAGLEME_HOST_ROWS_HPP
#define SAGLEME_HOST_ROWS_HPP

// Rows of named values from a file of either form.

#include <sagleme/export.h>

#include <cstddef>
#include <functional>
#include <istream>
#include <memory>
#include <sagleme/host.hpp>
#include <stdexcept>
#include <string>
#include <vector>

namespace sagleme {

// A place in a text file, counted from 1; columns in bytes.
struct FilePlace {
  std::size_t line = 1;
  std::size_t column = 1;
};

// What is wrong with a row, and where. `what()` without the place.
class SAGLEME_EXCEPTION BadRow : public std::runtime_error {
 public:
  BadRow(FilePlace place, std::string const& what) : std::runtime_error(what), place_(place) {}
  FilePlace place() const { return place_; }

 private:
  FilePlace place_;
};

// One value of a row. `parse` turns it into a value of a type, null where the file says so, and
// throws BadValue. `text` is how it stands in the file, for values that are no values of their
// column.
struct RowField {
  std::string name;
  std::string text;
  bool null = false;
  FilePlace place;
  std::function<Value(Type)> parse;
};

class SAGLEME_HOST_API RowSource {
 public:
  virtual ~RowSource() = default;

  // False at the end. BadRow for a row that cannot be read; the next one can.
  virtual bool Next(std::vector<RowField>& row) = 0;
  virtual FilePlace place() const = 0;  // where the row read last begins
  virtual std::string raw() const = 0;  // the row read last, as it stands in the file
  virtual std::size_t bytes() const = 0;
  // The names that all rows have, where the file gives them once.
  virtual std::vector<RowField> names() const { return {}; }
  // What has to stand in front of raw rows to make a file of the same form.
  virtual std::string heading() const { return ""; }
};

// The stream has to outlive them. A CSV file names its columns in its first line: BadRow without
// one.
SAGLEME_HOST_API std::unique_ptr<RowSource> MakeCsvSource(std::istream& input);
// One JSON object a line.
SAGLEME_HOST_API std::unique_ptr<RowSource> MakeJsonSource(std::istream& input);

}  // namespace sagleme

#endif
