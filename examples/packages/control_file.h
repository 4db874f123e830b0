#ifndef PACKAGES_CONTROL_FILE_H
#define PACKAGES_CONTROL_FILE_H

// The file format of package databases and archive indexes: stanzas of "Field: value" lines, parted
// by empty lines, values going on in lines that begin with a blank.
//
// A reader scans one file that it owns, a stanza at a time. A stanza that breaks the form is
// delivered with what is wrong with it, and reading goes on behind it.

#include <cstdint>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace packages {

// A file that cannot be opened or read.
struct UnreadableFile : std::runtime_error {
  using runtime_error::runtime_error;
};

struct Problem {
  int64_t line;
  std::string text;
};

struct Stanza {
  struct Field {
    std::string name;
    std::string value;  // continued lines joined by '\n', each without its leading blank
    int64_t line;
  };

  int64_t line = 0;  // of its first field
  std::vector<Field> fields;
  std::optional<Problem> problem;  // the first thing that is wrong

  // Field names are case-insensitive.
  Field const* Find(std::string_view name) const;
  std::string_view Value(std::string_view name) const;  // empty when absent
};

class ControlFile {
 public:
  explicit ControlFile(std::string path);

  // False at the end of the file.
  bool Next(Stanza& stanza);
  std::string const& path() const { return path_; }
  // Back to the first stanza.
  void Rewind();

 private:
  bool NextLine(std::string& line);
  void AddLine(Stanza& stanza, std::string_view line) const;

  std::string path_;
  std::ifstream file_;
  int64_t line_number_ = 0;
};

}  // namespace packages

#endif
