// Columns that move up and down the tree of tables, and take other types.

#include <gtest/gtest.h>

#include <array>
#include <limits>
#include <sagleme/check.hpp>
#include <sagleme/column_changes.hpp>
#include <sagleme/vacuum.hpp>

#include "new_database.h"
#include "status_of.h"

namespace {

using sagleme::Column;
using sagleme::ColumnSpec;
using sagleme::Context;
using sagleme::Database;
using sagleme::Decimal;
using sagleme::Loss;
using sagleme::LostValues;
using sagleme::Null;
using sagleme::Object;
using sagleme::ObjectId;
using sagleme::TablePtr;
using sagleme::Text;
using sagleme::Transaction;
using sagleme::Type;
using sagleme::Value;

// Item, with Book (and Novel below it) and Film.
class ColumnChangesTest : public ::testing::Test {
 protected:
  ColumnChangesTest() : database_(sagleme_test::NewDatabase()), context_(database_) {
    Transaction transaction(context_);
    Create(transaction, u"L.Person", u"", {{u"Name", Type::kString}});
    Create(transaction, u"L.Author", u"L.Person", {{u"Pen", Type::kString}});
    Create(transaction, u"L.Item", u"",
           {{u"Title", Type::kString}, {u"Year", Type::kString}, {u"Count", Type::kLong, false}});
    Create(transaction, u"L.Book", u"L.Item",
           {{u"First", Type::kLong},
            {u"Pages", Type::kLong},
            {u"By", Type::kReference, true, u"L.Author"}});
    Create(transaction, u"L.Novel", u"L.Book", {{u"Genre", Type::kString}});
    Create(transaction, u"L.Film", u"L.Item", {{u"Minutes", Type::kLong}, {u"Pages", Type::kLong}});
    Create(transaction, u"L.Map", u"L.Item", {{u"Scale", Type::kDouble}});
    transaction.Commit();
  }

  static void Create(Transaction& transaction, Text const& name, Text const& base,
                     std::vector<ColumnSpec> const& columns) {
    sagleme::CreateTable(transaction, name, base, columns);
  }
  static Object Make(Transaction& transaction, Text const& table,
                     std::vector<std::pair<std::u16string, Value>> const& values) {
    Object object = Object::Create(transaction, *transaction.table(table));
    for (auto const& [column, value] : values) object.Set(column, value);
    return object;
  }
  static Value Of(Transaction& transaction, ObjectId id, std::u16string const& column) {
    return Object::Find(transaction, id)->Get(column);
  }
  static Column const& ColumnOf(Transaction& transaction, Text const& table, Text const& column) {
    return transaction.table(table)->GetColumn(column);
  }
  static void ExpectWhole(Transaction& transaction) {
    sagleme::CheckCatalogue(transaction, {}, [](sagleme::Finding const& finding) {
      ADD_FAILURE() << finding.rule << " " << finding.table << " " << finding.object << ": "
                    << finding.what;
    });
  }
  // Commits, works vacuum off, and looks at everything in a new transaction.
  void Finish(Transaction& transaction) {
    ExpectWhole(transaction);
    transaction.Commit();
    sagleme::RunVacuum(context_);
    Transaction reading(context_, sagleme::Access::kReadOnly);
    ExpectWhole(reading);
  }
  static std::vector<ObjectId> Found(Transaction& transaction, std::u16string const& index,
                                     std::vector<Value> const& key) {
    std::vector<ObjectId> ids;
    auto const found = transaction.FindIndex(index);
    for (Object const& each : sagleme::Range::Matching(transaction, *found, key)) {
      ids.push_back(each.id());
    }
    return ids;
  }

