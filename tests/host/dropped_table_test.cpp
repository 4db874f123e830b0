// Objects of a dropped table stay until vacuum takes them away. Until then no range, count or
// search of the tables above shows them.

#include <gtest/gtest.h>

#include <array>
#include <sagleme/check.hpp>
#include <sagleme/counts.hpp>
#include <sagleme/host.hpp>
#include <sagleme/vacuum.hpp>

#include "new_database.h"

namespace {

using sagleme::ColumnSpec;
using sagleme::Object;
using sagleme::Range;
using sagleme::Transaction;
using sagleme::Type;
using sagleme::Value;

class DroppedTableTest : public ::testing::Test {
 protected:
  DroppedTableTest() : database_(sagleme_test::NewDatabase()), context_(database_) {
    Transaction transaction(context_);
    std::array const columns{ColumnSpec{u"Name", Type::kString}};
    std::array const by_name{sagleme::IndexColumnSpec{u"Name"}};
    sagleme::CreateTable(transaction, u"App.Thing", u"", columns);
    sagleme::CreateTable(transaction, u"App.Tool", u"App.Thing", {});
    sagleme::CreateTable(transaction, u"App.Toy", u"App.Thing", {});
    sagleme::CreateIndex(transaction, u"ThingByName", u"App.Thing", by_name);
    Make(transaction, u"App.Thing", u"a");
    Make(transaction, u"App.Tool", u"ab");
    Make(transaction, u"App.Toy", u"abc");
    transaction.Commit();
  }

  static void Make(Transaction& transaction, char16_t const* table, std::u16string const& name) {
    auto const found = transaction.table(table);
    Object object = Object::Create(transaction, *found);
    object.Set(u"Name", Value{name});
  }

  static std::size_t Count(Range range) {
    std::size_t count = 0;
    for ([[maybe_unused]] Object const& object : range) ++count;
    return count;
  }

  void ExpectSeen(Transaction& transaction, std::size_t count) {
    auto const thing = transaction.table(u"App.Thing");
    sagleme::Index const& index = thing->indexes.front();
    std::vector<Value> const first{std::u16string(u"a")};
    std::vector<Value> const last{std::u16string(u"abd")};
    EXPECT_EQ(count, Count(Range::Subtree(transaction, *thing)));
    EXPECT_EQ(count, Count(Range::Matching(transaction, index, {})));
    EXPECT_EQ(count, Count(Range::Matching(transaction, index, {}, sagleme::Direction::kReverse)));
    EXPECT_EQ(count, Count(Range::StartingWith(transaction, index, u"a")));
    EXPECT_EQ(count, Count(Range::Between(transaction, index, {index, first}, {index, last})));
    EXPECT_EQ(count, sagleme::ObjectCounts(transaction).Subtree(*thing));
  }

  void DropTool() {
    Transaction transaction(context_);
    sagleme::DropTable(transaction, u"App.Tool");
    ExpectSeen(transaction, 2);
    transaction.Commit();
  }

  std::vector<std::string> Problems() {
    Transaction transaction(context_, sagleme::Access::kReadOnly);
    std::vector<std::string> rules;
    sagleme::CheckCatalogue(
        transaction, {}, [&](sagleme::Finding const& finding) { rules.push_back(finding.rule); });
    return rules;
  }

  sagleme::Database database_;
  sagleme::Context context_;
};

TEST_F(DroppedTableTest, ItsObjects_AreInNoRangeUntilVacuumRemovesThem) {
  {
    Transaction transaction(context_);
    ExpectSeen(transaction, 3);
  }
  DropTool();
  {
    Transaction transaction(context_);
    ExpectSeen(transaction, 2);
    auto const thing = transaction.table(u"App.Thing");
    EXPECT_EQ(3u, Count(Range::WithDropped(transaction, *thing)));
  }
  EXPECT_EQ(1u, sagleme::RunVacuum(context_).removed);
  Transaction transaction(context_);
  ExpectSeen(transaction, 2);
  EXPECT_EQ(2u, Count(Range::WithDropped(transaction, *transaction.table(u"App.Thing"))));
}

TEST_F(DroppedTableTest, DropThatIsRolledBack_ShowsItsObjectsAgain) {
  Transaction transaction(context_);
  sagleme::Savepoint savepoint(transaction);
  sagleme::DropTable(transaction, u"App.Tool");
  ExpectSeen(transaction, 2);
  savepoint.Rollback();
  ExpectSeen(transaction, 3);
}

TEST_F(DroppedTableTest, DescriptionsFromBeforeTheDrop_MakeNoObjects) {
  Transaction older(context_);
  auto const tool = older.table(u"App.Tool");
  sagleme::Context other(database_);
  {
    Transaction transaction(other);
    sagleme::DropTable(transaction, u"App.Tool");
    transaction.Commit();
  }
  Object::Create(older, *tool);
  EXPECT_THROW(older.Commit(), sagleme::Error);
  Transaction newer(other);
  try {
    Object::Create(newer, *tool);
    ADD_FAILURE() << "an object of no table was made";
  } catch (sagleme::Error const& error) {
    EXPECT_EQ(LSCOREDB_SET_CLOSED, error.status());
  }
}

// Also one that looks like a failure of reading.
TEST_F(DroppedTableTest, ExceptionOfACheckReport_IsRethrown) {
  DropTool();
  Transaction transaction(context_);
  for (sagleme::VacuumRequest const& request : sagleme::VacuumRequests(transaction)) {
    Object::Find(transaction, request.row)->Delete();
  }
  auto const check = [&](std::exception_ptr failure) {
    sagleme::CheckCatalogue(transaction, {},
                            [&](sagleme::Finding const&) { std::rethrow_exception(failure); });
  };
  EXPECT_THROW(check(std::make_exception_ptr(sagleme::Error(LSCOREDB_IO_ERROR, "mine"))),
               sagleme::Error);
  EXPECT_THROW(check(std::make_exception_ptr(std::runtime_error("mine"))), std::runtime_error);
}

// As handles that were left stored them where a drop did not close its set.
TEST_F(DroppedTableTest, ObjectsWithoutARequest_AreFoundByTheCheckAndRemovedByVacuum) {
  DropTool();
  {
    Transaction transaction(context_);
    for (sagleme::VacuumRequest const& request : sagleme::VacuumRequests(transaction)) {
      Object::Find(transaction, request.row)->Delete();
    }
    transaction.Commit();
  }
  EXPECT_EQ(std::vector<std::string>{"object"}, Problems());
  sagleme::VacuumProgress const done = sagleme::RunVacuum(context_);
  EXPECT_EQ(1u, done.removed);
  EXPECT_EQ(0u, done.requests);
  EXPECT_EQ(std::vector<std::string>(), Problems());
  EXPECT_EQ(0u, sagleme::RunVacuum(context_).removed);
}

}  // namespace
