// Indexes built beside writers, with their place in the catalogue.

#include <lscoredb/index_build.h>

#include <functional>
#include <sagleme/index_build.hpp>
#include <sagleme/vacuum.hpp>

#include "hierarchy_test.h"

namespace hierarchy_test {
namespace {

using sagleme::IndexBuildOptions;
using sagleme::IndexBuildState;
using sagleme::IndexSpec;
using sagleme::Uniqueness;

class IndexBuildTest : public HierarchyTest {
 protected:
  IndexBuildTest() {
    Transaction transaction(context_);
    for (std::int64_t i = 0; i < 30; ++i) {
      Make(transaction, i % 2 == 0 ? u"Book" : u"Novel", {{u"Title", u"t"}, {u"Pages", 100 - i}});
    }
    transaction.Commit();
  }

  static IndexSpec ByPages(Uniqueness uniqueness = Uniqueness::kAny) {
    return {"ByPages", "Book", {{"Pages", false}}, uniqueness};
  }
  static IndexBuildOptions Small() {
    IndexBuildOptions options;
    options.batch = 4;
    return options;
  }
  // Ends after so many steps.
  static IndexBuildOptions Ending(int steps) {
    IndexBuildOptions options = Small();
    options.report = [left = steps](sagleme::IndexBuildProgress const&) mutable {
      return --left > 0;
    };
    return options;
  }
  static void Pages(Transaction& transaction, std::int64_t pages) {
    Make(transaction, u"Book", {{u"Title", u"x"}, {u"Pages", pages}});
  }
  std::size_t InIndexNow(std::u16string const& index) {
    Transaction transaction(context_, sagleme::Access::kReadOnly);
    return InIndex(transaction, index).size();
  }
};

TEST_F(IndexBuildTest, BuiltIndex_StandsInTheCatalogueLikeAnyOther) {
  std::vector<sagleme::IndexBuildProgress> seen;
  IndexBuildOptions options = Small();
  options.report = [&](sagleme::IndexBuildProgress const& progress) {
    seen.push_back(progress);
    return true;
  };
  EXPECT_TRUE(BuildIndex(context_, ByPages(), options));
  EXPECT_EQ(30u, InIndexNow(u"ByPages"));
  EXPECT_EQ(IndexBuildState::kReady, seen.back().state);
  EXPECT_EQ(30u, seen.back().total);
  EXPECT_EQ(9u, seen.size());  // one to sort, eight of four and less
  Transaction transaction(context_);
  auto const index = transaction.FindIndex(u"ByPages");
  ASSERT_TRUE(index);
  EXPECT_EQ(u"Book", index->table);
  EXPECT_FALSE(index->columns.at(0).ascending);
  sagleme::DropIndex(transaction, u"ByPages");
  transaction.Commit();
}

// The kernel's definition must be the one that the layer asks for, whatever the columns are.
TEST_F(IndexBuildTest, ColumnsOfAllTypes_AreAdopted) {
  std::vector<sagleme::ColumnSpec> columns;
  std::vector<sagleme::IndexColumnSpec> indexed;
  for (Type const type : {Type::kBool, Type::kLong, Type::kULong, Type::kFloat, Type::kDouble,
                          Type::kDecimal, Type::kString, Type::kBinary, Type::kReference}) {
    std::u16string const name = u"C" + std::u16string(1, u'a' + static_cast<char16_t>(type));
    columns.push_back({name, type, true, type == Type::kReference ? u"Item" : u""});
    indexed.push_back({name, columns.size() % 2 == 0});
  }
  columns.push_back({u"Needed", Type::kLong, false});
  indexed.push_back({u"Needed"});
  indexed.push_back({u"Title"});
  Transaction transaction(context_);
  CreateTable(transaction, u"All", u"Item", columns);
  for (int i = 0; i < 10; ++i) Make(transaction, u"All", {});
  transaction.Commit();
  IndexSpec const spec{"Wide", "All", indexed, Uniqueness::kAny};
  EXPECT_TRUE(PrepareIndex(context_, spec, Small()));
  std::uint64_t const id = IndexBuilds(context_).at(0).id;
  Transaction creating(context_);
  CreateIndex(creating, spec.name, spec.table, spec.columns);
  EXPECT_EQ(id, creating.FindIndex(u"Wide")->handle);
  creating.Commit();
  EXPECT_EQ(10u, InIndexNow(u"Wide"));
}

TEST_F(IndexBuildTest, WritersBetweenTheSteps_AreNotRefused) {
  sagleme::Context other(database_);
  IndexBuildOptions options = Small();
  std::int64_t pages = 1000;
  options.report = [&](sagleme::IndexBuildProgress const&) {
    Transaction transaction(other);
    Pages(transaction, pages++);
    transaction.Commit();
    return true;
  };
  EXPECT_TRUE(BuildIndex(context_, ByPages(), options));
  EXPECT_EQ(30u + static_cast<std::size_t>(pages - 1000), InIndexNow(u"ByPages"));
}

TEST_F(IndexBuildTest, EndedBuild_IsListedAndResumed) {
  for (int steps = 1; steps < 12; ++steps) {
    IndexSpec const spec = ByPages(Uniqueness::kUnique);
    bool const whole = BuildIndex(context_, spec, Ending(steps));
    if (!whole) {
      auto const builds = IndexBuilds(context_);
      ASSERT_EQ(1u, builds.size());
      EXPECT_EQ(u"ByPages", builds[0].index.name);
      EXPECT_EQ(u"Book", builds[0].index.table);
      EXPECT_EQ(u"Pages", builds[0].index.columns.at(0).name);
      EXPECT_FALSE(builds[0].index.columns.at(0).ascending);
      EXPECT_EQ(Uniqueness::kUnique, builds[0].index.uniqueness);
      EXPECT_TRUE(ResumeIndexBuild(context_, builds[0].id, Small()));
    }
    EXPECT_EQ(30u, InIndexNow(u"ByPages"));
    EXPECT_TRUE(IndexBuilds(context_).empty());
    Transaction transaction(context_);
    sagleme::DropIndex(transaction, u"ByPages");
    transaction.Commit();
  }
}

TEST_F(IndexBuildTest, AbandonedBuild_IsGone) {
  EXPECT_FALSE(BuildIndex(context_, ByPages(), Ending(3)));
  std::uint64_t const id = IndexBuilds(context_).at(0).id;
  AbandonIndexBuild(context_, id);
  EXPECT_TRUE(IndexBuilds(context_).empty());
  EXPECT_EQ(LORV_STATUS_NO_INDEX, StatusOf([&] { AbandonIndexBuild(context_, id); }));
  EXPECT_EQ(LORV_STATUS_NO_INDEX, StatusOf([&] { ResumeIndexBuild(context_, id); }));
  EXPECT_EQ(LORV_STATUS_NO_INDEX, StatusOf([&] { IndexBuildDuplicates(context_, id); }));
}

TEST_F(IndexBuildTest, AbandonmentThatEndsEarly_IsListedAndFinishedByWhoeverComesNext) {
  std::vector<std::function<void(std::uint64_t)>> const next{
      [&](std::uint64_t id) { AbandonIndexBuild(context_, id); },
      [&](std::uint64_t id) { AbandonJob(context_, id); },
      [&](std::uint64_t id) { EXPECT_TRUE(ResumeJob(context_, id)); },
      [&](std::uint64_t) { RunVacuum(context_); },
      [&](std::uint64_t) {
        EXPECT_TRUE(PrepareIndex(context_, {"X", "Book", {{"Title"}}}));
      }};
  for (auto const& finish : next) {
    EXPECT_FALSE(BuildIndex(context_, ByPages(), Ending(5)));
    std::uint64_t const id = IndexBuilds(context_).at(0).id;
    EXPECT_FALSE(AbandonIndexBuild(context_, id, Ending(1)));
    auto const build = IndexBuilds(context_).at(0);
    EXPECT_EQ(IndexBuildState::kAbandoned, build.progress.state);
    EXPECT_EQ(4u, build.progress.done);
    auto const job = sagleme::Jobs(context_).at(0);
    EXPECT_EQ("abandoned", job.step);
    EXPECT_EQ(sagleme::JobState::kCutOff, job.state);
    EXPECT_EQ(LORV_STATUS_NO_INDEX, StatusOf([&] { ResumeIndexBuild(context_, id); }));
    finish(id);
    for (auto const& left : IndexBuilds(context_)) EXPECT_NE(id, left.id);
  }
  EXPECT_TRUE(BuildIndex(context_, ByPages(), Small()));
  EXPECT_EQ(30u, InIndexNow(u"ByPages"));
}

TEST_F(IndexBuildTest, Duplicates_AreNamedAndListed) {
  {
    Transaction transaction(context_);
    Pages(transaction, 100);
    Pages(transaction, 90);
    transaction.Commit();
  }
  std::string text;
  try {
    BuildIndex(context_, ByPages(Uniqueness::kUnique), Small());
  } catch (sagleme::Error const& error) {
    EXPECT_EQ(LSCOREDB_DUPLICATE_KEY, error.status());
    text = error.what();
  }
  EXPECT_TRUE(text.starts_with("duplicate key 100 in unique index ByPages (objects ")) << text;
  auto const build = IndexBuilds(context_).at(0);
  EXPECT_EQ(IndexBuildState::kDuplicates, build.progress.state);
  auto const duplicates = IndexBuildDuplicates(context_, build.id);
  ASSERT_EQ(2u, duplicates.size());
  EXPECT_EQ(1u, IndexBuildDuplicates(context_, build.id, 1).size());
  {
    Transaction transaction(context_);
    for (auto const& pair : duplicates) Object::Find(transaction, pair.object)->Delete();
    transaction.Commit();
  }
  EXPECT_TRUE(BuildIndex(context_, ByPages(Uniqueness::kUnique), Small()));
  EXPECT_EQ(30u, InIndexNow(u"ByPages"));
}

TEST_F(IndexBuildTest, WhatExists_IsLeftAloneOrRefused) {
  EXPECT_TRUE(BuildIndex(context_, ByPages()));
  EXPECT_TRUE(BuildIndex(context_, ByPages()));
  EXPECT_TRUE(IndexBuilds(context_).empty());
  EXPECT_EQ(SAGLEME_INDEX_EXISTS,
            StatusOf([&] { BuildIndex(context_, ByPages(Uniqueness::kUnique)); }));
  EXPECT_EQ(SAGLEME_TABLE_NOT_FOUND, StatusOf([&] {
              BuildIndex(context_, {"X", "Nothing", {{"Pages"}}, Uniqueness::kAny});
            }));
  EXPECT_EQ(SAGLEME_NO_SUCH_COLUMN, StatusOf([&] {
              BuildIndex(context_, {"X", "Book", {{"Nothing"}}, Uniqueness::kAny});
            }));
  IndexSpec const wide{"X", "Book", {16, {"Pages"}}, Uniqueness::kAny};
  EXPECT_NE(0u, StatusOf([&] { BuildIndex(context_, wide); }));
  EXPECT_TRUE(IndexBuilds(context_).empty());
}

TEST_F(IndexBuildTest, Plan_WithAnnotationsThatObjectsDoNotRefuse_IsPrepared) {
  using Kind = sagleme::Annotation::Kind;
  using sagleme::change::Annotate;
  Transaction transaction(context_, sagleme::Access::kReadOnly);
  sagleme::change::CreateIndex const index{"Book", {"ByPages", false, {{"Pages", false}}, {}}};
  auto const prepared = [&](sagleme::Change const& beside) {
    return sagleme::IndexesToPrepare(transaction, {index, beside}, 30).size();
  };
  EXPECT_EQ(1u, prepared(Annotate{"Book", "", "", Kind::kComment, "bound"}));
  EXPECT_EQ(1u, prepared(Annotate{"Book", "Pages", "", Kind::kDefault, "7"}));
  EXPECT_EQ(1u, prepared(Annotate{"Book", "", "", Kind::kAbstract, {}}));
  EXPECT_EQ(1u, prepared(Annotate{"Loan", "Book", "", Kind::kOnDelete, {}}));
  EXPECT_EQ(0u, prepared(Annotate{"Book", "", "", Kind::kAbstract, ""}));
  EXPECT_EQ(0u, prepared(Annotate{"Loan", "Book", "", Kind::kOnDelete, "cascade"}));
  EXPECT_EQ(0u, prepared(sagleme::change::RenameTable{"Book", "Volume"}));
}

TEST_F(IndexBuildTest, BuildOfADroppedTable_CanOnlyBeAbandoned) {
  Transaction making(context_);
  CreateTable(making, u"Gone", u"", {{u"Number", Type::kLong}});
  Make(making, u"Gone", {});
  making.Commit();
  EXPECT_FALSE(BuildIndex(context_, {"G", "Gone", {{"Number"}}, Uniqueness::kAny}, Ending(1)));
  Transaction transaction(context_);
  sagleme::DropTable(transaction, u"Gone", {.children = false, .force = true});
  transaction.Commit();
  auto const build = IndexBuilds(context_).at(0);
  EXPECT_TRUE(build.index.table.empty());
  EXPECT_EQ(SAGLEME_TABLE_NOT_FOUND, StatusOf([&] { ResumeIndexBuild(context_, build.id); }));
  AbandonIndexBuild(context_, build.id);
}

// Changes of place in the tree, in the middle of a build.
TEST_F(IndexBuildTest, ObjectsThatChangeTheirTable_AreInTheIndexesOfTheirNewOne) {
  for (int steps = 1; steps < 8; ++steps) {
    EXPECT_FALSE(BuildIndex(context_, ByPages(), Ending(steps)));
    {
      Transaction transaction(context_);
      Ids const books = Subtree(transaction, u"Book");
      Retype(transaction, Ids{books[1], books[20]}, *transaction.table(u"Film"), {.by_name = true});
      Retype(transaction, Ids{books[3], books[22]}, *transaction.table(u"Novel"));
      transaction.Commit();
    }
    EXPECT_TRUE(ResumeIndexBuild(context_, IndexBuilds(context_).at(0).id, Small()));
    Transaction transaction(context_);
    EXPECT_EQ(Subtree(transaction, u"Book").size(), InIndex(transaction, u"ByPages").size());
    sagleme::DropIndex(transaction, u"ByPages");
    transaction.Commit();
    Transaction back(context_);
    Retype(back, Subtree(back, u"Film"), *back.table(u"Book"), {.by_name = true});
    back.Commit();
  }
}

}  // namespace
}  // namespace hierarchy_test
