// Schema documents in which tables have other bases than in the database.

#include <sagleme/schema_plan.hpp>

#include "hierarchy_test.h"

namespace hierarchy_test {
namespace {

using sagleme::ColumnDoc;
using sagleme::SchemaDoc;
using sagleme::TableDoc;

class SchemaMovesTest : public HierarchyTest {
 protected:
  SchemaMovesTest() {
    Transaction transaction(context_);
    novel_ =
        Make(transaction, u"Novel", {{u"Title", u"Emma"}, {u"Pages", 474L}, {u"Genre", u"satire"}})
            .id();
    transaction.Commit();
  }

  static TableDoc& Table(SchemaDoc& schema, std::string const& name) {
    return *std::find_if(schema.tables.begin(), schema.tables.end(),
                         [&](TableDoc const& table) { return table.name == name; });
  }
  static ColumnDoc Column(std::string const& name, Type type) {
    ColumnDoc column;
    column.name = name;
    column.type = type;
    return column;
  }
  static std::vector<std::string> Describe(sagleme::Plan const& plan) {
    std::vector<std::string> lines;
    for (auto const& change : plan) {
      lines.push_back(std::string(sagleme::LabelName(sagleme::LabelOf(change))) + ": " +
                      sagleme::DescribeChange(change));
    }
    return lines;
  }
  // The plan, made and carried out; afterwards nothing is left to do.
  static std::vector<std::string> Reach(Transaction& transaction, SchemaDoc const& wanted) {
    sagleme::ValidateSchema(wanted, "made");
    auto const plan = sagleme::CompareSchemas(sagleme::ReadSchema(transaction, true), wanted);
    sagleme::ApplyPlan(transaction, plan);
    EXPECT_EQ(Lines{},
              Describe(sagleme::CompareSchemas(sagleme::ReadSchema(transaction, true), wanted)));
    ExpectSound(transaction);
    return Describe(plan);
  }
  using Lines = std::vector<std::string>;

