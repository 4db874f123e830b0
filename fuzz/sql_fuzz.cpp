// SQL by a grammar, over tables that derive from one another, with values of every kind where they
// do not belong. Each input is a transaction that is rolled back. Every refusal must have a text,
// and the rows for which a condition is true, false and unknown must be all rows.

#include <sqlite3.h>
#include <stdlib.h>

#include <array>
#include <filesystem>
#include <optional>
#include <sagleme/host.hpp>

#include "input.h"
#include "sql/extension.h"

using sagleme_fuzz::Input;
using sagleme_fuzz::Require;

namespace {

constexpr int kMostSteps = 20000;  // of SQLite's machine, for one statement, in hundreds
constexpr int kMostText = 100000;
constexpr int kMostRows = 1000;

struct Table {
  char const* name;
  std::vector<char const*> columns;
};

std::vector<Table> const& Tables() {
  static std::vector<Table> const kTables{
      {"Item", {"Title", "Year", "Price", "Lender", "_oid", "_table", "Lender->'Name'"}},
      {"Book", {"Title", "Year", "Pages", "Cover", "rowid", "Lender->'Boss'->'Name'"}},
      {"Person", {"Name", "Boss", "_oid", "_version", "Boss->'Name'"}},
      {"\"Book only\"", {"Title", "Price", "Pages", "Lender", "_oid"}},
      {"\"Lib.Item\"", {"Year", "Title", "Price", "_table"}},
      {"plain", {"Title", "Year", "Pages", "Name", "rowid"}}};
  return kTables;
}

constexpr char const* kLiterals[] = {"NULL",
                                     "0",
                                     "1",
                                     "-1",
                                     "9223372036854775807",
                                     "-9223372036854775808",
                                     "18446744073709551615",
                                     "1e308",
                                     "-0.0",
                                     "0.1",
                                     "1e999",
                                     "''",
                                     "'a'",
                                     "'B'",
                                     "'1'",
                                     "' 12'",
                                     "'%'",
                                     "'a%'",
                                     "'_b*'",
                                     "'Ünï\xF0\x9F\x98\x80'",
                                     "char(0xD800)",
                                     "char(0xFFFD)",
                                     "x''",
                                     "x'00FF'",
                                     "x'7FF8000000000000'",
                                     "zeroblob(40000)",
                                     "current_date"};
constexpr char const* kBinary[] = {"+",
                                   "-",
                                   "*",
                                   "/",
                                   "%",
                                   "||",
                                   "<",
                                   "<=",
                                   ">",
                                   ">=",
                                   "=",
                                   "<>",
                                   "IS",
                                   "IS NOT",
                                   "LIKE",
                                   "GLOB",
                                   "AND",
                                   "OR",
                                   "&",
                                   "->",
                                   "->>",
                                   "<<",
                                   "IS NOT DISTINCT FROM"};
constexpr char const* kUnary[] = {"NOT ", "-", "+", "~"};
constexpr char const* kFunctions[] = {"length", "typeof", "abs",    "upper",
                                      "hex",    "quote",  "unicode"};
constexpr char const* kAggregates[] = {"count", "sum",          "min",  "max",
                                       "avg",   "group_concat", "total"};
constexpr char const* kCollations[] = {"BINARY", "NOCASE", "RTRIM"};
constexpr char const* kTypes[] = {"integer",   "bigint", "text",        "blob",    "double",
                                  "REF(Book)", "bool",   "REF(Nobody)", "numeric", "no type"};

// A directory with a database, and a connection that has it attached, for the whole process.
class Library {
 public:
  Library() {
    std::string pattern = (std::filesystem::temp_directory_path() / "sql_fuzz_XXXXXX").string();
    Require(mkdtemp(pattern.data()) != nullptr, "a directory is made");
    directory_ = pattern;
    {
      // SQL then opens it as it likes; nothing is committed while inputs run.
      sagleme::Database::Create(directory_, {}, {.no_sync = true});
    }
    Require(sqlite3_open(":memory:", &handle_) == SQLITE_OK, "SQLite opens");
    Require(sagleme::sql::Register(handle_, nullptr) == SQLITE_OK, "the extension registers");
    sqlite3_limit(handle_, SQLITE_LIMIT_LENGTH, kMostText);
    Must("SELECT sagleme_attach('" + directory_ + "', 'lib')");
    Must(
        "SELECT sagleme_exec('"
        "CREATE TABLE Lib.Person (Name text, Boss REF(Lib.Person));"
        "CREATE TABLE Lib.Item (Title text, Year bigint NOT NULL, Price decimal,"
        " Lender REF(Lib.Person));"
        "CREATE TABLE Lib.Book (Pages bigint, Cover binary) UNDER Lib.Item;"
        "CREATE UNIQUE INDEX PersonByName ON Person (Name);"
        "CREATE INDEX ItemByTitle ON Item (Title, Year DESC);"
        "CREATE INDEX ItemByYear ON Item (Year);"
        "CREATE INDEX BookByPages ON Book (Pages DESC)')");
    Must("CREATE TABLE plain (Title, Year, Price, Lender, Pages, Cover, Name, Boss)");
    Fill();
  }
  ~Library() {
    sqlite3_close(handle_);
    std::filesystem::remove_all(directory_);
  }
  Library(Library const&) = delete;
  Library& operator=(Library const&) = delete;

