// Tables that move under another base, with their descendants and objects.

#include <sagleme/annotations.hpp>
#include <sagleme/column_changes.hpp>

#include "hierarchy_test.h"

namespace hierarchy_test {
namespace {

class SetBaseTest : public HierarchyTest {
 protected:
  SetBaseTest() {
    Transaction transaction(context_);
    sagleme::CreateTable(transaction, u"Media", u"", {{u"Format", Type::kString}});
    sagleme::CreateTable(transaction, u"Print", u"Media", {{u"Paper", Type::kLong, true}});
    sagleme::CreateIndex(transaction, u"MediaByFormat", u"Media", {{u"Format"}});
    book_ = Make(transaction, u"Book", {{u"Title", u"Dune"}, {u"Pages", 412L}}).id();
    novel_ =
        Make(transaction, u"Novel", {{u"Title", u"Emma"}, {u"Pages", 474L}, {u"Genre", u"satire"}})
            .id();
    film_ = Make(transaction, u"Film", {{u"Title", u"Alien"}, {u"Length", 117L}}).id();
    transaction.Commit();
  }

  void ExpectValues(Transaction& transaction) const {
    EXPECT_EQ(Value(u"Dune"), Get(transaction, book_, u"Title"));
    EXPECT_EQ(Value(412L), Get(transaction, book_, u"Pages"));
    EXPECT_EQ(Value(u"Emma"), Get(transaction, novel_, u"Title"));
    EXPECT_EQ(Value(474L), Get(transaction, novel_, u"Pages"));
    EXPECT_EQ(Value(u"satire"), Get(transaction, novel_, u"Genre"));
  }
  static std::vector<std::u16string> Columns(Transaction& transaction, std::u16string const& table,
                                             bool inherited) {
    std::vector<std::u16string> names;
    for (sagleme::Column const& column : transaction.table(table)->columns) {
      if (!column.system() && column.inherited == inherited) names.push_back(column.name);
    }
    return names;
  }

