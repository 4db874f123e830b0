#ifndef SAGLEME_TESTS_SQL_SUPPORT_H
#define SAGLEME_TESTS_SQL_SUPPORT_H

// A SQLite connection that says what it got, and a library of items and books to ask it about.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <sagleme/host.hpp>
#include <string>
#include <vector>

namespace sql_tests {

class Sql {
 public:
  explicit Sql(std::string const& file = ":memory:");
  ~Sql() { sqlite3_close(handle_); }
  Sql(Sql const&) = delete;
  Sql& operator=(Sql const&) = delete;

  sqlite3* handle() const { return handle_; }
  // All rows, values by "|", rows by line ends; texts and numbers as SQLite writes them, NULL, and
  // blobs in hexadecimal. A failure is "error: " and its text.
  std::string operator()(std::string const& sql);
  // The extended result code of the last statement.
  int code() const { return code_; }

 private:
  sqlite3* handle_ = nullptr;
  int code_ = SQLITE_OK;
};

// The rows of a statement that is stepped by hand.
class Statement {
 public:
  Statement(Sql& sql, std::string const& text);
  ~Statement() { sqlite3_finalize(handle_); }
  Statement(Statement const&) = delete;
  Statement& operator=(Statement const&) = delete;

  // Empty at the end.
  std::string Next();
  void Restart() { sqlite3_reset(handle_); }

 private:
  sqlite3_stmt* handle_ = nullptr;
};

// Library.Person (Name, Boss), Library.Item (Title, Year, Price, Lender) and below it Library.Book
// (Pages), in a directory of its own that goes with the object.
class Library {
 public:
  Library();
  ~Library();

  std::string const& directory() const { return directory_; }
  // Runs host code in a transaction of another context and commits.
  template <typename Work>
  void Change(Work&& work) {
    sagleme::Context context(database());
    sagleme::Transaction transaction(context);
    work(transaction);
    transaction.Commit();
  }
  // Runs host code in another context.
  template <typename Work>
  void Use(Work&& work) {
    sagleme::Context const context(database());
    work(context);
  }
  sagleme::ObjectId AddItem(std::u16string const& table, std::u16string const& title,
                            std::int64_t year);
  // A connection that has the database attached as "lib".
  std::string AttachTo(Sql& sql);

 private:
  sagleme::Database const& database() const { return *database_; }

  std::string directory_;
  std::optional<sagleme::Database> database_;
};

}  // namespace sql_tests

#endif