  sqlite3* handle() const { return handle_; }
  void Must(std::string const& text) {
    int const code = sqlite3_exec(handle_, text.c_str(), nullptr, nullptr, nullptr);
    Require(code == SQLITE_OK, (text + ": " + sqlite3_errmsg(handle_)).c_str());
  }

 private:
  void Fill() {
    Must("BEGIN");
    Must("INSERT INTO Person(Name) VALUES ('Ada'), ('Bo'), ('a'), (''), (NULL)");
    Must("UPDATE Person SET Boss = (SELECT _oid FROM Person WHERE Name = 'Ada') WHERE Name > 'A'");
    for (int i = 0; i < 40; ++i) {
      std::string const n = std::to_string(i);
      std::string const title = i % 7 == 0 ? "NULL" : "'" + std::string(1, char('A' + i % 9)) + "'";
      std::string const rest = title + ", " + n + " * 97 % 13, " + n +
                               " / 4.0, (SELECT _oid FROM Person WHERE Name = 'Bo')";
      Must(i % 3 == 0 ? "INSERT INTO Item(Title, Year, Price, Lender) VALUES (" + rest + ")"
                      : "INSERT INTO Book(Title, Year, Price, Lender, Pages) VALUES (" + rest +
                            ", nullif(" + n + " % 5, 0))");
    }
    Must(
        "INSERT INTO plain(Title, Year, Pages, Name) VALUES ('A', 1, 2, 'Ada'), (NULL, 3, 4, 'B')");
    Must("COMMIT");
  }

  std::string directory_;
  sqlite3* handle_ = nullptr;
};

class Generator {
 public:
  explicit Generator(Input& input) : input_(input) {}

  // Most of a statement is about one table; what else it names does not always exist.
  void ChooseTable() { home_ = &Tables()[input_.Below(Tables().size())]; }

