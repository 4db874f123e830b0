// Comments, defaults and abstract tables.

#include "annotations_test.h"

#include <limits>
#include <sagleme/column_changes.hpp>
#include <sagleme/host/define_tables.hpp>
#include <sagleme/host/table_of.hpp>
#include <sagleme/schema_document.hpp>
#include <sagleme/vacuum.hpp>

#include "status_of.h"

namespace {

using namespace sagleme;

// ---- comments -----------------------------------------------------------------------------------

TEST_F(AnnotationsTest, Comments_OfTablesColumnsAndIndexes_AreKept) {
  {
    Transaction transaction(context_);
    TablePtr const person = transaction.table(u"Person");
    SetComment(transaction, *person, "Somebody \"we\" know\nand greet");
    SetComment(transaction, *person, u"Name", "as in the register");
    SetComment(transaction, *transaction.FindIndex(u"PersonByName"), "for the list");
    transaction.Commit();
  }
  Transaction transaction(context_, Access::kReadOnly);
  TablePtr const person = transaction.table(u"Person");
  EXPECT_EQ("Somebody \"we\" know\nand greet", CommentOf(transaction, *person));
  EXPECT_EQ("as in the register", CommentOf(transaction, *person, person->GetColumn(u"Name")));
  EXPECT_EQ("", CommentOf(transaction, *person, person->GetColumn(u"Age")));
  EXPECT_EQ("for the list", CommentOf(transaction, *transaction.FindIndex(u"PersonByName")));
  TablePtr const child = transaction.table(u"Child");
  EXPECT_EQ("", CommentOf(transaction, *child));
  EXPECT_EQ("as in the register", CommentOf(transaction, *child, child->GetColumn(u"Name")));
}

TEST_F(AnnotationsTest, Comment_OfAnInheritedColumn_IsRefusedAndNamesTheTable) {
  Transaction transaction(context_);
  EXPECT_EQ("Column Name of table Child is inherited; annotate it in Person.",
            Refused(SAGLEME_COLUMN_INHERITED,
                    [&] { SetComment(transaction, *transaction.table(u"Child"), u"Name", "x"); }));
}

TEST_F(AnnotationsTest, Comment_OfTheCatalogue_IsRefused) {
  Transaction transaction(context_);
  TablePtr const root = RootTable(transaction);
  Refused(LSCOREDB_INVALID_ARGUMENT, [&] { SetComment(transaction, *root, "x"); });
  TablePtr const person = transaction.table(u"Person");
  Refused(LSCOREDB_INVALID_ARGUMENT, [&] { SetComment(transaction, *person, u"__id", "x"); });
  Refused(SAGLEME_NO_SUCH_COLUMN, [&] { SetComment(transaction, *person, u"Nobody", "x"); });
  std::string const nul("a\0b", 3);
  Refused(LSCOREDB_INVALID_ARGUMENT, [&] { SetComment(transaction, *person, nul); });
}

TEST_F(AnnotationsTest, Annotations_FollowRenamesAndEndWithWhatTheyBelongTo) {
  Transaction transaction(context_);
  SetComment(transaction, *transaction.table(u"Person"), "who");
  SetComment(transaction, *transaction.table(u"Person"), u"City", "where");
  RenameTable(transaction, u"Person", u"Human");
  RenameColumn(transaction, u"Human", u"City", u"Town");
  TablePtr const human = transaction.table(u"Human");
  EXPECT_EQ("who", CommentOf(transaction, *human));
  EXPECT_EQ("where", CommentOf(transaction, *human, human->GetColumn(u"Town")));
  DropColumn(transaction, u"Human", u"Town");
  ASSERT_EQ(1u, Annotations(transaction).size());
  EXPECT_EQ("who", Annotations(transaction).front().text);
  DropTable(transaction, u"Human", {.children = true, .force = true});
  EXPECT_TRUE(Annotations(transaction).empty());
}

TEST_F(AnnotationsTest, Annotations_FollowColumnsThatMoveOrChangeTheirType) {
  Transaction transaction(context_);
  SetComment(transaction, *transaction.table(u"Child"), u"School", "where they learn");
  SetDefault(transaction, *transaction.table(u"Child"), u"School", "12");
  PullUpColumn(transaction, u"Child", u"School", u"Person");
  ChangeColumnType(transaction, u"Person", {u"School", Type::kLong, true});
  TablePtr const person = transaction.table(u"Person");
  EXPECT_EQ("where they learn", CommentOf(transaction, *person, person->GetColumn(u"School")));
  EXPECT_EQ(Value(std::int64_t{12}), DefaultOf(transaction, *person, person->GetColumn(u"School")));
  std::array const down{Text(u"Child")};
  PushDownColumn(transaction, u"Person", u"School", down);
  TablePtr const child = transaction.table(u"Child");
  EXPECT_EQ("where they learn", CommentOf(transaction, *child, child->GetColumn(u"School")));
  SetDefault(transaction, *child, u"School", std::int64_t{7});
  ChangeColumnType(transaction, u"Child", {u"School", Type::kBool, true}, Loss::kAllow);
  TablePtr const changed = transaction.table(u"Child");
  EXPECT_TRUE(IsNull(DefaultOf(transaction, *changed, changed->GetColumn(u"School"))));
  EXPECT_EQ(1u, Annotations(transaction).size());
  EXPECT_TRUE(FindingsOf(transaction).empty());
}

TEST_F(AnnotationsTest, EmptyComment_RemovesTheAnnotation) {
  Transaction transaction(context_);
  SetComment(transaction, *transaction.table(u"Person"), "");
  EXPECT_EQ(nullptr, transaction.Find(u"Sagleme.Internal.Annotation"));  // none was needed
  SetComment(transaction, *transaction.table(u"Person"), "who");
  SetComment(transaction, *transaction.table(u"Person"), "");
  EXPECT_TRUE(Annotations(transaction).empty());
}

TEST_F(AnnotationsTest, TableOfAnnotations_IsTheSystems) {
  Transaction transaction(context_);
  SetComment(transaction, *transaction.table(u"Person"), "who");
  for (TablePtr const& table : transaction.Tables()) {
    EXPECT_FALSE(ToUtf8(table->name).starts_with("Sagleme.")) << ToUtf8(table->name);
  }
  EXPECT_TRUE(transaction.table(u"Sagleme.Internal.Annotation")->system);
  EXPECT_EQ(3u, ReadSchema(transaction, false).tables.size());
}

TEST_F(AnnotationsTest, Rollback_TakesAnnotationsBack) {
  {
    Transaction transaction(context_);
    SetAbstract(transaction, *transaction.table(u"Person"), true);
    transaction.Rollback();
  }
  Transaction transaction(context_);
  EXPECT_FALSE(IsAbstract(transaction, *transaction.table(u"Person")));
  Make(transaction, u"Person");
  {
    Savepoint savepoint(transaction);
    SetDefault(transaction, *transaction.table(u"Person"), u"City", "Lyon");
    EXPECT_EQ(Value("Lyon"), Make(transaction, u"Person").Get(u"City"));
  }
  EXPECT_TRUE(IsNull(Make(transaction, u"Person").Get(u"City")));
}

TEST_F(AnnotationsTest, Vacuum_RemovesAnnotationsOfNothing) {
  {
    Transaction transaction(context_);
    SetComment(transaction, *transaction.table(u"Person"), u"City", "where");
    transaction.Commit();
  }
  {
    Transaction transaction(context_);
    ASSERT_EQ(0u, lorv_alter_table_drop_column_by_names(transaction.context(), u"Person", u"City",
                                                        nullptr));
    transaction.Forget();
    auto const findings = FindingsOf(transaction);
    ASSERT_EQ(1u, findings.size());
    EXPECT_TRUE(findings.front().starts_with("annotation: the comment of row "))
        << findings.front();
    transaction.Commit();
  }
  RunVacuum(context_, {});
  Transaction transaction(context_);
  EXPECT_TRUE(Annotations(transaction).empty());
  EXPECT_TRUE(FindingsOf(transaction).empty());
}

// ---- defaults -----------------------------------------------------------------------------------

TEST_F(AnnotationsTest, Default_IsWhatNewObjectsHave) {
  Transaction transaction(context_);
  Object const before = Make(transaction, u"Person");
  SetDefault(transaction, *transaction.table(u"Person"), u"Age", std::int64_t{18});
  SetDefault(transaction, *transaction.table(u"Person"), u"City", "Lyon");
  for (char16_t const* const table : {u"Person", u"Child"}) {
    Object const made = Make(transaction, table);
    EXPECT_EQ(Value(std::int64_t{18}), made.Get(u"Age"));
    EXPECT_EQ(Value("Lyon"), made.Get(u"City"));
    EXPECT_TRUE(IsNull(made.Get(u"Name")));
  }
  EXPECT_EQ(Value(std::int64_t{0}), before.Get(u"Age"));
  TablePtr const child = transaction.table(u"Child");
  EXPECT_EQ(Value("Lyon"), DefaultOf(transaction, *child, child->GetColumn(u"City")));
  SetDefault(transaction, *transaction.table(u"Person"), u"City", Null{});
  EXPECT_TRUE(IsNull(Make(transaction, u"Child").Get(u"City")));
}

TEST_F(AnnotationsTest, DefaultInAnIndex_IsFoundThere) {
  Transaction transaction(context_);
  SetDefault(transaction, *transaction.table(u"Person"), u"Name", "Nobody");
  Object const made = Make(transaction, u"Person");
  Index const index = *transaction.FindIndex(u"PersonByName");
  EXPECT_EQ(made.id(), Range::Matching(transaction, index, {"Nobody"}).Next()->id());
}

TEST_F(AnnotationsTest, DefaultsOfEveryType_KeepTheirValues) {
  Transaction transaction(context_);
  std::array const columns{
      ColumnSpec{u"A", Type::kString},  ColumnSpec{u"B", Type::kBinary},
      ColumnSpec{u"C", Type::kLong},    ColumnSpec{u"D", Type::kULong},
      ColumnSpec{u"E", Type::kDecimal}, ColumnSpec{u"F", Type::kFloat},
      ColumnSpec{u"G", Type::kDouble},  ColumnSpec{u"H", Type::kBool},
  };
  CreateTable(transaction, u"All", u"", columns);
  std::vector<Value> const values{std::u16string{u'a', char16_t{0xD800}, u'\n'},
                                  Bytes{0, 255},
                                  std::numeric_limits<std::int64_t>::min(),
                                  std::numeric_limits<std::uint64_t>::max(),
                                  Decimal{-1500001},
                                  0.1F,
                                  -std::numeric_limits<double>::infinity(),
                                  true};
  for (std::size_t i = 0; i < values.size(); ++i) {
    SetDefault(transaction, *transaction.table(u"All"), columns.at(i).name, values[i]);
  }
  Object const made = Make(transaction, u"All");
  for (std::size_t i = 0; i < values.size(); ++i) {
    EXPECT_EQ(values[i], made.Get(columns.at(i).name)) << i;
  }
  auto const json = SchemaJson(ReadSchema(transaction, false));
  EXPECT_EQ(json, SchemaJson(ParseSchema(json, "x")));
}

TEST_F(AnnotationsTest, DefaultThatDoesNotFit_IsRefused) {
  Transaction transaction(context_);
  EXPECT_EQ("The default \"old\" does not fit Column Age of table Person, which is of type long.",
            Refused(LSCOREDB_WRONG_TYPE, [&] {
              SetDefault(transaction, *transaction.table(u"Person"), u"Age", "old");
            }));
  EXPECT_EQ("Column Owner of table Thing is a reference, which has no default.",
            Refused(LSCOREDB_WRONG_TYPE, [&] {
              SetDefault(transaction, *transaction.table(u"Thing"), u"Owner", ObjectId{7});
            }));
}

struct Visitor {
  std::string name;
  std::int64_t age = 0;
};

}  // namespace

