#include "world.h"

#include <stdlib.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <stdexcept>

#include "sql/extension.h"
#include "tables.h"

namespace sql_differential {
namespace {

constexpr int kMostSteps = 400;  // of a thousand instructions each
constexpr std::size_t kMostRows = 20'000;

Cell CellAt(sqlite3_stmt* statement, int column) {
  Cell cell;
  cell.type = sqlite3_column_type(statement, column);
  if (cell.type == SQLITE_INTEGER) cell.integer = sqlite3_column_int64(statement, column);
  if (cell.type == SQLITE_FLOAT) cell.real = sqlite3_column_double(statement, column);
  if (cell.type == SQLITE_TEXT || cell.type == SQLITE_BLOB) {
    auto const* const bytes = static_cast<char const*>(sqlite3_column_blob(statement, column));
    auto const length = static_cast<std::size_t>(sqlite3_column_bytes(statement, column));
    if (length > 0) cell.bytes.assign(bytes, length);
  }
  return cell;
}

int Rank(Cell const& cell) {
  switch (cell.type) {
    case SQLITE_NULL:
      return 0;
    case SQLITE_INTEGER:
    case SQLITE_FLOAT:
      return 1;
    case SQLITE_TEXT:
      return 2;
    default:
      return 3;
  }
}

int CompareNumbers(Cell const& a, Cell const& b) {
  if (a.type == SQLITE_INTEGER && b.type == SQLITE_INTEGER) {
    return a.integer < b.integer ? -1 : a.integer > b.integer;
  }
  double const x = a.type == SQLITE_INTEGER ? static_cast<double>(a.integer) : a.real;
  double const y = b.type == SQLITE_INTEGER ? static_cast<double>(b.integer) : b.real;
  if (x == y) return 0;
  bool const finite = std::isfinite(x) && std::isfinite(y);
  if (finite && std::abs(x - y) <= 1e-12 * std::max(std::abs(x), std::abs(y))) return 0;
  return x < y ? -1 : 1;
}

std::string ToText(Cell const& cell) {
  constexpr char kDigits[] = "0123456789abcdef";
  switch (cell.type) {
    case SQLITE_INTEGER:
      return std::to_string(cell.integer);
    case SQLITE_FLOAT: {
      char buffer[40];
      snprintf(buffer, sizeof buffer, "%.17g", cell.real);
      return std::string(buffer) + "r";
    }
    case SQLITE_TEXT:
      return "'" + cell.bytes + "'";
    case SQLITE_BLOB: {
      std::string text = "x'";
      for (char const byte : cell.bytes) {
        text += kDigits[static_cast<unsigned char>(byte) >> 4];
        text += kDigits[byte & 15];
      }
      return text + "'";
    }
    default:
      return "NULL";
  }
}

std::string Contents(TableMeta const& table) {
  std::string sql = "SELECT _oid, _table";
  for (ColumnMeta const& column : table.columns()) sql += ", " + column.name;
  return sql + " FROM " + table.name + " ORDER BY _oid";
}

bool Same(Row const& a, Row const& b) {
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (Compare(a[i], b[i]) != 0) return false;
  }
  return true;
}

// The first row in which two lists differ.
std::string DifferenceOf(std::vector<Row> const& ours, std::vector<Row> const& native) {
  for (std::size_t i = 0; i < std::max(ours.size(), native.size()); ++i) {
    if (i < ours.size() && i < native.size() && Same(ours[i], native[i])) continue;
    std::string const a = i < ours.size() ? ToText(ours[i]) : "nothing more";
    std::string const b = i < native.size() ? ToText(native[i]) : "nothing more";
    return "\n  " + a + "\nand in SQLite's copy\n  " + b;
  }
  return "";
}

}  // namespace

int Compare(Cell const& a, Cell const& b) {
  if (Rank(a) != Rank(b)) return Rank(a) < Rank(b) ? -1 : 1;
  if (Rank(a) == 0) return 0;
  if (Rank(a) == 1) return CompareNumbers(a, b);
  return a.bytes.compare(b.bytes);
}

std::string ToText(Row const& row) {
  std::string text;
  for (Cell const& cell : row) text += (text.empty() ? "" : "|") + ToText(cell);
  return text;
}

Side::Side() {
  if (sqlite3_open(":memory:", &handle_) != SQLITE_OK) throw std::runtime_error("no memory");
  sqlite3_extended_result_codes(handle_, 1);
  sqlite3_progress_handler(handle_, 1000, CountStep, this);
}

int Side::CountStep(void* self) {
  Side& side = *static_cast<Side*>(self);
  return side.limited_ && ++side.steps_ > kMostSteps ? 1 : 0;
}

Answer Side::RunLimited(std::string const& sql) {
  limited_ = true;
  steps_ = 0;
  Answer answer = Run(sql);
  limited_ = false;
  return answer;
}

