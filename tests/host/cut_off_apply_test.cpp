// Schema documents that are given again, or gone on with, after they were cut off in the build of
// an index.

#include <algorithm>
#include <sagleme/failure.hpp>
#include <sagleme/jobs.hpp>
#include <sagleme/schema_job.hpp>

#include "hierarchy_test.h"

namespace hierarchy_test {
namespace {

using sagleme::Job;
using sagleme::JobKind;
using sagleme::JobOptions;
using sagleme::Jobs;
using sagleme::ResumeJob;

constexpr std::size_t kBooks = 50;

// An application of an index over all books that was ended in the build of the index.
class CutOffApplyTest : public HierarchyTest {
 protected:
  CutOffApplyTest() {
    Transaction transaction(context_);
    for (std::int64_t i = 0; i < std::int64_t{kBooks}; ++i) {
      Make(transaction, u"Book", {{u"Title", u"t"}, {u"Pages", i}});
    }
    transaction.Commit();
    sagleme::SchemaOptions options;
    options.objects = 10;
    options.batch = 10;
    int steps = 3;
    options.report = [&](sagleme::JobProgress const&) { return --steps > 0; };
    EXPECT_FALSE(ApplySchema(context_, Wanted(), options));
  }

  // The document, with an index more, that others change and give again.
  sagleme::SchemaDoc Wanted() {
    Transaction transaction(context_, sagleme::Access::kReadOnly);
    sagleme::SchemaDoc wanted = sagleme::ReadSchema(transaction, true);
    for (sagleme::TableDoc& table : wanted.tables) {
      sagleme::IndexDoc index;
      index.name = "ByPages";
      index.columns = {{"Pages"}};
      if (table.name == "Book") table.indexes.push_back(index);
    }
    return wanted;
  }
  static sagleme::TableDoc& TableIn(sagleme::SchemaDoc& document, std::string const& name) {
    return *std::find_if(document.tables.begin(), document.tables.end(),
                         [&](sagleme::TableDoc const& each) { return each.name == name; });
  }
  // Expects that the index is the one that was being built.
  void ApplyAndAdopt(sagleme::SchemaDoc const& wanted) {
    std::uint64_t const build = IndexBuilds(context_).at(0).id;
    sagleme::SchemaOptions options;
    options.allow_losses = true;
    EXPECT_TRUE(ApplySchema(context_, wanted, options));
    EXPECT_EQ(0u, IndexBuilds(context_).size());
    Transaction transaction(context_, sagleme::Access::kReadOnly);
    auto const index = transaction.FindIndex(u"ByPages");
    ASSERT_TRUE(index);
    EXPECT_EQ(build, index->handle);
    EXPECT_EQ(kBooks, InIndex(transaction, u"ByPages").size());
  }
  // The other one is the build of the index.
  Job Application() {
    std::vector<Job> const jobs = Jobs(context_);
    EXPECT_EQ(2u, jobs.size());
    return jobs.at(0).kind == JobKind::kApply ? jobs[0] : jobs.at(1);
  }
  void ExpectDone() {
    for (Job const& left : Jobs(context_)) ADD_FAILURE() << left.id << " " << left.description;
    Transaction transaction(context_, sagleme::Access::kReadOnly);
    EXPECT_EQ(kBooks, InIndex(transaction, u"ByPages").size());
  }
};

TEST_F(CutOffApplyTest, ItsJob_KeepsTheDocument) {
  Job const job = Application();
  EXPECT_EQ(JobKind::kApply, job.kind);
  EXPECT_EQ(2u, job.progress.total);
  EXPECT_TRUE(ResumeJob(context_, job.id));
  ExpectDone();
}

TEST_F(CutOffApplyTest, AfterAnotherTableWasAdded_FinishesItsBuild) {
  {
    Transaction transaction(context_);
    sagleme::CreateTable(transaction, u"Later", u"", {{u"Number", Type::kLong}});
    transaction.Commit();
  }
  JobOptions options;
  EXPECT_THROW(ResumeJob(context_, Application().id, options), sagleme::Failure);
  options.allow_losses = true;
  EXPECT_TRUE(ResumeJob(context_, Application().id, options));
  ExpectDone();
  Transaction transaction(context_, sagleme::Access::kReadOnly);
  EXPECT_EQ(nullptr, transaction.Find(u"Later"));
}

TEST_F(CutOffApplyTest, DocumentThatAlsoDropsAndRenames_AdoptsTheBuild) {
  sagleme::SchemaDoc wanted = Wanted();
  std::erase_if(wanted.tables, [](auto const& each) { return each.name == "Film"; });
  sagleme::TableDoc& book = TableIn(wanted, "Book");
  book.name = "Volume";
  book.columns.at(0).name = "Sheets";
  for (sagleme::IndexDoc& index : book.indexes) index.columns.at(0).name = "Sheets";
  for (sagleme::TableDoc& table : wanted.tables) {
    if (table.base == "Book") table.base = "Volume";
    for (sagleme::ColumnDoc& column : table.columns) {
      if (column.target == "Book") column.target = "Volume";
    }
  }
  TableIn(wanted, "Item").name = "Thing";
  for (sagleme::TableDoc& table : wanted.tables) {
    if (table.base == "Item") table.base = "Thing";
    for (sagleme::ColumnDoc& column : table.columns) {
      if (column.target == "Item") column.target = "Thing";
    }
  }
  ApplyAndAdopt(wanted);
}

TEST_F(CutOffApplyTest, DocumentThatRenamesAnInheritedColumn_AdoptsTheBuild) {
  std::uint64_t const id = IndexBuilds(context_).at(0).id;
  AbandonIndexBuild(context_, id);
  sagleme::IndexBuildOptions ending;
  ending.batch = 10;
  ending.report = [](sagleme::IndexBuildProgress const&) { return false; };
  EXPECT_FALSE(PrepareIndex(context_, {"ByPages", "Book", {{"Title"}, {"Pages"}}}, ending));
  sagleme::SchemaDoc wanted = Wanted();
  TableIn(wanted, "Item").columns.at(0).name = "Heading";
  TableIn(wanted, "Item").indexes.at(0).columns.at(0).name = "Heading";
  for (sagleme::TableDoc& table : wanted.tables) {
    for (sagleme::IndexDoc& index : table.indexes) {
      for (auto& column : index.columns) {
        if (column.name == "Title" && table.name != "Place") column.name = "Heading";
      }
    }
  }
  TableIn(wanted, "Book").indexes.back().columns = {{"Heading"}, {"Pages"}};
  ApplyAndAdopt(wanted);
}

TEST_F(CutOffApplyTest, PlanThatWouldBuildAnew_LeavesTheBuildAlone) {
  auto const builds = IndexBuilds(context_);
  auto const under_way = [&](sagleme::Plan plan) {
    sagleme::IndexDoc index;
    index.name = "ByPages";
    index.columns = {{"Pages"}};
    plan.push_back(sagleme::change::CreateIndex{"Book", index});
    Transaction transaction(context_, sagleme::Access::kReadOnly);
    return IndexesUnderWay(transaction, plan, builds).size();
  };
  EXPECT_EQ(1u, under_way({}));
  EXPECT_EQ(1u, under_way({sagleme::change::DropTable{"Film"}}));
  EXPECT_EQ(1u, under_way({sagleme::change::DropColumn{"Film", "Pages"}}));
  EXPECT_EQ(0u, under_way({sagleme::change::DropColumn{"Book", "Pages"}}));
  EXPECT_EQ(0u, under_way({sagleme::change::SetBase{"Book", ""}}));
  EXPECT_EQ(0u, under_way({sagleme::change::SetBase{"Item", "Place"}}));
  EXPECT_EQ(1u, under_way({sagleme::change::SetBase{"Film", ""}}));
  EXPECT_EQ(0u, under_way({sagleme::change::PullUpColumn{"Pages", {"Book", "Film"}, "Item"}}));
  EXPECT_EQ(0u, under_way({sagleme::change::RenameTable{"Book", "Volume"}}))
      << "another table is called Book then";
  EXPECT_EQ(0u, under_way({sagleme::change::RenameColumn{"Book", "Pages", "Sheets"}}));
  EXPECT_EQ(1u, under_way({sagleme::change::RenameColumn{"Film", "Pages", "Sheets"}}));
}

}  // namespace
}  // namespace hierarchy_test
