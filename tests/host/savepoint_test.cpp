// Savepoints as a host's program has them.

#include <gtest/gtest.h>

#include <array>
#include <sagleme/host.hpp>

#include "new_database.h"
#include "status_of.h"

namespace {

using sagleme::ColumnSpec;
using sagleme::Savepoint;
using sagleme::Transaction;
using sagleme::Type;

class SavepointTest : public ::testing::Test {
 protected:
  SavepointTest() : database_(sagleme_test::NewDatabase()), context_(database_) {
    Transaction transaction(context_);
    std::array const columns{ColumnSpec{u"Name", Type::kString},
                             ColumnSpec{u"Next", Type::kReference, true, u"App.Thing"}};
    sagleme::CreateTable(transaction, u"App.Thing", u"", columns);
    sagleme::FinishReferences(transaction);
    transaction.Commit();
  }

  static sagleme::Object Make(Transaction& transaction, std::u16string const& table,
                              std::u16string const& name) {
    auto object = sagleme::Object::Create(transaction, *transaction.table(table));
    object.Set(u"Name", name);
    return object;
  }
  static std::u16string Names(Transaction& transaction) {
    std::u16string names;
    for (auto& each : sagleme::Range::Subtree(transaction, *transaction.table(u"App.Thing"))) {
      names += std::get<std::u16string>(each.Get(u"Name"));
    }
    return names;
  }
  static void CreateDerived(Transaction& transaction, std::u16string const& name) {
    std::array const columns{ColumnSpec{u"Weight", Type::kLong, true}};
    sagleme::CreateTable(transaction, name, u"App.Thing", columns);
  }