  Database database_;
  Context context_;
};

using Ids = std::vector<ObjectId>;

// ---- up ----------------------------------------------------------------------------------------

TEST_F(ColumnChangesTest, PullUp_OneTable_KeepsTokenValuesAndRow) {
  Transaction transaction(context_);
  ObjectId const novel = Make(transaction, u"L.Novel", {{u"First", std::int64_t{7}}}).id();
  ObjectId const film = Make(transaction, u"L.Film", {{u"Minutes", std::int64_t{90}}}).id();
  ObjectId const row = ColumnOf(transaction, u"L.Book", u"First").id;
  sagleme::PullUpColumn(transaction, u"L.Book", u"First", u"L.Item");
  EXPECT_EQ(row, ColumnOf(transaction, u"L.Item", u"First").id);
  EXPECT_TRUE(ColumnOf(transaction, u"L.Book", u"First").inherited);
  EXPECT_TRUE(ColumnOf(transaction, u"L.Film", u"First").inherited);
  EXPECT_EQ(Value(std::int64_t{7}), Of(transaction, novel, u"First"));
  EXPECT_EQ(Value(Null{}), Of(transaction, film, u"First"));
  EXPECT_EQ(Value(std::int64_t{90}), Of(transaction, film, u"Minutes"));
  Object::Find(transaction, film)->Set(u"First", std::int64_t{8});
  Finish(transaction);
  Transaction later(context_);
  EXPECT_EQ(Value(std::int64_t{7}), Of(later, novel, u"First"));
  EXPECT_EQ(Value(std::int64_t{8}), Of(later, film, u"First"));
}

TEST_F(ColumnChangesTest, PullUp_SeveralTables_BecomeOne) {
  Transaction transaction(context_);
  sagleme::CreateIndex(transaction, u"FilmPages", u"L.Film", {{u"Pages", false}, {u"Title", true}},
                       sagleme::Uniqueness::kUnique);
  sagleme::CreateIndex(transaction, u"BookPages", u"L.Book", {{u"Pages", true}});
  ObjectId const book = Make(transaction, u"L.Book", {{u"Pages", std::int64_t{300}}}).id();
  ObjectId const film = Make(transaction, u"L.Film", {{u"Pages", std::int64_t{12}}}).id();
  ObjectId const other = Make(transaction, u"L.Film", {{u"Minutes", std::int64_t{1}}}).id();
  sagleme::PullUpColumn(transaction, u"L.Book", u"Pages", u"L.Item");
  EXPECT_EQ(Value(std::int64_t{300}), Of(transaction, book, u"Pages"));
  EXPECT_EQ(Value(std::int64_t{12}), Of(transaction, film, u"Pages"));
  EXPECT_EQ(Value(Null{}), Of(transaction, other, u"Pages"));
  EXPECT_EQ(Ids{film}, Found(transaction, u"FilmPages", {std::int64_t{12}}));
  EXPECT_EQ(Ids{book}, Found(transaction, u"BookPages", {std::int64_t{300}}));
  Finish(transaction);
  Transaction later(context_);
  EXPECT_EQ(Value(std::int64_t{12}), Of(later, film, u"Pages"));
  ObjectId const late = Make(later, u"L.Film", {{u"Pages", std::int64_t{13}}}).id();
  EXPECT_EQ(Ids{late}, Found(later, u"FilmPages", {std::int64_t{13}}));
  EXPECT_FALSE(later.FindIndex(u"FilmPages")->columns[0].ascending);
}

TEST_F(ColumnChangesTest, PullUp_PastATable_GivesThatTableTheColumn) {
  Transaction transaction(context_);
  ObjectId const novel = Make(transaction, u"L.Novel", {{u"Genre", "crime"}}).id();
  sagleme::PullUpColumn(transaction, u"L.Novel", u"Genre", u"L.Item");
  EXPECT_TRUE(ColumnOf(transaction, u"L.Book", u"Genre").inherited);
  EXPECT_EQ(Value("crime"), Of(transaction, novel, u"Genre"));
  Finish(transaction);
}

TEST_F(ColumnChangesTest, PullUp_BadRequests_AreRefusedAndChangeNothing) {
  Transaction transaction(context_);
  std::uint64_t const generation = transaction.Generation();
  auto const pull = [&](Text const& table, Text const& column, Text const& base) {
    return StatusOf([&] { sagleme::PullUpColumn(transaction, table, column, base); });
  };
  EXPECT_EQ(SAGLEME_NO_SUCH_COLUMN, pull(u"L.Book", u"Colour", u"L.Item"));
  EXPECT_EQ(SAGLEME_COLUMN_INHERITED, pull(u"L.Book", u"Title", u"L.Item"));
  EXPECT_EQ(SAGLEME_TABLE_NOT_FOUND, pull(u"L.Bok", u"First", u"L.Item"));
  EXPECT_EQ(SAGLEME_TABLE_NOT_FOUND, pull(u"L.Book", u"First", u"L.Items"));
  EXPECT_EQ(SAGLEME_BAD_ARGUMENT, pull(u"L.Book", u"First", u"L.Book"));
  EXPECT_EQ(SAGLEME_BAD_ARGUMENT, pull(u"L.Book", u"First", u"L.Person"));
  EXPECT_EQ(SAGLEME_BAD_ARGUMENT,
            pull(u"L.Book", u"First", u"Lorvenstack.Internal.Metadata.MotherOfAllLayouts"));
  sagleme::AddColumns(transaction, u"L.Map", {{u"First", Type::kString}});
  EXPECT_EQ(SAGLEME_COLUMN_NAME_TAKEN, pull(u"L.Book", u"First", u"L.Item"));
  EXPECT_EQ(generation + 1, transaction.Generation());
  ExpectWhole(transaction);
}

TEST_F(ColumnChangesTest, PullUp_IntoATableBelowTheLimit_IsRefusedByAFullDescendant) {
  Transaction transaction(context_);
  std::vector<ColumnSpec> many;
  std::size_t const present = transaction.table(u"L.Map")->columns.size();
  for (std::size_t i = present; i < metalayer::kMaxColumns; ++i) {
    many.push_back({"C" + std::to_string(i), Type::kLong});
  }
  sagleme::AddColumns(transaction, u"L.Map", many);
  EXPECT_EQ(SAGLEME_BAD_ARGUMENT,
            StatusOf([&] { sagleme::PullUpColumn(transaction, u"L.Book", u"First", u"L.Item"); }));
  ExpectWhole(transaction);
}

TEST_F(ColumnChangesTest, PullUp_RolledBack_IsGone) {
  Transaction transaction(context_);
  ObjectId const book = Make(transaction, u"L.Book", {{u"First", std::int64_t{1}}}).id();
  {
    sagleme::Savepoint const savepoint(transaction);
    sagleme::PullUpColumn(transaction, u"L.Book", u"First", u"L.Item");
  }
  EXPECT_EQ(nullptr, transaction.table(u"L.Item")->FindColumn(u"First"));
  EXPECT_EQ(Value(std::int64_t{1}), Of(transaction, book, u"First"));
  ExpectWhole(transaction);
}

// ---- down --------------------------------------------------------------------------------------

TEST_F(ColumnChangesTest, PushDown_OneTable_KeepsTokenAndValues) {
  Transaction transaction(context_);
  ObjectId const novel = Make(transaction, u"L.Novel", {{u"Title", "Emma"}}).id();
  ObjectId const row = ColumnOf(transaction, u"L.Item", u"Title").id;
  sagleme::PushDownColumn(transaction, u"L.Item", u"Title", {u"L.Book"});
  EXPECT_EQ(row, ColumnOf(transaction, u"L.Book", u"Title").id);
  EXPECT_FALSE(ColumnOf(transaction, u"L.Book", u"Title").inherited);
  EXPECT_EQ(nullptr, transaction.table(u"L.Item")->FindColumn(u"Title"));
  EXPECT_EQ(nullptr, transaction.table(u"L.Film")->FindColumn(u"Title"));
  EXPECT_EQ(Value("Emma"), Of(transaction, novel, u"Title"));
  Finish(transaction);
  Transaction later(context_);
  EXPECT_EQ(Value("Emma"), Of(later, novel, u"Title"));
}

TEST_F(ColumnChangesTest, PushDown_SeveralTables_KeepsAllTheirValuesAndIndexes) {
  Transaction transaction(context_);
  sagleme::CreateIndex(transaction, u"ByTitle", u"L.Item", {{u"Title", false}, {u"Year", true}});
  sagleme::CreateIndex(transaction, u"MapByTitle", u"L.Map", {{u"Title", true}});
  sagleme::CreateIndex(transaction, u"FilmByTitle", u"L.Film", {{u"Title", true}},
                       sagleme::Uniqueness::kUnique);
  ObjectId const novel = Make(transaction, u"L.Novel", {{u"Title", "Emma"}}).id();
  ObjectId const film = Make(transaction, u"L.Film", {{u"Title", "Metropolis"}}).id();
  sagleme::PushDownColumn(transaction, u"L.Item", u"Title", {u"L.Book", u"L.Film"});
  EXPECT_EQ(Value("Emma"), Of(transaction, novel, u"Title"));
  EXPECT_EQ(Value("Metropolis"), Of(transaction, film, u"Title"));
  EXPECT_EQ(u"L.Book", transaction.FindIndex(u"ByTitle")->table);
  EXPECT_EQ(u"L.Film", transaction.FindIndex(u"ByTitle_Film")->table);
  EXPECT_FALSE(transaction.FindIndex(u"ByTitle_Film")->columns[0].ascending);
  EXPECT_FALSE(transaction.FindIndex(u"MapByTitle"));
  EXPECT_EQ(Ids{novel}, Found(transaction, u"ByTitle", {"Emma"}));
  EXPECT_EQ(Ids{film}, Found(transaction, u"ByTitle_Film", {"Metropolis"}));
  EXPECT_EQ(Ids{film}, Found(transaction, u"FilmByTitle", {"Metropolis"}));
  Finish(transaction);
  Transaction later(context_);
  EXPECT_EQ(Value("Metropolis"), Of(later, film, u"Title"));
}

TEST_F(ColumnChangesTest, PushDown_ValuesOutside_AreListedAndRefused) {
  Transaction transaction(context_);
  ObjectId const map = Make(transaction, u"L.Map", {{u"Title", "Rome"}}).id();
  Make(transaction, u"L.Film", {{u"Minutes", std::int64_t{3}}});
  std::array<Text, 1> const down{u"L.Book"};
  LostValues const lost = sagleme::FindLost(transaction, u"L.Item", u"Title", down);
  ASSERT_EQ(1u, lost.count);
  EXPECT_EQ(map, lost.first[0].object);
  EXPECT_EQ(u"L.Map", lost.first[0].table);
  EXPECT_EQ(Value("Rome"), lost.first[0].value);
  EXPECT_EQ(LSCOREDB_WRONG_TYPE,
            StatusOf([&] { sagleme::PushDownColumn(transaction, u"L.Item", u"Title", down); }));
  EXPECT_EQ(Value("Rome"), Of(transaction, map, u"Title"));
  sagleme::PushDownColumn(transaction, u"L.Item", u"Title", down, Loss::kAllow);
  Finish(transaction);
}

TEST_F(ColumnChangesTest, PushDown_BadRequests_AreRefused) {
  Transaction transaction(context_);
  auto const push = [&](Text const& column, std::vector<Text> const& tables) {
    return StatusOf([&] { sagleme::PushDownColumn(transaction, u"L.Item", column, tables); });
  };
  EXPECT_EQ(SAGLEME_BAD_ARGUMENT, push(u"Title", {}));
  EXPECT_EQ(SAGLEME_BAD_ARGUMENT, push(u"Title", {u"L.Item"}));
  EXPECT_EQ(SAGLEME_BAD_ARGUMENT, push(u"Title", {u"L.Person"}));
  EXPECT_EQ(SAGLEME_BAD_ARGUMENT, push(u"Title", {u"L.Book", u"L.Novel"}));
  EXPECT_EQ(SAGLEME_BAD_ARGUMENT, push(u"Title", {u"L.Book", u"L.Book"}));
  EXPECT_EQ(SAGLEME_TABLE_NOT_FOUND, push(u"Title", {u"L.Bok"}));
  EXPECT_EQ(SAGLEME_NO_SUCH_COLUMN, push(u"Titel", {u"L.Book"}));
  ExpectWhole(transaction);
}

TEST_F(ColumnChangesTest, PushDownAndPullUp_ComeBackToTheSame) {
  Transaction transaction(context_);
  ObjectId const novel = Make(transaction, u"L.Novel", {{u"Title", "Emma"}}).id();
  ObjectId const film = Make(transaction, u"L.Film", {{u"Title", "M"}}).id();
  for (int i = 0; i < 3; ++i) {
    sagleme::PushDownColumn(transaction, u"L.Item", u"Title", {u"L.Film", u"L.Map", u"L.Book"});
    ExpectWhole(transaction);
    sagleme::PullUpColumn(transaction, u"L.Map", u"Title", u"L.Item");
    ExpectWhole(transaction);
  }
  EXPECT_EQ(Value("Emma"), Of(transaction, novel, u"Title"));
  EXPECT_EQ(Value("M"), Of(transaction, film, u"Title"));
  Finish(transaction);
}

// ---- another type ------------------------------------------------------------------------------

TEST_F(ColumnChangesTest, ChangeType_TextToNumber_ConvertsInTheWholeSubtree) {
  Transaction transaction(context_);
  sagleme::CreateIndex(transaction, u"ByYear", u"L.Item", {{u"Year", true}, {u"Title", true}});
  ObjectId const novel = Make(transaction, u"L.Novel", {{u"Year", "1815"}}).id();
  ObjectId const film = Make(transaction, u"L.Film", {{u"Title", "M"}}).id();
  sagleme::ChangeColumnType(transaction, u"L.Item", {u"Year", Type::kLong});
  EXPECT_EQ(Value(std::int64_t{1815}), Of(transaction, novel, u"Year"));
  EXPECT_EQ(Value(Null{}), Of(transaction, film, u"Year"));
  EXPECT_EQ(4, ColumnOf(transaction, u"L.Item", u"Year").ordinal);
  EXPECT_EQ(Ids{novel}, Found(transaction, u"ByYear", {std::int64_t{1815}}));
  EXPECT_EQ(Ids{film}, Found(transaction, u"ByYear", {Null{}}));
  Finish(transaction);
  Transaction later(context_);
  EXPECT_EQ(Value(std::int64_t{1815}), Of(later, novel, u"Year"));
  EXPECT_EQ(Ids{novel}, Found(later, u"ByYear", {std::int64_t{1815}}));
}

TEST_F(ColumnChangesTest, ChangeType_ValuesThatDoNotConvert_AreListedBeforeAnythingChanges) {
  Transaction transaction(context_);
  ObjectId const good = Make(transaction, u"L.Book", {{u"Year", "1815"}}).id();
  ObjectId const bad = Make(transaction, u"L.Film", {{u"Year", "about 1930"}}).id();
  LostValues const lost =
      sagleme::FindUnconvertible(transaction, u"L.Item", {u"Year", Type::kLong});
  ASSERT_EQ(1u, lost.count);
  EXPECT_EQ(bad, lost.first[0].object);
  EXPECT_EQ(Value("about 1930"), lost.first[0].value);
  EXPECT_EQ(
      0u,
      sagleme::FindUnconvertible(transaction, u"L.Item", {u"Year", Type::kLong}, 0).first.size());
  try {
    sagleme::ChangeColumnType(transaction, u"L.Item", {u"Year", Type::kLong});
    FAIL();
  } catch (sagleme::Error const& error) {
    EXPECT_EQ(LSCOREDB_WRONG_TYPE, error.status());
    EXPECT_EQ("1 value of column Year of L.Item does not convert to long: \"about 1930\" (object " +
                  std::to_string(bad.value) + ").",
              std::string(error.what()));
  }
  EXPECT_EQ(Value("1815"), Of(transaction, good, u"Year"));
  sagleme::ChangeColumnType(transaction, u"L.Item", {u"Year", Type::kLong}, Loss::kAllow);
  EXPECT_EQ(Value(std::int64_t{1815}), Of(transaction, good, u"Year"));
  EXPECT_EQ(Value(Null{}), Of(transaction, bad, u"Year"));
  Finish(transaction);
}

TEST_F(ColumnChangesTest, ChangeType_NotNull_RefusesNullsOrMakesThemZero) {
  Transaction transaction(context_);
  sagleme::CreateIndex(transaction, u"ByFirst", u"L.Book", {{u"First", true}});
  ObjectId const book = Make(transaction, u"L.Book", {{u"Pages", std::int64_t{1}}}).id();
  ColumnSpec const wanted{u"First", Type::kLong, false};
  EXPECT_EQ(LSCOREDB_WRONG_TYPE,
            StatusOf([&] { sagleme::ChangeColumnType(transaction, u"L.Book", wanted); }));
  sagleme::ChangeColumnType(transaction, u"L.Book", wanted, Loss::kAllow);
  EXPECT_FALSE(ColumnOf(transaction, u"L.Novel", u"First").nullable);
  EXPECT_EQ(Value(std::int64_t{0}), Of(transaction, book, u"First"));
  EXPECT_EQ(Ids{book}, Found(transaction, u"ByFirst", {std::int64_t{0}}));
  sagleme::ChangeColumnType(transaction, u"L.Book", {u"First", Type::kLong, true});
  EXPECT_EQ(Value(std::int64_t{0}), Of(transaction, book, u"First"));
  Finish(transaction);
}

TEST_F(ColumnChangesTest, ChangeType_ToNullable_KeepsZerosThatNobodyWrote) {
  {
    Transaction transaction(context_);
    sagleme::CreateIndex(transaction, u"ByCount", u"L.Item", {{u"Count", true}, {u"Year", true}},
                         sagleme::Uniqueness::kUnique);
    Make(transaction, u"L.Film", {{u"Title", "M"}});
    sagleme::ChangeColumnType(transaction, u"L.Item", {u"Count", Type::kLong, true});
    Finish(transaction);
  }
  Transaction later(context_);
  ASSERT_EQ(1u, Found(later, u"ByCount", {std::int64_t{0}}).size());
  ObjectId const film = Found(later, u"ByCount", {std::int64_t{0}})[0];
  EXPECT_EQ(Value(std::int64_t{0}), Of(later, film, u"Count"));
  ObjectId const null = Make(later, u"L.Film", {{u"Title", "N"}}).id();
  EXPECT_EQ(Ids{null}, Found(later, u"ByCount", {Null{}}));
}

TEST_F(ColumnChangesTest, ChangeType_OfAReferencesTarget_TouchesNoObject) {
  Transaction transaction(context_);
  ObjectId const author = Make(transaction, u"L.Author", {{u"Name", "Austen"}}).id();
  ObjectId const person = Make(transaction, u"L.Person", {{u"Name", "Lang"}}).id();
  ObjectId const book = Make(transaction, u"L.Novel", {{u"By", author}}).id();
  std::uint16_t const layout = transaction.table(u"L.Novel")->layout;
  sagleme::ChangeColumnType(transaction, u"L.Book", {u"By", Type::kReference, true, u"L.Person"});
  EXPECT_EQ(layout, transaction.table(u"L.Novel")->layout);
  EXPECT_EQ(u"L.Person", ColumnOf(transaction, u"L.Novel", u"By").target);
  EXPECT_EQ(Value(author), Of(transaction, book, u"By"));
  Object::Find(transaction, book)->Set(u"By", person);
  ColumnSpec const narrow{u"By", Type::kReference, true, u"L.Author"};
  EXPECT_EQ(LSCOREDB_WRONG_TYPE,
            StatusOf([&] { sagleme::ChangeColumnType(transaction, u"L.Book", narrow); }));
  Object::Find(transaction, book)->Set(u"By", author);
  sagleme::ChangeColumnType(transaction, u"L.Book", narrow);
  EXPECT_EQ(Value(author), Of(transaction, book, u"By"));
  sagleme::DropTable(transaction, u"L.Film");
  Finish(transaction);
}

TEST_F(ColumnChangesTest, ChangeType_ReferenceToIdAndBack_KeepsIt) {
  Transaction transaction(context_);
  ObjectId const author = Make(transaction, u"L.Author", {{u"Name", "Austen"}}).id();
  ObjectId const book = Make(transaction, u"L.Novel", {{u"By", author}}).id();
  sagleme::ChangeColumnType(transaction, u"L.Book", {u"By", Type::kULong});
  EXPECT_EQ(Value(author.value), Of(transaction, book, u"By"));
  sagleme::ChangeColumnType(transaction, u"L.Book", {u"By", Type::kString});
  sagleme::ChangeColumnType(transaction, u"L.Book", {u"By", Type::kReference, true, u"L.Author"});
  EXPECT_EQ(Value(author), Of(transaction, book, u"By"));
  Finish(transaction);
}

TEST_F(ColumnChangesTest, ChangeType_TwoValuesBecomeOne_AUniqueIndexNamesThem) {
  Transaction transaction(context_);
  sagleme::CreateIndex(transaction, u"ByYear", u"L.Item", {{u"Year", true}},
                       sagleme::Uniqueness::kUnique);
  ObjectId const one = Make(transaction, u"L.Book", {{u"Year", "1"}}).id();
  ObjectId const two = Make(transaction, u"L.Book", {{u"Year", "01"}}).id();
  try {
    sagleme::ChangeColumnType(transaction, u"L.Item", {u"Year", Type::kLong});
    FAIL();
  } catch (sagleme::Error const& error) {
    EXPECT_EQ(LSCOREDB_DUPLICATE_KEY, error.status());
    std::string const objects = "objects " + std::to_string(one.value) + " and " +
                                std::to_string(two.value) + " would both have 1";
    EXPECT_NE(std::string::npos, std::string(error.what()).find(objects)) << error.what();
  }
  EXPECT_EQ(Value("01"), Of(transaction, two, u"Year"));
  EXPECT_EQ(Ids{two}, Found(transaction, u"ByYear", {"01"}));
  Finish(transaction);
}

TEST_F(ColumnChangesTest, ChangeType_BadRequests_AreRefused) {
  Transaction transaction(context_);
  auto const change = [&](Text const& table, ColumnSpec const& spec) {
    return StatusOf([&] { sagleme::ChangeColumnType(transaction, table, spec); });
  };
  EXPECT_EQ(SAGLEME_NO_SUCH_COLUMN, change(u"L.Item", {u"Yeer", Type::kLong}));
  EXPECT_EQ(SAGLEME_COLUMN_INHERITED, change(u"L.Book", {u"Year", Type::kLong}));
  EXPECT_EQ(SAGLEME_COLUMN_NOT_NULLABLE, change(u"L.Item", {u"Year", Type::kBinary, false}));
  EXPECT_EQ(SAGLEME_BAD_ARGUMENT, change(u"L.Item", {u"Year", Type::kKey, false}));
  EXPECT_EQ(SAGLEME_TARGET_NOT_FOUND,
            change(u"L.Item", {u"Year", Type::kReference, true, u"L.Nobody"}));
  EXPECT_EQ(SAGLEME_BAD_ARGUMENT,
            change(u"Lorvenstack.Metadata.RawView", {u"LayoutHandle", Type::kString}));
  std::uint64_t const generation = transaction.Generation();
  sagleme::ChangeColumnType(transaction, u"L.Item", {u"Year", Type::kString});
  EXPECT_EQ(generation, transaction.Generation());
  ExpectWhole(transaction);
}

struct ConversionCase {
  Type from;
  Value value;
  Type to;
  Value exact;    // null: the value does not convert
  Value nearest;  // what the object has instead then
};

TEST_F(ColumnChangesTest, ChangeType_EveryKindOfValue_ConvertsAsTheTableSays) {
  constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
  std::int64_t const long_one = 1;
  std::vector<ConversionCase> const cases{
      {Type::kString, "0.5", Type::kDecimal, Decimal{500000}, {}},
      {Type::kString, "0.1234567", Type::kDecimal, Null{}, Null{}},
      {Type::kString, "1e3", Type::kDouble, 1000.0, {}},
      {Type::kString, "", Type::kLong, Null{}, Null{}},
      {Type::kString, "-1", Type::kULong, Null{}, Null{}},
      {Type::kString, "true", Type::kBool, true, {}},
      {Type::kString, "AQI=", Type::kBinary, sagleme::Bytes{1, 2}, {}},
      {Type::kString,
       "18446744073709551615",
       Type::kKey,
       std::numeric_limits<std::uint64_t>::max(),
       {}},
      {Type::kBinary, sagleme::Bytes{1, 2}, Type::kString, "AQI=", {}},
      {Type::kBinary, sagleme::Bytes{1, 2}, Type::kLong, Null{}, Null{}},
      {Type::kLong, kMost, Type::kULong, static_cast<std::uint64_t>(kMost), {}},
      {Type::kLong, kMost, Type::kDouble, Null{}, 9223372036854775808.0},
      {Type::kLong, kMost, Type::kDecimal, Null{}, Null{}},
      {Type::kLong, std::int64_t{-1}, Type::kULong, Null{}, Null{}},
      {Type::kLong, std::int64_t{-1}, Type::kBool, Null{}, Null{}},
      {Type::kLong, long_one, Type::kBool, true, {}},
      {Type::kLong, std::int64_t{-7}, Type::kString, "-7", {}},
      {Type::kULong, std::numeric_limits<std::uint64_t>::max(), Type::kLong, Null{}, Null{}},
      {Type::kULong, std::uint64_t{1}, Type::kBool, true, {}},
      {Type::kULong, std::uint64_t{2}, Type::kBool, Null{}, Null{}},
      {Type::kULong, std::uint64_t{2}, Type::kKey, std::uint64_t{2}, {}},
      {Type::kBool, true, Type::kULong, std::uint64_t{1}, {}},
      {Type::kBool, true, Type::kString, "true", {}},
      {Type::kDecimal, Decimal{1500000}, Type::kLong, Null{}, std::int64_t{2}},
      {Type::kDecimal, Decimal{-2000000}, Type::kLong, std::int64_t{-2}, {}},
      {Type::kDecimal, Decimal{100000}, Type::kDouble, 0.1, {}},
      {Type::kDecimal, Decimal{100000}, Type::kString, "0.1", {}},
      {Type::kDouble, 0.1, Type::kDecimal, Decimal{100000}, {}},
      {Type::kDouble, 0.1, Type::kFloat, Null{}, 0.1f},
      {Type::kDouble, 0.5, Type::kFloat, 0.5f, {}},
      {Type::kDouble, 1e300, Type::kFloat, Null{}, Null{}},
      {Type::kDouble, 1e300, Type::kLong, Null{}, Null{}},
      {Type::kDouble, std::numeric_limits<double>::quiet_NaN(), Type::kLong, Null{}, Null{}},
      {Type::kDouble,
       std::numeric_limits<double>::infinity(),
       Type::kFloat,
       std::numeric_limits<float>::infinity(),
       {}},
      {Type::kDouble, 0.5, Type::kReference, Null{}, Null{}},
      {Type::kFloat, 0.5f, Type::kDouble, 0.5, {}},
      {Type::kLong, std::int64_t{1}, Type::kReference, Null{}, Null{}},
  };
  for (ConversionCase const& each : cases) {
    SCOPED_TRACE(std::string(TypeName(each.from)) + " to " + std::string(TypeName(each.to)));
    Transaction transaction(context_);
    sagleme::AddColumns(transaction, u"L.Book", {{u"It", each.from}});
    ObjectId const id = Make(transaction, u"L.Novel", {{u"It", each.value}}).id();
    bool const converts = !IsNull(each.exact);
    ColumnSpec const wanted{u"It", each.to, true, u"L.Item"};
    LostValues const lost = sagleme::FindUnconvertible(transaction, u"L.Book", wanted);
    EXPECT_EQ(converts ? 0u : 1u, lost.count);
    for (sagleme::LostValue const& value : lost.first) EXPECT_EQ(each.nearest, value.instead);
    EXPECT_TRUE(converts || sagleme::ConversionOf(each.from, each.to) != sagleme::Conversion::kAll);
    sagleme::ChangeColumnType(transaction, u"L.Book", wanted,
                              converts ? Loss::kRefuse : Loss::kAllow);
    EXPECT_EQ(converts ? each.exact : each.nearest, Of(transaction, id, u"It"));
    ExpectWhole(transaction);
  }
}

TEST_F(ColumnChangesTest, AnotherContext_WithHandlesFromBefore_IsToldOfTheChange) {
  Context const other(database_);
  ObjectId book;
  {
    Transaction transaction(other);
    book = Make(transaction, u"L.Book", {{u"First", std::int64_t{5}}}).id();
    transaction.Commit();
  }
  Transaction before(other);
  EXPECT_EQ(Value(std::int64_t{5}), Of(before, book, u"First"));
  {
    Transaction transaction(context_);
    sagleme::PullUpColumn(transaction, u"L.Book", u"First", u"L.Item");
    sagleme::ChangeColumnType(transaction, u"L.Item", {u"First", Type::kString});
    Finish(transaction);
  }
  EXPECT_EQ(Value(std::int64_t{5}), Of(before, book, u"First"));
  Object::Find(before, book)->Set(u"First", std::int64_t{6});
  EXPECT_EQ(LSCOREDB_CONFLICT, StatusOf([&] { before.Commit(); }));
  Transaction after(other);
  EXPECT_EQ(Value("5"), Of(after, book, u"First"));
}

TEST_F(ColumnChangesTest, AnObjectMadeMeanwhile_IsNotMissed) {
  Context const other(database_);
  auto const beside = [&](auto const& change) {
    Transaction transaction(context_);
    change(transaction);
    Transaction writer(other);
    Make(writer, u"L.Film", {{u"Title", "M"}, {u"Pages", std::int64_t{1}}});
    writer.Commit();
    return StatusOf([&] { transaction.Commit(); });
  };
  EXPECT_EQ(LSCOREDB_CONFLICT, beside([](Transaction& transaction) {
              sagleme::ChangeColumnType(transaction, u"L.Film", {u"Pages", Type::kString});
            }));
  EXPECT_EQ(LSCOREDB_CONFLICT, beside([](Transaction& transaction) {
              sagleme::PullUpColumn(transaction, u"L.Book", u"Pages", u"L.Item");
            }));
  EXPECT_EQ(LSCOREDB_CONFLICT, beside([](Transaction& transaction) {
              sagleme::PushDownColumn(transaction, u"L.Item", u"Year", {u"L.Book"});
            }));
  EXPECT_EQ(0u, beside([](Transaction& transaction) {
              sagleme::PullUpColumn(transaction, u"L.Book", u"First", u"L.Item");
            }));
}

TEST_F(ColumnChangesTest, PushDown_OfLostValues_DoesNotBringThemBack) {
  Transaction transaction(context_);
  ObjectId const film = Make(transaction, u"L.Film", {{u"Title", "M"}, {u"Year", "1931"}}).id();
  sagleme::PushDownColumn(transaction, u"L.Item", u"Year", {u"L.Book"}, sagleme::Loss::kAllow);
  sagleme::PullUpColumn(transaction, u"L.Book", u"Year", u"L.Item");
  EXPECT_TRUE(sagleme::IsNull(Of(transaction, film, u"Year")));
  Finish(transaction);
}

TEST_F(ColumnChangesTest, MappedProperties_FollowTheirColumn) {
  Transaction transaction(context_);
  TablePtr const book = transaction.table(u"L.Book");
  LS_OBJ_REF const property = sagleme::detail::Inside(transaction.context(), [&] {
    Column const& column = book->GetColumn(u"First");
    return LS_OBJ_REF(metalayer::MappedProperty::Insert(
        book->row, u"FirstProperty", metalayer::db_record(LS_OBJ_REF{}), false, true, true,
        LS_OBJ_REF{column.id.value, 0}));
  });
  auto const mapped = [&] {
    return sagleme::detail::Inside(transaction.context(), [&] {
      return sagleme::detail::CatalogueRef(property, metalayer::MappedProperty::kColumn).oid;
    });
  };
  sagleme::PullUpColumn(transaction, u"L.Book", u"First", u"L.Item");
  EXPECT_EQ(ColumnOf(transaction, u"L.Book", u"First").id.value, mapped());
  sagleme::ChangeColumnType(transaction, u"L.Item", {u"First", Type::kString});
  EXPECT_EQ(ColumnOf(transaction, u"L.Book", u"First").id.value, mapped());
  sagleme::PushDownColumn(transaction, u"L.Item", u"First", {u"L.Film", u"L.Book"});
  EXPECT_EQ(ColumnOf(transaction, u"L.Book", u"First").id.value, mapped());
  sagleme::PullUpColumn(transaction, u"L.Film", u"First", u"L.Item");
  sagleme::PushDownColumn(transaction, u"L.Item", u"First", {u"L.Film"});
  EXPECT_EQ(nullptr, transaction.table(u"L.Book")->FindColumn(u"First"));
  EXPECT_FALSE(Object::Find(transaction, {property.oid}));
  ExpectWhole(transaction);
}

}  // namespace
