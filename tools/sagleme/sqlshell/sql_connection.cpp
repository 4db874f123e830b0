#include "sqlshell/sql_connection.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <algorithm>
#include <filesystem>

#include "base/failure.h"
#include "base/interrupt.h"
#include "base/watch.h"
#include "output/list_writer.h"
#include "output/value_text.h"
#include "sql/definition.h"
#include "sql/extension.h"

namespace tool {
namespace {

constexpr int kStepsBetweenLooks = 1000;
constexpr char kSchema[] = "db";

Exit ExitOf(int code) {
  switch (code & 0xFF) {
    case SQLITE_ERROR:
      return Exit::kUsage;
    case SQLITE_CONSTRAINT:
    case SQLITE_MISMATCH:
      return Exit::kProblem;
    case SQLITE_CANTOPEN:
    case SQLITE_NOTADB:
      return Exit::kCannotOpen;
    default:
      return Exit::kRefused;
  }
}

// " (line 3, column 8)", or the column alone where there is one line.
std::string Position(std::string_view all, std::size_t offset, std::size_t first_line) {
  std::string_view const before = all.substr(0, offset);
  auto const line = static_cast<std::size_t>(std::count(before.begin(), before.end(), '\n'));
  auto const start = before.rfind('\n');
  std::size_t const column = start == std::string_view::npos ? offset + 1 : offset - start;
  if (first_line == 0 && line == 0) return fmt::format(" (column {})", column);
  return fmt::format(" (line {}, column {})", line + std::max<std::size_t>(first_line, 1), column);
}

// SQLite would take it for the end of the text.
void RefuseZeroBytes(std::string_view text, std::size_t first_line) {
  std::size_t const at = text.find('\0');
  if (at == std::string_view::npos) return;
  throw Failure(Exit::kUsage,
                "there is a zero byte in the statements" + Position(text, at, first_line),
                "The input must be text in UTF-8.");
}

[[noreturn]] void Fail(sqlite3* handle, std::string const& position) {
  int const code = sqlite3_errcode(handle);
  if (code == SQLITE_INTERRUPT) CheckInterrupt();
  std::string const advice =
      (code & 0xFF) == SQLITE_BUSY ? "The transaction was undone; run it again." : "";
  throw Failure(ExitOf(code), sqlite3_errmsg(handle) + position, advice);
}

struct Finalize {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

Statement Prepare(sqlite3* handle, std::string_view text, std::string_view* rest) {
  sqlite3_stmt* made = nullptr;
  char const* end = nullptr;
  int const code =
      sqlite3_prepare_v2(handle, text.data(), static_cast<int>(text.size()), &made, &end);
  if (code == SQLITE_OK) *rest = text.substr(static_cast<std::size_t>(end - text.data()));
  return Statement(made);
}

Cell CellAt(sqlite3_stmt* statement, int column) {
  switch (sqlite3_column_type(statement, column)) {
    case SQLITE_INTEGER:
      return ValueCell(std::int64_t{sqlite3_column_int64(statement, column)});
    case SQLITE_FLOAT:
      return ValueCell(sqlite3_column_double(statement, column));
    case SQLITE_TEXT: {
      auto const* const text =
          reinterpret_cast<char const*>(sqlite3_column_text(statement, column));
      if (text == nullptr) throw std::bad_alloc();
      return Cell::Text({text, static_cast<std::size_t>(sqlite3_column_bytes(statement, column))});
    }
    case SQLITE_BLOB: {
      auto const* const bytes =
          static_cast<unsigned char const*>(sqlite3_column_blob(statement, column));
      return ValueCell(sagleme::Bytes(bytes, bytes + sqlite3_column_bytes(statement, column)));
    }
    default:
      return {};
  }
}

std::vector<std::string> HeadingOf(sqlite3_stmt* statement) {
  std::vector<std::string> heading;
  for (int i = 0; i < sqlite3_column_count(statement); ++i) {
    heading.emplace_back(sqlite3_column_name(statement, i));
  }
  return heading;
}

Row RowOf(sqlite3_stmt* statement) {
  Row row;
  for (int i = 0; i < sqlite3_column_count(statement); ++i) row.push_back(CellAt(statement, i));
  return row;
}

// The rows, as they come. False when one could not be had.
bool Print(sqlite3_stmt* statement, Output const& output) {
  ListWriter list(output, HeadingOf(statement));
  int code = sqlite3_step(statement);
  for (; code == SQLITE_ROW; code = sqlite3_step(statement)) list.Add(RowOf(statement));
  if (code != SQLITE_DONE) return false;
  list.Finish();
  return true;
}

int LookForInterrupt(void*) { return InterruptPending() ? 1 : 0; }

bool OnlyBlanks(std::string_view text) {
  return text.find_first_not_of(" \t\r\n;") == std::string_view::npos;
}

void Execute(sqlite3* handle, std::string const& sql) {
  if (sqlite3_exec(handle, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) Fail(handle, "");
}

std::unique_ptr<sqlite3, int (*)(sqlite3*)> Open(char const* file) {
  sqlite3* handle = nullptr;
  int const code =
      sqlite3_open_v2(file, &handle, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  std::unique_ptr<sqlite3, int (*)(sqlite3*)> opened(handle, sqlite3_close);
  if (code == SQLITE_OK) return opened;
  throw Failure(Exit::kCannotOpen, fmt::format("cannot open {}: {}", file, sqlite3_errstr(code)));
}

}  // namespace

void SqlConnection::Close::operator()(sqlite3* handle) const { sqlite3_close(handle); }

SqlConnection::SqlConnection(std::string const& directory)
    : handle_(Open(":memory:").release()), schema_(kSchema) {
  sqlite3_extended_result_codes(handle_.get(), 1);
  char* text = nullptr;
  if (sagleme::sql::Register(handle_.get(), &text) != SQLITE_OK) {
    std::string const what = text == nullptr ? "out of memory" : text;
    sqlite3_free(text);
    throw Failure(Exit::kRefused, what);
  }
  try {
    std::string_view rest;
    std::string const attach = fmt::format("SELECT sagleme_attach(?, '{}')", kSchema);
    Statement const statement = Prepare(handle_.get(), attach, &rest);
    sqlite3_bind_text64(statement.get(), 1, directory.data(), directory.size(), SQLITE_STATIC,
                        SQLITE_UTF8);
    if (sqlite3_step(statement.get()) != SQLITE_ROW) Fail(handle_.get(), "");
  } catch (Failure const& failure) {
    std::string const shown = sagleme::ShownPlace(directory);
    throw Failure(Exit::kCannotOpen, fmt::format("cannot open {}: {}", shown, failure.what()),
                  "Create one with: sagleme create " + shown);
  }
  sqlite3_progress_handler(handle_.get(), kStepsBetweenLooks, LookForInterrupt, nullptr);
}

bool SqlConnection::in_transaction() const { return sqlite3_get_autocommit(handle_.get()) == 0; }

// The grammar says where the statement ends.
std::string_view SqlConnection::RunDefinition(std::string_view text, Output const& output,
                                              std::size_t first_line) {
  std::string_view rest;
  try {
    sagleme::sql::ParseDefinition(text, &rest);
  } catch (std::exception const& error) {
    throw Failure(Exit::kUsage, first_line == 0 ? std::string(error.what())
                                                : fmt::format("{} (counted from line {})",
                                                              error.what(), first_line));
  }
  Watch const watch;
  std::string const one(text.substr(0, text.size() - rest.size()));
  try {
    for (std::string const& done :
         Column(fmt::format("SELECT sagleme_exec(?, '{}')", kSchema), one)) {
      output.Print(done + "\n");
    }
  } catch (Interrupted const&) {  // what was done of it may be kept, which the message then says
    std::string const message = sqlite3_errmsg(handle_.get());
    if (message != sqlite3_errstr(SQLITE_INTERRUPT)) output.Note(message + "\n");
    throw;
  }
  return rest;
}

std::string_view SqlConnection::RunOne(std::string_view text, Output const& output,
                                       std::size_t first_line, std::string_view all) {
  auto const at = static_cast<std::size_t>(text.data() - all.data());
  std::string_view rest;
  Statement const statement = Prepare(handle_.get(), text, &rest);
  if (statement == nullptr && sqlite3_errcode(handle_.get()) != SQLITE_OK) {
    int const offset = sqlite3_error_offset(handle_.get());
    Fail(handle_.get(),
         offset < 0 ? "" : Position(all, at + static_cast<std::size_t>(offset), first_line));
  }
  if (statement == nullptr) return rest;  // a comment
  bool const lists = sqlite3_column_count(statement.get()) > 0;
  bool const done =
      lists ? Print(statement.get(), output) : sqlite3_step(statement.get()) == SQLITE_DONE;
  if (!done) Fail(handle_.get(), first_line == 0 ? "" : Position(all, at, first_line));
  return rest;
}

void SqlConnection::Run(std::string_view text, Output const& output, std::size_t first_line) {
  std::string_view const all = text;
  RefuseZeroBytes(all, first_line);
  while (!OnlyBlanks(text)) {
    text.remove_prefix(text.find_first_not_of(" \t\r\n;"));
    std::string_view const before = all.substr(0, all.size() - text.size());
    auto const lines = static_cast<std::size_t>(std::count(before.begin(), before.end(), '\n'));
    text = sagleme::sql::BeginsDefinition(text)
               ? RunDefinition(text, output, first_line == 0 ? 0 : first_line + lines)
               : RunOne(text, output, first_line, all);
    output.Flush();  // what a statement gave is there, whatever becomes of the next one
  }
}

std::vector<std::string> SqlConnection::Column(std::string const& query,
                                               std::string const& parameter) {
  std::string_view rest;
  Statement const statement = Prepare(handle_.get(), query, &rest);
  if (statement == nullptr) Fail(handle_.get(), "");
  sqlite3_bind_text64(statement.get(), 1, parameter.data(), parameter.size(), SQLITE_STATIC,
                      SQLITE_UTF8);
  std::vector<std::string> values;
  int code = sqlite3_step(statement.get());
  for (; code == SQLITE_ROW; code = sqlite3_step(statement.get())) {
    values.push_back(CellAt(statement.get(), 0).Plain());
  }
  if (code != SQLITE_DONE) Fail(handle_.get(), "");
  return values;
}

bool IsWhole(std::string const& text) {
  return OnlyBlanks(text) || sqlite3_complete(text.c_str()) != 0;
}

void WriteWrapper(std::string const& directory, std::string const& file) {
  if (std::filesystem::exists(file)) {
    throw Failure(Exit::kUsage, fmt::format("{} is there already", file),
                  "Choose another name, or remove it first.");
  }
  bool const on_server = sagleme::IsServerUrl(directory);
  std::string const path = on_server ? directory : std::filesystem::canonical(directory).string();
  auto const handle = Open(file.c_str());
  Execute(handle.get(), "CREATE TABLE sagleme_attach(directory TEXT NOT NULL, schema TEXT)");
  std::string_view rest;
  Statement const statement =
      Prepare(handle.get(), "INSERT INTO sagleme_attach(directory) VALUES (?)", &rest);
  sqlite3_bind_text64(statement.get(), 1, path.data(), path.size(), SQLITE_STATIC, SQLITE_UTF8);
  if (sqlite3_step(statement.get()) != SQLITE_DONE) Fail(handle.get(), "");
}

}  // namespace tool
