#include "support/database.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "postgres_url.h"

namespace sagleme_test {

namespace {

struct ContinuationFreer {
  void operator()(continuation_context* handle) const { free_continuation_handle(handle); }
};
using Continuation = std::unique_ptr<continuation_context, ContinuationFreer>;

// A child that was forked off has no part in its parent's databases, so a test that expects the end
// of its process begins anew in a process of its own.
class DeathTestsInNewProcesses : public testing::Environment {
 public:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

[[maybe_unused]] auto* const g_death_tests_in_new_processes =
    testing::AddGlobalTestEnvironment(new DeathTestsInNewProcesses);

}  // namespace

std::u16string LastText(uint64_t context) {
  char16_t const* const text = lorv_metalayer_errbuf(context);
  return text == nullptr ? std::u16string() : std::u16string(text);
}

std::string Utf8(std::u16string const& text) {
  std::string out;
  for (char16_t const unit : text) {
    if (unit < 0x80) {
      out += static_cast<char>(unit);
    } else {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04X", static_cast<unsigned>(unit));
      out += escaped;
    }
  }
  return out;
}

std::u16string Utf16(std::string const& text) { return std::u16string(text.begin(), text.end()); }

TemporaryDirectory::TemporaryDirectory() {
  std::string name = (std::filesystem::temp_directory_path() / "sagleme-test-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) std::abort();
  path_ = name;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string NewPlace(std::string const& directory) { return lscore::NewPlace(directory); }

Database::Database(std::string const& place) {
  std::string const found = place.empty() ? NewPlace("") : place;
  EXPECT_EQ(0u, lscoredb_open(found.empty() ? nullptr : found.c_str(), nullptr, &database_));
  if (database_ == nullptr) return;
  EXPECT_EQ(0u, lscoredb_context_open(database_, &context_));
}

Database::~Database() {
  if (context_ != 0) {
    EXPECT_EQ(0u, lscoredb_context_close(context_));
  }
  if (database_ != nullptr) {
    EXPECT_EQ(0u, lscoredb_close(database_));
  }
}

uint32_t Database::Bootstrap(int* yields) {
  int count = 0;
  Begin();
  continuation_context* next = nullptr;
  bool more = false;
  uint32_t status = lorv_prepare_system_tables(context_, &next, &more);
  Continuation held(next);
  while (status == 0 && more) {
    ++count;
    Commit();
    Begin();
    status = run_continuation(held.get(), &next, &more);
    held.reset(next);
  }
  if (status == 0) {
    Commit();
  } else {
    Rollback();
  }
  if (yields != nullptr) *yields = count;
  return status;
}

uint32_t Database::BootstrapUpTo(int count) {
  Begin();
  continuation_context* next = nullptr;
  bool more = false;
  uint32_t status = lorv_prepare_system_tables(context_, &next, &more);
  Continuation held(next);
  for (int reached = 1; status == 0 && more && reached < count; ++reached) {
    Commit();
    Begin();
    status = run_continuation(held.get(), &next, &more);
    held.reset(next);
  }
  Commit();
  return status;
}

int InChildProcess(std::function<int()> const& work) {
  pid_t const child = fork();
  if (child == 0) _exit(work());
  int state = 0;
  if (child < 0 || waitpid(child, &state, 0) != child) return -1;
  return WIFEXITED(state) ? WEXITSTATUS(state) : 128 + WTERMSIG(state);
}

void DatabaseTest::SetUp() {
  database_ = std::make_unique<Database>();
  ASSERT_EQ(0u, database_->Bootstrap());
  Begin();
  *metalayer::TlsMetalayerContext::Current() = context();
}

void DatabaseTest::TearDown() {
  *metalayer::TlsMetalayerContext::Current() = 0;
  database_.reset();
}

void DatabaseTest::ExpectRefused(uint32_t status, std::u16string const& text, uint32_t returned) {
  EXPECT_EQ(status, returned);
  EXPECT_EQ(Utf8(text), Utf8(LastText(context())));
}

void DatabaseTest::ExpectOk(uint32_t returned) {
  EXPECT_EQ(0u, returned) << Utf8(LastText(context()));
}

Columns& Columns::Add(uint8_t logical_type, char16_t const* name, bool nullable) {
  definitions_.push_back({logical_type, nullptr, static_cast<uint8_t>(nullable), name});
  return *this;
}

Columns& Columns::Ref(char16_t const* name, char16_t const* target) {
  definitions_.push_back({metalayer::kLogicalReference, target, 1, name});
  return *this;
}

Columns::operator LORV_COLUMN_DEFINITION_NAMES const*() {
  if (definitions_.empty() || definitions_.back().name != nullptr) {
    definitions_.push_back({0, nullptr, 0, nullptr});
  }
  return definitions_.data();
}

// ---- another database beside that of the test ---------------------------------------------------

namespace {

// A database with a table and a few objects, which have to stay as they are.
class Neighbour : public ::testing::Environment {
 public:
  void SetUp() override {
    database_ = std::make_unique<Database>();
    ASSERT_EQ(0u, database_->Bootstrap());
    database_->Begin();
    uint16_t layout = 0;
    ASSERT_EQ(0u, lorv_create_table_by_names(context(), kTable, nullptr, Columns().Long(u"Number"),
                                             &layout));
    ASSERT_EQ(0u, lorv_crud_GetCreateHandle(context(), kTable, &create_));
    ASSERT_EQ(0u, lorv_crud_GetPropertyHandle(context(), kTable, u"Number", &number_));
    database_->Commit();
    Use();
  }

  void TearDown() override {
    Use();
    database_.reset();
  }

 private:
  static constexpr char16_t kTable[] = u"Beside.Table";

  uint64_t context() const { return database_->context(); }

  // Adds an object and reads all that there are, the type of each by its layout.
  void Use() {
    database_->Begin();
    uint64_t oid = 0;
    uint64_t addr = 0;
    uint64_t table_type = 0;
    ASSERT_EQ(0u, lorv_crud_GetTypeId(context(), kTable, &table_type));
    ASSERT_EQ(0u, lorv_crud_CreateObject(context(), create_, &oid, &addr));
    objects_.push_back(oid);
    ASSERT_EQ(0u, lorv_crud_WriteLong(context(), number_, oid, addr, Number(objects_.size())));
    for (std::size_t i = 0; i < objects_.size(); ++i) {
      uint64_t type = 0;
      int64_t number = 0;
      ASSERT_EQ(0u, lorv_crud_Lookup(context(), objects_[i], &addr, &type));
      ASSERT_EQ(table_type, type);
      ASSERT_EQ(0u, lorv_crud_ReadLong(context(), number_, objects_[i], addr, &number));
      ASSERT_EQ(Number(i + 1), number);
    }
    database_->Commit();
  }
  static int64_t Number(std::size_t count) { return static_cast<int64_t>(1000 + count); }

  std::unique_ptr<Database> database_;
  CreateInfo* create_ = nullptr;
  PropertyAccessInfo* number_ = nullptr;
  std::vector<uint64_t> objects_;
};

::testing::Environment* const neighbour = std::getenv("SAGLEME_TEST_BESIDE") == nullptr
                                              ? nullptr
                                              : ::testing::AddGlobalTestEnvironment(new Neighbour);

}  // namespace
}  // namespace sagleme_test