  std::string Statement() {
    ChooseTable();
    switch (input_.Below(12)) {
      case 0:
        return "INSERT " + Conflict() + "INTO " + TableName() + "(" + Columns() + ") " + Rows();
      case 1:
        return "UPDATE " + Conflict() + TableName() + " SET " + Column() + " = " + Expression(2) +
               Where();
      case 2:
        return "DELETE FROM " + TableName() + Where();
      case 3:
        return Savepoint();
      case 4:
        return "SELECT sagleme_exec(" + Quoted(Definition()) + ")";
      case 5:
        return Garbage();
      case 6:
        return "WITH c AS (" + Query(2) + ") SELECT * FROM c, " + TableName() + Where() +
               " LIMIT 9";
      default:
        return Query(3);
    }
  }
  // Often one that an index may serve.
  std::string Condition() {
    if (input_.Flag()) return Expression(3);
    constexpr char const* kBetween[] = {" AND ", " AND ", " OR "};
    std::string text = Comparison();
    for (std::size_t more = input_.Below(3); more > 0; --more) text += Of(kBetween) + Comparison();
    return "(" + text + ")";
  }
  std::string TableName() {
    std::size_t const which = input_.Below(32);
    if (which == 0) return "Missing";
    return which < 6 ? Tables()[which].name : home_->name;
  }

 private:
  template <std::size_t Count>
  std::string Of(char const* const (&words)[Count]) {
    return words[input_.Below(Count)];
  }
  std::string Column() {
    if (input_.Below(32) == 0) return "\"no such\"";
    return home_->columns[input_.Below(home_->columns.size())];
  }
  std::string Columns() {
    std::string text = Column();
    for (std::size_t more = input_.Below(3); more > 0; --more) text += ", " + Column();
    return text;
  }
  std::string Conflict() {
    constexpr char const* kWays[] = {"", "", "OR REPLACE ", "OR IGNORE ", "OR ABORT ", "OR FAIL "};
    return Of(kWays);
  }
  std::string AnyTable() { return Tables()[input_.Below(Tables().size())].name; }
  static std::string Quoted(std::string const& text) {
    std::string quoted = "'";
    for (char const c : text) quoted += c == '\'' ? std::string("''") : std::string(1, c);
    return quoted + "'";
  }

  std::string Comparison() {
    constexpr char const* kOperators[] = {"<", "<=", ">", ">=", "=", "<>", "IS", "LIKE", "GLOB"};
    if (input_.Below(6) == 0) return Column() + " IN (" + Value() + ", " + Value() + ")";
    return Column() + " " + Of(kOperators) + " " + Value();
  }
  std::string Value() {
    return input_.Below(3) == 0
               ? "'" + std::string(1, static_cast<char>('A' + input_.Below(9))) + "'"
               : Of(kLiterals);
  }
  std::string Expression(int depth) {
    if (depth == 0) return input_.Flag() ? Column() : Of(kLiterals);
    std::string const a = Expression(depth - 1);
    switch (input_.Below(13)) {
      case 0:
        return Of(kUnary) + ("(" + a + ")");
      case 1:
        return Of(kFunctions) + ("(" + a + ")");
      case 2:
        return "(" + a + ") IN (" + Expression(0) + ", " + Expression(0) + ")";
      case 3:
        return "(" + a + ") BETWEEN " + Expression(0) + " AND " + Expression(0);
      case 4:
        return "CASE WHEN " + a + " THEN " + Expression(depth - 1) + " ELSE " + Expression(0) +
               " END";
      case 5:
        return "(" + a + ") IN (SELECT " + Column() + " FROM " + TableName() + ")";
      case 6:
        return "(" + a + " COLLATE " + Of(kCollations) + ")";
      case 7:
        return "EXISTS (SELECT 1 FROM " + TableName() + " AS inner_one" + Where(depth - 1) + ")";
      case 8:
        return "is_of(" + a + ", " + Quoted(AnyTable()) + ")";
      case 9:
        return "sagleme_deref('lib', " + Column() + ", " + Quoted(Column()) + ")";
      case 10:
        return "sagleme_exact('lib', _oid, " + Quoted(Column()) + ")";
      default:
        return "(" + a + ") " + Of(kBinary) + " (" + Expression(depth - 1) + ")";
    }
  }
  std::string Where(int depth = 2) {
    return input_.Below(3) == 0 ? "" : " WHERE " + (depth > 1 ? Condition() : Expression(depth));
  }

