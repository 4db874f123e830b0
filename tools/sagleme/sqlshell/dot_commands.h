#ifndef SAGLEME_TOOL_SQLSHELL_DOT_COMMANDS_H
#define SAGLEME_TOOL_SQLSHELL_DOT_COMMANDS_H

// The commands of the prompt for SQL, which begin with a dot.

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cli/session.h"
#include "shell/settings.h"
#include "sqlshell/sql_connection.h"

namespace tool {

class DotCommands {
 public:
  // `read` gives all of a file that a user names.
  using ReadText = std::function<std::string(std::string const& file)>;
  DotCommands(Session& session, SqlConnection& connection, Settings& settings, ReadText read)
      : session_(session), connection_(connection), settings_(settings), read_(std::move(read)) {}

  static std::vector<std::pair<std::string, std::string>> Words();
  // Failure with kUsage for a line that is no such command.
  void Run(std::string const& line, Output const& output);
  // The form that .format chose.
  std::optional<Format> format() const { return format_; }

 private:
  void ListTables(std::string const& pattern, Output const& output);
  void ListIndexes(std::string const& table, Output const& output);
  void WriteSchema(std::string const& table, Output const& output);

  Session& session_;
  SqlConnection& connection_;
  Settings& settings_;
  ReadText read_;
  std::optional<Format> format_;
};

// What may complete the last word of a line: words of SQL, tables and columns.
std::vector<std::string> SqlCompletions(SqlConnection& connection, std::string const& line);

}  // namespace tool

#endif
