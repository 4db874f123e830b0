#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <sagleme/host.hpp>

#include "new_database.h"
#include "status_of.h"

namespace {

using sagleme::ColumnSpec;
using sagleme::Type;

class HostTest : public ::testing::Test {
 protected:
  HostTest() : database_(sagleme_test::NewDatabase()), context_(database_) {
    sagleme::Transaction transaction(context_);
    std::array const base{ColumnSpec{u"Name", Type::kString},
                          ColumnSpec{u"Size", Type::kLong, false},
                          ColumnSpec{u"Next", Type::kReference, true, u"App.Thing"}};
    std::array const derived{ColumnSpec{u"Weight", Type::kDouble, true},
                             ColumnSpec{u"Data", Type::kBinary}};
    sagleme::CreateTable(transaction, u"App.Thing", u"", base);
    sagleme::FinishReferences(transaction);
    sagleme::CreateTable(transaction, u"App.Tool", u"App.Thing", derived);
    std::array const by_name{sagleme::IndexColumnSpec{u"Name"}};
    std::array const by_size{sagleme::IndexColumnSpec{u"Size", false}};
    sagleme::CreateIndex(transaction, u"ThingByName", u"App.Thing", by_name,
                         sagleme::Uniqueness::kUnique);
    sagleme::CreateIndex(transaction, u"ThingBySize", u"App.Thing", by_size);
    transaction.Commit();
  }

  sagleme::Object Make(sagleme::Transaction& transaction, char const* table, std::u16string name,
                       std::int64_t size) {
    sagleme::TablePtr const found = transaction.table(table);
    auto object = sagleme::Object::Create(transaction, *found);
    sagleme::Property<std::u16string>(*found, u"Name").Set(object, name);
    sagleme::Property<std::int64_t>(*found, u"Size").Set(object, size);
    return object;
  }
  std::u16string Names(sagleme::Range range) {
    std::u16string names;
    for (sagleme::Object& object : range) {
      names += std::get<std::u16string>(object.Get(u"Name"));
    }
    return names;
  }