  std::string From() {
    constexpr char const* kJoins[] = {" JOIN ", " LEFT JOIN ", ", ", " CROSS JOIN "};
    if (input_.Below(6) == 0) return "only(" + Quoted(AnyTable()) + ")";
    std::string const one = TableName();
    if (input_.Below(3) != 0) return one;
    std::string const join = Of(kJoins);
    std::string const on = join == ", " ? "" : " ON " + Expression(1);
    return one + " AS one" + join + TableName() + " AS two" + on;
  }
  std::string Query(int depth) {
    std::string text = "SELECT ";
    std::size_t const kind = input_.Below(6);
    if (kind == 0) text += Of(kAggregates) + ("(" + Expression(1) + ")");
    if (kind == 1) text += "DISTINCT " + Column();
    if (kind == 2) text += "*";
    if (kind == 3) text += Expression(1) + ", row_number() OVER (ORDER BY " + Column() + ")";
    if (kind > 3) text += Columns() + ", " + Expression(1);
    text += " FROM " + From() + Where(depth);
    if (input_.Below(5) == 0) text += " GROUP BY " + Column() + " HAVING " + Expression(1);
    if (depth > 1 && input_.Below(6) == 0) {
      constexpr char const* kCompounds[] = {" UNION ", " UNION ALL ", " EXCEPT ", " INTERSECT "};
      text += Of(kCompounds) + ("SELECT " + Column() + " FROM " + TableName() + Where(1));
    }
    if (input_.Flag()) text += " ORDER BY " + Column() + (input_.Flag() ? " DESC" : "");
    if (input_.Below(3) == 0) text += " LIMIT " + Of(kLiterals) + " OFFSET " + Of(kLiterals);
    return text;
  }
  std::string Rows() {
    if (input_.Below(4) == 0) return Query(1);
    return "VALUES (" + Expression(1) + ", " + Expression(0) + ")";
  }
  std::string Savepoint() {
    constexpr char const* kWords[] = {"SAVEPOINT s", "ROLLBACK TO s", "RELEASE s", "SAVEPOINT t",
                                      "ROLLBACK TO t"};
    return Of(kWords);
  }
  std::string Definition() {
    switch (input_.Below(8)) {
      case 0:
        return "CREATE TABLE New" + std::to_string(input_.Below(3)) + " (A " + Of(kTypes) + ", B " +
               Of(kTypes) + ") UNDER " + TableName();
      case 1:
        return "ALTER TABLE " + TableName() + " ADD COLUMN C" + std::to_string(input_.Below(3)) +
               " " + Of(kTypes);
      case 2:
        return "ALTER TABLE " + TableName() + " DROP COLUMN " + Column();
      case 3:
        return "ALTER TABLE " + TableName() + " RENAME COLUMN " + Column() + " TO " + Column();
      case 4:
        return "CREATE UNIQUE INDEX New ON " + TableName() + " (" + Columns() + ")";
      case 5:
        return "DROP TABLE " + TableName() + (input_.Flag() ? " CASCADE" : "");
      case 6:
        return "EXPLAIN " + Garbage();
      default:
        return Garbage();
    }
  }
  // Words in any order and bytes of any kind.
  std::string Garbage() {
    constexpr char const* kWords[] = {"SELECT",  "FROM",  "CREATE", "TABLE", "(",    ")",
                                      ",",       "'",     "\"",     ";",     "--",   "/*",
                                      "?",       "@",     "\n",     "UNDER", "Item", "Year",
                                      "integer", "INDEX", "ON",     "\xFF",  "\xC3"};
    std::string text;
    for (std::size_t words = input_.Below(12); words > 0; --words) {
      text += input_.Below(5) == 0 ? std::string(1, static_cast<char>(input_.Byte() | 1))
                                   : Of(kWords) + std::string(" ");
    }
    return text;
  }

