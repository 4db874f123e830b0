// Batches that outgrow the log and go on in the image.

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>

#include "format.h"
#include "log_of_tests.h"
#include "other_process.h"
#include "status.h"
#include "stores.h"

namespace lscore {
namespace {

using lscoredb_test::OtherProcess;

constexpr Tree kTree = Tree::kIndex;

class LogLargeBatchTest : public testing::Test {
 protected:
  LogLargeBatchTest() {
    directory_ = testing::TempDir() + "/large-XXXXXX";
    if (mkdtemp(directory_.data()) == nullptr) throw std::runtime_error("no directory");
    options_.sync = false;
    options_.log_limit = 4096;
  }
  ~LogLargeBatchTest() override { std::filesystem::remove_all(directory_); }

  std::unique_ptr<Store> Open() const { return OpenLogStore(directory_, options_); }

  static std::string Key(int number) { return std::to_string(1000000 + number); }
  // Far more than the log holds.
  static void PutMany(Batch& batch, int from, int to) {
    for (int i = from; i < to; ++i) batch.Put(kTree, Key(i), std::string(100, 'v'));
  }
  static void CommitOne(Store& store, std::string const& key, std::string const& value) {
    std::unique_ptr<Batch> const batch = store.BeginBatch();
    batch->Put(kTree, key, value);
    batch->Commit();
  }

