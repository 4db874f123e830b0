#ifndef SAGLEME_BENCH_SQLITE_H
#define SAGLEME_BENCH_SQLITE_H

// SQLite's handles as owners. What fails throws a runtime_error.

#include <sqlite3.h>

#include <cstdint>
#include <stdexcept>
#include <string>

namespace bench::sqlite {

inline void Check(int code, int expected = SQLITE_OK) {
  if (code != expected) throw std::runtime_error(sqlite3_errstr(code));
}

class Statement {
 public:
  Statement(sqlite3* database, char const* text) {
    if (sqlite3_prepare_v3(database, text, -1, SQLITE_PREPARE_PERSISTENT, &statement_, nullptr) !=
        SQLITE_OK) {
      throw std::runtime_error(std::string(text) + ": " + sqlite3_errmsg(database));
    }
  }
  ~Statement() { sqlite3_finalize(statement_); }
  Statement(Statement const&) = delete;
  Statement& operator=(Statement const&) = delete;

  Statement& Bind(int at, std::int64_t value) {
    Check(sqlite3_bind_int64(statement_, at, value));
    return *this;
  }
  Statement& Bind(int at, double value) {
    Check(sqlite3_bind_double(statement_, at, value));
    return *this;
  }
  Statement& Bind(int at, std::string const& text) {
    Check(sqlite3_bind_text(statement_, at, text.data(), static_cast<int>(text.size()),
                            SQLITE_STATIC));
    return *this;
  }
  bool Step() {
    int const code = sqlite3_step(statement_);
    if (code == SQLITE_ROW) return true;
    if (code == SQLITE_DONE) return false;
    throw std::runtime_error(sqlite3_errmsg(sqlite3_db_handle(statement_)));
  }
  void Reset() { Check(sqlite3_reset(statement_)); }
  void Run() {
    Step();
    Reset();
  }
  std::int64_t Long(int column) { return sqlite3_column_int64(statement_, column); }
  double Double(int column) { return sqlite3_column_double(statement_, column); }
  unsigned char const* Text(int column) { return sqlite3_column_text(statement_, column); }

 private:
  sqlite3_stmt* statement_ = nullptr;
};

}  // namespace bench::sqlite

#endif
