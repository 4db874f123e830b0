// Indexes that are being built while their table moves under another base.

#include <sagleme/index_build.hpp>

#include "hierarchy_test.h"

namespace hierarchy_test {
namespace {

using sagleme::BuildIndex;
using sagleme::IndexBuildOptions;
using sagleme::IndexBuildProgress;
using sagleme::IndexSpec;
using sagleme::Jobs;

constexpr std::int64_t kBooks = 40;

class MovedBuildTest : public HierarchyTest {
 protected:
  MovedBuildTest() : other_(database_) {
    Transaction transaction(context_);
    for (std::int64_t i = 0; i < kBooks; ++i) {
      std::u16string const table = i % 2 == 0 ? u"Book" : u"Novel";
      MakeBook(transaction, table, i);
    }
    transaction.Commit();
  }

  static Object MakeBook(Transaction& transaction, std::u16string const& table, std::int64_t i) {
    return Make(transaction, table,
                {{u"Title", sagleme::ToUtf16(std::to_string(1000 + i))}, {u"Pages", i}});
  }
  // Leaves a build after so many objects, and gives its number.
  std::uint64_t CutOff(IndexSpec const& spec, std::uint64_t objects) {
    IndexBuildOptions options;
    options.batch = 5;
    options.report = [&](IndexBuildProgress const& progress) { return progress.done < objects; };
    EXPECT_FALSE(BuildIndex(context_, spec, options));
    return sagleme::IndexBuilds(context_).at(0).id;
  }
  void SetBase(sagleme::Context const& context, std::u16string const& table,
               std::u16string const& base, bool merge = false) {
    Transaction transaction(context);
    sagleme::SetBaseOptions options;
    options.merge = merge;
    options.referring = Referring::kKeep;
    sagleme::SetBase(transaction, table, base, options);
    transaction.Commit();
  }
  void SetBase(std::u16string const& table, std::u16string const& base, bool merge = false) {
    SetBase(context_, table, base, merge);
  }
  void ExpectBegunAgain(std::uint64_t id, std::string const& description) {
    ExpectSound();
    sagleme::Job const job = Jobs(context_).at(0);
    EXPECT_EQ(id, job.id);
    EXPECT_EQ(description, job.description);
    EXPECT_EQ("building", job.step);
    EXPECT_EQ(0u, job.progress.done);
  }
  // Goes on, and holds the index against one that is made in one go. No job is left.
  void ResumeAndCompare(std::uint64_t id, IndexSpec const& spec) {
    EXPECT_TRUE(sagleme::ResumeJob(context_, id));
    EXPECT_TRUE(Jobs(context_).empty());
    ExpectComplete(spec);
  }
  void ExpectComplete(IndexSpec const& spec) {
    Transaction transaction(context_);
    sagleme::CreateIndex(transaction, u"InOneGo", spec.table, spec.columns);
    Ids const built = InIndex(transaction, spec.name);
    EXPECT_EQ(InIndex(transaction, u"InOneGo"), built);
    EXPECT_EQ(Subtree(transaction, spec.table).size(), built.size());
  }

