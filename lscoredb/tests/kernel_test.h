#ifndef LSCOREDB_TESTS_KERNEL_TEST_H
#define LSCOREDB_TESTS_KERNEL_TEST_H

// The dialect of the kernel's tests.
//
// A Database is closed at the end of its scope, a Session is one context of it. A session's methods
// are for calls that have to succeed: they throw Unexpected otherwise, which ends the test with the
// name of the call and its status. Calls that have to fail are made through the contract's own
// functions and judged by EXPECT_STATUS. Reads give an empty optional for null.
//
// Layouts default to 0, the object's own; sets default to kSet.

#include <gtest/gtest.h>
#include <lscoredb/host.h>
#include <lscoredb/lscoredb.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "contract_key.h"

#define EXPECT_STATUS(expected, call) \
  EXPECT_PRED_FORMAT2(::lscoredb_test::StatusIs, static_cast<std::uint32_t>(expected), call)

namespace lscoredb_test {

using Oid = std::uint64_t;
using Oids = std::vector<Oid>;
using IndexId = std::uint64_t;
using LayoutId = std::uint16_t;
using Text = std::u16string;
using Bytes = std::vector<std::uint8_t>;
using Sizes = std::vector<std::size_t>;

inline constexpr char16_t kSet[] = u"set/";

testing::AssertionResult StatusIs(char const* expected_text, char const* call_text,
                                  std::uint32_t expected, std::uint32_t actual);

class Unexpected : public std::runtime_error {
 public:
  Unexpected(char const* call, std::uint32_t status);
  std::uint32_t status() const { return status_; }

