// Entries that come in any order leave in the order of their keys, in memory and through files.

#include "sorted_entries.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>

#include "status.h"

namespace lscore {
namespace {

using Model = std::map<std::string, std::string>;

constexpr std::size_t kLittle = 4096;

class SortedEntriesTest : public testing::TestWithParam<bool> {
 protected:
  SortedEntriesTest() {
    directory_ = testing::TempDir() + "/sorted-XXXXXX";
    if (mkdtemp(directory_.data()) == nullptr) throw std::runtime_error("no directory");
  }
  ~SortedEntriesTest() override { std::filesystem::remove_all(directory_); }

  // Through files, or all in memory.
  std::string Where() const { return GetParam() ? directory_ : ""; }

  void Fill(EntrySorter& sorter, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      std::string key = "pre" + std::to_string(random_() % 1000003);
      if (i % 7 == 0) key += std::string(40, 'k');
      if (i % 11 == 0) key += '\xFF';
      std::size_t const size = i % 50 == 49 ? 300000 : random_() % 60;
      auto const [at, is_new] =
          model_.emplace(key, std::string(size, static_cast<char>('a' + i % 26)));
      if (is_new) sorter.Add(at->first, at->second);
    }
  }

  void ExpectSameAsModel(SortedEntries const& sorted) {
    Cursor cursor;
    cursor.Open(sorted, Tree::kIndex);
    bool on = cursor.First();
    for (auto const& [key, value] : model_) {
      ASSERT_TRUE(on);
      ASSERT_EQ(key, cursor.key());
      ASSERT_TRUE(value == cursor.value());
      on = cursor.Next();
    }
    EXPECT_FALSE(on);
    on = cursor.Last();
    for (auto at = model_.rbegin(); at != model_.rend(); ++at) {
      ASSERT_TRUE(on);
      ASSERT_EQ(at->first, cursor.key());
      on = cursor.Previous();
    }
    EXPECT_FALSE(on);
  }

  std::string directory_;
  std::mt19937 random_{7};
  Model model_;
  WatchedWork work_;
};

TEST_P(SortedEntriesTest, Entries_ComeInOrderBothWays) {
  EntrySorter sorter(Where(), 3, kLittle);
  Fill(sorter, 1000);
  ExpectSameAsModel(*sorter.Finish(work_));
}

TEST_P(SortedEntriesTest, Entries_AreFoundByKey) {
  EntrySorter sorter(Where(), 3, kLittle);
  Fill(sorter, 500);
  auto const sorted = sorter.Finish(work_);
  Cursor cursor;
  cursor.Open(*sorted, Tree::kIndex);
  for (int i = 0; i < 2000; ++i) {
    std::string const key = "pre" + std::to_string(random_() % 1100000);
    auto const at = model_.lower_bound(key);
    ASSERT_EQ(at != model_.end(), cursor.Seek(key));
    if (at == model_.end()) continue;
    EXPECT_EQ(at->first, cursor.key());
  }
  std::string_view value;
  for (auto const& [key, expected] : model_) {
    ASSERT_TRUE(sorted->Get(Tree::kIndex, key, &value));
    EXPECT_TRUE(expected == value);
    EXPECT_FALSE(sorted->Get(Tree::kIndex, key + "x", &value) && !model_.contains(key + "x"));
    EXPECT_FALSE(sorted->Get(Tree::kMeta, key, &value));
  }
}

TEST_P(SortedEntriesTest, NoEntries_GiveNone) {
  EXPECT_EQ(nullptr, EntrySorter(Where(), 3, kLittle).Finish(work_));
}

TEST_P(SortedEntriesTest, Entries_LeaveNoFileWithAName) {
  EntrySorter sorter(Where(), 3, kLittle);
  Fill(sorter, 300);
  EXPECT_TRUE(std::filesystem::is_empty(directory_));
  auto const sorted = sorter.Finish(work_);
  EXPECT_TRUE(std::filesystem::is_empty(directory_));
}

TEST_P(SortedEntriesTest, Entries_AreNotMergedWhenTheWatchStops) {
  EntrySorter sorter(Where(), 3, kLittle);
  Fill(sorter, 1000);
  int reported = 0;
  ThreadWatch() = {[](void* user, std::uint64_t, std::uint64_t) {
                     return ++*static_cast<int*>(user) == 2 ? std::uint32_t{1} : 0;
                   },
                   &reported};
  Status const status = Guarded([&] {
    static_cast<void>(sorter.Finish(work_));
    return LORV_STATUS_OK;
  });
  ThreadWatch() = {};
  EXPECT_EQ(LSCOREDB_STOPPED, status);
}

INSTANTIATE_TEST_SUITE_P(Through, SortedEntriesTest, testing::Bool(),
                         [](auto const& files) { return files.param ? "Files" : "Memory"; });

class NoRoom {
 public:
  explicit NoRoom(rlim_t most) {
    signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &before_);
    rlimit const limit{most, before_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~NoRoom() {
    setrlimit(RLIMIT_FSIZE, &before_);
    signal(SIGXFSZ, SIG_DFL);
  }

 private:
  rlimit before_{};
};

TEST(EntrySorterTest, NoRoomForItsFiles_IsAStatus) {
  std::string directory = testing::TempDir() + "/sorted-XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(directory.data()));
  for (rlim_t const room : {rlim_t{0}, rlim_t{5000}, rlim_t{60000}, rlim_t{90000}}) {
    NoRoom const limit(room);
    EntrySorter sorter(directory, 0, kLittle);
    Status const status = Guarded([&] {
      for (int i = 0; i < 2000; ++i) sorter.Add(std::to_string(i * 7919 % 2000), "value of it");
      WatchedWork work;
      static_cast<void>(sorter.Finish(work));
      return LORV_STATUS_OK;
    });
    EXPECT_EQ(room < 70000 ? LSCOREDB_DISK_FULL : LORV_STATUS_OK, status) << room;
  }
  EXPECT_TRUE(std::filesystem::is_empty(directory));
  std::filesystem::remove(directory);
}

TEST(EntrySorterTest, MissingDirectory_IsAStatus) {
  EntrySorter sorter("/nowhere/at/all", 0, kLittle);
  EXPECT_NE(LORV_STATUS_OK, Guarded([&] {
              for (int i = 0; i < 2000; ++i) sorter.Add(std::to_string(i), "value of it");
              return LORV_STATUS_OK;
            }));
}

}  // namespace
}  // namespace lscore