  IndexSpec const by_title_{"ByTitle", "Book", {{"Title", false}, {"Pages"}}};
  sagleme::Context other_;
};

// Title becomes the table's own, which changes the column by which the kernel knows it.
TEST_F(MovedBuildTest, TableThatLeavesItsBase_TakesItsBuildAlong) {
  for (std::uint64_t const objects : {1, 20, 35}) {
    std::uint64_t const id = CutOff(by_title_, objects);
    SetBase(u"Book", objects == 20 ? u"Item" : u"", true);
    ExpectBegunAgain(id, "index ByTitle on Book (Title descending, Pages)");
    {
      Transaction transaction(context_);
      MakeBook(transaction, u"Novel", 500 + static_cast<std::int64_t>(objects));
      transaction.Commit();
    }
    ResumeAndCompare(id, by_title_);
    Transaction transaction(context_);
    sagleme::DropIndex(transaction, u"ByTitle");
    transaction.Commit();
  }
}

TEST_F(MovedBuildTest, MergedColumn_IsTheNewBases) {
  {
    Transaction transaction(context_);
    for (std::int64_t i = 0; i < 20; ++i) Make(transaction, u"Film", {{u"Pages", i}});
    transaction.Commit();
  }
  IndexSpec const spec{"FilmByPages", "Film", {{"Pages"}}};
  std::uint64_t const id = CutOff(spec, 10);
  SetBase(u"Film", u"Book", true);
  ExpectBegunAgain(id, "index FilmByPages on Film (Pages)");
  ResumeAndCompare(id, spec);
}

TEST_F(MovedBuildTest, Descendant_TakesItsBuildAlong) {
  IndexSpec const spec{"NovelByPages", "Novel", {{"Pages"}, {"Title"}}};
  std::uint64_t const id = CutOff(spec, 10);
  SetBase(u"Book", u"Place");
  ExpectBegunAgain(id, "index NovelByPages on Novel (Pages, Title)");
  ResumeAndCompare(id, spec);
}

// Their builds stay where they are, and hold what is in their tables.
TEST_F(MovedBuildTest, BuildsOfTheOldAndTheNewBase_FollowTheObjects) {
  {
    Transaction transaction(context_);
    for (int i = 0; i < 20; ++i) Make(transaction, u"Place", {{u"Name", u"n"}});
    transaction.Commit();
  }
  IndexSpec const of_items{"OfItems", "Item", {{"Title", false}}};
  IndexSpec const of_places{"OfPlaces", "Place", {{"Name"}, {"City"}}};
  std::uint64_t const items = CutOff(of_items, 20);
  CutOff(of_places, 10);
  std::uint64_t const places = sagleme::IndexBuilds(context_).at(1).id;
  SetBase(u"Book", u"Place");
  ExpectSound();
  EXPECT_EQ(20u, sagleme::IndexBuilds(context_).at(0).progress.done);
  EXPECT_TRUE(sagleme::ResumeJob(context_, items));
  ResumeAndCompare(places, of_places);
  ExpectComplete(of_items);
}

TEST_F(MovedBuildTest, UniqueBuild_FindsDuplicatesWhereItIs) {
  {
    Transaction transaction(context_);
    MakeBook(transaction, u"Book", 7);
    transaction.Commit();
  }
  IndexSpec const spec{"ByTitle", "Book", {{"Title"}}, sagleme::Uniqueness::kUnique};
  EXPECT_EQ(LSCOREDB_DUPLICATE_KEY, StatusOf([&] { BuildIndex(context_, spec); }));
  std::uint64_t const id = sagleme::IndexBuilds(context_).at(0).id;
  SetBase(u"Book", u"");
  ExpectBegunAgain(id, "unique index ByTitle on Book (Title)");
  EXPECT_EQ(LSCOREDB_DUPLICATE_KEY, StatusOf([&] { sagleme::ResumeJob(context_, id); }));
  auto const pairs = sagleme::IndexBuildDuplicates(context_, id);
  ASSERT_EQ(1u, pairs.size());
  {
    Transaction transaction(context_);
    Object::Find(transaction, pairs[0].object)->Delete();
    transaction.Commit();
  }
  ResumeAndCompare(id, {"ByTitle", "Book", {{"Title"}}});
}

TEST_F(MovedBuildTest, RolledBackMove_LeavesTheBuildWhereItWas) {
  std::uint64_t const id = CutOff(by_title_, 20);
  {
    Transaction transaction(context_);
    sagleme::Savepoint savepoint(transaction);
    sagleme::SetBase(transaction, u"Book", u"", {.referring = Referring::kKeep});
    savepoint.Rollback();
    MakeBook(transaction, u"Book", 77);
    transaction.Commit();
  }
  EXPECT_EQ(20u, Jobs(context_).at(0).progress.done);
  ResumeAndCompare(id, by_title_);
}

// Whoever builds does not notice but for the progress.
TEST_F(MovedBuildTest, RunningBuild_GoesOn) {
  for (std::uint64_t const at : {0, 15, 40}) {
    IndexBuildOptions options;
    options.batch = 5;
    bool moved = false;
    options.report = [&](IndexBuildProgress const& progress) {
      if (progress.done != at || moved) return true;
      moved = true;
      SetBase(other_, u"Book", at == 15 ? u"Item" : u"", true);
      return true;
    };
    EXPECT_TRUE(BuildIndex(context_, by_title_, options));
    EXPECT_TRUE(moved);
    EXPECT_TRUE(Jobs(context_).empty());
    ExpectComplete(by_title_);
    Transaction transaction(context_);
    sagleme::DropIndex(transaction, u"ByTitle");
    transaction.Commit();
  }
}

// Objects of a dropped table stay under the former set, where the build had them.
TEST_F(MovedBuildTest, ObjectsOfADroppedTable_AreLeftBehind) {
  std::uint64_t const id = CutOff(by_title_, 40);
  {
    Transaction transaction(context_);
    sagleme::DropTable(transaction, u"Novel", {.children = true, .force = true});
    transaction.Commit();
  }
  SetBase(u"Book", u"");
  ExpectBegunAgain(id, "index ByTitle on Book (Title descending, Pages)");
  ResumeAndCompare(id, by_title_);
}

TEST_F(MovedBuildTest, DroppedTable_EndsItsBuild) {
  std::uint64_t const id = CutOff({"ByGenre", "Novel", {{"Genre"}}}, 5);
  {
    Transaction transaction(context_);
    sagleme::DropTable(transaction, u"Novel", {.children = true, .force = true});
    transaction.Commit();
  }
  EXPECT_EQ(SAGLEME_TABLE_NOT_FOUND, StatusOf([&] { sagleme::ResumeJob(context_, id); }));
  EXPECT_EQ("index ByGenre of a dropped table or column", Jobs(context_).at(0).description);
  sagleme::AbandonJob(context_, id);
  EXPECT_TRUE(Jobs(context_).empty());
}

}  // namespace
}  // namespace hierarchy_test
