#include "sqlshell/dot_commands.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>

#include "base/failure.h"
#include "cli/command.h"
#include "cli/help.h"
#include "output/listing.h"
#include "query/names.h"
#include "shell/words.h"
#include "sql/definition.h"

namespace tool {
namespace {

constexpr char const* kWords[] = {
    "SELECT",   "FROM",     "WHERE",     "ORDER BY", "GROUP BY", "HAVING", "LIMIT",   "JOIN",
    "LEFT",     "INSERT",   "INTO",      "VALUES",   "UPDATE",   "SET",    "DELETE",  "BEGIN",
    "COMMIT",   "ROLLBACK", "SAVEPOINT", "RELEASE",  "CREATE",   "TABLE",  "UNDER",   "INDEX",
    "UNIQUE",   "ALTER",    "ADD",       "COLUMN",   "DROP",     "RENAME", "CASCADE", "EXPLAIN",
    "DISTINCT", "AND",      "BETWEEN",   "COALESCE", "COUNT",    "GLOB",   "LIKE",    "NULL"};

char Upper(char c) { return static_cast<char>(std::toupper(static_cast<unsigned char>(c))); }

bool BeginsWith(std::string const& word, std::string const& beginning) {
  return word.size() >= beginning.size() &&
         std::equal(beginning.begin(), beginning.end(), word.begin(),
                    [](char a, char b) { return Upper(a) == Upper(b); });
}

// Where the name at the end of a word begins: after a bracket, a dot or an operator.
std::size_t NameIn(std::string const& line) {
  std::size_t at = line.size();
  while (at > 0 && (std::isalnum(static_cast<unsigned char>(line[at - 1])) != 0 ||
                    line[at - 1] == '_' || (line[at - 1] & 0x80) != 0)) {
    --at;
  }
  return at;
}

std::string PatternOf(std::string const& word) { return word.empty() ? "%" : word; }

}  // namespace

std::vector<std::pair<std::string, std::string>> DotCommands::Words() {
  std::vector<std::pair<std::string, std::string>> words{
      {".tables [PATTERN]", "List the tables, or those whose names are LIKE a pattern"},
      {".indexes [TABLE]", "List the indexes, or those of a table"},
      {".schema [TABLE]", "Write the definitions, or those of a table and of what is derived"},
      {".format FORM", "table, records, json, csv or markdown: the form of results"},
      {".read FILE", "Run the statements of a file"},
      {".help", "Show this"},
      {".quit", "Leave; an open transaction is undone"}};
  for (auto const& [name, meaning] : Settings::Words()) words.emplace_back("." + name, meaning);
  return words;
}

void DotCommands::ListTables(std::string const& pattern, Output const& output) {
  Listing list({"Table"});
  for (std::string& name :
       connection_.Column("SELECT name FROM " + connection_.schema() +
                              ".sqlite_schema WHERE type = 'table' AND name LIKE ? ORDER BY name",
                          PatternOf(pattern))) {
    list.Add({Cell::Text(std::move(name))});
  }
  list.Print(output);
}

void DotCommands::ListIndexes(std::string const& table, Output const& output) {
  Listing list({"Index", "Table", "Columns", "Unique"});
  session_.Read([&](sagleme::Transaction& transaction) {
    sagleme::TablePtr const only = table.empty() ? nullptr : TableNamed(transaction, table);
    for (sagleme::TablePtr const& each : transaction.Tables()) {
      if (only != nullptr && each->name != only->name) continue;
      for (sagleme::Index const& index : each->indexes) {
        std::string columns;
        for (auto const& column : index.columns) {
          columns += (columns.empty() ? "" : ", ") + sagleme::ToUtf8(column.name);
          columns += column.ascending ? "" : " DESC";
        }
        list.Add({Cell::Text(sagleme::ToUtf8(index.name)), Cell::Text(sagleme::ToUtf8(each->name)),
                  Cell::Text(columns), Cell::Bool(index.unique)});
      }
    }
  });
  list.Print(output);
}

void DotCommands::WriteSchema(std::string const& table, Output const& output) {
  session_.Read([&](sagleme::Transaction& transaction) {
    auto const top = table.empty() ? nullptr : TableNamed(transaction, table);
    output.Print(sagleme::sql::DefinitionsOf(transaction, top));
  });
}

void DotCommands::Run(std::string const& line, Output const& output) {
  std::vector<std::string> words = SplitLine(line);
  std::string const name = words.front();
  std::string const argument = words.size() > 1 ? words[1] : "";
  if (name == ".help") {
    output.Print(TermList(Words()) + "Everything else is SQL, up to a semicolon.\n");
  } else if (name == ".tables") {
    ListTables(argument, output);
  } else if (name == ".indexes") {
    ListIndexes(argument, output);
  } else if (name == ".schema") {
    WriteSchema(argument, output);
  } else if (name == ".format") {
    format_ = FormatNamed(argument);
  } else if (name == ".read") {
    connection_.Run(read_(argument), output, 1);
  } else {
    words.front().erase(0, 1);
    if (!words.front().empty() && settings_.Take(words, output)) return;
    throw Failure(Exit::kUsage, fmt::format("unknown command {}", name),
                  ".help lists the commands.");
  }
}

std::vector<std::string> SqlCompletions(SqlConnection& connection, std::string const& line) {
  std::size_t const name = NameIn(line);
  std::string const kept =
      line.substr(std::min(LastWord(line), name), name - std::min(LastWord(line), name));
  std::string const begun = line.substr(name);
  std::vector<std::string> found;
  auto const add = [&](std::string const& word) {
    if (BeginsWith(word, begun)) found.push_back(kept + word);
  };
  if (line.starts_with('.')) {
    for (auto const& [term, meaning] : DotCommands::Words())
      add(term.substr(1, term.find(' ') - 1));
  } else if (!begun.empty()) {
    for (char const* const word : kWords) add(word);
  }
  for (std::string const& each : connection.Column(
           "SELECT name FROM " + connection.schema() +
           ".sqlite_schema WHERE type = 'table' UNION SELECT c.name FROM " + connection.schema() +
           ".sqlite_schema AS t JOIN pragma_table_info(t.name) AS c")) {
    add(each);
  }
  std::sort(found.begin(), found.end());
  found.erase(std::unique(found.begin(), found.end()), found.end());
  return found;
}

}  // namespace tool
