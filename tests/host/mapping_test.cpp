#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <optional>
#include <sagleme/sagleme.hpp>
#include <string>
#include <vector>

#include "new_database.h"

namespace {

enum class Shelf : std::uint8_t { kNone, kTop = 7 };

struct Person {
  std::string name;
  sagleme::Ref<Person> sponsor;
};

struct Item {
  std::string title;
  std::optional<int> year;
  sagleme::Ref<Person> lender;
};

struct Book : Item {
  std::uint32_t pages = 0;
  Shelf shelf = Shelf::kNone;
};

// Every kind of member.
struct Sample {
  bool flag = false;
  std::int64_t whole = 0;
  std::uint64_t natural = 0;
  std::int8_t little = 0;
  sagleme::Decimal price;
  float single = 0;
  double real = 0;
  std::u16string wide;
  std::u8string narrow;
  sagleme::Bytes bytes;
  sagleme::ObjectId other;
  std::optional<bool> maybe_flag;
  std::optional<std::string> maybe_text;
  std::optional<sagleme::Decimal> maybe_price;
};

// Item as a later version of the program has it.
struct LaterItem {
  std::string title;
  std::optional<int> year;
  sagleme::Ref<Person> lender;
  std::int64_t loans = 0;
};

struct MisfitItem {
  double title = 0;
};

struct OptionalPages : Item {
  std::optional<std::uint32_t> pages;
};

struct Unstored {
  int it = 0;
};

}  // namespace

using sagleme::Base;
using sagleme::Descending;
using sagleme::IndexOn;
using sagleme::MapTable;
using sagleme::Member;
using sagleme::UniqueIndexOn;

template <>
inline constexpr auto sagleme::mapping<Person> = MapTable("Library.Person",
                                                          Member("Name", &Person::name),
                                                          Member("Sponsor", &Person::sponsor));
template <>
inline constexpr auto sagleme::mapping<Item> =
    MapTable("Library.Item", Member("Title", &Item::title), Member("Year", &Item::year),
             Member("Lender", &Item::lender), UniqueIndexOn("ItemByTitle", "Title"),
             IndexOn("ItemByYear", Descending("Year"), "Title"));
template <>
inline constexpr auto sagleme::mapping<Book> = MapTable("Library.Book", Base<Item>(),
                                                        Member("Pages", &Book::pages),
                                                        Member("Shelf", &Book::shelf),
                                                        IndexOn("BookByPages", "Pages"));
template <>
inline constexpr auto sagleme::mapping<Sample> = MapTable(
    "App.Sample", Member("Flag", &Sample::flag), Member("Whole", &Sample::whole),
    Member("Natural", &Sample::natural), Member("Little", &Sample::little),
    Member("Price", &Sample::price), Member("Single", &Sample::single),
    Member("Real", &Sample::real), Member("Wide", &Sample::wide), Member("Narrow", &Sample::narrow),
    Member("Bytes", &Sample::bytes), Member("Other", &Sample::other, "App.Sample"),
    Member("MaybeFlag", &Sample::maybe_flag), Member("MaybeText", &Sample::maybe_text),
    Member("MaybePrice", &Sample::maybe_price));
template <>
inline constexpr auto sagleme::mapping<LaterItem> = MapTable("Library.Item",
                                                             Member("Title", &LaterItem::title),
                                                             Member("Year", &LaterItem::year),
                                                             Member("Lender", &LaterItem::lender),
                                                             Member("Loans", &LaterItem::loans),
                                                             IndexOn("ItemByLoans", "Loans"));
template <>
inline constexpr auto sagleme::mapping<MisfitItem> = MapTable("Library.Item",
                                                              Member("Title", &MisfitItem::title));
template <>
inline constexpr auto sagleme::mapping<OptionalPages> =
    MapTable("Library.Book", Base<Item>(), Member("Pages", &OptionalPages::pages));

