// Changes of columns that are prepared in batches before the plan that has them is applied.

#include <sagleme/annotations.hpp>
#include <sagleme/schema_plan.hpp>

#include "hierarchy_test.h"

namespace hierarchy_test {
namespace {

using sagleme::Change;
using sagleme::ColumnChangeProgress;
using sagleme::ColumnDoc;
using sagleme::Plan;

constexpr int kObjects = 60;

class PreparedChangesTest : public HierarchyTest {
 protected:
  PreparedChangesTest() {
    Transaction transaction(context_);
    for (int i = 0; i < kObjects; ++i) {
      Make(transaction, i % 2 == 0 ? u"Novel" : u"Film",
           {{u"Title", std::to_string(i)}, {u"Pages", std::int64_t{i}}});
    }
    transaction.Commit();
  }

  static ColumnDoc Doc(std::string const& name, Type type) {
    ColumnDoc column;
    column.name = name;
    column.type = type;
    column.nullable = true;
    return column;
  }
  static Plan PullUp() {
    return {sagleme::change::PullUpColumn{"Pages", {"Book", "Film"}, "Item"}};
  }
  static Plan Retype(std::string const& table) {
    return {sagleme::change::ChangeColumn{table, Doc("Pages", Type::kLong),
                                          Doc("Pages", Type::kString)}};
  }
  std::vector<Change> ToPrepare(Plan const& plan, std::uint64_t objects = kObjects / 2) {
    Transaction transaction(context_);
    return sagleme::ChangesToPrepare(transaction, plan, objects);
  }
  // Objects that were written.
  std::uint64_t Prepare(std::vector<Change> const& changes) {
    sagleme::ColumnChangeOptions options;
    options.batch = 7;
    std::uint64_t written = 0;
    options.report = [&](ColumnChangeProgress const& progress) {
      written = progress.done;
      return true;
    };
    for (Change const& change : changes) {
      EXPECT_TRUE(sagleme::PrepareChange(context_, change, options));
    }
    return written;
  }
  std::uint64_t HiddenColumns() {
    Transaction transaction(context_);
    std::uint64_t count = 0;
    for (auto const& table : transaction.Tables()) {
      count += table->FindColumn(u"__next_Pages") == nullptr ? 0 : 1;
    }
    return count;
  }
  void Apply(Plan const& plan) {
    Transaction transaction(context_);
    sagleme::ApplyPlan(transaction, plan);
    transaction.Commit();
  }
  void ExpectPages(Type type) {
    Transaction transaction(context_);
    for (ObjectId const id : Subtree(transaction, u"Item")) {
      Value const title = Get(transaction, id, u"Title");
      Value const number =
          sagleme::ParseValue(Type::kLong, sagleme::ToUtf8(std::get<std::u16string>(title)));
      EXPECT_EQ(type == Type::kString ? title : number, Get(transaction, id, u"Pages"));
    }
  }
};

TEST_F(PreparedChangesTest, ChangesThatWriteManyObjects_AreFound) {
  EXPECT_EQ(1u, ToPrepare(PullUp()).size());
  EXPECT_EQ(1u, ToPrepare(Retype("Film")).size());
  EXPECT_EQ(0u, ToPrepare(Retype("Film"), kObjects).size()) << "too few objects";
  Plan const alone{sagleme::change::PullUpColumn{"Length", {"Film"}, "Item"}};
  EXPECT_EQ(0u, ToPrepare(alone).size()) << "no object is written";
  Plan twice = PullUp();
  twice.push_back(Retype("Item").front());
  EXPECT_EQ(1u, ToPrepare(twice).size()) << "the second one changes what the first one makes";
  Plan moving = Retype("Film");
  moving.push_back(sagleme::change::RenameTable{"Film", "Movie"});
  EXPECT_EQ(0u, ToPrepare(moving).size());
  EXPECT_EQ(0u, ToPrepare({sagleme::change::AddColumns{"Item", {Doc("New", Type::kLong)}}}).size());
}

TEST_F(PreparedChangesTest, Plan_AdoptsWhatWasPrepared) {
  Plan plan = PullUp();
  EXPECT_LT(kObjects / 2 - 8u, Prepare(ToPrepare(plan)));
  EXPECT_EQ(4u, HiddenColumns());
  Apply(plan);
  EXPECT_EQ(0u, HiddenColumns());
  ExpectPages(Type::kLong);
  plan = Retype("Item");
  EXPECT_LT(kObjects - 8u, Prepare(ToPrepare(plan)));
  Apply(plan);
  EXPECT_EQ(0u, HiddenColumns());
  ExpectPages(Type::kString);
}

TEST_F(PreparedChangesTest, EndedAndCalledAgain_GoesOn) {
  Change const change = Retype("Film").front();
  sagleme::ColumnChangeOptions options;
  options.batch = 10;
  options.report = [](ColumnChangeProgress const&) { return false; };
  EXPECT_FALSE(sagleme::PrepareChange(context_, change, options));
  EXPECT_EQ(1u, HiddenColumns());
  EXPECT_GE(kObjects / 2 - 10u, Prepare({change})) << "the first batch is not written again";
  Apply({change});
  EXPECT_EQ(0u, HiddenColumns());
}

TEST_F(PreparedChangesTest, Abandoned_LeavesNothing) {
  for (Plan const& plan : {PullUp(), Retype("Film")}) {
    Prepare(ToPrepare(plan));
    EXPECT_NE(0u, HiddenColumns());
    sagleme::AbandonChange(context_, plan.front());
    EXPECT_EQ(0u, HiddenColumns());
  }
  ExpectPages(Type::kLong);
  sagleme::AbandonChange(context_, sagleme::change::DropTable{"Film"});
}

TEST_F(PreparedChangesTest, ValuesThatDoNotConvert_AreRefusedBeforeAnythingIsWritten) {
  {
    Transaction transaction(context_);
    Make(transaction, u"Film", {{u"Title", "no number"}});
    transaction.Commit();
  }
  Change change =
      sagleme::change::ChangeColumn{"Item", Doc("Title", Type::kString), Doc("Title", Type::kLong)};
  auto const status = [&] { return StatusOf([&] { sagleme::PrepareChange(context_, change); }); };
  EXPECT_EQ(LSCOREDB_WRONG_TYPE, status());
  {
    Transaction transaction(context_);
    EXPECT_EQ(nullptr, transaction.table(u"Item")->FindColumn(u"__next_Title"));
  }
  std::get<sagleme::change::ChangeColumn>(change).loss = sagleme::Loss::kAllow;
  EXPECT_EQ(0u, status());
  Apply({change});
  Transaction transaction(context_);
  EXPECT_EQ(1u, InIndex(transaction, u"ItemByTitle", {sagleme::Null{}}).size());
}

}  // namespace
}  // namespace hierarchy_test