 private:
  std::uint32_t status_;
};

// Throws Unexpected for a status that is not 0.
void Check(char const* call, std::uint32_t status);

lscoredb_options DefaultOptions();
lscoredb_options NoSync();

// A directory of its own for one test, removed with all that is in it.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(TemporaryDirectory const&) = delete;
  TemporaryDirectory& operator=(TemporaryDirectory const&) = delete;
  std::string path() const { return path_.string(); }
  std::string operator/(char const* name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

// What the check reports, without its text.
struct Finding {
  std::uint32_t kind = 0;
  Oid object = 0;
  IndexId index = 0;
  LayoutId layout = 0;
  std::uint32_t column = LSCOREDB_NO_COLUMN;

  friend bool operator==(Finding const&, Finding const&) = default;
};
std::ostream& operator<<(std::ostream& out, Finding const& finding);
std::vector<Finding> Findings(lscoredb* database, std::uint32_t flags = 0);

// Nothing is wrong with it when it is closed, or the test fails.
class Database {
 public:
  Database();  // in memory
  explicit Database(lscoredb_options const& options);
  explicit Database(std::string const& directory, lscoredb_options const& options = NoSync());
  ~Database();
  Database(Database const&) = delete;
  Database& operator=(Database const&) = delete;
  lscoredb* get() const { return database_; }
  void Close();
  // Something may well be wrong with it.
  void ExpectDamage() { damage_expected_ = true; }

 private:
  void ExpectSound() const;

  lscoredb* database_ = nullptr;
  bool damage_expected_ = false;
};

struct Column {
  std::uint32_t type;
  std::uint64_t token;
  bool nullable = true;
};
using Columns = std::vector<Column>;

// Columns as the contract takes them, with the ending entry.
std::vector<LORVI_COLUMN_DEFINITION> Definitions(Columns const& columns);

struct IndexTraits {
  bool unique = false;
  std::uint16_t descending = 0;  // bit i: the i-th column
};
inline constexpr IndexTraits kUnique{.unique = true, .descending = 0};

class Session {
 public:
  explicit Session(Database const& database);
  ~Session();
  Session(Session const&) = delete;
  Session& operator=(Session const&) = delete;
  std::uint64_t context() const { return context_; }
  void Close();

  void Begin();
  void BeginReadOnly();
  void Commit();
  void Rollback();
  std::uint32_t TryCommit() { return lscoredb_commit(context_); }

  LayoutId CreateLayout(std::uint64_t token, Columns const& columns, LayoutId base = 0);
  LORVI_LAYOUT_INFO LayoutInfo(LayoutId layout);
  LORVI_COLUMN_INFO ColumnInfo(LayoutId layout, std::uint16_t column);
  std::vector<LayoutId> LayoutsByToken(std::uint64_t token);
  IndexId CreateIndex(std::uint64_t token, Text const& setspec, Columns const& columns,
                      IndexTraits traits = {});
  std::uint32_t TryCreateIndex(std::uint64_t token, Text const& setspec, Columns const& columns,
                               IndexTraits traits, IndexId* out);
  void DropIndex(IndexId index);
  std::vector<IndexId> IndexesByToken(std::uint64_t token);

  Oid Insert(LayoutId layout, char16_t const* setspec = kSet);
  Oid InsertBare(LayoutId layout);  // no set specifier yet
  void InsertWithId(LayoutId layout, Oid oid);
  void Delete(Oid oid);
  bool Exists(Oid oid);
  LayoutId LayoutOf(Oid oid);

  std::optional<std::int64_t> Long(Oid oid, std::uint32_t column, LayoutId layout = 0);
  std::optional<std::uint64_t> ULong(Oid oid, std::uint32_t column, LayoutId layout = 0);
  std::optional<std::int64_t> Decimal(Oid oid, std::uint32_t column, LayoutId layout = 0);
  std::optional<float> Float(Oid oid, std::uint32_t column, LayoutId layout = 0);
  std::optional<double> Double(Oid oid, std::uint32_t column, LayoutId layout = 0);
  std::optional<Text> String(Oid oid, std::uint32_t column, LayoutId layout = 0);
  std::optional<Bytes> Binary(Oid oid, std::uint32_t column, LayoutId layout = 0);
  std::optional<Oid> RefId(Oid oid, std::uint32_t column, LayoutId layout = 0);
  std::optional<LORV_REFERENCE> Reference(Oid oid, std::uint32_t column, LayoutId layout = 0);
  std::optional<Text> Setspec(Oid oid);

  void PutLong(Oid oid, std::uint32_t column, std::int64_t value, LayoutId layout = 0);
  void PutULong(Oid oid, std::uint32_t column, std::uint64_t value, LayoutId layout = 0);
  void PutDecimal(Oid oid, std::uint32_t column, std::int64_t millionths, LayoutId layout = 0);
  void PutFloat(Oid oid, std::uint32_t column, float value, LayoutId layout = 0);
  void PutDouble(Oid oid, std::uint32_t column, double value, LayoutId layout = 0);
  void PutString(Oid oid, std::uint32_t column, Text const& text, LayoutId layout = 0);
  void PutBinary(Oid oid, std::uint32_t column, Bytes const& bytes, LayoutId layout = 0);
  void PutReference(Oid oid, std::uint32_t column, Oid target, LayoutId layout = 0);
  void PutDefault(Oid oid, std::uint32_t column, LayoutId layout = 0);
  void PutSetspec(Oid oid, Text const& setspec);

  // The kernel's own memory, for tests of what may be done with it.
  LORV_STRING* StringRecord(Oid oid, std::uint32_t column);
  LORV_BINARY* BinaryRecord(Oid oid, std::uint32_t column);

  // The objects from one key to another; without keys, the whole index.
  Oids Scan(IndexId index, Key const& from = Key(), Key const& to = Key());
  Oids ScanBack(IndexId index, Key const& from = Key(), Key const& to = Key());
  Oids At(IndexId index, Key const& key) { return Scan(index, key, key); }

 private:
  Oids Scan(IndexId index, Key const& from, Key const& to, std::uint32_t flags);

  std::uint64_t context_ = 0;
};

// An open scan; freed at the end of its scope unless it was freed before.
class Scanner {
 public:
  Scanner(Session& session, IndexId index, Key const& from = Key(), Key const& to = Key(),
          std::uint32_t flags = LORV_ITERATOR_FORWARD);
  ~Scanner();
  Scanner(Scanner const&) = delete;
  Scanner& operator=(Scanner const&) = delete;
  LORV_REFERENCE NextReference();
  Oid Next() { return NextReference().oid; }  // 0 at the end
  Oids Rest();
  std::uint64_t handle() const { return handle_; }
  std::uint32_t Free();

 private:
  std::uint64_t handle_ = 0;
};

// Runs `body` in `count` threads at once, with the thread's number, and hands on the first
// exception.
void InParallel(int count, std::function<void(int)> const& body);

// A database in memory with one session.
class KernelTest : public testing::Test {
 protected:
  void Restart();  // commits, and begins anew

  Database database_;
  Session session_{database_};
};

}  // namespace lscoredb_test

#endif
