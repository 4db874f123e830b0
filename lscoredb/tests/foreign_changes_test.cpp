// Rows in memory beside commits of another process, over a store that lists what these changed. Two
// databases over the same data play the processes.

#include <gtest/gtest.h>

#include "database.h"
#include "memory_store.h"
#include "transaction.h"

namespace lscore {
namespace {

constexpr std::uint64_t kRowMemory = std::uint64_t{1} << 20;
constexpr std::uint32_t kValue = kFirstStoredColumn;
constexpr TypeSet kLong = TypeBit(LORV_TYPE_LONG);

struct Process {
  explicit Process(std::unique_ptr<MemoryStore> its_store)
      : store(its_store.get()),
        database(std::make_shared<Database>(std::move(its_store), kRowMemory, "")),
        transaction(database) {}

  std::uint64_t Read(ObjectId id) {
    std::uint64_t value = 0;
    EXPECT_EQ(LORV_STATUS_OK, transaction.ReadFixed(id, kNoLayout, kValue, kLong, &value));
    return value;
  }
  std::uint64_t ReadAnew(ObjectId id) {
    transaction.Begin(true);
    std::uint64_t const value = Read(id);
    transaction.Rollback();
    return value;
  }
  void Write(ObjectId id, std::uint64_t value) {
    NewValue const written{NewValue::Kind::kFixed, value, {}, {}};
    EXPECT_EQ(LORV_STATUS_OK, transaction.Write(id, kNoLayout, kValue, kLong, written));
  }
  void Commit() { EXPECT_EQ(LORV_STATUS_OK, transaction.Commit()); }
  void WriteAndCommit(ObjectId id, std::uint64_t value) {
    transaction.Begin(false);
    Write(id, value);
    Commit();
  }

  MemoryStore* store;
  std::shared_ptr<Database> database;
  Transaction transaction;
};

class ForeignChangesTest : public testing::Test {
 protected:
  ForeignChangesTest() {
    here_.transaction.Begin(false);
    LayoutNumber const layout = here_.transaction.CreateLayout(
        Token{50}, kNoLayout, {{Token{100}, LORV_TYPE_LONG, true, true, 0}});
    changed_ = here_.transaction.Insert(layout);
    unchanged_ = here_.transaction.Insert(layout);
    here_.Write(changed_, 1);
    here_.Write(unchanged_, 2);
    here_.Commit();
    here_.ReadAnew(changed_);
    here_.ReadAnew(unchanged_);
  }

  Process here_{std::make_unique<MemoryStore>()};
  Process there_{here_.store->Beside()};
  ObjectId changed_{};
  ObjectId unchanged_{};
};

TEST_F(ForeignChangesTest, RowChangedByAnotherProcess_IsReadAgain) {
  there_.WriteAndCommit(changed_, 10);
  EXPECT_EQ(10U, here_.ReadAnew(changed_));
}

TEST_F(ForeignChangesTest, UnchangedRows_StayInMemory) {
  there_.WriteAndCommit(changed_, 10);
  std::size_t const given = here_.store->rows_given();
  EXPECT_EQ(2U, here_.ReadAnew(unchanged_));
  EXPECT_EQ(given, here_.store->rows_given());
  EXPECT_EQ(10U, here_.ReadAnew(changed_));
  EXPECT_EQ(given + 1, here_.store->rows_given());
}

TEST_F(ForeignChangesTest, OlderSnapshot_KeepsItsVersion) {
  here_.transaction.Begin(true);
  EXPECT_EQ(1U, here_.Read(changed_));
  there_.WriteAndCommit(changed_, 10);
  Transaction later(here_.database);
  later.Begin(true);
  std::uint64_t value = 0;
  EXPECT_EQ(LORV_STATUS_OK, later.ReadFixed(changed_, kNoLayout, kValue, kLong, &value));
  EXPECT_EQ(10U, value);
  EXPECT_EQ(1U, here_.Read(changed_));
  later.Rollback();
  here_.transaction.Rollback();
}

// A reader of an old state does not bring its version back after the new one was reported.
TEST_F(ForeignChangesTest, OlderSnapshot_CachesNothingOutdated) {
  here_.transaction.Begin(true);
  there_.WriteAndCommit(changed_, 10);
  Transaction later(here_.database);
  later.Begin(true);
  EXPECT_EQ(1U, here_.Read(changed_));
  std::uint64_t value = 0;
  EXPECT_EQ(LORV_STATUS_OK, later.ReadFixed(changed_, kNoLayout, kValue, kLong, &value));
  EXPECT_EQ(10U, value);
  later.Rollback();
  here_.transaction.Rollback();
}

TEST_F(ForeignChangesTest, ForeignChangesBetweenOwnCommits_AreSeen) {
  there_.WriteAndCommit(changed_, 10);
  here_.WriteAndCommit(unchanged_, 20);
  EXPECT_EQ(10U, here_.ReadAnew(changed_));
  EXPECT_EQ(20U, there_.ReadAnew(unchanged_));
}

TEST_F(ForeignChangesTest, RowDeletedByAnotherProcess_IsGone) {
  there_.transaction.Begin(false);
  EXPECT_EQ(LORV_STATUS_OK, there_.transaction.Delete(changed_));
  there_.Commit();
  here_.transaction.Begin(true);
  LayoutNumber layout{};
  EXPECT_EQ(LORV_STATUS_NO_OBJECT, here_.transaction.Lookup(changed_, &layout));
  here_.transaction.Rollback();
}

}  // namespace
}  // namespace lscore