  Input& input_;
  Table const* home_ = &Tables().front();
};

class Session {
 public:
  explicit Session(Library& library) : library_(library) { library_.Must("BEGIN"); }
  ~Session() {
    if (sqlite3_get_autocommit(handle()) == 0) library_.Must("ROLLBACK");
  }
  Session(Session const&) = delete;
  Session& operator=(Session const&) = delete;

  // A statement may have ended the transaction, as SQLite says of some of its errors.
  bool open() const { return sqlite3_get_autocommit(handle()) == 0; }

  // The first column of the first row, or nothing when the statement was refused.
  std::optional<sqlite3_int64> Run(std::string const& text) {
    sqlite3_stmt* statement = nullptr;
    steps_ = 0;
    sqlite3_progress_handler(handle(), 100, &Session::IsTooLong, this);
    int code = sqlite3_prepare_v2(handle(), text.c_str(), -1, &statement, nullptr);
    sqlite3_int64 first = 0;
    for (int row = 0; code == SQLITE_OK && statement != nullptr && row < kMostRows; ++row) {
      int const step = sqlite3_step(statement);
      if (step != SQLITE_ROW) {
        code = step == SQLITE_DONE ? SQLITE_OK : step;
        break;
      }
      if (row == 0) first = sqlite3_column_int64(statement, 0);
      ReadAll(statement);
    }
    if (code != SQLITE_OK) CheckRefusal(text);
    sqlite3_finalize(statement);
    sqlite3_progress_handler(handle(), 0, nullptr, nullptr);
    if (code != SQLITE_OK) return std::nullopt;
    return first;
  }

  // Every row of a table is one of the three.
  void CheckCondition(std::string const& table, std::string const& condition) {
    std::string const count = "SELECT count(*) FROM " + table;
    auto const all = Run(count);
    auto const yes = Run(count + " WHERE " + condition);
    auto const no = Run(count + " WHERE NOT (" + condition + ")");
    auto const unknown = Run(count + " WHERE (" + condition + ") IS NULL");
    if (!all || !yes || !no || !unknown) return;
    Require(*all == *yes + *no + *unknown,
            (table + " has " + std::to_string(*all) + " rows: true for " + std::to_string(*yes) +
             ", false for " + std::to_string(*no) + ", unknown for " + std::to_string(*unknown) +
             ": " + condition)
                .c_str());
  }

 private:
  sqlite3* handle() const { return library_.handle(); }

  static int IsTooLong(void* session) {
    return ++static_cast<Session*>(session)->steps_ > kMostSteps / 100 ? 1 : 0;
  }
  static void ReadAll(sqlite3_stmt* statement) {
    for (int i = 0; i < sqlite3_column_count(statement); ++i) {
      if (sqlite3_column_type(statement, i) == SQLITE_NULL) continue;
      Require(
          sqlite3_column_blob(statement, i) != nullptr || sqlite3_column_bytes(statement, i) == 0,
          "a value can be read");
    }
  }
  void CheckRefusal(std::string const& text) {
    int const code = sqlite3_extended_errcode(handle());
    char const* const said = sqlite3_errmsg(handle());
    Require(said != nullptr && *said != '\0', ("no text for " + text).c_str());
    bool const expected = (code & 0xFF) != SQLITE_CORRUPT && (code & 0xFF) != SQLITE_INTERNAL &&
                          (code & 0xFF) != SQLITE_MISUSE && (code & 0xFF) != SQLITE_NOMEM &&
                          (code & 0xFF) != SQLITE_IOERR;
    Require(expected, (std::string(said) + " for " + text).c_str());
  }

  Library& library_;
  int steps_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  static Library library;
  Input input(data, size);
  Generator generator(input);
  Session session(library);
  for (int i = 0; i < 20 && !input.empty() && session.open(); ++i) {
    if (input.Below(3) == 0) {
      generator.ChooseTable();
      std::string const table = generator.TableName();
      session.CheckCondition(table, generator.Condition());
    } else {
      session.Run(generator.Statement());
    }
  }
  return 0;
}
