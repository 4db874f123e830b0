#include "sql_crash/hostile_sql.h"

#include <sstream>
#include <vector>

namespace sql_crash {
namespace {

constexpr int kDeepest = 3;

constexpr std::string_view kTables[] = {
    "Account",         "Savings",    "\"Account only\"", "\"Bank.Account\"", "bank.Savings",
    "only('Account')", "only('No')", "only(NULL)",       "main.log",         "sqlite_schema",
    "RawView",         "RawColumn",  "nothing",          "bank.nothing"};
constexpr std::string_view kColumns[] = {"Name",   "Balance",  "Rate",  "_oid", "_table",
                                         "rowid",  "_version", "Boss",  "*",    "n",
                                         "Nobody", "a.Name",   "b._oid"};
constexpr std::string_view kConstants[] = {"0",
                                           "-1",
                                           "9223372036854775807",
                                           "-9223372036854775808",
                                           "9223372036854775808",
                                           "18446744073709551615",
                                           "18446744073709551616",
                                           "1e308",
                                           "-1e999",
                                           "0.1",
                                           "-0.0",
                                           "NULL",
                                           "''",
                                           "'3'",
                                           "'%'",
                                           "'\xed\xa0\x80'",
                                           "'\xff\xfe'",
                                           "'a\xf0\x9f\x98\x80'",
                                           "x''",
                                           "x'00'",
                                           "x'0000000000000001'",
                                           "x'd800'",
                                           "zeroblob(70000)",
                                           "printf('%.*c', 3000, 'x')",
                                           "char(0)",
                                           "char(0x10FFFF)",
                                           "CAST(x'ff00' AS TEXT)"};
constexpr std::string_view kOperators[] = {"=",   "<>",   "<",    "<=", ">",   ">=", "IS", "IS NOT",
                                           "||",  "+",    "-",    "*",  "/",   "%",  "&",  "->",
                                           "->>", "LIKE", "GLOB", "IN", "AND", "OR"};
constexpr std::string_view kFunctions[] = {
    "sagleme_deref", "sagleme_exact", "is_of",  "abs",          "hex",    "max",
    "count",         "length",        "typeof", "json_extract", "substr", "group_concat"};
constexpr std::string_view kTypes[] = {"text",    "bigint", "uint",         "double",  "decimal",
                                       "binary",  "bool",   "REF(Account)", "REF(No)", "text(3)",
                                       "nothing", "\"\"",   "key"};
constexpr std::string_view kNames[] = {"Account", "Savings", "Bank.New",       "\"Bank.New\"",
                                       "New",     "\"\"",    "Lorvenstack.X",  "AccountByName",
                                       "ByNew",   "1",       "\"a.b.c.d.e.f\""};

}  // namespace

std::string HostileSql::Table() { return Pick(kTables); }
std::string HostileSql::Column() { return Pick(kColumns); }
std::string HostileSql::Constant() { return Pick(kConstants); }

std::string HostileSql::Quoted(std::string const& text) const {
  std::string quoted = "'";
  for (char const each : text) quoted += each == '\'' ? std::string("''") : std::string(1, each);
  return quoted + "'";
}

std::string HostileSql::Call(int depth) {
  std::string call = Pick(kFunctions) + "(";
  if (Chance(50)) call += "'bank', ";
  std::size_t const count = Below(4);
  for (std::size_t i = 0; i < count; ++i) {
    call += (i == 0 ? "" : ", ") + Expression(depth + 1);
  }
  return call + ")";
}

std::string HostileSql::Expression(int depth) {
  if (depth > kDeepest || Chance(30)) return Chance(60) ? Column() : Constant();
  switch (Below(6)) {
    case 0:
      return Call(depth);
    case 1:
      return "(" + Select(depth + 1) + ")";
    case 2:
      return "CASE WHEN " + Condition(depth + 1) + " THEN " + Expression(depth + 1) + " END";
    case 3:
      return "CAST(" + Expression(depth + 1) + " AS " + (Chance(50) ? "TEXT" : "INTEGER") + ")";
    default:
      return "(" + Expression(depth + 1) + " " + Pick(kOperators) + " " + Expression(depth + 1) +
             ")";
  }
}

std::string HostileSql::Condition(int depth) {
  if (depth > kDeepest) return Column() + " = " + Constant();
  switch (Below(5)) {
    case 0:
      return Expression(depth) + " BETWEEN " + Constant() + " AND " + Constant();
    case 1:
      return Column() + " IN (" + Constant() + ", " + Constant() + ", " + Constant() + ")";
    case 2:
      return Column() + " IN (" + Select(depth + 1) + ")";
    case 3:
      return "EXISTS (" + Select(depth + 1) + ")";
    default:
      return Column() + " " + Pick(kOperators) + " " + Constant();
  }
}

std::string HostileSql::Select(int depth) {
  std::string text = Chance(20) ? "SELECT DISTINCT " : "SELECT ";
  text += Expression(depth + 1) + " FROM " + Table() + " AS a";
  if (Chance(30))
    text += (Chance(50) ? " JOIN " : " LEFT JOIN ") + Table() + " AS b ON " + Condition(depth + 1);
  if (Chance(70)) text += " WHERE " + Condition(depth);
  if (Chance(15)) text += " GROUP BY " + Column() + " HAVING " + Condition(depth + 1);
  if (Chance(30)) text += " ORDER BY " + Column() + (Chance(50) ? " DESC, " : ", ") + Column();
  text += " LIMIT " + (Chance(90) ? std::to_string(Below(20)) : Constant());
  if (Chance(20)) text += " OFFSET " + Constant();
  if (depth == 0 && Chance(10)) text += " UNION ALL " + Select(kDeepest);
  return text;
}

// Rolled back by who runs it.
std::string HostileSql::Change() {
  switch (Below(4)) {
    case 0:
      return (Chance(50) ? "INSERT INTO " : "INSERT OR REPLACE INTO ") + Table() + "(" + Column() +
             ", " + Column() + ") VALUES(" + Constant() + ", " + Expression(1) + ")";
    case 1:
      return "UPDATE " + Table() + " SET " + Column() + " = " + Expression(1) + " WHERE " +
             Condition(1);
    case 2:
      return "DELETE FROM " + Table() + " WHERE " + Condition(1);
    default:
      return "INSERT INTO " + Table() + " " + Select(1);
  }
}

std::string HostileSql::Definition() {
  std::string text = Chance(15) ? "EXPLAIN " : "";
  switch (Below(6)) {
    case 0:
      text += "CREATE TABLE " + Pick(kNames) + " (" + Pick(kNames) + " " + Pick(kTypes) + ", x " +
              Pick(kTypes) + (Chance(30) ? " NOT NULL" : "") + ")" +
              (Chance(50) ? " UNDER " + Pick(kNames) : "");
      break;
    case 1:
      text += "ALTER TABLE " + Pick(kNames) + " ADD COLUMN " + Pick(kNames) + " " + Pick(kTypes);
      break;
    case 2:
      text += "ALTER TABLE " + Pick(kNames) + " RENAME " +
              (Chance(50) ? "TO " : "COLUMN Name TO ") + Pick(kNames);
      break;
    case 3:
      text += "DROP TABLE " + Pick(kNames) + (Chance(50) ? " CASCADE" : "");
      break;
    case 4:
      text += std::string("CREATE ") + (Chance(50) ? "UNIQUE " : "") + "INDEX " + Pick(kNames) +
              " ON " + Pick(kNames) + " (Name" + (Chance(30) ? " DESC, Name" : "") + ")";
      break;
    default:
      text += "DROP INDEX " + Pick(kNames);
  }
  return text;
}

std::string HostileSql::Spoil(std::string text) {
  std::istringstream words(text);
  std::vector<std::string> all;
  for (std::string word; words >> word;) all.push_back(word);
  if (all.empty()) return text;
  std::size_t const at = Below(all.size());
  std::size_t const other = Below(all.size());
  switch (Below(4)) {
    case 0:
      all.erase(all.begin() + static_cast<std::ptrdiff_t>(at));
      break;
    case 1:
      all.insert(all.begin() + static_cast<std::ptrdiff_t>(at), all[other]);
      break;
    case 2:
      std::swap(all[at], all[other]);
      break;
    default:
      all[at] = all[at].substr(0, Below(all[at].size() + 1));
  }
  std::string spoilt;
  for (std::string const& word : all) spoilt += word + " ";
  return spoilt;
}

std::string HostileSql::Statement() {
  std::string text;
  std::size_t const kind = Below(10);
  if (kind < 5) text = Select(0);
  if (kind >= 5 && kind < 8) text = Change();
  if (kind >= 8) text = Definition();
  if (Chance(20)) text = Spoil(std::move(text));
  return kind >= 8 ? "SELECT sagleme_exec(" + Quoted(text) + ", 'bank')" : text;
}

}  // namespace sql_crash