  ObjectId novel_;
};

TEST_F(SchemaMovesTest, ColumnsOfTheOldBase_StayIfTheDocumentHasThem) {
  Transaction transaction(context_);
  SchemaDoc wanted = sagleme::ReadSchema(transaction, true);
  Table(wanted, "Novel").base = "";
  Table(wanted, "Novel").columns.push_back(Column("Pages", Type::kLong));
  EXPECT_EQ((Lines{"background: move table Novel to the root",
                   "destructive: drop column Title of Novel with its values"}),
            [&] {
              Table(wanted, "Novel").indexes.clear();
              auto lines = Reach(transaction, wanted);
              std::erase(lines, "instant: drop index NovelByTitle");
              return lines;
            }());
  EXPECT_EQ(Value(474L), Get(transaction, novel_, u"Pages"));
  EXPECT_EQ(Value(u"satire"), Get(transaction, novel_, u"Genre"));
}

TEST_F(SchemaMovesTest, NewBase_IsCreatedFirst) {
  Transaction transaction(context_);
  SchemaDoc wanted = sagleme::ReadSchema(transaction, true);
  TableDoc story;
  story.name = "Story";
  story.base = "Item";
  story.columns = {Column("Genre", Type::kString), Column("Author", Type::kReference)};
  story.columns[1].target = "Writer";
  TableDoc writer;
  writer.name = "Writer";
  wanted.tables.push_back(story);
  wanted.tables.push_back(writer);
  TableDoc& novel = Table(wanted, "Novel");
  novel.base = "Story";
  novel.columns = {Column("Pages", Type::kLong)};
  EXPECT_EQ((Lines{"instant: create table Story derived from Item",
                   "background: move table Novel under Story", "instant: create table Writer",
                   "background: add Author to Story"}),
            Reach(transaction, wanted));
  EXPECT_EQ(Value(u"satire"), Get(transaction, novel_, u"Genre"));
  EXPECT_EQ(Value(474L), Get(transaction, novel_, u"Pages"));
  EXPECT_EQ(Ids{novel_}, InIndex(transaction, u"NovelByTitle"));
}

TEST_F(SchemaMovesTest, BaseAndDerivedTable_ChangePlaces) {
  Transaction transaction(context_);
  SchemaDoc wanted = sagleme::ReadSchema(transaction, true);
  Table(wanted, "Novel").base = "Item";
  Table(wanted, "Book").base = "Novel";
  ObjectId const book = Make(transaction, u"Book", {{u"Pages", 10L}}).id();
  EXPECT_EQ((Lines{"background: move table Novel under Item",
                   "destructive: drop column Pages of Novel with its values",
                   "background: move table Book under Novel"}),
            Reach(transaction, wanted));
  EXPECT_EQ(Value(10L), Get(transaction, book, u"Pages"));
  EXPECT_EQ(Ids{book}, InIndex(transaction, u"BookByPages"));
  EXPECT_EQ(Value(u"satire"), Get(transaction, novel_, u"Genre"));
  Object::Find(transaction, book)->Set(u"Genre", u"essay");
  EXPECT_EQ(2u, Subtree(transaction, u"Novel").size());
}

TEST_F(SchemaMovesTest, DroppedBase_LeavesWhatDerivedFromIt) {
  Transaction transaction(context_);
  SchemaDoc wanted = sagleme::ReadSchema(transaction, true);
  std::erase_if(wanted.tables,
                [](TableDoc const& table) { return table.name == "Book" || table.name == "Loan"; });
  Table(wanted, "Novel").base = "Item";
  Table(wanted, "Novel").columns.push_back(Column("Pages", Type::kLong));
  auto const lines = Reach(transaction, wanted);
  EXPECT_NE(lines.end(),
            std::find(lines.begin(), lines.end(), "background: move table Novel under Item"));
  EXPECT_EQ(Value(474L), Get(transaction, novel_, u"Pages"));
  EXPECT_EQ(u"Novel", TableOf(transaction, novel_));
}

TEST_F(SchemaMovesTest, UnwantedIndexOfTheNewBase_RefusesNothing) {
  Transaction transaction(context_);
  sagleme::CreateTable(transaction, u"Named", u"", {{u"Title", Type::kString}});
  sagleme::CreateIndex(transaction, u"NamedByTitle", u"Named", {{u"Title"}},
                       sagleme::Uniqueness::kUnique);
  Make(transaction, u"Named", {{u"Title", u"Emma"}});
  SchemaDoc wanted = sagleme::ReadSchema(transaction, true);
  Table(wanted, "Novel").base = "Named";
  Table(wanted, "Novel").columns.push_back(Column("Pages", Type::kLong));
  EXPECT_EQ(LSCOREDB_DUPLICATE_KEY, StatusOf([&] {
              sagleme::Savepoint const savepoint(transaction);
              Reach(transaction, wanted);
            }));
  Table(wanted, "Named").indexes.clear();
  Reach(transaction, wanted);
  EXPECT_EQ(Value(u"Emma"), Get(transaction, novel_, u"Title"));
}

TEST_F(SchemaMovesTest, RenamedAndMovedTable_IsTheSame) {
  Transaction transaction(context_);
  SchemaDoc wanted = sagleme::ReadSchema(transaction, true);
  for (TableDoc& table : wanted.tables) {
    if (table.name == "Book") table.name = "Volume";
    if (table.base == "Book") table.base = "Volume";
    for (ColumnDoc& column : table.columns) {
      if (column.target == "Book") column.target = "Volume";
    }
  }
  Table(wanted, "Volume").base = "";
  Table(wanted, "Volume").columns.push_back(Column("Title", Type::kString));
  EXPECT_EQ(
      (Lines{"background: move table Book to the root", "instant: rename table Book to Volume"}),
      Reach(transaction, wanted));
  EXPECT_EQ(Value(u"Emma"), Get(transaction, novel_, u"Title"));
}

TEST_F(SchemaMovesTest, ColumnThatComesDownToANewBase_KeepsItsValues) {
  Transaction transaction(context_);
  SchemaDoc wanted = sagleme::ReadSchema(transaction, true);
  sagleme::DropIndex(transaction, u"ItemByTitle");
  TableDoc work;
  work.name = "Work";
  work.base = "Item";
  work.columns = {Column("Title", Type::kString)};
  wanted.tables.push_back(work);
  Table(wanted, "Item").columns.clear();
  Table(wanted, "Item").indexes.clear();
  Table(wanted, "Book").base = "Work";
  Table(wanted, "Film").base = "Work";
  EXPECT_EQ(
      (Lines{"instant: create table Work derived from Item",
             "background: move table Book under Work", "background: move table Film under Work",
             "background: push column Title of Item down to Work"}),
      Reach(transaction, wanted));
  EXPECT_EQ(Value(u"Emma"), Get(transaction, novel_, u"Title"));
  EXPECT_EQ(Ids{novel_}, InIndex(transaction, u"NovelByTitle"));
}

TEST_F(SchemaMovesTest, ColumnOfAnotherType_BecomesThatOfTheNewBase) {
  Transaction transaction(context_);
  sagleme::CreateTable(transaction, u"Work", u"", {{u"Pages"}});
  SchemaDoc wanted = sagleme::ReadSchema(transaction, true);
  Table(wanted, "Book").base = "Work";
  Table(wanted, "Book").columns = {Column("Title", Type::kString)};
  EXPECT_EQ((Lines{"background: change column Pages of Book from long to string",
                   "background: move table Book under Work"}),
            Reach(transaction, wanted));
  EXPECT_EQ(Value(u"474"), Get(transaction, novel_, u"Pages"));
}

TEST_F(SchemaMovesTest, ColumnOfATypeThatConvertsToNone_MakesRoom) {
  Transaction transaction(context_);
  sagleme::CreateTable(transaction, u"Work", u"", {{u"Pages", Type::kBinary}});
  SchemaDoc wanted = sagleme::ReadSchema(transaction, true);
  Table(wanted, "Book").base = "Work";
  Table(wanted, "Book").columns = {Column("Title", Type::kString)};
  Table(wanted, "Book").indexes.clear();
  EXPECT_EQ((Lines{"instant: drop index BookByPages",
                   "destructive: drop column Pages of Book with its values",
                   "background: move table Book under Work"}),
            Reach(transaction, wanted));
  EXPECT_TRUE(sagleme::IsNull(Get(transaction, novel_, u"Pages")));
}

TEST_F(SchemaMovesTest, ColumnOfADerivedTable_IsNotMergedWithOneThatGoes) {
  Transaction transaction(context_);
  sagleme::CreateTable(transaction, u"Work", u"", {{u"Genre"}});
  SchemaDoc wanted = sagleme::ReadSchema(transaction, true);
  Table(wanted, "Book").base = "Work";
  Table(wanted, "Book").columns.push_back(Column("Title", Type::kString));
  Table(wanted, "Work").columns.clear();
  EXPECT_EQ((Lines{"destructive: drop column Genre of Work with its values",
                   "background: move table Book under Work"}),
            Reach(transaction, wanted));
  EXPECT_EQ(Value(u"satire"), Get(transaction, novel_, u"Genre"));
}

TEST_F(SchemaMovesTest, ColumnThatIsRenamed_IsNotMadeThatOfTheNewBase) {
  Transaction transaction(context_);
  sagleme::CreateTable(transaction, u"Work", u"", {{u"Pages"}});
  SchemaDoc wanted = sagleme::ReadSchema(transaction, true);
  Table(wanted, "Book").base = "Work";
  Table(wanted, "Book").columns[0].name = "Leaves";
  Table(wanted, "Book").columns.push_back(Column("Title", Type::kString));
  EXPECT_NE("", RefusalOf([&] { Reach(transaction, wanted); }));
}

TEST_F(SchemaMovesTest, ColumnThatComesUpAndTakesNull_GivesNoZeros) {
  Transaction transaction(context_);
  sagleme::CreateTable(transaction, u"Record", u"Item", {{u"Discs", Type::kLong, false}});
  ObjectId const record = Make(transaction, u"Record", {{u"Discs", 2L}}).id();
  SchemaDoc wanted = sagleme::ReadSchema(transaction, true);
  Table(wanted, "Item").columns.push_back(Column("Discs", Type::kLong));
  Table(wanted, "Record").columns.clear();
  EXPECT_EQ((Lines{"background: change column Discs of Record from long without null to long",
                   "background: pull column Discs of Record up to Item"}),
            Reach(transaction, wanted));
  EXPECT_EQ(Value(2L), Get(transaction, record, u"Discs"));
  EXPECT_TRUE(sagleme::IsNull(Get(transaction, novel_, u"Discs")));
}

}  // namespace
}  // namespace hierarchy_test
