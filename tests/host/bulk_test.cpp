// Pages of objects and columns of many objects: what they give is what reading one by one gives.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>
#include <sagleme/bulk.hpp>
#include <sagleme/host.hpp>

#include "new_database.h"
#include "status_of.h"

namespace sagleme {
namespace {

constexpr std::size_t kObjects = 700;
using Ids = std::vector<ObjectId>;

class BulkTest : public ::testing::Test {
 protected:
  BulkTest() {
    Transaction transaction(context_);
    CreateTable(
        transaction, u"App.Thing", u"",
        std::array{ColumnSpec{u"Name", Type::kString}, ColumnSpec{u"Note", Type::kString},
                   ColumnSpec{u"Size", Type::kLong, true}, ColumnSpec{u"Count", Type::kULong, true},
                   ColumnSpec{u"Price", Type::kDecimal, true},
                   ColumnSpec{u"Small", Type::kFloat, true},
                   ColumnSpec{u"Real", Type::kDouble, true}, ColumnSpec{u"Flag", Type::kBool, true},
                   ColumnSpec{u"Data", Type::kBinary},
                   ColumnSpec{u"Next", Type::kReference, true, u"App.Thing"}});
    FinishReferences(transaction);
    CreateTable(transaction, u"App.Tool", u"App.Thing",
                std::array{ColumnSpec{u"Weight", Type::kLong, true}});
    CreateIndex(transaction, u"ThingBySize", u"App.Thing", std::array{IndexColumnSpec{u"Size"}});
    for (std::size_t i = 0; i < kObjects; ++i) ids_.push_back(Make(transaction, i));
    transaction.Commit();
  }

  // Every second is a tool; every third has no values.
  ObjectId Make(Transaction& transaction, std::size_t i) {
    Object object =
        Object::Create(transaction, *transaction.table(i % 2 == 0 ? u"App.Thing" : u"App.Tool"));
    auto const number = static_cast<std::int64_t>(i);
    object.Set(u"Size", number - 300);
    if (i % 3 == 0) return object.id();
    object.Set(u"Name", std::u16string(i % 7, u'\u0442') + u"\xD800");
    object.Set(u"Note", std::u16string(i % 5, u'n'));
    object.Set(u"Count", ~std::uint64_t{0} - i);
    object.Set(u"Price", Decimal{-number});
    object.Set(u"Small", -0.5F * static_cast<float>(i));
    object.Set(u"Real", 1e300 / static_cast<double>(number + 1));
    object.Set(u"Flag", i % 4 == 0);
    object.Set(u"Data", Bytes(i % 6, static_cast<std::uint8_t>(i)));
    object.Set(u"Next", ids_.empty() ? object.id() : ids_.front());
    return object.id();
  }

  // The range as pages of that size, and that its objects are those of the pages.
  static Ids PagesOf(Range range, std::uint32_t most, PageRows rows = PageRows::kLater) {
    Ids found;
    ObjectPages pages(std::move(range), rows);
    for (auto page = pages.Next(most); !page.empty(); page = pages.Next(most)) {
      EXPECT_LE(page.size(), most);
      for (std::size_t i = 0; i < page.size(); ++i) {
        EXPECT_EQ(page[i], pages.object(i).id());
        EXPECT_NE(nullptr, pages.object(i).table());
        found.push_back(page[i]);
      }
    }
    EXPECT_TRUE(pages.Next(most).empty());
    return found;
  }
  static Ids OneByOne(Range range) {
    Ids found;
    for (Object const& each : range) found.push_back(each.id());
    return found;
  }

