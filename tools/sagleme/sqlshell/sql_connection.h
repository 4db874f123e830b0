#ifndef SAGLEME_TOOL_SQLSHELL_SQL_CONNECTION_H
#define SAGLEME_TOOL_SQLSHELL_SQL_CONNECTION_H

// SQL over one database, and its results as lists.

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "output/format.h"

struct sqlite3;

namespace tool {

class SqlConnection {
 public:
  // Failure with kCannotOpen when there is no database.
  explicit SqlConnection(std::string const& directory);

  // Runs the statements of a text one after another; definitions are statements like others. Each
  // result is a list. Failure with what is wrong, and where: `first_line` is the number of the
  // text's first line, 0 for a text whose lines need no number.
  void Run(std::string_view text, Output const& output, std::size_t first_line = 0);
  // The first column of a query with at most one parameter.
  std::vector<std::string> Column(std::string const& query, std::string const& parameter = {});
  bool in_transaction() const;

  // The name that the database has among the attached ones.
  std::string const& schema() const { return schema_; }

 private:
  struct Close {
    void operator()(sqlite3* handle) const;
  };

  std::string_view RunOne(std::string_view text, Output const& output, std::size_t first_line,
                          std::string_view all);
  std::string_view RunDefinition(std::string_view text, Output const& output,
                                 std::size_t first_line);

  std::unique_ptr<sqlite3, Close> handle_;
  std::string schema_;
};

// Whether a text ends after a complete statement, or has none.
bool IsWhole(std::string const& text);

// Creates an SQLite file through which the extension attaches the database when a client loads it.
// Throws Failure if the file exists.
void WriteWrapper(std::string const& directory, std::string const& file);

}  // namespace tool

#endif