namespace {

static_assert(sagleme::Mapped<Book> && !sagleme::Mapped<Unstored>);

class MappingTest : public ::testing::Test {
 protected:
  MappingTest() : database_(sagleme_test::NewDatabase()), context_(database_) {
    sagleme::Transaction transaction(context_);
    sagleme::DefineTables<Book, Person>(transaction);
    transaction.Commit();
  }

  static Book MakeBook(std::string title, std::optional<int> year, std::uint32_t pages) {
    Book book;
    book.title = std::move(title);
    book.year = year;
    book.pages = pages;
    return book;
  }
  template <typename T>
  static std::string Titles(sagleme::Entries<T> entries) {
    std::string titles;
    for (auto const& [object, value] : entries) titles += value.title + ";";
    return titles;
  }
  // The status and the words of a refusal.
  static std::pair<std::uint32_t, std::string> Refusal(std::function<void()> const& work) {
    try {
      work();
    } catch (sagleme::Error const& error) {
      return {error.status(), error.what()};
    }
    return {0, ""};
  }

  sagleme::Database database_;
  sagleme::Context context_;
};

TEST_F(MappingTest, DefineTables_CreatesTheMappedTables) {
  sagleme::Transaction transaction(context_, sagleme::Access::kReadOnly);
  auto const book = transaction.table("Library.Book");
  EXPECT_EQ(u"Library.Item", book->base);
  EXPECT_EQ(sagleme::Type::kULong, book->GetColumn("Pages").type);
  EXPECT_FALSE(book->GetColumn("Pages").nullable);
  EXPECT_EQ(sagleme::Type::kLong, book->GetColumn("Year").type);
  EXPECT_TRUE(book->GetColumn("Year").nullable);
  EXPECT_EQ(u"Library.Person", book->GetColumn("Lender").target);
  EXPECT_EQ(u"Library.Person", transaction.table("Library.Person")->GetColumn("Sponsor").target);
  auto const by_year = transaction.FindIndex("ItemByYear");
  ASSERT_TRUE(by_year.has_value());
  EXPECT_EQ(2u, by_year->columns.size());
  EXPECT_FALSE(by_year->columns[0].ascending);
  EXPECT_TRUE(transaction.FindIndex("ItemByTitle")->unique);
}

TEST_F(MappingTest, DefineTables_Again_WritesNothing) {
  sagleme::Transaction transaction(context_, sagleme::Access::kReadOnly);
  auto const generation = transaction.Generation();
  sagleme::DefineTables<Person, Item, Book>(transaction);
  EXPECT_EQ(generation, transaction.Generation());
}

TEST_F(MappingTest, DefineTables_ExtendedStruct_AddsColumnsAndIndexes) {
  sagleme::Transaction transaction(context_);
  auto const object = sagleme::TableOf<Item>(transaction).Insert({"Kindred", 1979, {}});
  sagleme::DefineTables<LaterItem>(transaction);
  sagleme::TableOf<LaterItem> const items(transaction);
  LaterItem item = items.Read(object);
  EXPECT_EQ("Kindred", item.title);
  EXPECT_EQ(0, item.loans);
  item.loans = 3;
  items.Write(object, item);
  EXPECT_EQ("Kindred;", Titles(items.Where(&LaterItem::loans, 3)));
}

TEST_F(MappingTest, DefineTables_Misfit_KeepsNothingOfTheCall) {
  sagleme::Transaction transaction(context_);
  auto const [status, words] =
      Refusal([&] { sagleme::DefineTables<Sample, MisfitItem>(transaction); });
  EXPECT_EQ(LSCOREDB_WRONG_TYPE, status);
  EXPECT_EQ(
      "Column Title of table Library.Item is of type string; the struct's member is for double.",
      words);
  EXPECT_EQ(nullptr, transaction.Find("App.Sample"));
}

TEST_F(MappingTest, TableOf_MissingInTheDatabase_IsRefused) {
  sagleme::Transaction transaction(context_);
  EXPECT_EQ(SAGLEME_TABLE_NOT_FOUND,
            Refusal([&] { sagleme::TableOf<Sample> const none(transaction); }).first);
  EXPECT_EQ(SAGLEME_NO_SUCH_COLUMN,
            Refusal([&] { sagleme::TableOf<LaterItem> const none(transaction); }).first);
  auto const [status, words] =
      Refusal([&] { sagleme::TableOf<OptionalPages> const none(transaction); });
  EXPECT_EQ(LSCOREDB_WRONG_TYPE, status);
  EXPECT_EQ(
      "Column Pages of table Library.Book takes no null; the struct's member must not be "
      "optional.",
      words);
}

TEST_F(MappingTest, EveryKindOfMember_ComesBack) {
  sagleme::Transaction transaction(context_);
  sagleme::DefineTables<Sample>(transaction);
  sagleme::TableOf<Sample> const samples(transaction);
  auto const first = samples.Insert({});
  Sample sample;
  sample.flag = true;
  sample.whole = std::numeric_limits<std::int64_t>::min();
  sample.natural = std::numeric_limits<std::uint64_t>::max();
  sample.little = -128;
  sample.price = {.millionths = -1};
  sample.single = 0.1f;
  sample.real = -0.0;
  sample.wide = u"\xD83D\xDE00 wide";
  sample.narrow = u8"nächstes 😀";
  sample.bytes = {0, 255};
  sample.other = first.id();
  sample.maybe_flag = false;
  sample.maybe_text = "";
  sample.maybe_price = sagleme::Decimal{5};
  Sample const back = samples.Read(samples.Insert(sample));
  EXPECT_EQ(sample.flag, back.flag);
  EXPECT_EQ(sample.whole, back.whole);
  EXPECT_EQ(sample.natural, back.natural);
  EXPECT_EQ(sample.little, back.little);
  EXPECT_EQ(sample.price, back.price);
  EXPECT_EQ(sample.single, back.single);
  EXPECT_TRUE(std::signbit(back.real));
  EXPECT_EQ(sample.wide, back.wide);
  EXPECT_TRUE(sample.narrow == back.narrow);
  EXPECT_EQ(sample.bytes, back.bytes);
  EXPECT_EQ(sample.other, back.other);
  EXPECT_EQ(sample.maybe_flag, back.maybe_flag);
  EXPECT_EQ(sample.maybe_text, back.maybe_text);
  EXPECT_EQ(sample.maybe_price, back.maybe_price);
}

TEST_F(MappingTest, Nulls_ReadAsNothingOrAsZero) {
  sagleme::Transaction transaction(context_);
  sagleme::DefineTables<Sample>(transaction);
  sagleme::TableOf<Sample> const samples(transaction);
  auto const object = sagleme::Object::Create(transaction, samples.table());
  Sample const empty = samples.Read(object);
  EXPECT_EQ(std::nullopt, empty.maybe_flag);
  EXPECT_EQ(std::nullopt, empty.maybe_text);
  EXPECT_EQ(u"", empty.wide);
  EXPECT_TRUE(empty.bytes.empty());
  EXPECT_EQ(0u, empty.other.value);
  samples.Write(object, empty);
  EXPECT_TRUE(sagleme::IsNull(object.Get("MaybeText")));
  EXPECT_TRUE(sagleme::IsNull(object.Get("Other")));
  EXPECT_EQ(sagleme::Value(u""), object.Get("Wide"));
}

TEST_F(MappingTest, NumberThatTheMemberCannotHold_IsReported) {
  sagleme::Transaction transaction(context_);
  sagleme::TableOf<Item> const items(transaction);
  auto object = items.Insert({"Old", 1, {}});
  object.Set("Year", std::int64_t{5'000'000'000});
  auto const [status, words] = Refusal([&] { items.Read(object); });
  EXPECT_EQ(LSCOREDB_TOO_LARGE, status);
  EXPECT_EQ("5000000000 does not fit into the member for column Year.", words);
}

TEST_F(MappingTest, Queries_ReadStructsInTheOrderOfTheirIndex) {
  sagleme::Transaction transaction(context_);
  sagleme::TableOf<Item> const items(transaction);
  sagleme::TableOf<Book> const books(transaction);
  sagleme::TableOf<Person> const people(transaction);
  auto const ada = people.Insert({"Ada", {}});
  items.Insert({"Map", 1990, ada});
  books.Insert(MakeBook("Cities", 1972, 165));
  books.Insert(MakeBook("Kindred", std::nullopt, 264));

  EXPECT_EQ("Map;Cities;Kindred;", Titles(items.Matching("ItemByYear")));
  EXPECT_EQ("Kindred;Cities;Map;",
            Titles(items.Matching("ItemByYear", {}, sagleme::Direction::kReverse)));
  EXPECT_EQ("Cities;Kindred;", Titles(books.Matching("ItemByYear")));
  EXPECT_EQ("Cities;Kindred;", Titles(items.Between("ItemByTitle", {"Cities"}, {"Kindred"})));
  EXPECT_EQ("Cities;", Titles(books.Where(&Book::title, "Cities")));
  EXPECT_EQ("Kindred;", Titles(items.Where(&Item::year, std::nullopt)));
  EXPECT_EQ("Kindred;", Titles(books.Where(&Book::pages, 264u)));
  EXPECT_EQ("Map;", Titles(items.Only()));
  EXPECT_EQ("Cities;Kindred;", Titles(books.All()));
  auto const map = *items.Where(&Item::title, "Map").Next();
  EXPECT_EQ("Ada", people.Find(map.value.lender)->name);
  EXPECT_EQ(u"Library.Item", map.object.table()->name);
}

TEST_F(MappingTest, Queries_WithoutAnIndex_AreRefused) {
  sagleme::Transaction transaction(context_);
  sagleme::TableOf<Item> const items(transaction);
  auto const [status, words] = Refusal([&] { items.Where(&Item::lender, {}); });
  EXPECT_EQ(SAGLEME_INDEX_NOT_FOUND, status);
  EXPECT_EQ("No index of table Library.Item begins with column Lender.", words);
  EXPECT_EQ(SAGLEME_INDEX_NOT_FOUND, Refusal([&] { items.Matching("Nothing"); }).first);
}

TEST_F(MappingTest, Find_KnowsTheObjectsOfItsTablesAlone) {
  sagleme::Transaction transaction(context_);
  sagleme::TableOf<Item> const items(transaction);
  sagleme::TableOf<Book> const books(transaction);
  auto const map = items.Insert({"Map", {}, {}});
  auto const book = books.Insert(MakeBook("Cities", 1972, 165));
  EXPECT_EQ("Cities", items.Find(book.id())->title);
  EXPECT_FALSE(books.Find(map.id()).has_value());
  EXPECT_FALSE(books.Find(sagleme::ObjectId{}).has_value());
  EXPECT_FALSE(books.Find(sagleme::ObjectId{std::uint64_t{1} << 60}).has_value());
}

TEST_F(MappingTest, RefusedInsert_LeavesNoObject) {
  sagleme::Transaction transaction(context_);
  sagleme::TableOf<Item> const items(transaction);
  EXPECT_THROW(items.Insert({"\xFF", {}, {}}), sagleme::BadUtf8);
  EXPECT_THROW(items.Insert({std::string("a\0b", 3), {}, {}}), sagleme::Error);
  EXPECT_EQ("", Titles(items.All()));
  EXPECT_EQ("", Titles(items.Matching("ItemByTitle")));
}

TEST_F(MappingTest, RefusedWrite_ChangesNoMember) {
  sagleme::Transaction transaction(context_);
  sagleme::TableOf<Item> const items(transaction);
  auto const map = items.Insert({"Map", 1990, {}});
  Item changed = items.Read(map);
  changed.title = "Atlas";
  changed.year = 2001;
  changed.lender = sagleme::ObjectId{1};
  std::string const bad = "\xC0";
  changed.title = bad;
  EXPECT_THROW(items.Write(map, changed), sagleme::BadUtf8);
  EXPECT_EQ("Map", items.Read(map).title);
  EXPECT_EQ(1990, items.Read(map).year);
}

}  // namespace