template <>
inline constexpr auto sagleme::mapping<Visitor> = sagleme::MapTable(
    "Person", sagleme::Member("Name", &Visitor::name), sagleme::Member("Age", &Visitor::age));

namespace {

TEST_F(AnnotationsTest, Default_OfAColumnThatAStructDoesNotMap_IsWritten) {
  Transaction transaction(context_);
  SetDefault(transaction, *transaction.table(u"Person"), u"Age", std::int64_t{18});
  SetDefault(transaction, *transaction.table(u"Person"), u"City", "Lyon");
  Object const made = TableOf<Visitor>(transaction).Insert({"Ada", 36});
  EXPECT_EQ(Value(std::int64_t{36}), made.Get(u"Age"));
  EXPECT_EQ(Value("Lyon"), made.Get(u"City"));
}

// ---- abstract tables ----------------------------------------------------------------------------

TEST_F(AnnotationsTest, AbstractTable_HasNoObjectsOfItsOwn) {
  Transaction transaction(context_);
  SetAbstract(transaction, *transaction.table(u"Person"), true);
  EXPECT_EQ("Table Person is abstract: create an object of a table that derives from it.",
            Refused(SAGLEME_ABSTRACT_TABLE, [&] { Make(transaction, u"Person"); }));
  Refused(SAGLEME_ABSTRACT_TABLE, [&] { TableOf<Visitor>(transaction).Insert({"Ada", 36}); });
  Make(transaction, u"Child");
  SetAbstract(transaction, *transaction.table(u"Person"), false);
  Make(transaction, u"Person");
}

TEST_F(AnnotationsTest, TableWithObjects_CannotBecomeAbstract) {
  Transaction transaction(context_);
  Make(transaction, u"Child");
  Make(transaction, u"Person");
  Make(transaction, u"Person");
  EXPECT_EQ(
      "Table Person cannot be abstract: it has 2 objects of its own. Delete them, or create them "
      "in a table that derives from it.",
      Refused(SAGLEME_TABLE_NOT_EMPTY,
              [&] { SetAbstract(transaction, *transaction.table(u"Person"), true); }));
  EXPECT_FALSE(IsAbstract(transaction, *transaction.table(u"Person")));
}

TEST_F(AnnotationsTest, ObjectPutIntoAnAbstractTable_IsFound) {
  Transaction transaction(context_);
  SetAbstract(transaction, *transaction.table(u"Person"), true);
  TablePtr const person = transaction.table(u"Person");
  std::uint64_t oid = 0;
  ASSERT_EQ(0u, lorv_context_insert(transaction.context(), person->layout, &oid));
  ASSERT_EQ(0u, lorv_context_put_setspec(transaction.context(), oid, person->layout,
                                         person->setspec.c_str()));
  std::vector<std::string> const expected{
      "abstract: the table is abstract, and 1 objects belong to it; delete them or let the table "
      "have objects"};
  EXPECT_EQ(expected, FindingsOf(transaction));
}

TEST_F(AnnotationsTest, WriterThatDoesNotSeeAnAnnotation_ConflictsWithIt) {
  {
    Transaction transaction(context_);
    SetComment(transaction, *transaction.table(u"Person"), "there are annotations now");
    transaction.Commit();
  }
  Context other(database_);
  Transaction writer(other);
  Make(writer, u"Person");
  Transaction changer(context_);
  SetAbstract(changer, *changer.table(u"Person"), true);
  changer.Commit();
  EXPECT_EQ(LSCOREDB_CONFLICT, StatusOf([&] { writer.Commit(); }));
  Transaction again(other);
  Refused(SAGLEME_ABSTRACT_TABLE, [&] { Make(again, u"Person"); });
}

}  // namespace
