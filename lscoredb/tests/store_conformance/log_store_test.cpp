// What a log adds to a store: recovery from every cut, order and mix of its bytes, and several
// processes that share it.

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

#include "bytes.h"
#include "format.h"
#include "log_of_tests.h"
#include "other_process.h"
#include "status.h"
#include "stores.h"

namespace lscore {
namespace {

using lscoredb_test::OtherProcess;

constexpr Tree kTree = Tree::kIndex;
constexpr std::size_t kSector = 512;

std::string ReadFile(std::string const& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void WriteFile(std::string const& path, std::string const& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

class LogStoreTest : public testing::Test {
 protected:
  LogStoreTest() {
    std::string path = testing::TempDir() + "/log-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("no directory for the test");
    top_ = path;
    directory_ = Make("store");
    options_.sync = false;
  }
  ~LogStoreTest() override { std::filesystem::remove_all(top_); }

  std::string Make(std::string const& name) const {
    std::string path = top_ + "/" + name;
    std::filesystem::create_directory(path);
    return path;
  }
  std::unique_ptr<Store> Open() const { return OpenLogStore(directory_, options_); }

  // What a process that dies now would leave, in a directory of its own.
  std::string Crash() {
    std::string copy = Make("crash" + std::to_string(++crashes_));
    for (auto const& entry : std::filesystem::directory_iterator(directory_)) {
      std::filesystem::copy(entry.path(), copy);
    }
    return copy;
  }

  // Commit number n sets "n" and takes away "n - 3", beside a value that all commits write.
  static void CommitNumber(Store& store, int number) {
    std::unique_ptr<Batch> const batch = store.BeginBatch();
    batch->Put(kTree, "k" + std::to_string(number), std::string(50 + number % 40, 'v'));
    batch->Delete(kTree, "k" + std::to_string(number - 3));
    batch->Put(Tree::kMeta, "last", std::to_string(number));
    batch->Commit();
  }
  static Entries StateAfter(int number) {
    std::map<std::string, std::string> state;
    for (int i = std::max(1, number - 2); i <= number; ++i) {
      state["k" + std::to_string(i)] = std::string(50 + i % 40, 'v');
    }
    return {state.begin(), state.end()};
  }
  // The number of the last commit that a directory holds; -1 when it is damaged. What is there has
  // to be the state after that commit.
  int LastIn(std::string const& directory) const {
    int last = -1;
    Status const status = Guarded([&] {
      std::unique_ptr<Store> const store = OpenLogStore(directory, options_);
      Reading const now(*store);
      std::string const value = ValueIn(*now, Tree::kMeta, "last");
      last = value == "(none)" ? 0 : std::stoi(value);
      EXPECT_EQ(StateAfter(last), AllOf(*now, kTree));
      return LORV_STATUS_OK;
    });
    if (status == LORV_STATUS_OK) return last;
    EXPECT_EQ(LSCOREDB_DAMAGED, status);
    return -1;
  }

  std::string top_;
  std::string directory_;
  StoreOptions options_;
  int crashes_ = 0;
};

// ---- recovery ----------------------------------------------------------------------------------

TEST_F(LogStoreTest, CommittedData_SurvivesAKill) {
  std::unique_ptr<Store> const store = Open();
  for (int i = 1; i <= 20; ++i) {
    CommitNumber(*store, i);
    ASSERT_EQ(i, LastIn(Crash()));
  }
}

TEST_F(LogStoreTest, CommittedData_SurvivesAKillWhileTheLogTurns) {
  options_.log_limit = 1500;
  std::unique_ptr<Store> const store = Open();
  for (int i = 1; i <= 60; ++i) {
    CommitNumber(*store, i);
    if (i % 3 == 0) store->Upkeep();
    ASSERT_EQ(i, LastIn(Crash()));
  }
}

TEST_F(LogStoreTest, Numbers_ContinueAfterAKill) {
  std::unique_ptr<Store> const store = Open();
  for (int i = 1; i <= 5; ++i) CommitNumber(*store, i);
  std::unique_ptr<Store> const after = OpenLogStore(Crash(), options_);
  EXPECT_EQ(store->Statistics().last_commit, after->Statistics().last_commit);
  CommitNumber(*after, 6);
  EXPECT_EQ(Raw(store->Statistics().last_commit) + 1, Raw(after->Statistics().last_commit));
}

TEST_F(LogStoreTest, CleanClose_LeavesNoLog) {
  {
    std::unique_ptr<Store> const store = Open();
    CommitNumber(*store, 1);
    EXPECT_TRUE(std::filesystem::exists(directory_ + "/log-0"));
  }
  EXPECT_FALSE(std::filesystem::exists(directory_ + "/log-0"));
  EXPECT_FALSE(std::filesystem::exists(directory_ + "/log-1"));
  EXPECT_EQ(1, LastIn(directory_));
}

TEST_F(LogStoreTest, Reading_WritesNothing) {
  { CommitNumber(*Open(), 1); }
  std::string const before = ReadFile(directory_ + "/data.mdb");
  EXPECT_EQ(1, LastIn(directory_));
  EXPECT_EQ(before, ReadFile(directory_ + "/data.mdb"));
}

// ---- bytes of the log --------------------------------------------------------------------------

class LogBytesTest : public LogStoreTest {
 protected:
  static constexpr int kCommits = 12;

  // A directory that was left with kCommits commits in one file of the log; where they end.
  void Leave() {
    std::unique_ptr<Store> const store = Open();
    for (int i = 1; i <= kCommits; ++i) {
      ends_.push_back(EndOfLog());
      CommitNumber(*store, i);
    }
    ends_.push_back(EndOfLog());
    left_ = Crash();
    log_ = ReadFile(left_ + "/log-1");
  }
  std::size_t EndOfLog() const {
    std::string const log = ReadFile(directory_ + "/log-1");
    std::size_t const last = log.find_last_not_of('\0');
    return last == std::string::npos || last < logformat::kTitleSize ? logformat::kTitleSize
                                                                     : logformat::Aligned(last + 1);
  }
  int LastWith(std::string const& log) {
    std::string const copy = Make("changed" + std::to_string(++crashes_));
    std::filesystem::copy(left_ + "/data.mdb", copy);
    std::filesystem::copy(left_ + "/log-0", copy);
    WriteFile(copy + "/log-1", log);
    int const last = LastIn(copy);
    std::filesystem::remove_all(copy);
    return last;
  }
  template <typename Change>
  void ChangeImage(Change&& change) const {
    std::unique_ptr<Store> const image = LmdbStore::Open(left_.c_str(), options_);
    std::unique_ptr<Batch> const batch = image->BeginBatch();
    change(*batch);
    batch->Commit();
  }
  // How many commits lie in the file before an offset.
  int CommitsBefore(std::size_t offset) const {
    return static_cast<int>(std::upper_bound(ends_.begin(), ends_.end(), offset) - ends_.begin()) -
           1;
  }

  std::string left_;
  std::string log_;
  std::vector<std::size_t> ends_;  // of each commit, after the beginning of the first
};

TEST_F(LogBytesTest, LogCutAnywhere_LeavesTheCommitsBefore) {
  Leave();
  std::size_t const end = ends_.back();
  for (std::size_t cut = logformat::kTitleSize; cut < end; cut += 61) {
    // A record may end a few bytes before the next one begins.
    bool const between = CommitsBefore(cut + logformat::kAlignment - 1) > CommitsBefore(cut);
    std::string log = log_;
    std::fill(log.begin() + static_cast<std::ptrdiff_t>(cut), log.end(), '\0');
    if (between) continue;
    ASSERT_EQ(CommitsBefore(cut), LastWith(log)) << cut;
    ASSERT_EQ(CommitsBefore(cut), LastWith(log_.substr(0, cut))) << cut;
  }
}

TEST_F(LogBytesTest, AnyLossOfSectors_LeavesTheCommitsBeforeTheFirst) {
  Leave();
  std::mt19937 random(3);
  std::size_t const sectors = (ends_.back() + kSector - 1) / kSector;
  for (int round = 0; round < 60; ++round) {
    std::string log = log_;
    std::size_t first = ends_.back();
    for (std::size_t i = 1; i < sectors; ++i) {
      if (random() % 4 != 0) continue;
      first = std::min(first, i * kSector);
      std::fill_n(log.begin() + static_cast<std::ptrdiff_t>(i * kSector), kSector, '\0');
    }
    int const last = LastWith(log);
    ASSERT_GE(last, CommitsBefore(first));
    ASSERT_LE(last, CommitsBefore(first + kSector));
  }
}

TEST_F(LogBytesTest, FlippedBit_EndsTheLogThere) {
  Leave();
  for (std::size_t at = logformat::kTitleSize; at < ends_.back(); at += 29) {
    std::string log = log_;
    log[at] = static_cast<char>(log[at] ^ (1 << (at % 8)));
    int const last = LastWith(log);
    // Bits between two records mean nothing.
    bool const between = last == kCommits;
    ASSERT_TRUE(between || last == CommitsBefore(at)) << at;
  }
}

TEST_F(LogBytesTest, RepeatedAndExchangedRecords_AreNotTaken) {
  Leave();
  auto const record = [&](std::size_t i) { return log_.substr(ends_[i], ends_[i + 1] - ends_[i]); };
  std::string const head = log_.substr(0, ends_[5]);
  std::string const rest = log_.substr(ends_[5]);
  EXPECT_EQ(5, LastWith(head + record(4) + rest));
  EXPECT_EQ(5, LastWith(head + record(6) + record(5) + log_.substr(ends_[7])));
  EXPECT_EQ(5, LastWith(head + log_.substr(ends_[6])));
}

TEST_F(LogBytesTest, RecordsOfAnotherLog_AreNotTaken) {
  Leave();
  std::string const other = Make("other");
  std::string foreign;
  {
    std::unique_ptr<Store> const store = OpenLogStore(other, options_);
    for (int i = 1; i <= kCommits; ++i) CommitNumber(*store, i);
    foreign = ReadFile(other + "/log-1");
  }
  std::string mixed = log_.substr(0, ends_[5]) + foreign.substr(ends_[5]);
  EXPECT_EQ(5, LastWith(mixed));
  EXPECT_EQ(-1, LastWith(foreign));
}

TEST_F(LogBytesTest, MissingLog_IsDamage) {
  Leave();
  std::filesystem::remove(left_ + "/log-1");
  EXPECT_EQ(-1, LastIn(left_));
}

// An image without its log is an old state: the two records about the log must agree.
TEST_F(LogBytesTest, ImageThatLostItsPosition_IsDamage) {
  Leave();
  ChangeImage([](Batch& image) { image.Delete(Tree::kMeta, logformat::kImageKey); });
  EXPECT_EQ(-1, LastIn(left_));
}

TEST_F(LogBytesTest, ImageThatLostItsVersion_IsDamage) {
  Leave();
  ChangeImage([](Batch& image) {
    image.Put(Tree::kMeta, format::kFormatKey, format::FormatRecord(format::kFirstVersion));
  });
  EXPECT_EQ(-1, LastIn(left_));
}

TEST_F(LogBytesTest, BadRecordBelowASyncedOne_IsDamage) {
  options_.sync = true;
  Leave();
  for (std::size_t at = ends_[3] + 8; at < ends_[kCommits - 2]; at += 97) {
    std::string log = log_;
    log[at] = static_cast<char>(log[at] ^ 1);
    int const last = LastWith(log);
    ASSERT_TRUE(last == -1 || last == kCommits) << at << " gives " << last;
  }
  // Of the last one nothing says that it was synced.
  std::string log = log_;
  log[ends_[kCommits] - 20] = static_cast<char>(log[ends_[kCommits] - 20] ^ 1);
  EXPECT_EQ(kCommits - 1, LastWith(log));
}

// What lies behind the end of a log that was cut must not come back with the commits that follow.
TEST_F(LogBytesTest, CommitsAfterACut_DoNotBringBackWhatWasCutOff) {
  Leave();
  std::string log = log_;
  log[ends_[6] + 60] ^= 1;
  WriteFile(left_ + "/log-1", log);
  directory_ = left_;
  std::unique_ptr<Store> const store = Open();
  for (int i = 7; i <= 9; ++i) {
    CommitNumber(*store, i);
    EXPECT_EQ(i, LastIn(Crash()));
  }
}

// ---- several processes -------------------------------------------------------------------------

TEST_F(LogStoreTest, Processes_FollowOneAnother) {
  options_.log_limit = 1500;
  constexpr int kRounds = 40;
  OtherProcess other([&](OtherProcess& test) {
    test.Hear();
    std::unique_ptr<Store> const store = Open();
    for (int round = 0; round < kRounds; ++round) {
      int const number = static_cast<int>(test.Hear());
      Reading const now(*store);
      EXPECT_EQ(StateAfter(number), AllOf(*now, kTree));
      CommitNumber(*store, number + 1);
      if (round % 5 == 0) store->Upkeep();
      test.Say();
    }
  });
  std::unique_ptr<Store> const store = Open();
  other.Say();
  for (int round = 0; round < kRounds; ++round) {
    CommitNumber(*store, 2 * round + 1);
    other.Say(static_cast<std::uint64_t>(2 * round + 1));
    other.Hear();
    Reading const now(*store);
    ASSERT_EQ(StateAfter(2 * round + 2), AllOf(*now, kTree));
  }
  other.ExpectGoodEnd();
}

TEST_F(LogStoreTest, ProcessFarBehind_BeginsAtTheImage) {
  options_.log_limit = 1500;
  OtherProcess other([&](OtherProcess& test) {
    test.Hear();
    std::unique_ptr<Store> const store = Open();
    Reading const old(*store);
    test.Say();
    test.Hear();
    EXPECT_EQ(StateAfter(1), AllOf(*old, kTree));
    Reading const now(*store);
    EXPECT_EQ(StateAfter(200), AllOf(*now, kTree));
    EXPECT_EQ(StateAfter(1), AllOf(*old, kTree));
  });
  std::unique_ptr<Store> const store = Open();
  CommitNumber(*store, 1);
  other.Say();
  other.Hear();
  for (int i = 2; i <= 200; ++i) CommitNumber(*store, i);
  other.Say();
  other.ExpectGoodEnd();
}

TEST_F(LogStoreTest, ObjectsChangedByAnotherProcess_AreListed) {
  std::uint64_t const id = 77;
  OtherProcess other([&](OtherProcess& test) {
    test.Hear();
    std::unique_ptr<Store> const store = Open();
    Fill(*store, Tree::kRows, {{std::string(BytesOf(id)), "row"}});
    test.Say();
    test.Hear();
  });
  std::unique_ptr<Store> const store = Open();
  std::vector<ObjectId> listed;
  store->foreign_commits().SetListener(
      [&](std::vector<ObjectId> const& changed, CommitId) { listed = changed; });
  CommitNumber(*store, 1);
  {
    Reading const now(*store);
    ASSERT_TRUE(store->Notice(*now));
  }
  CommitId const unlisted = store->foreign_commits().unlisted();
  other.Say();
  other.Hear();
  Reading const now(*store);
  EXPECT_TRUE(store->Notice(*now));
  EXPECT_EQ(std::vector<ObjectId>{ObjectId{id}}, listed);
  EXPECT_EQ(unlisted, store->foreign_commits().unlisted());
  other.Say();
  other.ExpectGoodEnd();
}

// A writer that is killed at any moment leaves whole commits to the processes that live on.
TEST_F(LogStoreTest, KilledWriter_HoldsUpNobody) {
  options_.log_limit = 4000;
  // Starts all writers before the test opens the store.
  constexpr int kWriters = 12;
  std::vector<std::unique_ptr<OtherProcess>> writers;
  for (int i = 0; i < kWriters; ++i) {
    writers.push_back(std::make_unique<OtherProcess>([&](OtherProcess& test) {
      int number = static_cast<int>(test.Hear());
      std::unique_ptr<Store> const store = Open();
      test.Say();
      for (;; ++number) {
        CommitNumber(*store, number);
        store->Upkeep();
      }
    }));
  }
  std::unique_ptr<Store> const store = Open();
  CommitNumber(*store, 1);
  std::mt19937 random(7);
  int last = 1;
  for (std::unique_ptr<OtherProcess>& one : writers) {
    one->Say(static_cast<std::uint64_t>(last + 1));
    one->Hear();
    usleep(static_cast<useconds_t>(random() % 20000));
    one->Kill();
    int there = 0;
    {
      Reading const now(*store);
      there = std::stoi(ValueIn(*now, Tree::kMeta, "last"));
      ASSERT_EQ(StateAfter(there), AllOf(*now, kTree));
    }
    ASSERT_GE(there, last);
    {
      // What the dead one had written whole is there now.
      std::unique_ptr<Batch> const batch = store->BeginBatch();
      last = std::stoi(ValueIn(*batch, Tree::kMeta, "last"));
    }
    ASSERT_GE(last, there);
    CommitNumber(*store, ++last);
    ASSERT_EQ(StateAfter(last), AllOf(*Reading(*store), kTree));
  }
}

}  // namespace
}  // namespace lscore