  sagleme::Database database_;
  sagleme::Context context_;
};

TEST_F(HostTest, Table_KnowsItsColumnsAndTheirOrigins) {
  sagleme::Transaction transaction(context_, sagleme::Access::kReadOnly);
  sagleme::TablePtr const tool = transaction.table(u"App.Tool");
  EXPECT_EQ(u"App.Thing", tool->base);
  EXPECT_EQ(8u, tool->columns.size());
  EXPECT_TRUE(tool->GetColumn(u"Name").inherited);
  EXPECT_EQ(Type::kDouble, tool->GetColumn(u"Weight").type);
  EXPECT_EQ(u"App.Thing", tool->GetColumn(u"Next").target);
  EXPECT_EQ(2u, transaction.table(u"App.Thing")->indexes.size());
  EXPECT_EQ(SAGLEME_NO_SUCH_COLUMN, StatusOf([&] { tool->GetColumn(u"Colour"); }));
  EXPECT_EQ(SAGLEME_TABLE_NOT_FOUND, StatusOf([&] { transaction.table(u"App.Nothing"); }));
  EXPECT_EQ(tool, transaction.Resolve(u"Tool"));
  EXPECT_EQ(2u, transaction.Tables().size());
  EXPECT_EQ(27u, transaction.Tables(true).size());
}

TEST_F(HostTest, Properties_OfTheBase_ServeDescendants) {
  sagleme::Transaction transaction(context_);
  auto thing = Make(transaction, "App.Thing", u"a", 1);
  auto tool = Make(transaction, "App.Tool", u"b", 2);
  sagleme::Property<std::u16string_view> const name(*transaction.table(u"App.Thing"), u"Name");
  EXPECT_EQ(u"a", name.GetOr(thing, u""));
  EXPECT_EQ(u"b", name.GetOr(tool, u""));
  name.Clear(tool);
  EXPECT_EQ(std::nullopt, name.Get(tool));
  EXPECT_EQ(transaction.table(u"App.Tool"), tool.table());
}

TEST_F(HostTest, Property_AnotherType_IsRefused) {
  sagleme::Transaction transaction(context_);
  sagleme::TablePtr const thing = transaction.table(u"App.Thing");
  EXPECT_EQ(LSCOREDB_WRONG_TYPE,
            StatusOf([&] { sagleme::Property<std::int64_t> const wrong(*thing, u"Name"); }));
  auto object = Make(transaction, "App.Thing", u"a", 1);
  EXPECT_EQ(LSCOREDB_WRONG_TYPE, StatusOf([&] { object.Set(u"Name", std::int64_t{1}); }));
  EXPECT_EQ(LSCOREDB_INVALID_ARGUMENT,
            StatusOf([&] { object.Set(u"Name", std::u16string(u"a\0b", 3)); }));
}

TEST_F(HostTest, KeyWithoutNull_IsRefusedByItsName) {
  sagleme::Transaction transaction(context_);
  auto const refusal = [](auto const& work) -> std::string {
    try {
      work();
    } catch (sagleme::Error const& error) {
      EXPECT_EQ(SAGLEME_BAD_ARGUMENT, error.status());
      return error.what();
    }
    return "";
  };
  EXPECT_EQ(
      "Column Code of App.Thing must be nullable: its type is key. Or make it a ulong, which "
      "holds the same numbers.",
      refusal([&] {
        sagleme::AddColumns(transaction, u"App.Thing", {{u"Code", Type::kKey, false}});
      }));
  EXPECT_NE("", refusal([&] {
              sagleme::CreateTable(transaction, u"App.Other", u"", {{u"Code", Type::kKey, false}});
            }));
  sagleme::CreateTable(transaction, u"App.Other", u"", {{u"Code", Type::kKey}});
  EXPECT_EQ(Type::kKey, transaction.table(u"App.Other")->GetColumn(u"Code").type);
}

TEST_F(HostTest, Ranges_TableSubtreeAndIndex_GiveTheirObjects) {
  sagleme::Transaction transaction(context_);
  Make(transaction, "App.Thing", u"b", 1);
  Make(transaction, "App.Tool", u"a", 3);
  Make(transaction, "App.Thing", u"ab", 2);
  sagleme::TablePtr const thing = transaction.table(u"App.Thing");
  auto const by_name = *transaction.FindIndex(u"ThingByName");
  auto const by_size = *transaction.FindIndex(u"ThingBySize");
  EXPECT_EQ(u"bab", Names(sagleme::Range::Only(transaction, *thing)));
  EXPECT_EQ(u"baba", Names(sagleme::Range::Subtree(transaction, *thing)));
  EXPECT_EQ(u"aabb", Names(sagleme::Range::Matching(transaction, by_name, {})));
  EXPECT_EQ(u"baba", Names(sagleme::Range::Matching(transaction, by_name, {},
                                                    sagleme::Direction::kReverse)));
  EXPECT_EQ(u"aab", Names(sagleme::Range::StartingWith(transaction, by_name, u"a")));
  EXPECT_EQ(u"aabb", Names(sagleme::Range::Matching(transaction, by_size, {})));
  std::vector<sagleme::Value> const three{std::int64_t{3}};
  std::vector<sagleme::Value> const two{std::int64_t{2}};
  EXPECT_EQ(u"aab",
            Names(sagleme::Range::Between(transaction, by_size, sagleme::IndexKey(by_size, three),
                                          sagleme::IndexKey(by_size, two))));
}

TEST_F(HostTest, IndexKey_LongerThanAnyBuffer_IsFound) {
  sagleme::Transaction transaction(context_);
  std::u16string const name(20000, u'漢');
  auto const made = Make(transaction, "App.Thing", name, 1);
  auto const by_name = *transaction.FindIndex(u"ThingByName");
  auto const found = sagleme::Range::Matching(transaction, by_name, {name}).Next();
  ASSERT_TRUE(found);
  EXPECT_EQ(made.id(), found->id());
}

TEST_F(HostTest, Transaction_NotCommitted_LeavesNothing) {
  {
    sagleme::Transaction transaction(context_);
    Make(transaction, "App.Thing", u"a", 1);
    sagleme::RenameTable(transaction, u"App.Tool", u"App.Device");
    EXPECT_NE(nullptr, transaction.Find(u"App.Device"));
  }
  sagleme::Transaction transaction(context_);
  EXPECT_EQ(nullptr, transaction.Find(u"App.Device"));
  EXPECT_EQ(u"", Names(sagleme::Range::Only(transaction, *transaction.table(u"App.Thing"))));
}

TEST_F(HostTest, Failures_CarryStatusAndText) {
  sagleme::Transaction transaction(context_);
  try {
    sagleme::DropTable(transaction, u"App.Thing");
    FAIL() << "a table with children went";
  } catch (sagleme::Error const& error) {
    EXPECT_EQ(SAGLEME_TABLE_HAS_DESCENDANTS, error.status());
    EXPECT_NE(std::string::npos, std::string(error.what()).find("App.Tool"));
  }
  EXPECT_EQ(LSCOREDB_TRANSACTION_OPEN, StatusOf([&] { sagleme::Transaction second(context_); }));
}

TEST_F(HostTest, SchemaChanges_ShowInTheSameTransaction) {
  sagleme::Transaction transaction(context_);
  auto const before = transaction.Generation();
  auto tool = Make(transaction, "App.Tool", u"a", 1);
  std::array const more{ColumnSpec{u"Colour", Type::kULong, true}};
  sagleme::AddColumns(transaction, u"App.Thing", more);
  EXPECT_EQ(before + 1, transaction.Generation());
  EXPECT_TRUE(sagleme::IsNull(tool.Get(u"Colour")));
  tool.Set(u"Colour", std::uint64_t{7});
  EXPECT_EQ(sagleme::Value(std::uint64_t{7}), tool.Get(u"Colour"));
  EXPECT_EQ(sagleme::Value(std::u16string(u"a")), tool.Get(u"Name"));
  sagleme::DropColumn(transaction, u"App.Thing", u"Colour");
  EXPECT_EQ(nullptr, transaction.table(u"App.Tool")->FindColumn(u"Colour"));
}

TEST(HostDatabaseTest, Open_WithoutADatabase_CreatesNone) {
  auto const directory = std::filesystem::temp_directory_path() / "sagleme-host-none";
  std::filesystem::remove_all(directory);
  EXPECT_THROW(sagleme::Database::Open(directory.string()), sagleme::Error);
  EXPECT_FALSE(std::filesystem::exists(directory));
}

TEST(HostTextTest, Utf8AndUtf16_GoBothWays) {
  for (std::u16string const& text :
       {std::u16string(u""), std::u16string(u"aé漢🙂"), std::u16string(1, char16_t{0xD83D}),
        std::u16string({char16_t{0xDE42}, u'a', char16_t{0xD83D}})}) {
    EXPECT_EQ(text, sagleme::ToUtf16(sagleme::ToUtf8(text)));
  }
  EXPECT_EQ("a\xc3\xa9\xe6\xbc\xa2\xf0\x9f\x99\x82", sagleme::ToUtf8(u"aé漢🙂"));
  EXPECT_FALSE(sagleme::IsWellFormed(std::u16string(1, char16_t{0xD83D})));
  EXPECT_TRUE(sagleme::IsWellFormed(u"🙂"));
}

TEST(HostTextTest, BadUtf8_IsRefusedWithItsOffset) {
  for (char const* const text :
       {"a\x80", "a\xc0\x80", "a\xe0\x80\x80", "a\xf5\x80\x80\x80", "a\xc3"}) {
    try {
      sagleme::ToUtf16(text);
      FAIL() << text;
    } catch (sagleme::BadUtf8 const& error) {
      EXPECT_EQ(1u, error.offset());
    }
  }
}

}  // namespace