  std::string directory_;
  StoreOptions options_;
};

TEST_F(LogLargeBatchTest, ManyPuts_TakeNoMoreMemoryThanTheLog) {
  options_.log_limit = std::uint64_t{1} << 20;
  std::unique_ptr<Store> const store = Open();
  constexpr int kKeys = 50000;
  {
    std::unique_ptr<Batch> const batch = store->BeginBatch();
    PutMany(*batch, 0, kKeys);
    EXPECT_LT(store->Statistics().log_memory, 3 * options_.log_limit);
    batch->Commit();
  }
  EXPECT_LT(store->Statistics().log_memory, 3 * options_.log_limit);
  EXPECT_EQ(std::size_t{kKeys}, AllOf(*Reading(*store), kTree).size());
}

// Random changes, the commits before still in the log, and cursors that were opened at any time.
TEST_F(LogLargeBatchTest, RandomChanges_AreReadByTheBatch) {
  std::unique_ptr<Store> const store = Open();
  std::mt19937 random(11);
  std::map<std::string, std::string> expected;
  for (int round = 0; round < 8; ++round) {
    for (int i = 0; i < 10; ++i) {
      std::string const key = Key(static_cast<int>(random() % 500));
      expected[key] = std::string("small").append(std::to_string(round));
      CommitOne(*store, key, expected[key]);
    }
    std::unique_ptr<Batch> const batch = store->BeginBatch();
    Cursor old;
    old.Open(*batch, kTree);
    for (int i = 0; i < 600; ++i) {
      std::string const key = Key(static_cast<int>(random() % 500));
      std::string const value(random() % 40, static_cast<char>('a' + round));
      switch (random() % 4) {
        case 0:
          ASSERT_EQ(expected.erase(key) == 1, batch->Delete(kTree, key));
          break;
        case 1:
          ASSERT_EQ(expected.emplace(key, value).second, batch->PutNew(kTree, key, value));
          break;
        default:
          expected[key] = value;
          batch->Put(kTree, key, value);
      }
      auto const next = expected.lower_bound(key);
      ASSERT_EQ(next != expected.end(), old.Seek(key));
      if (next != expected.end()) {
        ASSERT_EQ(next->first, old.key());
        ASSERT_EQ(next->second, old.value());
      }
      ASSERT_EQ(expected.contains(key) ? expected[key] : "(none)", ValueIn(*batch, kTree, key));
    }
    ASSERT_TRUE(old.First());
    ASSERT_EQ(expected.begin()->first, old.key());
    ASSERT_TRUE(old.Last());
    ASSERT_EQ(expected.rbegin()->first, old.key());
    old.Close();
    Entries const all(expected.begin(), expected.end());
    ASSERT_EQ(all, AllOf(*batch, kTree));
    batch->Commit();
    ASSERT_EQ(all, AllOf(*Reading(*store), kTree));
  }
}

TEST_F(LogLargeBatchTest, WithoutCommit_LeavesNothing) {
  std::unique_ptr<Store> const store = Open();
  CommitOne(*store, "a", "1");
  {
    std::unique_ptr<Batch> const batch = store->BeginBatch();
    PutMany(*batch, 0, 1000);
    batch->Delete(kTree, "a");
    batch->Put(Tree::kMeta, "of this batch", "2");
  }
  EXPECT_EQ((Entries{{"a", "1"}}), AllOf(*Reading(*store), kTree));
  EXPECT_EQ("(none)", ValueIn(*Reading(*store), Tree::kMeta, "of this batch"));
  CommitOne(*store, "b", "3");
  EXPECT_EQ((Entries{{"a", "1"}, {"b", "3"}}), AllOf(*Reading(*store), kTree));
}

TEST_F(LogLargeBatchTest, SnapshotsBesideIt_KeepTheirState) {
  std::unique_ptr<Store> const store = Open();
  CommitOne(*store, "a", "1");
  Entries const before = {{"a", "1"}};
  Reading const earlier(*store);
  std::unique_ptr<Batch> batch = store->BeginBatch();
  PutMany(*batch, 0, 1000);
  Reading const meanwhile(*store);
  EXPECT_EQ(before, AllOf(*earlier, kTree));
  EXPECT_EQ(before, AllOf(*meanwhile, kTree));
  batch->Commit();
  batch.reset();
  EXPECT_EQ(before, AllOf(*earlier, kTree));
  EXPECT_EQ(before, AllOf(*meanwhile, kTree));
  EXPECT_EQ(1001U, AllOf(*Reading(*store), kTree).size());
}

// The image's record of the format says that there is a log; that of the content does not.
TEST_F(LogLargeBatchTest, FormatOfTheContent_IsNotThatOfTheImage) {
  std::string const closed = format::FormatRecord(format::kClosedSetVersion);
  {
    std::unique_ptr<Store> const store = Open();
    std::string const first = ValueIn(*Reading(*store), Tree::kMeta, format::kFormatKey);
    std::unique_ptr<Batch> const batch = store->BeginBatch();
    PutMany(*batch, 0, 1000);
    EXPECT_EQ(first, ValueIn(*batch, Tree::kMeta, format::kFormatKey));
    batch->Put(Tree::kMeta, format::kFormatKey, closed);
    batch->Put(Tree::kMeta, "of this batch", "2");
    PutMany(*batch, 1000, 2000);
    EXPECT_EQ(closed, ValueIn(*batch, Tree::kMeta, format::kFormatKey));
    batch->Commit();
  }
  std::unique_ptr<Store> const again = Open();
  EXPECT_EQ(closed, ValueIn(*Reading(*again), Tree::kMeta, format::kFormatKey));
  EXPECT_EQ("2", ValueIn(*Reading(*again), Tree::kMeta, "of this batch"));
  EXPECT_EQ(2000U, AllOf(*Reading(*again), kTree).size());
}

TEST_F(LogLargeBatchTest, FullFile_EndsTheBatchAlone) {
  options_.max_file_size = std::uint64_t{1} << 20;
  std::unique_ptr<Store> const store = Open();
  CommitOne(*store, "a", "1");
  {
    std::unique_ptr<Batch> const batch = store->BeginBatch();
    EXPECT_EQ(LSCOREDB_MAP_FULL, Guarded([&]() -> Status {
                PutMany(*batch, 0, 100000);
                return LORV_STATUS_OK;
              }));
  }
  EXPECT_EQ((Entries{{"a", "1"}}), AllOf(*Reading(*store), kTree));
  CommitOne(*store, "b", "3");
  EXPECT_EQ((Entries{{"a", "1"}, {"b", "3"}}), AllOf(*Reading(*store), kTree));
}

TEST_F(LogLargeBatchTest, KilledInTheMidst_LeavesNothing) {
  OtherProcess other([&](OtherProcess& test) {
    test.Hear();
    std::unique_ptr<Store> const store = Open();
    std::unique_ptr<Batch> const batch = store->BeginBatch();
    PutMany(*batch, 0, 1000);
    test.Say();
    test.Hear();
  });
  std::unique_ptr<Store> const store = Open();
  CommitOne(*store, "a", "1");
  other.Say();
  other.Hear();
  EXPECT_EQ((Entries{{"a", "1"}}), AllOf(*Reading(*store), kTree));
  other.Kill();
  CommitOne(*store, "b", "3");
  EXPECT_EQ((Entries{{"a", "1"}, {"b", "3"}}), AllOf(*Reading(*store), kTree));
}

TEST_F(LogLargeBatchTest, CommitOfAnotherProcess_IsSeen) {
  OtherProcess other([&](OtherProcess& test) {
    test.Hear();
    std::unique_ptr<Store> const store = Open();
    std::unique_ptr<Batch> const batch = store->BeginBatch();
    batch->Delete(kTree, "a");
    PutMany(*batch, 0, 1000);
    batch->Commit();
    test.Say();
    test.Hear();
    EXPECT_EQ(1001U, AllOf(*Reading(*store), kTree).size());
  });
  std::unique_ptr<Store> const store = Open();
  CommitOne(*store, "a", "1");
  other.Say();
  other.Hear();
  EXPECT_EQ(1000U, AllOf(*Reading(*store), kTree).size());
  CommitOne(*store, "b", "3");
  other.Say();
  other.ExpectGoodEnd();
}

}  // namespace
}  // namespace lscore
