// What users of the kernel keep with a database or a context, and what a process has left when it
// has closed databases.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "kernel_test.h"

namespace lscoredb_test {
namespace {

int const kKey = 0;
int const kOtherKey = 0;

// Notes in which order values are released.
std::vector<int>* released = nullptr;

struct Value {
  explicit Value(int n) : number(n) {}
  int number;
};

void Release(void* value) {
  auto* const of_us = static_cast<Value*>(value);
  released->push_back(of_us->number);
  delete of_us;
}

std::uint64_t NumberOf(Session& session) {
  std::uint64_t number = 0;
  Check("database_number", lscoredb_database_number(session.context(), &number));
  return number;
}

void* Attached(Session& session, void const* key = &kKey) {
  void* found = &found;
  Check("attached", lscoredb_attached(session.context(), key, &found));
  return found;
}

Value* Attach(Session& session, int number, void const* key = &kKey) {
  auto value = std::make_unique<Value>(number);
  void* out = nullptr;
  Check("attach", lscoredb_attach(session.context(), key, value.get(), Release, &out));
  if (out == value.get()) value.release();
  return static_cast<Value*>(out);
}

class AttachTest : public testing::Test {
 protected:
  void SetUp() override { released = &released_; }

  std::vector<int> released_;
  TemporaryDirectory directory_;
};

TEST_F(AttachTest, Database_HasOneNumberInAllContextsAndHandles) {
  Database first(directory_.path());
  Database again(directory_.path());
  Database other;
  Session one(first);
  Session two(first);
  Session through_again(again);
  Session elsewhere(other);
  EXPECT_NE(NumberOf(one), 0u);
  EXPECT_EQ(NumberOf(one), NumberOf(two));
  EXPECT_EQ(NumberOf(one), NumberOf(through_again));
  EXPECT_NE(NumberOf(one), NumberOf(elsewhere));
}

TEST_F(AttachTest, DatabaseOpenedAgain_HasANewNumber) {
  std::vector<std::uint64_t> numbers;
  for (int i = 0; i < 5; ++i) {
    Database database(directory_.path());
    Session session(database);
    numbers.push_back(NumberOf(session));
  }
  std::sort(numbers.begin(), numbers.end());
  EXPECT_EQ(std::unique(numbers.begin(), numbers.end()), numbers.end());
}

TEST_F(AttachTest, AttachedValue_IsFoundInAllContextsOfItsDatabaseOnly) {
  Database database(directory_.path());
  Database other;
  Session one(database);
  Session two(database);
  Session elsewhere(other);
  EXPECT_EQ(Attached(one), nullptr);
  Value* const value = Attach(one, 1);
  EXPECT_EQ(Attached(one), value);
  EXPECT_EQ(Attached(two), value);
  EXPECT_EQ(Attached(two, &kOtherKey), nullptr);
  EXPECT_EQ(Attached(elsewhere), nullptr);
}

TEST_F(AttachTest, SecondAttach_KeepsTheFirstValue) {
  Database database;
  Session session(database);
  Value* const first = Attach(session, 1);
  EXPECT_EQ(Attach(session, 2), first);
  EXPECT_EQ(first->number, 1);
}

TEST_F(AttachTest, LastClose_ReleasesTheLastAttachedFirst) {
  {
    Database stays(directory_.path());
    {
      Database goes(directory_.path());
      Session session(goes);
      Attach(session, 1, &kKey);
      Attach(session, 2, &kOtherKey);
    }
    EXPECT_TRUE(released_.empty());
  }
  EXPECT_EQ(released_, (std::vector<int>{2, 1}));
}

TEST_F(AttachTest, ReleasedValue_MayCloseAnotherDatabase) {
  lscoredb* other = nullptr;
  ASSERT_EQ(lscoredb_open(nullptr, nullptr, &other), 0u);
  {
    Database database(directory_.path());
    Session session(database);
    void* out = nullptr;
    auto const close = [](void* value) {
      EXPECT_STATUS(0, lscoredb_close(static_cast<lscoredb*>(value)));
    };
    ASSERT_EQ(lscoredb_attach(session.context(), &kKey, other, close, &out), 0u);
  }
}

TEST_F(AttachTest, ContextClose_ReleasesItsOwnValue) {
  Database database;
  Session other(database);
  {
    Session session(database);
    void* out = nullptr;
    ASSERT_EQ(lscoredb_context_attach(session.context(), &kKey, new Value(7), Release, &out), 0u);
    void* found = nullptr;
    ASSERT_EQ(lscoredb_context_attached(session.context(), &kKey, &found), 0u);
    EXPECT_EQ(found, out);
    ASSERT_EQ(lscoredb_context_attached(other.context(), &kKey, &found), 0u);
    EXPECT_EQ(found, nullptr);
    EXPECT_TRUE(released_.empty());
  }
  EXPECT_EQ(released_, std::vector<int>{7});
}

TEST_F(AttachTest, BadArguments_AreRefused) {
  Database database;
  std::uint64_t closed = 0;
  {
    Session session(database);
    closed = session.context();
    void* out = nullptr;
    int value = 0;
    EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_database_number(closed, nullptr));
    EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_attach(closed, nullptr, &value, nullptr, &out));
    EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_attach(closed, &kKey, nullptr, nullptr, &out));
    EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_attach(closed, &kKey, &value, nullptr, nullptr));
    EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_attached(closed, &kKey, nullptr));
    EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_context_attached(closed, nullptr, &out));
  }
  void* out = nullptr;
  std::uint64_t number = 0;
  EXPECT_STATUS(LSCOREDB_UNKNOWN_CONTEXT, lscoredb_database_number(closed, &number));
  EXPECT_STATUS(LSCOREDB_UNKNOWN_CONTEXT, lscoredb_attached(closed, &kKey, &out));
  EXPECT_STATUS(LSCOREDB_UNKNOWN_CONTEXT, lscoredb_context_attach(0, &kKey, &out, nullptr, &out));
}

// ---- what is left of databases that were closed -------------------------------------------------

std::size_t OpenDescriptors() {
  return static_cast<std::size_t>(std::distance(
      std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator()));
}

std::size_t Mappings() {
  std::ifstream maps("/proc/self/maps");
  return static_cast<std::size_t>(
      std::count(std::istreambuf_iterator<char>(maps), std::istreambuf_iterator<char>(), '\n'));
}

TEST_F(AttachTest, LastClose_ReturnsDescriptorsAndMappings) {
  auto const use = [this](std::string const& name) {
    Database database(directory_ / name.c_str());
    Session session(database);
    session.Begin();
    session.CreateLayout(50, {{LORV_TYPE_LONG, 100}});
    session.Commit();
  };
  for (int i = 0; i < 10; ++i) use(std::to_string(i));
  std::size_t const descriptors = OpenDescriptors();
  std::size_t const mappings = Mappings();
  for (int i = 10; i < 60; ++i) use(std::to_string(i));
  EXPECT_EQ(OpenDescriptors(), descriptors);
  // The heap may have grown by a part of its own.
  EXPECT_LE(Mappings(), mappings + 4);
}

TEST_F(AttachTest, DirectoryRemovedWhileOpenAndCreatedAgain_IsAnotherDatabase) {
  std::string const place = directory_ / "db";
  Database gone(place);
  gone.ExpectDamage();
  Session in_gone(gone);
  std::filesystem::remove_all(place);
  for (int i = 0; i < 5; ++i) {
    Database anew(place);
    Session in_anew(anew);
    EXPECT_NE(NumberOf(in_anew), NumberOf(in_gone));
    std::filesystem::remove_all(place);
  }
}

}  // namespace
}  // namespace lscoredb_test
