// Objects that change their table.

#include <sagleme/annotations.hpp>
#include <sagleme/column_changes.hpp>

#include "hierarchy_test.h"
#include "new_database.h"

namespace hierarchy_test {
namespace {

class RetypeTest : public HierarchyTest {
 protected:
  static std::uint64_t Retype(Transaction& transaction, Ids const& ids, std::u16string const& to,
                              sagleme::RetypeOptions const& options = {}) {
    return sagleme::Retype(transaction, ids, *transaction.table(to), options);
  }
  static sagleme::RetypePlan Plan(Transaction& transaction, Ids const& ids,
                                  std::u16string const& to,
                                  sagleme::RetypeOptions const& options = {}) {
    return sagleme::PlanRetype(transaction, ids, *transaction.table(to), options);
  }
  static ObjectId MakeBook(Transaction& transaction, std::u16string const& title,
                           std::int64_t pages) {
    return Make(transaction, u"Book", {{u"Title", title}, {u"Pages", pages}}).id();
  }
};

TEST_F(RetypeTest, SharedColumns_KeepTheirValues) {
  Transaction transaction(context_);
  ObjectId const id = MakeBook(transaction, u"Dune", 412);
  EXPECT_EQ(1u, Retype(transaction, {id}, u"Novel"));
  EXPECT_EQ(u"Novel", TableOf(transaction, id));
  EXPECT_EQ(Value(u"Dune"), Get(transaction, id, u"Title"));
  EXPECT_EQ(Value(std::int64_t{412}), Get(transaction, id, u"Pages"));
  EXPECT_EQ(Value(sagleme::Null{}), Get(transaction, id, u"Genre"));
  transaction.Commit();
  Transaction later(context_);
  EXPECT_EQ(u"Novel", TableOf(later, id));
  EXPECT_EQ(Value(std::int64_t{412}), Get(later, id, u"Pages"));
}

TEST_F(RetypeTest, ColumnsOfEqualName_KeepTheirValuesOnRequest) {
  Transaction transaction(context_);
  ObjectId const first = MakeBook(transaction, u"Dune", 412);
  ObjectId const second = MakeBook(transaction, u"Ubik", 202);
  Retype(transaction, {first}, u"Film");
  Retype(transaction, {second}, u"Film", {.by_name = true});
  EXPECT_EQ(Value(sagleme::Null{}), Get(transaction, first, u"Pages"));
  EXPECT_EQ(Value(std::int64_t{202}), Get(transaction, second, u"Pages"));
  EXPECT_EQ(Value(u"Ubik"), Get(transaction, second, u"Title"));
  transaction.Commit();
}

TEST_F(RetypeTest, Indexes_LoseAndGainTheObject) {
  Transaction transaction(context_);
  ObjectId const id = MakeBook(transaction, u"Dune", 412);
  transaction.Commit();
  Transaction next(context_);
  EXPECT_EQ(Ids{id}, InIndex(next, u"BookByPages", {std::int64_t{412}}));
  Retype(next, {id}, u"Novel");
  EXPECT_EQ(Ids{id}, InIndex(next, u"NovelByTitle"));
  Retype(next, {id}, u"Film");
  EXPECT_EQ(Ids{}, InIndex(next, u"BookByPages"));
  EXPECT_EQ(Ids{}, InIndex(next, u"NovelByTitle"));
  EXPECT_EQ(Ids{id}, InIndex(next, u"ItemByTitle", {u"Dune"}));
  EXPECT_EQ(Ids{}, Subtree(next, u"Book"));
  EXPECT_EQ(Ids{id}, Subtree(next, u"Item"));
  next.Commit();
}

TEST_F(RetypeTest, Plan_NamesWhatIsLost) {
  Transaction transaction(context_);
  ObjectId const novel =
      Make(transaction, u"Novel", {{u"Title", u"Emma"}, {u"Genre", u"satire"}, {u"Pages", 474L}})
          .id();
  ObjectId const bare = Make(transaction, u"Novel", {{u"Title", u"Nemo"}}).id();
  ObjectId const film = Make(transaction, u"Film", {{u"Title", u"Alien"}}).id();
  auto const plan = Plan(transaction, {novel, bare, film}, u"Film");
  EXPECT_EQ(2u, plan.objects);
  std::vector<sagleme::LostColumn> const lost{{u"Novel", u"Pages", 1}, {u"Novel", u"Genre", 1}};
  EXPECT_EQ(lost, plan.lost);
  EXPECT_EQ(u"Novel", TableOf(transaction, novel));
  auto const by_name = Plan(transaction, {novel, bare, film}, u"Film", {.by_name = true});
  std::vector<sagleme::LostColumn> const less{{u"Novel", u"Genre", 1}};
  EXPECT_EQ(less, by_name.lost);
  EXPECT_TRUE(by_name.referrers.empty());
}

TEST_F(RetypeTest, ValuesThatAreGiven_AreWhatAUniqueIndexSees) {
  Transaction transaction(context_);
  sagleme::CreateIndex(transaction, u"FilmByTitle", u"Film", {{u"Title"}},
                       sagleme::Uniqueness::kUnique);
  Make(transaction, u"Film", {{u"Title", u"Dune"}});
  ObjectId const dune = MakeBook(transaction, u"Dune", 412);
  ObjectId const ubik = MakeBook(transaction, u"Ubik", 202);
  sagleme::TablePtr const film = transaction.table(u"Film");
  std::vector<ObjectId> written;
  auto const retype = [&](ObjectId id, std::u16string const& title) {
    Ids const ids{id};
    return sagleme::Retype(transaction, ids, *film, {}, [&](Object& object) {
      written.push_back(object.id());
      object.Set(*film, film->GetColumn(u"Title"), title);
      object.Set(*film, film->GetColumn(u"Length"), std::int64_t{137});
    });
  };
  EXPECT_EQ(LSCOREDB_DUPLICATE_KEY, StatusOf([&] { Retype(transaction, {dune}, u"Film"); }));
  EXPECT_EQ(1u, retype(dune, u"Dune (1984)"));
  EXPECT_EQ(Value(std::int64_t{137}), Get(transaction, dune, u"Length"));
  EXPECT_EQ(Ids{dune}, InIndex(transaction, u"FilmByTitle", {u"Dune (1984)"}));
  EXPECT_EQ(Ids{dune}, InIndex(transaction, u"ItemByTitle", {u"Dune (1984)"}));
  try {
    retype(ubik, u"Dune (1984)");
    ADD_FAILURE() << "two films have one title";
  } catch (sagleme::Error const& error) {
    EXPECT_EQ(LSCOREDB_DUPLICATE_KEY, error.status());
    EXPECT_EQ("Object " + std::to_string(ubik.value) +
                  " cannot become an object of Film: duplicate key \"Dune (1984)\" in unique "
                  "index FilmByTitle (object " +
                  std::to_string(dune.value) + ").",
              std::string(error.what()));
  }
  EXPECT_EQ(u"Book", TableOf(transaction, ubik));
  EXPECT_EQ(Value(std::int64_t{202}), Get(transaction, ubik, u"Pages"));
  EXPECT_EQ((Ids{dune, ubik}), written);
  EXPECT_EQ(0u, retype(dune, u"Ubik")) << "it is a film already, and nothing is written";
  transaction.Commit();
}

TEST_F(RetypeTest, WriteThatFails_UndoesAll) {
  Transaction transaction(context_);
  Ids const ids{MakeBook(transaction, u"Dune", 412), MakeBook(transaction, u"Ubik", 202)};
  sagleme::TablePtr const film = transaction.table(u"Film");
  int calls = 0;
  auto const write = [&](Object&) {
    if (++calls == 2) throw std::invalid_argument("the second one");
  };
  EXPECT_THROW(sagleme::Retype(transaction, ids, *film, {}, write), std::invalid_argument);
  for (ObjectId const id : ids) EXPECT_EQ(u"Book", TableOf(transaction, id));
  EXPECT_EQ(2u, InIndex(transaction, u"BookByPages").size());
  EXPECT_EQ(Ids{}, Subtree(transaction, u"Film"));
  transaction.Commit();
}

TEST_F(RetypeTest, OwnTable_ChangesNothing) {
  Transaction transaction(context_);
  ObjectId const id = MakeBook(transaction, u"Dune", 412);
  EXPECT_EQ(0u, Retype(transaction, {id}, u"Book"));
  EXPECT_EQ(0u, Retype(transaction, {}, u"Book"));
  EXPECT_EQ(1u, Retype(transaction, {id, id}, u"Film")) << "named twice";
}

TEST_F(RetypeTest, ReferenceThatMayNotLeadThere_IsRefusedWithAList) {
  Transaction transaction(context_);
  ObjectId const book = MakeBook(transaction, u"Dune", 412);
  ObjectId const loan = Make(transaction, u"Loan", {{u"Item", book}, {u"Book", book}}).id();
  std::string const text = RefusalOf([&] { Retype(transaction, {book}, u"Film"); });
  EXPECT_NE(std::string::npos,
            text.find("object " + std::to_string(loan.value) + " refers to object " +
                      std::to_string(book.value) + " by Book of Loan, which leads to Book"))
      << text;
  EXPECT_EQ(std::string::npos, text.find("by Item"));
  EXPECT_EQ(u"Book", TableOf(transaction, book));
  std::vector<sagleme::Referrer> const expected{{loan, u"Loan", u"Book", book}};
  EXPECT_EQ(expected, Plan(transaction, {book}, u"Film").referrers);
  Retype(transaction, {book}, u"Novel");
  EXPECT_EQ(Value(book), Get(transaction, loan, u"Book")) << "a novel is a book";
}

TEST_F(RetypeTest, ReferenceThatMayNotLeadThere_IsSetToNullOnRequest) {
  Transaction transaction(context_);
  ObjectId const book = MakeBook(transaction, u"Dune", 412);
  ObjectId const loan = Make(transaction, u"Loan", {{u"Item", book}, {u"Book", book}}).id();
  Retype(transaction, {book}, u"Film", {.by_name = false, .referring = Referring::kSetNull});
  EXPECT_EQ(Value(sagleme::Null{}), Get(transaction, loan, u"Book"));
  EXPECT_EQ(Value(book), Get(transaction, loan, u"Item"));
  transaction.Commit();
}

TEST_F(RetypeTest, ReferenceThatMayNotLeadThere_StaysOnRequest) {
  Transaction transaction(context_);
  ObjectId const book = MakeBook(transaction, u"Dune", 412);
  ObjectId const loan = Make(transaction, u"Loan", {{u"Book", book}}).id();
  Retype(transaction, {book}, u"Film", {.by_name = false, .referring = Referring::kKeep});
  EXPECT_EQ(Value(book), Get(transaction, loan, u"Book"));
}

TEST_F(RetypeTest, ReferrerThroughAnIndex_IsFound) {
  Transaction transaction(context_);
  sagleme::CreateIndex(transaction, u"LoanByBook", u"Loan", {{u"Book"}});
  ObjectId const book = MakeBook(transaction, u"Dune", 412);
  ObjectId const other = MakeBook(transaction, u"Ubik", 202);
  Make(transaction, u"Loan", {{u"Book", book}});
  EXPECT_NE("", RefusalOf([&] { Retype(transaction, {book}, u"Film"); }));
  EXPECT_EQ("", RefusalOf([&] { Retype(transaction, {other}, u"Film"); }));
}

TEST_F(RetypeTest, ReferrerThatLosesTheColumn_IsNoObstacle) {
  Transaction transaction(context_);
  ObjectId const book = MakeBook(transaction, u"Dune", 412);
  ObjectId const loan = Make(transaction, u"Loan", {{u"Book", book}}).id();
  EXPECT_EQ("", RefusalOf([&] { Retype(transaction, {book, loan}, u"Place"); }));
  EXPECT_EQ(u"Place", TableOf(transaction, loan));
}

TEST_F(RetypeTest, KeyOfAUniqueIndex_IsRefusedAndNothingChanges) {
  Transaction transaction(context_);
  sagleme::CreateIndex(transaction, u"FilmByTitle", u"Film", {{u"Title"}},
                       sagleme::Uniqueness::kUnique);
  ObjectId const film = Make(transaction, u"Film", {{u"Title", u"Dune"}}).id();
  ObjectId const free = MakeBook(transaction, u"Ubik", 202);
  ObjectId const taken = MakeBook(transaction, u"Dune", 412);
  try {
    Retype(transaction, {free, taken}, u"Film");
    ADD_FAILURE() << "nothing was refused";
  } catch (sagleme::Error const& error) {
    EXPECT_EQ(LSCOREDB_DUPLICATE_KEY, error.status());
    EXPECT_EQ("Object " + std::to_string(taken.value) +
                  " cannot become an object of Film: duplicate key \"Dune\" in unique index "
                  "FilmByTitle (object " +
                  std::to_string(film.value) + ").",
              std::string(error.what()));
  }
  EXPECT_EQ(u"Book", TableOf(transaction, free));
  EXPECT_EQ(u"Book", TableOf(transaction, taken));
  EXPECT_EQ(Ids{film}, InIndex(transaction, u"FilmByTitle"));
  transaction.Commit();
}

TEST_F(RetypeTest, RollbackToASavepoint_RestoresTheObject) {
  Transaction transaction(context_);
  ObjectId const id = MakeBook(transaction, u"Dune", 412);
  {
    sagleme::Savepoint const savepoint(transaction);
    Retype(transaction, {id}, u"Film");
  }
  EXPECT_EQ(u"Book", TableOf(transaction, id));
  EXPECT_EQ(Value(std::int64_t{412}), Get(transaction, id, u"Pages"));
  EXPECT_EQ(Ids{id}, InIndex(transaction, u"BookByPages"));
  transaction.Commit();
}

TEST_F(RetypeTest, ObjectUnderASupersededLayout_MovesWithItsValues) {
  Transaction transaction(context_);
  ObjectId const id = MakeBook(transaction, u"Dune", 412);
  transaction.Commit();
  Transaction next(context_);
  sagleme::AddColumns(next, u"Item", {{u"Shelf", Type::kLong, true}});
  Retype(next, {id}, u"Novel");
  EXPECT_EQ(Value(std::int64_t{412}), Get(next, id, u"Pages"));
  next.Commit();
}

TEST_F(RetypeTest, Batches_CommitOneByOneAndGoOnAfterAnEnd) {
  Ids ids;
  {
    Transaction transaction(context_);
    for (int i = 0; i < 25; ++i) ids.push_back(MakeBook(transaction, u"b", i));
    transaction.Commit();
  }
  sagleme::RetypeJob job;
  job.batch = 10;
  std::vector<std::uint64_t> steps;
  job.report = [&](std::uint64_t done, std::uint64_t total) {
    EXPECT_EQ(25u, total);
    steps.push_back(done);
    return steps.size() != 2;
  };
  EXPECT_EQ(20u, sagleme::RetypeInBatches(context_, ids, u"Novel", {}, job));
  EXPECT_EQ((std::vector<std::uint64_t>{10, 20}), steps);
  {
    Transaction transaction(context_);
    EXPECT_EQ(20u, Subtree(transaction, u"Novel").size());
    EXPECT_EQ(25u, Subtree(transaction, u"Book").size());
    Object::Find(transaction, ids[24])->Delete();
    transaction.Commit();
  }
  job.report = nullptr;
  EXPECT_EQ(4u, sagleme::RetypeInBatches(context_, ids, u"Novel", {}, job));
  EXPECT_EQ(0u, sagleme::RetypeInBatches(context_, ids, u"Novel", {}, job));
}

TEST_F(RetypeTest, LastReferenceThatIsLost_TakesItsTargetAlong) {
  Transaction transaction(context_);
  sagleme::SetOnDelete(transaction, *transaction.table(u"Loan"), u"Item", sagleme::OnDelete::kLast);
  ObjectId const book = MakeBook(transaction, u"Dune", 412);
  ObjectId const one = Make(transaction, u"Loan", {{u"Item", book}}).id();
  ObjectId const two = Make(transaction, u"Loan", {{u"Item", book}}).id();
  Retype(transaction, {one}, u"Place");
  EXPECT_TRUE(Object::Find(transaction, book));
  Retype(transaction, {two}, u"Place");
  EXPECT_FALSE(Object::Find(transaction, book));
  EXPECT_EQ(u"Place", TableOf(transaction, two));
  transaction.Commit();
}

TEST_F(RetypeTest, LastReferenceSetToNull_LeavesItsTargetWhichMoves) {
  Transaction transaction(context_);
  sagleme::SetOnDelete(transaction, *transaction.table(u"Loan"), u"Book", sagleme::OnDelete::kLast);
  ObjectId const book = MakeBook(transaction, u"Dune", 412);
  ObjectId const loan = Make(transaction, u"Loan", {{u"Book", book}}).id();
  Retype(transaction, {book}, u"Film", {.by_name = false, .referring = Referring::kSetNull});
  EXPECT_EQ(Value(sagleme::Null{}), Get(transaction, loan, u"Book"));
  EXPECT_EQ(u"Film", TableOf(transaction, book));
  transaction.Commit();
}

TEST_F(RetypeTest, AbstractTable_TakesNoObjects) {
  Transaction transaction(context_);
  ObjectId const id = MakeBook(transaction, u"Dune", 412);
  sagleme::SetAbstract(transaction, *transaction.table(u"Film"), true);
  EXPECT_EQ(SAGLEME_ABSTRACT_TABLE, StatusOf([&] { Retype(transaction, {id}, u"Film"); }));
  EXPECT_EQ(u"Book", TableOf(transaction, id));
}

TEST_F(RetypeTest, BadRequests_AreRefused) {
  Transaction transaction(context_);
  ObjectId const id = MakeBook(transaction, u"Dune", 412);
  ObjectId const table = transaction.table(u"Book")->id();
  EXPECT_EQ(LORV_STATUS_NO_OBJECT,
            StatusOf([&] { Retype(transaction, {{id.value + 1}}, u"Film"); }));
  EXPECT_EQ("object " + std::to_string(table.value) + " belongs to the catalogue itself",
            RefusalOf([&] { Retype(transaction, {table}, u"Film"); }));
  EXPECT_EQ(
      "table Lorvenstack.Internal.Metadata.Vacuum belongs to the catalogue itself and takes "
      "no objects",
      RefusalOf([&] { Retype(transaction, {id}, u"Lorvenstack.Internal.Metadata.Vacuum"); }));
  auto const other_database = sagleme_test::NewDatabase();
  sagleme::Context const other_context(other_database);
  Transaction other(other_context);
  EXPECT_EQ(LORV_STATUS_FOREIGN_DATABASE, StatusOf([&] {
              sagleme::Retype(transaction, Ids{id}, *other.table(u"Lorvenstack.Metadata.RawView"));
            }));
  sagleme::DropTable(transaction, u"Book", {.children = true, .force = true});
  EXPECT_EQ("the table of object " + std::to_string(id.value) + " was dropped",
            RefusalOf([&] { Retype(transaction, {id}, u"Film"); }));
}

TEST_F(RetypeTest, WriterOfTheSameObject_Conflicts) {
  ObjectId id;
  {
    Transaction transaction(context_);
    id = MakeBook(transaction, u"Dune", 412);
    transaction.Commit();
  }
  sagleme::Context const other_context(database_);
  Transaction other(other_context);
  Object::Find(other, id)->Set(u"Pages", 500L);
  Transaction transaction(context_);
  Retype(transaction, {id}, u"Film");
  transaction.Commit();
  EXPECT_EQ(LSCOREDB_CONFLICT, StatusOf([&] { other.Commit(); }));
}

// Values that a table lost stay where they were stored until the object is written anew.
TEST_F(RetypeTest, ValueThatTheTableLost_DoesNotComeBack) {
  Transaction transaction(context_);
  ObjectId const film = Make(transaction, u"Film", {{u"Title", u"Alien"}}).id();
  sagleme::PushDownColumn(transaction, u"Item", u"Title", {u"Book"}, sagleme::Loss::kAllow);
  sagleme::Retype(transaction, Ids{film}, *transaction.table(u"Book"));
  EXPECT_EQ(Value(sagleme::Null{}), Get(transaction, film, u"Title"));
  transaction.Commit();
}

}  // namespace
}  // namespace hierarchy_test