Answer Side::Run(std::string const& sql) {
  Answer answer;
  sqlite3_stmt* statement = nullptr;
  std::int64_t const before = sqlite3_total_changes64(handle_);
  answer.code = sqlite3_prepare_v2(handle_, sql.c_str(), -1, &statement, nullptr);
  while (answer.code == SQLITE_OK || answer.code == SQLITE_ROW) {
    answer.code = sqlite3_step(statement);
    if (answer.code != SQLITE_ROW) break;
    Row row;
    for (int i = 0; i < sqlite3_column_count(statement); ++i) row.push_back(CellAt(statement, i));
    answer.rows.push_back(std::move(row));
    answer.given_up = answer.rows.size() > kMostRows;
    if (answer.given_up) break;
  }
  if (answer.code == SQLITE_DONE) answer.code = SQLITE_OK;
  if (answer.code != SQLITE_OK) answer.error = sqlite3_errmsg(handle_);
  answer.given_up = answer.given_up || answer.code == SQLITE_INTERRUPT;
  sqlite3_finalize(statement);
  answer.changes = sqlite3_total_changes64(handle_) - before;
  return answer;
}

Answer Side::Require(std::string const& sql) {
  Answer answer = Run(sql);
  if (answer.code != SQLITE_OK) throw std::runtime_error(sql + "\n" + answer.error);
  return answer;
}

Directory::Directory() {
  path_ = (std::filesystem::temp_directory_path() / "sagleme_differential_XXXXXX").string();
  if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("cannot make " + path_);
}

Directory::~Directory() { std::filesystem::remove_all(path_); }

World::World(Choices& choices)
    : database_(sagleme::Database::Create(directory_.path(), {}, {.no_sync = true})) {
  char* text = nullptr;
  if (sagleme::sql::Register(ours_.handle(), &text) != SQLITE_OK) {
    throw std::runtime_error(text == nullptr ? "no memory" : text);
  }
  ours_.Require("SELECT sagleme_attach('" + directory_.path() + "', 'shop')");
  ours_.Require("BEGIN");
  for (std::string const& each : OurDefinitions()) {
    ours_.Require("SELECT sagleme_exec('" + each + "')");
  }
  for (std::string const& each : NativeDefinitions()) native_.Require(each);
  for (IndexMeta const& index : Indexes()) {
    if (!choices.Chance(50)) continue;
    Dual const definition = DefinitionOf(index);
    ours_.Require("SELECT sagleme_exec('" + definition.ours + "')");
    if (!definition.native.empty()) native_.Require(definition.native);
  }
  ours_.Require("COMMIT");
}

std::vector<Row> World::ReferencesToNothing() {
  std::vector<Row> all;
  for (TableMeta const& table : Tables()) {
    for (ColumnMeta const& column : table.own) {
      if (!column.reference()) continue;
      std::string const& name = column.name;
      Answer const answer = native_.Require("SELECT '" + name + "', _oid, " + name + " FROM " +
                                            table.name + " WHERE " + name + " NOT IN (SELECT _oid" +
                                            " FROM " + column.target + ")");
      all.insert(all.end(), answer.rows.begin(), answer.rows.end());
    }
  }
  return all;
}

bool World::HasOthersThan(std::vector<Row> const& before) {
  auto const is_new = [&](Row const& row) {
    return std::none_of(before.begin(), before.end(),
                        [&](Row const& old) { return Same(old, row); });
  };
  std::vector<Row> const after = ReferencesToNothing();
  return std::any_of(after.begin(), after.end(), is_new);
}

bool World::MakesReferenceToNothing(std::string const& sql) {
  std::vector<Row> const before = ReferencesToNothing();
  native_.Require("SAVEPOINT reference");
  bool const made = native_.Run(sql).code == SQLITE_OK && HasOthersThan(before);
  native_.Require("ROLLBACK TO reference");
  native_.Require("RELEASE reference");
  return made;
}

Answer World::RunUnlessReferenceToNothing(std::string const& sql) {
  std::vector<Row> const before = ReferencesToNothing();
  native_.Require("SAVEPOINT reference");
  Answer answer = native_.Run(sql);
  if (answer.code == SQLITE_OK && HasOthersThan(before)) {
    answer = {};
    answer.code = SQLITE_CONSTRAINT_FOREIGNKEY;
    native_.Require("ROLLBACK TO reference");
  }
  if (native_.in_transaction()) native_.Require("RELEASE reference");
  return answer;
}

void World::CommitBoth() {
  if (ours_.in_transaction()) ours_.Require("COMMIT");
  if (native_.in_transaction()) native_.Require("COMMIT");
}

std::int64_t World::NextIds() {
  constexpr std::int64_t kSpan = 10'000'000'000'000;
  std::int64_t const first = next_id_ + kSpan;
  next_id_ = first + kSpan;
  return first;
}

std::string World::Difference() {
  for (TableMeta const& table : Tables()) {
    Answer const ours = ours_.Run(Contents(table));
    Answer const native = native_.Require(Contents(table));
    std::string const where = "table " + table.name + " holds";
    if (ours.code != SQLITE_OK) return where + " nothing that can be read: " + ours.error;
    std::string const difference = DifferenceOf(ours.rows, native.rows);
    if (!difference.empty()) return where + difference;
  }
  return "";
}

std::vector<std::int64_t> World::IdsOf(std::string const& table) {
  std::vector<std::int64_t> ids;
  for (Row const& row : native_.Require("SELECT _oid FROM " + table + " ORDER BY 1").rows) {
    ids.push_back(row[0].integer);
  }
  return ids;
}

}  // namespace sql_differential