  // `Whole` owns what T may only look at.
  template <typename T, typename Whole = T>
  static void ExpectAsOneByOne(Transaction& transaction, Ids const& ids,
                               std::u16string const& name) {
    SCOPED_TRACE(ToUtf8(name));
    TablePtr const table = transaction.table(u"App.Thing");
    Property<Whole> const single(*table, name);
    ManyValues<T> many(*table, name);
    many.Read(transaction, ids);
    ASSERT_EQ(ids.size(), many.size());
    std::size_t values = 0;
    for (std::size_t i = 0; i < ids.size(); ++i) {
      std::optional<Whole> const expected = single.Get(*Object::Find(transaction, ids[i]));
      EXPECT_EQ(expected.has_value() ? ValueState::kValue : ValueState::kNull, many.state(i));
      std::optional<T> const got = many[i];
      ASSERT_EQ(expected.has_value(), got.has_value()) << i;
      if (!got.has_value()) continue;
      ++values;
      if constexpr (std::is_same_v<Whole, Bytes>) {
        EXPECT_EQ(*expected, Bytes(got->begin(), got->end())) << i;
      } else {
        EXPECT_TRUE(*expected == *got) << i;
      }
    }
    EXPECT_LT(ids.size() / 2, values);
  }

  static void ExpectAllAsOneByOne(Transaction& transaction, Ids const& ids) {
    ExpectAsOneByOne<std::u16string_view, std::u16string>(transaction, ids, u"Name");
    ExpectAsOneByOne<std::u16string_view, std::u16string>(transaction, ids, u"Note");
    ExpectAsOneByOne<std::int64_t>(transaction, ids, u"Size");
    ExpectAsOneByOne<std::uint64_t>(transaction, ids, u"Count");
    ExpectAsOneByOne<Decimal>(transaction, ids, u"Price");
    ExpectAsOneByOne<float>(transaction, ids, u"Small");
    ExpectAsOneByOne<double>(transaction, ids, u"Real");
    ExpectAsOneByOne<bool>(transaction, ids, u"Flag");
    ExpectAsOneByOne<std::span<std::uint8_t const>, Bytes>(transaction, ids, u"Data");
    ExpectAsOneByOne<ObjectId>(transaction, ids, u"Next");
  }