  sagleme::Database database_;
  sagleme::Context context_;
};

TEST_F(SavepointTest, LeftWithoutRelease_TakesBackObjectsAndSchema) {
  Transaction transaction(context_);
  Make(transaction, u"App.Thing", u"a");
  {
    Savepoint const savepoint(transaction);
    CreateDerived(transaction, u"App.Tool");
    Make(transaction, u"App.Tool", u"b");
    sagleme::RenameTable(transaction, u"App.Thing", u"App.Part");
    EXPECT_EQ(nullptr, transaction.Find(u"App.Thing"));
  }
  EXPECT_EQ(nullptr, transaction.Find(u"App.Tool"));
  EXPECT_EQ(u"a", Names(transaction));
  transaction.Commit();
  Transaction later(context_);
  EXPECT_EQ(u"a", Names(later));
}

TEST_F(SavepointTest, Released_KeepsWhatWasWritten) {
  Transaction transaction(context_);
  {
    Savepoint savepoint(transaction);
    Make(transaction, u"App.Thing", u"a");
    savepoint.Release();
    EXPECT_FALSE(savepoint.open());
    EXPECT_EQ(LSCOREDB_UNKNOWN_SAVEPOINT, StatusOf([&] { savepoint.Rollback(); }));
  }
  transaction.Commit();
  Transaction later(context_);
  EXPECT_EQ(u"a", Names(later));
}

TEST_F(SavepointTest, RolledBack_ServesAnotherAttempt) {
  Transaction transaction(context_);
  Savepoint savepoint(transaction);
  for (char16_t name = u'a'; name <= u'c'; ++name) {
    savepoint.Rollback();
    Make(transaction, u"App.Thing", std::u16string(1, name));
  }
  savepoint.Release();
  EXPECT_EQ(u"c", Names(transaction));
}

TEST_F(SavepointTest, OlderOneRolledBackTo_EndsTheNewerOne) {
  Transaction transaction(context_);
  Savepoint outer(transaction);
  Savepoint inner(transaction);
  Make(transaction, u"App.Thing", u"a");
  outer.Rollback();
  EXPECT_EQ(LSCOREDB_UNKNOWN_SAVEPOINT, StatusOf([&] { inner.Release(); }));
  EXPECT_EQ(u"", Names(transaction));
}

TEST_F(SavepointTest, Savepoint_OutlivesItsTransaction) {
  Transaction transaction(context_);
  Savepoint const savepoint(transaction);
  Make(transaction, u"App.Thing", u"a");
  transaction.Commit();
  EXPECT_EQ(LSCOREDB_NO_TRANSACTION, StatusOf([&] { Savepoint const none(transaction); }));
}

TEST_F(SavepointTest, SchemaChangeThatFailsHalfWay_LeavesNothing) {
  Transaction transaction(context_);
  CreateDerived(transaction, u"App.Tool");
  Make(transaction, u"App.Thing", u"a");
  Make(transaction, u"App.Tool", u"a");
  auto const generation = transaction.Generation();
  std::array const by_name{sagleme::IndexColumnSpec{u"Name"}};
  EXPECT_EQ(LSCOREDB_DUPLICATE_KEY, StatusOf([&] {
              Savepoint const savepoint(transaction);
              sagleme::CreateIndex(transaction, u"ByName", u"App.Thing", by_name,
                                   sagleme::Uniqueness::kUnique);
            }));
  EXPECT_EQ(std::nullopt, transaction.FindIndex(u"ByName"));
  EXPECT_EQ(generation, transaction.Generation());
  sagleme::CreateIndex(transaction, u"ByName", u"App.Thing", by_name);
  transaction.Commit();
  Transaction later(context_);
  EXPECT_EQ(u"aa", Names(later));
  EXPECT_NE(std::nullopt, later.FindIndex(u"ByName"));
}

// The next table gets the type id of the one that was taken back.
TEST_F(SavepointTest, HandlesOfATableThatWasTakenBack_DoNotServeTheNextOne) {
  Transaction transaction(context_);
  {
    Savepoint const savepoint(transaction);
    CreateDerived(transaction, u"App.Draft");
    Make(transaction, u"App.Draft", u"draft").Set(u"Weight", std::int64_t{1});
  }
  CreateDerived(transaction, u"App.Final");
  auto made = Make(transaction, u"App.Final", u"final");
  made.Set(u"Weight", std::int64_t{2});
  EXPECT_EQ(u"App.Final", made.table()->name);
  transaction.Commit();
  Transaction later(context_);
  auto const found = sagleme::Object::Find(later, made.id());
  ASSERT_TRUE(found);
  EXPECT_EQ(u"App.Final", found->table()->name);
  EXPECT_EQ(sagleme::Value(std::int64_t{2}), found->Get(u"Weight"));
  EXPECT_EQ(u"final", Names(later));
}

TEST_F(SavepointTest, DroppedTable_IsUsedAgainAfterARollback) {
  Transaction transaction(context_);
  CreateDerived(transaction, u"App.Tool");
  auto const kept = Make(transaction, u"App.Tool", u"kept");
  sagleme::Property<std::int64_t> const weight(*transaction.table(u"App.Tool"), u"Weight");
  weight.Set(kept, 1);
  {
    Savepoint const savepoint(transaction);
    sagleme::DropTable(transaction, u"App.Thing", {.children = true, .force = true});
    EXPECT_EQ(nullptr, transaction.Find(u"App.Tool"));
  }
  EXPECT_EQ(1, weight.Get(kept));
  weight.Set(kept, 2);
  Make(transaction, u"App.Tool", u"!");
  EXPECT_EQ(u"kept!", Names(transaction));
  transaction.Commit();
}

TEST_F(SavepointTest, Require_MakesARuleOfTwoObjectsHold) {
  sagleme::ObjectId target;
  {
    Transaction transaction(context_);
    target = Make(transaction, u"App.Thing", u"target").id();
    transaction.Commit();
  }
  sagleme::Context const other(database_);
  Transaction deleting(other);
  sagleme::Object::Find(deleting, target)->Delete();
  Transaction referring(context_);
  Make(referring, u"App.Thing", u"referrer").Set(u"Next", target);
  referring.Require(target.value);
  deleting.Commit();
  EXPECT_EQ(LSCOREDB_CONFLICT, StatusOf([&] { referring.Commit(); }));
}

}  // namespace
