// Syncs of a log that fail, and checkpoints that are written in slices.

#include <dlfcn.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "log_of_tests.h"
#include "status.h"
#include "stores.h"

namespace lscore {
namespace {

constexpr Tree kTree = Tree::kIndex;

std::atomic<int> failing_log_syncs{0};
std::atomic<int> failing_image_syncs{0};

std::string PathOf(int file) {
  std::array<char, 4096> path{};
  std::string const link = "/proc/self/fd/" + std::to_string(file);
  ssize_t const size = readlink(link.c_str(), path.data(), path.size());
  return {path.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
}

std::string ReadFile(std::string const& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

class LogSyncTest : public testing::Test {
 protected:
  LogSyncTest() {
    std::string path = testing::TempDir() + "/sync-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("no directory for the test");
    top_ = path;
    directory_ = top_ + "/store";
    std::filesystem::create_directory(directory_);
    options_.sync = false;
  }
  ~LogSyncTest() override {
    failing_log_syncs = 0;
    failing_image_syncs = 0;
    std::filesystem::remove_all(top_);
  }

  std::unique_ptr<Store> Open() const { return OpenLogStore(directory_, options_); }

  static Status Commit(Store& store, std::string const& key, bool sync = false) {
    return Guarded([&] {
      std::unique_ptr<Batch> const batch = store.BeginBatch();
      batch->Put(kTree, key, "value");
      if (sync) batch->AskForSync();
      batch->Commit();
      return LORV_STATUS_OK;
    });
  }
  static Status Sync(Store& store) {
    return Guarded([&] {
      store.Sync();
      return LORV_STATUS_OK;
    });
  }
  static bool AllIsSynced(Store const& store) {
    StoreStatistics const now = store.Statistics();
    return now.synced_commit == now.last_commit;
  }
  static std::string KeysIn(Store& store) {
    Reading const now(store);
    std::string keys;
    for (auto const& [key, value] : AllOf(*now, kTree)) keys += key;
    return keys;
  }
  // What a process that dies now would leave.
  std::string KeysAfterACrash() {
    std::string const copy = top_ + "/crash" + std::to_string(++crashes_);
    std::filesystem::copy(directory_, copy);
    return KeysIn(*OpenLogStore(copy, options_));
  }

  std::string top_;
  std::string directory_;
  StoreOptions options_;
  int crashes_ = 0;
};

// The system may regard as written what a failed sync has not written, so a second sync proves
// nothing.
TEST_F(LogSyncTest, CommitsWhoseSyncFails_GoToTheImage) {
  std::unique_ptr<Store> const store = Open();
  ASSERT_EQ(0u, Commit(*store, "a"));
  failing_log_syncs = 1;
  EXPECT_EQ(0u, Sync(*store));
  EXPECT_TRUE(AllIsSynced(*store));
  EXPECT_EQ(0u, store->Statistics().log_size);
  ASSERT_EQ(0u, Commit(*store, "b"));
  EXPECT_EQ(0u, Sync(*store));
  EXPECT_TRUE(AllIsSynced(*store));
  EXPECT_NE(0u, store->Statistics().log_size);
  EXPECT_EQ("ab", KeysAfterACrash());
}

TEST_F(LogSyncTest, SyncThatCannotBeMadeUpFor_IsReportedUntilItIs) {
  std::unique_ptr<Store> const store = Open();
  ASSERT_EQ(0u, Commit(*store, "a"));
  failing_log_syncs = 1;
  failing_image_syncs = 2;
  EXPECT_EQ(LSCOREDB_IO_ERROR, Sync(*store));
  EXPECT_EQ(LSCOREDB_IO_ERROR, Sync(*store));
  EXPECT_FALSE(AllIsSynced(*store));
  ASSERT_EQ(0u, Commit(*store, "b"));
  EXPECT_EQ(0u, Sync(*store));
  EXPECT_TRUE(AllIsSynced(*store));
  EXPECT_EQ("ab", KeysAfterACrash());
}

TEST_F(LogSyncTest, SyncedCommitBehindUnsyncedOnes_FailsAndTheNextGoesToTheImage) {
  std::unique_ptr<Store> const store = Open();
  ASSERT_EQ(0u, Commit(*store, "a"));
  failing_log_syncs = 1;
  EXPECT_EQ(LSCOREDB_IO_ERROR, Commit(*store, "b", true));
  EXPECT_EQ("a", KeysAfterACrash());
  EXPECT_EQ(0u, Commit(*store, "c", true));
  EXPECT_EQ("ac", KeysIn(*store));
  EXPECT_EQ(0u, store->Statistics().log_size);
  EXPECT_TRUE(AllIsSynced(*store));
  EXPECT_EQ(0u, Commit(*store, "d", true));
  EXPECT_NE(0u, store->Statistics().log_size);
  EXPECT_EQ("acd", KeysAfterACrash());
}

// ---- opening -----------------------------------------------------------------------------------

class LogOpeningTest : public LogSyncTest, public testing::WithParamInterface<bool> {
 protected:
  LogOpeningTest() { options_.sync = GetParam(); }

  static Status TryOpen(std::string const& directory, StoreOptions const& options) {
    return Guarded([&] {
      OpenLogStore(directory, options);
      return LORV_STATUS_OK;
    });
  }
  std::string CopyOf(std::string const& directory) {
    std::string const copy = top_ + "/copy" + std::to_string(++copies_);
    std::filesystem::copy(directory, copy);
    return copy;
  }

  int copies_ = 0;
};

TEST_P(LogOpeningTest, CleanImage_IsNotSynced) {
  { ASSERT_EQ(0u, Commit(*Open(), "a")); }
  failing_image_syncs = 1;
  failing_log_syncs = 1;
  EXPECT_EQ("a", KeysIn(*Open()));
  EXPECT_EQ(1, failing_image_syncs);
  EXPECT_EQ(1, failing_log_syncs);
}

TEST_P(LogOpeningTest, ImageAfterACrash_IsSyncedFirst) {
  std::unique_ptr<Store> const store = Open();
  ASSERT_EQ(0u, Commit(*store, "a"));
  std::string const left = CopyOf(directory_);
  failing_image_syncs = 1;
  EXPECT_EQ(LSCOREDB_IO_ERROR, TryOpen(left, options_));
  EXPECT_EQ("a", KeysIn(*OpenLogStore(left, options_)));
}

// What a process leaves that dies before the commit of its clean close has returned.
TEST_P(LogOpeningTest, CleanImageBesideALog_IsSyncedFirst) {
  std::unique_ptr<Store> store = Open();
  ASSERT_EQ(0u, Commit(*store, "a"));
  std::string const left = CopyOf(directory_);
  store.reset();
  std::filesystem::copy(directory_ + "/data.mdb", left + "/data.mdb",
                        std::filesystem::copy_options::overwrite_existing);
  failing_image_syncs = 1;
  EXPECT_EQ(LSCOREDB_IO_ERROR, TryOpen(left, options_));
  EXPECT_EQ("a", KeysIn(*OpenLogStore(left, options_)));
}

INSTANTIATE_TEST_SUITE_P(Each, LogOpeningTest, testing::Bool(),
                         [](auto const& one) { return one.param ? "Synced" : "NotSynced"; });

// ---- memory ------------------------------------------------------------------------------------

// A small change takes several times as much memory as room in the log.
TEST_F(LogSyncTest, SmallChanges_MoveToTheImageBeforeTheyTakeMuchMemory) {
  options_.log_limit = std::uint64_t{1} << 20;
  std::unique_ptr<Store> const store = Open();
  std::uint64_t most = 0;
  for (int commit = 0; commit < 200; ++commit) {
    std::unique_ptr<Batch> const batch = store->BeginBatch();
    for (int i = 0; i < 500; ++i) batch->Put(kTree, std::to_string(1000000 + commit * 500 + i), "");
    batch->Commit();
    store->Upkeep();
    most = std::max(most, store->Statistics().log_memory);
  }
  EXPECT_GT(most, options_.log_limit);
  EXPECT_LT(most, 10 * options_.log_limit);
}

TEST_F(LogSyncTest, LateSyncThatFails_IsRepeated) {
  std::unique_ptr<Store> const store = Open();
  store->RequireSyncWithin(std::chrono::milliseconds(1));
  ASSERT_EQ(0u, Commit(*store, "a"));
  while (!AllIsSynced(*store)) std::this_thread::yield();
  failing_log_syncs = 1;
  failing_image_syncs = 2;
  ASSERT_EQ(0u, Commit(*store, "b"));
  while (!AllIsSynced(*store)) std::this_thread::yield();
  EXPECT_EQ(0, failing_image_syncs);
  EXPECT_EQ("ab", KeysAfterACrash());
}

// ---- slices ------------------------------------------------------------------------------------

class LogSliceTest : public LogSyncTest {
 protected:
  static constexpr int kCommits = 1200;
  static constexpr int kKept = 100;

  LogSliceTest() {
    options_.sync = true;
    options_.log_limit = 64 * 1024;
  }

  static std::string Key(int number) { return "k" + std::to_string(number * 7919 % 10007); }
  static void CommitNumber(Store& store, int number) {
    std::unique_ptr<Batch> const batch = store.BeginBatch();
    batch->Put(kTree, Key(number), std::string(50 + number % 40, 'v'));
    batch->Delete(kTree, Key(number - kKept));
    batch->Put(Tree::kMeta, "last", std::to_string(number));
    batch->Commit();
  }
  static Entries StateAfter(int number) {
    std::map<std::string, std::string> state;
    for (int i = std::max(1, number - kKept + 1); i <= number; ++i) {
      state[Key(i)] = std::string(50 + i % 40, 'v');
    }
    return {state.begin(), state.end()};
  }
  static void ExpectStateAfter(int number, Store& store) {
    Reading const now(store);
    EXPECT_EQ(std::to_string(number), ValueIn(*now, Tree::kMeta, "last"));
    EXPECT_EQ(StateAfter(number), AllOf(*now, kTree));
  }
};

TEST_F(LogSliceTest, Checkpoint_IsSpreadOverCommits) {
  std::unique_ptr<Store> const store = Open();
  int changes_of_image = 0;
  int emptied = 0;
  std::string image = ReadFile(directory_ + "/data.mdb");
  std::uint64_t size = 0;
  for (int i = 1; i <= kCommits; ++i) {
    CommitNumber(*store, i);
    store->Upkeep();
    std::string now = ReadFile(directory_ + "/data.mdb");
    if (now != image) ++changes_of_image;
    image = std::move(now);
    std::uint64_t const log = store->Statistics().log_size;
    if (log < size) ++emptied;
    size = log;
    // Half of the limit is what the next file holds when the checkpoint of the last one is done.
    EXPECT_GT(options_.log_limit * 8 / 5, log);
  }
  EXPECT_LE(2, emptied);
  EXPECT_LT(3 * emptied, changes_of_image);
  ExpectStateAfter(kCommits, *store);
}

TEST_F(LogSliceTest, ImageThatHoldsPartOfALayer_IsReadAndRecoveredAsAny) {
  std::unique_ptr<Store> const store = Open();
  std::unique_ptr<Reading> old = std::make_unique<Reading>(*store);
  int state_of_old = 0;
  for (int i = 1; i <= kCommits; ++i) {
    CommitNumber(*store, i);
    store->Upkeep();
    if (i % 97 == 0) {
      if (state_of_old != 0) {
        EXPECT_EQ(StateAfter(state_of_old), AllOf(**old, kTree));
      }
      old = std::make_unique<Reading>(*store);
      state_of_old = i;
    }
    if (i % 11 != 0) continue;
    ExpectStateAfter(i, *store);
    std::string const copy = top_ + "/crash";
    std::filesystem::copy(directory_, copy);
    {
      std::unique_ptr<Store> const after = OpenLogStore(copy, options_);
      ExpectStateAfter(i, *after);
      CommitNumber(*after, i + 1);
    }
    ExpectStateAfter(i + 1, *OpenLogStore(copy, options_));
    std::filesystem::remove_all(copy);
    if (HasFailure()) return;
  }
}

// A slice that fails is written again, by the next commit or by the one that needs the room.
TEST_F(LogSliceTest, SliceThatFails_IsRepeated) {
  std::unique_ptr<Store> const store = Open();
  for (int i = 1; i <= kCommits; ++i) {
    CommitNumber(*store, i);
    failing_image_syncs = i % 3 != 0 ? 1 : 0;
    store->Upkeep();
    failing_image_syncs = 0;
  }
  ExpectStateAfter(kCommits, *store);
  std::string const copy = top_ + "/crash";
  std::filesystem::copy(directory_, copy);
  ExpectStateAfter(kCommits, *OpenLogStore(copy, options_));
}

// Fails a sync of one of the files if that is asked for.
int SyncOrFail(int file, int (*sync)(int)) {
  std::string const path = PathOf(file);
  std::atomic<int>& failing =
      path.find("/log-") != std::string::npos ? failing_log_syncs : failing_image_syncs;
  if (failing > 0) {
    --failing;
    errno = EIO;
    return -1;
  }
  return sync(file);
}

}  // namespace
}  // namespace lscore

// Stands before the function of the C library, for this executable and for what it uses.
extern "C" [[gnu::visibility("default")]] int fdatasync(int file) {
  static auto* const original = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "fdatasync"));
  return lscore::SyncOrFail(file, original);
}