  Database database_ = sagleme_test::NewDatabase();
  Context context_{database_};
  Ids ids_;
};

TEST_F(BulkTest, Pages_OfAnySize_GiveTheObjectsOfTheRange) {
  Transaction transaction(context_, Access::kReadOnly);
  TablePtr const thing = transaction.table(u"App.Thing");
  Index const by_size = *transaction.FindIndex(u"ThingBySize");
  auto const ranges = {
      +[](Transaction& in, Table const& table, Index const&) { return Range::Subtree(in, table); },
      +[](Transaction& in, Table const& table, Index const&) { return Range::Only(in, table); },
      +[](Transaction& in, Table const&, Index const& index) {
        return Range::Matching(in, index, {}, Direction::kReverse);
      },
      +[](Transaction& in, Table const&, Index const& index) {
        return Range::Matching(in, index, {std::int64_t{5}});
      },
      +[](Transaction& in, Table const&, Index const& index) {
        return Range::Matching(in, index, {std::int64_t{5000}});
      }};
  for (auto const& range : ranges) {
    Ids const expected = OneByOne(range(transaction, *thing, by_size));
    for (std::uint32_t const most : {1u, 7u, 350u, 699u, 700u, 701u, 5000u}) {
      for (PageRows const rows : {PageRows::kLater, PageRows::kFetched}) {
        EXPECT_EQ(expected, PagesOf(range(transaction, *thing, by_size), most, rows)) << most;
      }
    }
  }
}

TEST_F(BulkTest, Pages_LeaveOutWhatRangesLeaveOut) {
  {
    Transaction transaction(context_);
    DropTable(transaction, u"App.Tool");
    transaction.Commit();
  }
  Transaction transaction(context_, Access::kReadOnly);
  Index const by_size = *transaction.FindIndex(u"ThingBySize");
  Ids const left = OneByOne(Range::Matching(transaction, by_size, {}));
  EXPECT_EQ(kObjects / 2, left.size());
  for (std::uint32_t const most : {1u, 10u, 2000u}) {
    EXPECT_EQ(left, PagesOf(Range::Matching(transaction, by_size, {}), most));
  }
}

TEST_F(BulkTest, Pages_OfNothing_AreRefused) {
  Transaction transaction(context_, Access::kReadOnly);
  ObjectPages pages(Range::Only(transaction, *transaction.table(u"App.Thing")));
  EXPECT_EQ(LSCOREDB_INVALID_ARGUMENT, StatusOf([&] { pages.Next(0); }));
  EXPECT_EQ(1u, pages.Next(1).size());
}

TEST_F(BulkTest, Values_OfEveryType_AreThoseOfSingleReads) {
  Transaction transaction(context_, Access::kReadOnly);
  ExpectAllAsOneByOne(transaction, ids_);
  std::shuffle(ids_.begin(), ids_.end(), std::mt19937(3));
  FetchObjects(transaction, ids_);
  ExpectAllAsOneByOne(transaction, ids_);
}

TEST_F(BulkTest, Values_OfObjectsThatWereStoredBeforeAChange_AreThere) {
  {
    Transaction transaction(context_);
    AddColumns(transaction, u"App.Thing", std::array{ColumnSpec{u"Late", Type::kLong, true}});
    DropColumn(transaction, u"App.Thing", u"Count");
    transaction.Commit();
  }
  Transaction transaction(context_);
  Object::Find(transaction, ids_[9])->Set(u"Late", std::int64_t{9});
  ManyValues<std::int64_t> late(*transaction.table(u"App.Thing"), u"Late");
  late.Read(transaction, ids_);
  EXPECT_EQ(9, late[9]);
  EXPECT_EQ(ValueState::kNull, late.state(10));
  ExpectAsOneByOne<std::int64_t>(transaction, ids_, u"Size");
  ExpectAsOneByOne<std::u16string_view, std::u16string>(transaction, ids_, u"Name");
}

TEST_F(BulkTest, Values_SeeTheTransactionsOwnWrites) {
  Transaction transaction(context_);
  Object::Find(transaction, ids_[1])->Set(u"Size", std::int64_t{77});
  Object::Find(transaction, ids_[2])->Delete();
  ManyValues<std::int64_t> sizes(*transaction.table(u"App.Thing"), u"Size");
  sizes.Read(transaction, Ids{ids_[1], ids_[2], ObjectId{1u << 30}, ids_[1]});
  EXPECT_EQ(77, sizes[0]);
  EXPECT_EQ(ValueState::kGone, sizes.state(1));
  EXPECT_EQ(std::nullopt, sizes[1]);
  EXPECT_EQ(ValueState::kGone, sizes.state(2));
  EXPECT_EQ(77, sizes[3]);
}

// The kernel lends one buffer at a time.
TEST_F(BulkTest, TextsOfTwoColumns_AreValidTogether) {
  Transaction transaction(context_, Access::kReadOnly);
  TablePtr const thing = transaction.table(u"App.Thing");
  ManyValues<std::u16string_view> names(*thing, u"Name");
  ManyValues<std::u16string_view> notes(*thing, u"Note");
  names.Read(transaction, ids_);
  notes.Read(transaction, ids_);
  EXPECT_EQ(std::u16string(4, u'\u0442') + u"\xD800", names[4]);
  EXPECT_EQ(std::u16string(4, u'n'), notes[4]);
  notes.Read(transaction, Ids{});
  EXPECT_EQ(0u, notes.size());
  EXPECT_EQ(kObjects, names.size());
}

TEST_F(BulkTest, WhatDoesNotFit_IsRefused) {
  Transaction transaction(context_, Access::kReadOnly);
  TablePtr const thing = transaction.table(u"App.Thing");
  EXPECT_EQ(LSCOREDB_WRONG_TYPE, StatusOf([&] { ManyValues<std::int64_t>(*thing, u"Count"); }));
  EXPECT_EQ(LSCOREDB_WRONG_TYPE,
            StatusOf([&] { ManyValues<std::span<std::uint8_t const>>(*thing, u"Name"); }));
  EXPECT_EQ(SAGLEME_NO_SUCH_COLUMN, StatusOf([&] { ManyValues<std::int64_t>(*thing, u"Sice"); }));
  Database const other = Database::InMemory();
  Context const there(other);
  Transaction reading(there, Access::kReadOnly);
  ManyValues<std::int64_t> sizes(*thing, u"Size");
  sizes.Read(transaction, ids_);
  EXPECT_EQ(LORV_STATUS_FOREIGN_DATABASE, StatusOf([&] { sizes.Read(reading, ids_); }));
  EXPECT_EQ(0u, sizes.size()) << "of what was read before";
}

}  // namespace
}  // namespace sagleme
