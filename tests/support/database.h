#ifndef SAGLEME_TESTS_SUPPORT_DATABASE_H
#define SAGLEME_TESTS_SUPPORT_DATABASE_H

// The fixture of the tests that run on the embedded kernel: a database, one context, a transaction,
// and the words in which tests speak of refusals.
//
// Tests are run one per process. With SAGLEME_TEST_BESIDE in the environment another database of
// the process is open while a test runs, and in use before and after it.

#include <gtest/gtest.h>
#include <lscoredb/host.h>
#include <sagleme/sagleme.h>

#include <functional>
#include <sagleme/metalayer.hpp>
#include <string>
#include <vector>

namespace sagleme_test {

// The text of the last failure in a context, empty for none.
std::u16string LastText(uint64_t context);
std::string Utf8(std::u16string const& text);
std::u16string Utf16(std::string const& text);

// A directory that goes with the object.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(TemporaryDirectory const&) = delete;
  TemporaryDirectory& operator=(TemporaryDirectory const&) = delete;
  std::string const& path() const { return path_; }

 private:
  std::string path_;
};

// Where a test puts a database that it opens again: `directory`, or where suites run on a server, a
// schema there that does not exist yet.
std::string NewPlace(std::string const& directory);

// One open database with one context.
class Database {
 public:
  // An empty place opens a database in memory, or where suites run on a server, a new one there.
  explicit Database(std::string const& place = "");
  ~Database();
  Database(Database const&) = delete;
  Database& operator=(Database const&) = delete;

  uint64_t context() const { return context_; }
  lscoredb* handle() const { return database_; }
  void Begin() { ASSERT_EQ(0u, lscoredb_begin(context_, LSCOREDB_READ_WRITE)); }
  void Commit() { ASSERT_EQ(0u, lscoredb_commit(context_)); }
  void Rollback() { ASSERT_EQ(0u, lscoredb_rollback(context_)); }

  // Runs the bootstrap to its end, committing at every yield. Returns the last status; `yields`
  // gets the number of times that control came back before the end.
  uint32_t Bootstrap(int* yields = nullptr);
  // Runs the bootstrap up to and including its `count`th yield, commits, and abandons the rest.
  uint32_t BootstrapUpTo(int count);

 private:
  lscoredb* database_ = nullptr;
  uint64_t context_ = 0;
};

// Runs `work` in a child process and returns its exit status: what `work` returns, or 128 + signal.
int InChildProcess(std::function<int()> const& work);

// A bootstrapped database in memory with a transaction open, and the context installed in the
// thread, so that the exported C++ can be called directly.
class DatabaseTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  uint64_t context() const { return database_->context(); }
  Database& database() { return *database_; }
  void Begin() { database_->Begin(); }
  void Commit() { database_->Commit(); }
  void Rollback() { database_->Rollback(); }

  // The status and the whole text of a call that must be refused.
  void ExpectRefused(uint32_t status, std::u16string const& text, uint32_t returned);
  void ExpectOk(uint32_t returned);

 private:
  std::unique_ptr<Database> database_;
};

// Column definitions by names, ended as the calls want them.
class Columns {
 public:
  Columns& Add(uint8_t logical_type, char16_t const* name, bool nullable = false);
  Columns& Ref(char16_t const* name, char16_t const* target);
  Columns& String(char16_t const* name) { return Add(SAGLEME_TYPE_TEXT, name, true); }
  Columns& Binary(char16_t const* name) { return Add(SAGLEME_TYPE_BINARY, name, true); }
  Columns& Long(char16_t const* name, bool nullable = false) {
    return Add(SAGLEME_TYPE_SIGNED, name, nullable);
  }
  Columns& ULong(char16_t const* name, bool nullable = false) {
    return Add(SAGLEME_TYPE_UNSIGNED, name, nullable);
  }
  Columns& Double(char16_t const* name, bool nullable = false) {
    return Add(SAGLEME_TYPE_DOUBLE, name, nullable);
  }
  Columns& Bool(char16_t const* name, bool nullable = false) {
    return Add(SAGLEME_TYPE_BOOL, name, nullable);
  }

  // Valid until the next change.
  operator LORV_COLUMN_DEFINITION_NAMES const*();

 private:
  std::vector<LORV_COLUMN_DEFINITION_NAMES> definitions_;
};

}  // namespace sagleme_test

#endif