  ObjectId book_;
  ObjectId novel_;
  ObjectId film_;
};

using Names = std::vector<std::u16string>;

TEST_F(SetBaseTest, AnotherBase_TakesTheTableItsDescendantsAndTheirObjects) {
  Transaction transaction(context_);
  sagleme::SetBase(transaction, u"Book", u"Print");
  EXPECT_EQ(u"Print", transaction.table(u"Book")->base);
  EXPECT_EQ((Names{u"Format", u"Paper"}), Columns(transaction, u"Book", true));
  EXPECT_EQ((Names{u"Title", u"Pages"}), Columns(transaction, u"Book", false));
  EXPECT_EQ((Names{u"Format", u"Paper", u"Title", u"Pages"}), Columns(transaction, u"Novel", true));
  EXPECT_EQ((Names{u"Genre"}), Columns(transaction, u"Novel", false));
  ExpectValues(transaction);
  EXPECT_EQ((Ids{book_, novel_}), Subtree(transaction, u"Media"));
  EXPECT_EQ((Ids{book_, novel_}), Subtree(transaction, u"Book"));
  EXPECT_EQ(Ids{film_}, Subtree(transaction, u"Item"));
  EXPECT_EQ(Ids{film_}, InIndex(transaction, u"ItemByTitle"));
  EXPECT_EQ((Ids{book_, novel_}), InIndex(transaction, u"BookByPages"));
  EXPECT_EQ(Ids{novel_}, InIndex(transaction, u"NovelByTitle", {u"Emma"}));
  EXPECT_EQ(2u, InIndex(transaction, u"MediaByFormat").size());
  ExpectSound(transaction);
  transaction.Commit();
  Transaction later(context_);
  ExpectValues(later);
  Object::Find(later, novel_)->Set(u"Paper", 80L);
  later.Commit();
}

TEST_F(SetBaseTest, Root_MakesTheTableStandAlone) {
  Transaction transaction(context_);
  sagleme::SetBase(transaction, u"Book", u"");
  EXPECT_EQ((Names{u"Title", u"Pages"}), Columns(transaction, u"Book", false));
  ExpectValues(transaction);
  EXPECT_EQ(Ids{film_}, Subtree(transaction, u"Item"));
  transaction.Commit();
}

TEST_F(SetBaseTest, BaseInTheSameTree_KeepsWhatBothInherit) {
  Transaction transaction(context_);
  sagleme::ObjectId const title = transaction.table(u"Novel")->GetColumn(u"Title").id;
  sagleme::SetBase(transaction, u"Novel", u"Item");
  EXPECT_EQ(Names{u"Title"}, Columns(transaction, u"Novel", true));
  EXPECT_EQ((Names{u"Pages", u"Genre"}), Columns(transaction, u"Novel", false));
  EXPECT_EQ(title, transaction.table(u"Novel")->GetColumn(u"Title").id);
  ExpectValues(transaction);
  EXPECT_EQ(Ids{book_}, InIndex(transaction, u"BookByPages"));
  EXPECT_EQ(3u, InIndex(transaction, u"ItemByTitle").size());
  EXPECT_EQ((Ids{novel_}), InIndex(transaction, u"NovelByTitle"));
  transaction.Commit();
}

TEST_F(SetBaseTest, ThereAndBack_MergesTheColumnsAgain) {
  Transaction transaction(context_);
  sagleme::SetBase(transaction, u"Book", u"Media");
  std::string const text = RefusalOf([&] { sagleme::SetBase(transaction, u"Book", u"Item"); });
  EXPECT_EQ("the table cannot derive from Item: Book has a column Title already", text);
  auto const plan = sagleme::PlanSetBase(transaction, u"Book", u"Item", {.merge = true});
  EXPECT_EQ(Names{u"Title"}, plan.merged);
  EXPECT_EQ(Names{u"Format"}, plan.kept);
  sagleme::SetBase(transaction, u"Book", u"Item", {.merge = true});
  EXPECT_EQ(Names{u"Title"}, Columns(transaction, u"Book", true));
  ExpectValues(transaction);
  EXPECT_EQ(3u, InIndex(transaction, u"ItemByTitle").size());
  EXPECT_EQ(Ids{novel_}, InIndex(transaction, u"NovelByTitle", {u"Emma"}));
  ExpectSound(transaction);
  transaction.Commit();
}

TEST_F(SetBaseTest, OwnColumnOfADescendant_IsMergedToo) {
  Transaction transaction(context_);
  sagleme::AddColumns(transaction, u"Media", {{u"Genre", Type::kString}});
  sagleme::SetBase(transaction, u"Book", u"Media", {.merge = true});
  EXPECT_EQ((Names{u"Format", u"Genre", u"Title", u"Pages"}), Columns(transaction, u"Novel", true));
  EXPECT_EQ(Names{}, Columns(transaction, u"Novel", false));
  ExpectValues(transaction);
  transaction.Commit();
}

TEST_F(SetBaseTest, Plan_SaysWhatWouldHappenAndChangesNothing) {
  Transaction transaction(context_);
  ObjectId const loan = Make(transaction, u"Loan", {{u"Item", novel_}}).id();
  auto const plan = sagleme::PlanSetBase(transaction, u"Book", u"Print");
  EXPECT_EQ(2u, plan.tables);
  EXPECT_EQ(2u, plan.objects);
  EXPECT_EQ(Names{u"Title"}, plan.kept);
  std::vector<sagleme::Referrer> const expected{{loan, u"Loan", u"Item", novel_}};
  EXPECT_EQ(expected, plan.referrers);
  EXPECT_EQ(u"Item", transaction.table(u"Book")->base);
  EXPECT_EQ(0u, sagleme::PlanSetBase(transaction, u"Book", u"Item").tables);
}

TEST_F(SetBaseTest, ReferencesThatMayNotLeadThere_AreRefusedOrSetToNull) {
  Transaction transaction(context_);
  ObjectId const loan = Make(transaction, u"Loan", {{u"Item", novel_}, {u"Book", book_}}).id();
  std::string const text = RefusalOf([&] { sagleme::SetBase(transaction, u"Book", u"Media"); });
  EXPECT_EQ("table Book cannot leave Item: object " + std::to_string(loan.value) +
                " refers to object " + std::to_string(novel_.value) +
                " by Item of Loan, which leads to Item",
            text);
  sagleme::SetBase(transaction, u"Book", u"Media",
                   {.referring = Referring::kSetNull, .merge = false});
  EXPECT_EQ(Value(sagleme::Null{}), Get(transaction, loan, u"Item"));
  EXPECT_EQ(Value(book_), Get(transaction, loan, u"Book"));
  transaction.Commit();
}

TEST_F(SetBaseTest, KeyOfTheBasesUniqueIndex_IsRefusedAndNothingChanges) {
  Transaction transaction(context_);
  sagleme::CreateTable(transaction, u"Named", u"", {{u"Title", Type::kString}});
  sagleme::CreateIndex(transaction, u"NamedByTitle", u"Named", {{u"Title"}},
                       sagleme::Uniqueness::kUnique);
  ObjectId const holder = Make(transaction, u"Named", {{u"Title", u"Emma"}}).id();
  try {
    sagleme::SetBase(transaction, u"Book", u"Named", {.merge = true});
    ADD_FAILURE() << "nothing was refused";
  } catch (sagleme::Error const& error) {
    EXPECT_EQ(LSCOREDB_DUPLICATE_KEY, error.status());
    EXPECT_EQ("Table Book cannot derive from Named: object " + std::to_string(novel_.value) +
                  " has a key that is taken: duplicate key \"Emma\" in unique index NamedByTitle "
                  "(object " +
                  std::to_string(holder.value) + ").",
              std::string(error.what()));
  }
  EXPECT_EQ(u"Item", transaction.table(u"Book")->base);
  ExpectValues(transaction);
  ExpectSound(transaction);
  transaction.Commit();
}

TEST_F(SetBaseTest, OwnUniqueIndex_StaysUnique) {
  Transaction transaction(context_);
  sagleme::CreateIndex(transaction, u"BookByTitle", u"Book", {{u"Title"}},
                       sagleme::Uniqueness::kUnique);
  sagleme::SetBase(transaction, u"Book", u"Media");
  EXPECT_EQ(Ids{book_}, InIndex(transaction, u"BookByTitle", {u"Dune"}));
  EXPECT_EQ(LSCOREDB_DUPLICATE_KEY,
            StatusOf([&] { Object::Find(transaction, novel_)->Set(u"Title", u"Dune"); }));
  transaction.Commit();
}

TEST_F(SetBaseTest, RollbackAndSavepoint_RestoreEverything) {
  {
    Transaction transaction(context_);
    sagleme::SetBase(transaction, u"Book", u"Print");
  }
  Transaction transaction(context_);
  {
    sagleme::Savepoint const savepoint(transaction);
    sagleme::SetBase(transaction, u"Book", u"Print");
  }
  EXPECT_EQ(u"Item", transaction.table(u"Book")->base);
  ExpectValues(transaction);
  EXPECT_EQ((Ids{book_, novel_}), InIndex(transaction, u"BookByPages"));
  EXPECT_EQ(3u, InIndex(transaction, u"ItemByTitle").size());
  Make(transaction, u"Book", {{u"Title", u"Ubik"}});
  transaction.Commit();
}

TEST_F(SetBaseTest, ObjectsUnderSupersededLayouts_KeepTheirValues) {
  Transaction transaction(context_);
  sagleme::AddColumns(transaction, u"Item", {{u"Shelf", Type::kLong, true}});
  sagleme::RenameColumn(transaction, u"Book", u"Pages", u"Sheets");
  sagleme::SetBase(transaction, u"Book", u"Print");
  EXPECT_EQ((Names{u"Title", u"Shelf", u"Sheets"}), Columns(transaction, u"Book", false));
  EXPECT_EQ(Value(474L), Get(transaction, novel_, u"Sheets"));
  EXPECT_EQ(Value(u"Emma"), Get(transaction, novel_, u"Title"));
  transaction.Commit();
  sagleme::RunVacuum(context_);
  Transaction later(context_);
  EXPECT_EQ(Value(474L), Get(later, novel_, u"Sheets"));
  EXPECT_EQ(Value(u"Alien"), Get(later, film_, u"Title"));
}

TEST_F(SetBaseTest, ImpossibleRequests_AreRefused) {
  Transaction transaction(context_);
  auto const refusal = [&](std::u16string const& table, std::u16string const& base) {
    return RefusalOf([&] { sagleme::SetBase(transaction, table, base); });
  };
  EXPECT_EQ("table Item cannot derive from Novel, which derives from it",
            refusal(u"Item", u"Novel"));
  EXPECT_EQ("table Item cannot derive from itself", refusal(u"Item", u"Item"));
  EXPECT_EQ("the base Lorvenstack.Metadata.RawView belongs to the catalogue itself",
            refusal(u"Item", u"Lorvenstack.Metadata.RawView"));
  EXPECT_EQ("table Lorvenstack.Metadata.RawView belongs to the catalogue itself",
            refusal(u"Lorvenstack.Metadata.RawView", u"Item"));
  EXPECT_EQ(SAGLEME_TABLE_NOT_FOUND,
            StatusOf([&] { sagleme::SetBase(transaction, u"Nothing", u"Item"); }));
  EXPECT_EQ(SAGLEME_BASE_NOT_FOUND,
            StatusOf([&] { sagleme::SetBase(transaction, u"Item", u"Nothing"); }));
  sagleme::AddColumns(transaction, u"Media", {{u"Genre", Type::kLong, true}});
  EXPECT_EQ("the table cannot derive from Media: Novel has a column Genre already",
            refusal(u"Book", u"Media"));
  EXPECT_EQ("the table cannot derive from Media: Novel has a column Genre already",
            RefusalOf([&] { sagleme::SetBase(transaction, u"Book", u"Media", {.merge = true}); }))
      << "of another type";
}

TEST_F(SetBaseTest, TooManyColumnsOrAncestors_AreRefused) {
  Transaction transaction(context_);
  std::vector<sagleme::ColumnSpec> specs;
  for (int i = 0; i < 110; ++i) specs.push_back({"c" + std::to_string(i), Type::kLong, true});
  sagleme::CreateTable(transaction, u"Wide", u"", specs);
  EXPECT_EQ(
      "the table cannot derive from Wide: Novel would have 116 columns, and a table has at "
      "most 115",
      RefusalOf([&] { sagleme::SetBase(transaction, u"Book", u"Wide"); }));
  sagleme::SetBase(transaction, u"Novel", u"Item");
  EXPECT_EQ("", RefusalOf([&] { sagleme::SetBase(transaction, u"Book", u"Wide"); }));
  std::u16string base = u"Media";
  std::uint32_t status = 0;
  for (int i = 0; status == 0; ++i) {
    std::u16string const name = u"Deep" + sagleme::ToUtf16(std::to_string(i));
    status = StatusOf([&] {
      sagleme::Savepoint savepoint(transaction);
      sagleme::CreateTable(transaction, name, base, {});
      savepoint.Release();
      base = name;
    });
  }
  EXPECT_EQ(SAGLEME_TOO_DEEP, StatusOf([&] { sagleme::SetBase(transaction, u"Item", base); }));
}

TEST_F(SetBaseTest, HandleOfBefore_CreatesNothingUntilItIsRefreshed) {
  Transaction transaction(context_);
  CreateInfo* handle = nullptr;
  std::uint64_t const context = transaction.context();
  ASSERT_EQ(0u, lorv_crud_GetCreateHandle(context, u"Book", &handle));
  sagleme::TablePtr const before = transaction.table(u"Book");
  transaction.Commit();
  Transaction next(context_);
  sagleme::SetBase(next, u"Book", u"Media");
  std::uint64_t oid = 0;
  std::uint64_t addr = 0;
  EXPECT_EQ(LSCOREDB_SET_CLOSED, lorv_crud_CreateObject(context, handle, &oid, &addr));
  EXPECT_EQ(LSCOREDB_SET_CLOSED, StatusOf([&] { Object::Create(next, *before); }));
  next.Commit();
  Transaction last(context_);
  EXPECT_EQ(LSCOREDB_SET_CLOSED, lorv_crud_CreateObject(context, handle, &oid, &addr));
  ASSERT_EQ(0u, lorv_crud_RefreshIssuedHandles(context));
  ASSERT_EQ(0u, lorv_crud_CreateObject(context, handle, &oid, &addr));
  EXPECT_EQ(u"Book", TableOf(last, {oid}));
  EXPECT_EQ((Ids{book_, {oid}, novel_}), Subtree(last, u"Media"));
  last.Commit();
}

TEST_F(SetBaseTest, HandleRefreshedInATransactionRolledBack_FollowsIt) {
  CreateInfo* handle = nullptr;
  std::uint64_t oid = 0;
  std::uint64_t addr = 0;
  {
    Transaction transaction(context_);
    ASSERT_EQ(0u, lorv_crud_GetCreateHandle(transaction.context(), u"Book", &handle));
    sagleme::SetBase(transaction, u"Book", u"Media");
    ASSERT_EQ(0u, lorv_crud_RefreshIssuedHandles(transaction.context()));
    ASSERT_EQ(0u, lorv_crud_CreateObject(transaction.context(), handle, &oid, &addr));
  }
  Transaction transaction(context_);
  ASSERT_EQ(0u, lorv_crud_RefreshIssuedHandles(transaction.context()));
  ASSERT_EQ(0u, lorv_crud_CreateObject(transaction.context(), handle, &oid, &addr));
  EXPECT_EQ((Ids{book_, {oid}, novel_}), Subtree(transaction, u"Book"));
  transaction.Commit();
}

TEST_F(SetBaseTest, WritersMeanwhile_Conflict) {
  sagleme::Context const other_context(database_);
  Transaction inserting(other_context);
  Make(inserting, u"Novel", {{u"Title", u"Nemo"}});
  Transaction transaction(context_);
  sagleme::SetBase(transaction, u"Book", u"Media");
  transaction.Commit();
  EXPECT_EQ(LSCOREDB_SET_CLOSED, StatusOf([&] { inserting.Commit(); }));
  Transaction back(context_);
  sagleme::SetBase(back, u"Book", u"Item", {.merge = true});
  Transaction changing(other_context);
  Object::Find(changing, book_)->Set(u"Pages", 1L);
  changing.Commit();
  EXPECT_EQ(LSCOREDB_CONFLICT, StatusOf([&] { back.Commit(); }));
}

TEST_F(SetBaseTest, AnnotationsOfColumns_StayWithThem) {
  Transaction transaction(context_);
  sagleme::SetComment(transaction, *transaction.table(u"Item"), u"Title", "what it is called");
  sagleme::SetDefault(transaction, *transaction.table(u"Item"), u"Title", u"none");
  sagleme::SetComment(transaction, *transaction.table(u"Book"), u"Pages", "how long it is");
  sagleme::SetBase(transaction, u"Book", u"Media");
  sagleme::TablePtr const book = transaction.table(u"Book");
  EXPECT_EQ("what it is called", sagleme::CommentOf(transaction, *book, book->GetColumn(u"Title")));
  EXPECT_EQ("how long it is", sagleme::CommentOf(transaction, *book, book->GetColumn(u"Pages")));
  EXPECT_EQ(Value(u"none"), Object::Create(transaction, *book).Get(u"Title"));
  sagleme::SetBase(transaction, u"Book", u"Item", {.merge = true});
  EXPECT_EQ("what it is called",
            sagleme::CommentOf(transaction, *transaction.table(u"Item"),
                               transaction.table(u"Item")->GetColumn(u"Title")));
  ExpectSound(transaction);
  transaction.Commit();
}

TEST_F(SetBaseTest, VacuumAfterwards_RemovesNothing) {
  Transaction transaction(context_);
  sagleme::SetBase(transaction, u"Book", u"Media");
  transaction.Commit();
  auto const done = sagleme::RunVacuum(context_);
  EXPECT_EQ(0u, done.removed);
  Transaction later(context_);
  ExpectValues(later);
}

TEST_F(SetBaseTest, DerivedTableOfADroppedOne_IsCleanedUpLater) {
  Transaction transaction(context_);
  sagleme::DropTable(transaction, u"Novel", {.children = false, .force = true});
  sagleme::SetBase(transaction, u"Book", u"Media");
  EXPECT_EQ(Ids{book_}, Subtree(transaction, u"Book"));
  transaction.Commit();
  EXPECT_EQ(1u, sagleme::RunVacuum(context_).removed);
}

TEST_F(SetBaseTest, ValueThatTheTableLost_DoesNotComeBack) {
  Transaction transaction(context_);
  sagleme::PushDownColumn(transaction, u"Item", u"Title", {u"Book"}, sagleme::Loss::kAllow);
  sagleme::SetBase(transaction, u"Film", u"Book", {.merge = true});
  EXPECT_EQ(Value(sagleme::Null{}), Get(transaction, film_, u"Title"));
  EXPECT_EQ(Value(u"Dune"), Get(transaction, book_, u"Title"));
  transaction.Commit();
}

TEST_F(SetBaseTest, MoreObjectsThanAllowed_AreRefused) {
  Transaction transaction(context_);
  sagleme::SetBaseOptions options;
  options.most_objects = 1;
  EXPECT_EQ(
      "table Book has 2 objects with its descendants, and at most 1 may move in one transaction",
      RefusalOf([&] { sagleme::SetBase(transaction, u"Book", u"Media", options); }));
  EXPECT_EQ(u"Item", transaction.table(u"Book")->base);
  options.most_objects = 2;
  sagleme::SetBase(transaction, u"Book", u"Media", options);
  EXPECT_EQ(u"Media", transaction.table(u"Book")->base);
  transaction.Commit();
}

// What to do with more objects than one transaction shall hold: another table of the new base takes
// them over in batches.
TEST_F(SetBaseTest, TableOfItsOwn_TakesTheObjectsOverInBatches) {
  {
    Transaction transaction(context_);
    sagleme::CreateTable(
        transaction, u"Reel", u"Media",
        {{u"Title", Type::kString}, {u"Length", Type::kLong, true}, {u"Pages", Type::kLong, true}});
    transaction.Commit();
  }
  sagleme::RetypeOptions options;
  options.by_name = true;
  sagleme::RetypeJob job;
  job.batch = 1;
  EXPECT_EQ(1u, sagleme::RetypeInBatches(context_, Ids{film_}, u"Reel", options, job));
  Transaction transaction(context_);
  EXPECT_EQ(Ids{film_}, Subtree(transaction, u"Media"));
  sagleme::DropTable(transaction, u"Film");
  sagleme::RenameTable(transaction, u"Reel", u"Film");
  EXPECT_EQ(u"Film", TableOf(transaction, film_));
  EXPECT_EQ(Value(117L), Get(transaction, film_, u"Length"));
  EXPECT_EQ(Value(u"Alien"), Get(transaction, film_, u"Title"));
  transaction.Commit();
}

}  // namespace
}  // namespace hierarchy_test
