// The changes that a store with a log keeps: every commit once and in order, from the log and from
// segments, whatever dies in between.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "bytes.h"
#include "format.h"
#include "log_of_tests.h"
#include "other_process.h"
#include "status.h"
#include "stores.h"

namespace lscore {
namespace {

namespace fs = std::filesystem;
using lscoredb_test::OtherProcess;
using Notes = std::vector<std::string>;

constexpr Retention kEverything{std::uint64_t{1} << 40, 0};

Notes Numbers(int from, int to) {
  Notes notes;
  for (int i = from; i <= to; ++i) notes.push_back(std::to_string(i));
  return notes;
}

void CommitNote(Store& store, std::string const& note, std::size_t size = 40) {
  std::unique_ptr<Batch> const batch = store.BeginBatch();
  batch->Put(Tree::kIndex, "k" + note, std::string(size, 'v'));
  if (batch->takes_notes()) batch->Note(note);
  batch->Commit();
}

Notes Rest(ChangeSource& source) {
  Notes notes;
  NotedCommit commit;
  CommitId before{0};
  while (source.Next(&commit)) {
    EXPECT_LT(before, commit.commit);
    before = commit.commit;
    for (std::string_view const note : commit.notes) notes.emplace_back(note);
  }
  return notes;
}

Notes AllKept(Store& store) {
  return Rest(*store.OpenChanges(CommitId{Raw(store.Kept().first) - 1}));
}

class LogChangesTest : public testing::Test {
 protected:
  LogChangesTest() {
    std::string path = testing::TempDir() + "/changes-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("no directory for the test");
    top_ = path;
    directory_ = Make("store");
    options_.sync = false;
    options_.log_limit = 1500;
  }
  ~LogChangesTest() override { fs::remove_all(top_); }

  std::string Make(std::string const& name) const {
    fs::create_directory(top_ + "/" + name);
    return top_ + "/" + name;
  }
  std::unique_ptr<Store> Open() const { return OpenLogStore(directory_, options_); }
  std::unique_ptr<Store> OpenKeeping(Retention const& retention = kEverything) const {
    std::unique_ptr<Store> store = Open();
    store->KeepChanges(retention);
    return store;
  }
  // What a process that dies now would leave.
  std::string Crash() {
    std::string copy = Make("crash" + std::to_string(++crashes_));
    for (auto const& entry : fs::directory_iterator(directory_)) fs::copy(entry.path(), copy);
    return copy;
  }
  static std::vector<std::string> Segments(std::string const& directory) {
    std::vector<std::string> paths;
    for (auto const& entry : fs::directory_iterator(directory)) {
      if (entry.path().filename().string().starts_with("changes-")) paths.push_back(entry.path());
    }
    std::sort(paths.begin(), paths.end());
    return paths;
  }
  // The format version that an older kernel looks at first.
  std::uint32_t ImageVersion() const {
    std::unique_ptr<Store> const image = LmdbStore::Open(directory_.c_str(), options_);
    Reading const now(*image);
    return Load<std::uint32_t>(ValueIn(*now, Tree::kMeta, format::kFormatKey).data() +
                               format::kMagic.size());
  }

  std::string top_;
  std::string directory_;
  StoreOptions options_;
  int crashes_ = 0;
};

TEST_F(LogChangesTest, Off_KeepsNothing) {
  {
    std::unique_ptr<Store> const store = Open();
    for (int i = 1; i <= 60; ++i) CommitNote(*store, std::to_string(i));
    EXPECT_FALSE(store->BeginBatch()->takes_notes());
    EXPECT_EQ(LSCOREDB_NO_CHANGES, Guarded([&] { return store->Kept(), 0u; }));
    EXPECT_EQ(LSCOREDB_NO_CHANGES, Guarded([&] { return store->OpenChanges({}), 0u; }));
  }
  EXPECT_TRUE(Segments(directory_).empty());
  EXPECT_EQ(format::kLogVersion, ImageVersion());
}

TEST_F(LogChangesTest, SwitchedOn_RaisesTheVersionUntilItIsSwitchedOff) {
  {
    std::unique_ptr<Store> const store = OpenKeeping();
    for (int i = 1; i <= 60; ++i) CommitNote(*store, std::to_string(i));
  }
  EXPECT_EQ(format::kChangesVersion, ImageVersion());
  EXPECT_FALSE(Segments(directory_).empty());
  Open()->KeepChanges({});
  EXPECT_EQ(format::kLogVersion, ImageVersion());
  EXPECT_TRUE(Segments(directory_).empty());
}

TEST_F(LogChangesTest, Reader_GetsEachCommitOnceThroughTurnsOfTheLog) {
  std::unique_ptr<Store> const store = OpenKeeping();
  std::unique_ptr<ChangeSource> const follower = store->OpenChanges(store->Kept().last);
  Notes followed;
  for (int i = 1; i <= 200; ++i) {
    CommitNote(*store, std::to_string(i));
    if (i % 3 == 0) store->Upkeep();
    if (i % 7 == 0) {
      for (std::string const& note : Rest(*follower)) followed.push_back(note);
      EXPECT_EQ(Numbers(1, i), followed);
    }
  }
  EXPECT_EQ(Numbers(1, 200), AllKept(*store));
}

TEST_F(LogChangesTest, CommitTooLargeForTheLog_IsInTheFeed) {
  std::unique_ptr<Store> const store = OpenKeeping();
  for (int i = 1; i <= 60; ++i) {
    CommitNote(*store, std::to_string(i), i % 5 == 0 ? 2 * options_.log_limit : 40);
    if (i % 3 == 0) store->Upkeep();
  }
  EXPECT_EQ(Numbers(1, 60), AllKept(*store));
}

TEST_F(LogChangesTest, CleanClose_KeepsTheRestInOneSmallSegment) {
  { static_cast<void>(OpenKeeping()); }
  for (int i = 1; i <= 20; ++i) CommitNote(*Open(), std::to_string(i));
  EXPECT_EQ(1u, Segments(directory_).size());
  EXPECT_EQ(Numbers(1, 20), AllKept(*Open()));
}

TEST_F(LogChangesTest, Kill_LosesNothing) {
  std::unique_ptr<Store> const store = OpenKeeping();
  for (int i = 1; i <= 60; ++i) {
    CommitNote(*store, std::to_string(i), i % 16 == 0 ? 2 * options_.log_limit : 40);
    if (i % 3 == 0) store->Upkeep();
    std::unique_ptr<Store> const after = OpenLogStore(Crash(), options_);
    ASSERT_EQ(Numbers(1, i), AllKept(*after));
  }
}

// A process wrote a segment and died before the image held its commits. Those of the log took place
// all the same; others follow.
TEST_F(LogChangesTest, DeathBetweenSegmentAndImage_LosesAndRepeatsNothing) {
  std::unique_ptr<Store> const store = OpenKeeping();
  std::vector<std::string> crashes;
  for (int i = 1; i <= 90; ++i) {
    CommitNote(*store, std::to_string(i));
    crashes.push_back(Crash());
    store->Upkeep();
    for (std::string const& segment : Segments(directory_)) {
      fs::copy(segment, crashes.back(), fs::copy_options::overwrite_existing);
    }
  }
  for (int i = 2; i <= 90; i += 4) {
    std::unique_ptr<Store> const after =
        OpenLogStore(crashes[static_cast<std::size_t>(i) - 1], options_);
    EXPECT_EQ(Numbers(1, i), AllKept(*after));
    for (int more = i + 1; more <= i + 40; ++more) CommitNote(*after, std::to_string(more));
    EXPECT_EQ(Numbers(1, i + 40), AllKept(*after));
  }
}

// The same with a commit that was on its way into the image, and so never took place.
TEST_F(LogChangesTest, SegmentOfACommitThatNeverWas_IsNotRead) {
  std::unique_ptr<Store> const store = OpenKeeping();
  for (int i = 1; i <= 3; ++i) CommitNote(*store, std::to_string(i));
  std::string const crash = Crash();
  CommitNote(*store, "lost", 2 * options_.log_limit);
  for (std::string const& segment : Segments(directory_)) fs::copy(segment, crash);
  std::unique_ptr<Store> const after = OpenLogStore(crash, options_);
  EXPECT_EQ(Numbers(1, 3), AllKept(*after));
  std::unique_ptr<ChangeSource> const reader = after->OpenChanges(after->Kept().last);
  for (int i = 4; i <= 60; ++i) CommitNote(*after, std::to_string(i));
  EXPECT_EQ(Numbers(4, 60), Rest(*reader));
  EXPECT_EQ(Numbers(1, 60), AllKept(*after));
}

// ---- retention ---------------------------------------------------------------------------------

TEST_F(LogChangesTest, Retention_BoundsTheSegments) {
  std::unique_ptr<Store> const store = OpenKeeping({std::uint64_t{3} << 20, 0});
  std::unique_ptr<ChangeSource> const late = store->OpenChanges(store->Kept().last);
  CommitNote(*store, "0");
  NotedCommit commit;
  ASSERT_TRUE(late->Next(&commit));
  std::size_t const size = std::size_t{1} << 20;
  for (int i = 1; i <= 20; ++i) CommitNote(*store, std::to_string(i), size);
  std::uint64_t total = 0;
  for (std::string const& segment : Segments(directory_)) total += fs::file_size(segment);
  EXPECT_LE(total, std::uint64_t{3} << 20);
  Notes const kept = AllKept(*store);
  ASSERT_FALSE(kept.empty());
  EXPECT_EQ(Numbers(21 - static_cast<int>(kept.size()), 20), kept);
  EXPECT_EQ(LSCOREDB_CHANGES_GONE, Guarded([&] { return late->Next(&commit), 0u; }));
  EXPECT_EQ(LSCOREDB_CHANGES_GONE, Guarded([&] { return late->Next(&commit), 0u; }));
}

TEST_F(LogChangesTest, Retention_RemovesWhatIsTooOld) {
  std::unique_ptr<Store> const store = OpenKeeping({0, 3600});
  std::size_t const size = std::size_t{1} << 20;
  for (int i = 1; i <= 6; ++i) CommitNote(*store, std::to_string(i), size);
  EXPECT_EQ(Numbers(1, 6), AllKept(*store));
  std::vector<std::string> const segments = Segments(directory_);
  for (int i = 0; i < 4; ++i) {
    timespec const long_ago[2] = {{1000000, 0}, {1000000, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, segments[static_cast<std::size_t>(i)].c_str(), long_ago, 0));
  }
  CommitNote(*store, "7", size);
  EXPECT_EQ(Numbers(5, 7), AllKept(*store));
}

TEST_F(LogChangesTest, OpenSegment_IsReadToItsEndAfterItWasRemoved) {
  std::unique_ptr<Store> store = OpenKeeping();
  for (int i = 1; i <= 100; ++i) CommitNote(*store, std::to_string(i));
  std::unique_ptr<ChangeSource> const reader =
      store->OpenChanges(CommitId{Raw(store->Kept().first) - 1});
  NotedCommit commit;
  ASSERT_TRUE(reader->Next(&commit));
  for (std::string const& segment : Segments(directory_)) fs::remove(segment);
  int read = 1;
  Status const end = Guarded([&] {
    while (reader->Next(&commit)) EXPECT_EQ(std::to_string(++read), commit.notes.at(0));
    return LORV_STATUS_OK;
  });
  EXPECT_GT(read, 2);
  EXPECT_TRUE(end == LSCOREDB_CHANGES_GONE || (end == LORV_STATUS_OK && read == 100)) << end;
}

TEST_F(LogChangesTest, SwitchedOff_ReaderIsTold) {
  std::unique_ptr<Store> const store = OpenKeeping();
  std::unique_ptr<ChangeSource> const reader = store->OpenChanges(store->Kept().last);
  store->KeepChanges({});
  NotedCommit commit;
  EXPECT_EQ(LSCOREDB_NO_CHANGES, Guarded([&] { return reader->Next(&commit), 0u; }));
  CommitNote(*store, "1");
  store->KeepChanges(kEverything);
  EXPECT_EQ(LSCOREDB_CHANGES_GONE, Guarded([&] { return reader->Next(&commit), 0u; }));
  CommitNote(*store, "2");
  EXPECT_EQ(Notes{"2"}, AllKept(*store));
}

TEST_F(LogChangesTest, PositionInTheFuture_IsRefused) {
  std::unique_ptr<Store> const store = OpenKeeping();
  CommitId const future{Raw(store->Kept().last) + 1};
  EXPECT_EQ(LSCOREDB_INVALID_ARGUMENT, Guarded([&] { return store->OpenChanges(future), 0u; }));
}

// A segment cannot be written, since something else has its name: commits go on, and readers are
// told that changes are missing, until there is a whole segment again.
TEST_F(LogChangesTest, SegmentThatCannotBeWritten_LeavesAGapInsteadOfFailingCommits) {
  std::unique_ptr<Store> const store = OpenKeeping();
  std::unique_ptr<ChangeSource> const reader = store->OpenChanges(store->Kept().last);
  std::string const obstacle = directory_ + "/changes.new";
  fs::create_directory(obstacle);
  for (int i = 1; i <= 60; ++i) CommitNote(*store, std::to_string(i));
  NotedCommit commit;
  EXPECT_EQ(LSCOREDB_CHANGES_GONE, Guarded([&] { return reader->Next(&commit), 0u; }));
  fs::remove(obstacle);
  for (int i = 61; i <= 120; ++i) CommitNote(*store, std::to_string(i));
  Notes const kept = AllKept(*store);
  ASSERT_LT(60u, kept.size());
  EXPECT_EQ(Numbers(121 - static_cast<int>(kept.size()), 120), kept);
}

// Notes fill the log and its segments, but not the image.
TEST_F(LogChangesTest, FullDisk_CostsTheOldestChangesAndNoCommit) {
  constexpr int kCommits = 100;
  constexpr std::size_t kNote = 20'000;
  options_.log_limit = 64 * 1024;
  OtherProcess process([this](OtherProcess&) {
    signal(SIGXFSZ, SIG_IGN);
    rlimit const limit{300 * 1024, 300 * 1024};
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
    std::unique_ptr<Store> const store = OpenKeeping();
    std::unique_ptr<ChangeSource> const late = store->OpenChanges(store->Kept().last);
    for (int i = 0; i < kCommits; ++i) {
      std::unique_ptr<Batch> const batch = store->BeginBatch();
      batch->Put(Tree::kIndex, "k", std::to_string(i));
      batch->Note(std::string(kNote, static_cast<char>(i)));
      batch->Commit();
      store->Upkeep();
    }
    Notes const kept = AllKept(*store);
    ASSERT_FALSE(kept.empty());
    EXPECT_LT(kept.size(), static_cast<std::size_t>(kCommits));
    int next = kCommits - static_cast<int>(kept.size());
    for (std::string const& note : kept) {
      EXPECT_EQ(std::string(kNote, static_cast<char>(next++)), note);
    }
    NotedCommit commit;
    EXPECT_EQ(LSCOREDB_CHANGES_GONE, Guarded([&] { return late->Next(&commit), 0u; }));
  });
  process.ExpectGoodEnd();
}

TEST_F(LogChangesTest, RelativeDirectory_MeansTheSameAfterTheHostChangedItsOwn) {
  OtherProcess process([this](OtherProcess&) {
    fs::current_path(top_);
    std::unique_ptr<Store> const store = OpenLogStore("store", options_);
    fs::current_path("/");
    store->KeepChanges(kEverything);
    for (int i = 1; i <= 60; ++i) CommitNote(*store, std::to_string(i));
    EXPECT_EQ(Numbers(1, 60), AllKept(*store));
  });
  process.ExpectGoodEnd();
  EXPECT_EQ(Numbers(1, 60), AllKept(*Open()));
}

// ---- damage ------------------------------------------------------------------------------------

TEST_F(LogChangesTest, DamagedSegment_IsNeverReadAsOtherChanges) {
  {
    std::unique_ptr<Store> const store = OpenKeeping();
    for (int i = 1; i <= 10; ++i) CommitNote(*store, std::to_string(i));
  }
  std::string const path = Segments(directory_).at(0);
  std::uint64_t const size = fs::file_size(path);
  int refused = 0;
  for (std::uint64_t at = 0; at < size; at += 13) {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekg(static_cast<std::streamoff>(at));
    char const before = static_cast<char>(file.get());
    auto const put = [&](char byte) {
      file.seekp(static_cast<std::streamoff>(at));
      file.put(byte).flush();
    };
    put(static_cast<char>(before ^ 16));
    Status const status = Guarded([&] {
      EXPECT_EQ(Numbers(1, 10), AllKept(*Open()));
      return LORV_STATUS_OK;
    });
    refused += status == LORV_STATUS_OK ? 0 : 1;
    EXPECT_TRUE(status == LORV_STATUS_OK || status == LSCOREDB_DAMAGED) << at << ": " << status;
    put(before);
  }
  EXPECT_GT(refused, 10);
}

// ---- several processes -------------------------------------------------------------------------

TEST_F(LogChangesTest, ReaderOfAnotherProcess_WaitsForEachCommit) {
  { static_cast<void>(OpenKeeping()); }
  OtherProcess writer([this](OtherProcess& test) {
    test.Hear();
    std::unique_ptr<Store> const store = Open();
    for (int i = 1; i <= 300; ++i) CommitNote(*store, std::to_string(i));
    test.Hear();
  });
  std::unique_ptr<Store> const store = Open();
  std::unique_ptr<ChangeSource> const reader = store->OpenChanges(store->Kept().last);
  EXPECT_FALSE(reader->Wait(0));
  writer.Say();
  Notes read;
  while (read.size() < 300) {
    ASSERT_TRUE(reader->Wait(60'000));
    for (std::string const& note : Rest(*reader)) read.push_back(note);
  }
  EXPECT_EQ(Numbers(1, 300), read);
  writer.Say();
  writer.ExpectGoodEnd();
}

TEST_F(LogChangesTest, SeveralWriters_AreFollowedInTheOrderOfTheirCommits) {
  constexpr int kWriters = 3;
  constexpr int kCommits = 100;
  { static_cast<void>(OpenKeeping()); }
  std::vector<std::unique_ptr<OtherProcess>> writers;
  for (int writer = 0; writer < kWriters; ++writer) {
    writers.push_back(std::make_unique<OtherProcess>([this, writer](OtherProcess& test) {
      test.Hear();
      std::unique_ptr<Store> const store = Open();
      for (int i = 1; i <= kCommits; ++i) {
        CommitNote(*store, std::to_string(writer * 1000 + i), i % 20 == 0 ? 4000 : 40);
        store->Upkeep();
      }
    }));
  }
  std::unique_ptr<Store> const store = Open();
  std::unique_ptr<ChangeSource> const reader = store->OpenChanges(store->Kept().last);
  for (auto const& writer : writers) writer->Say();
  std::vector<Notes> read(kWriters);
  for (int count = 0; count < kWriters * kCommits;) {
    ASSERT_TRUE(reader->Wait(60'000));
    for (std::string const& note : Rest(*reader)) {
      read.at(std::stoul(note) / 1000).push_back(note);
      ++count;
    }
  }
  for (int writer = 0; writer < kWriters; ++writer) {
    EXPECT_EQ(Numbers(writer * 1000 + 1, writer * 1000 + kCommits),
              read[static_cast<std::size_t>(writer)]);
    writers[static_cast<std::size_t>(writer)]->ExpectGoodEnd();
  }
}

TEST_F(LogChangesTest, AnotherRetention_DoesNotDisturbReaders) {
  std::unique_ptr<Store> const store = OpenKeeping();
  std::unique_ptr<ChangeSource> const reader = store->OpenChanges(store->Kept().last);
  for (int i = 1; i <= 30; ++i) {
    CommitNote(*store, std::to_string(i));
    if (i % 5 == 0) store->KeepChanges({std::uint64_t{1} << 30, static_cast<std::uint64_t>(i)});
    if (i % 7 != 0) continue;
    EXPECT_EQ(Numbers(i - 6, i), Rest(*reader));
  }
  EXPECT_EQ(30u, store->Kept().retention.seconds);
  EXPECT_EQ(Numbers(1, 30), AllKept(*store));
}

TEST_F(LogChangesTest, File_IsReadableUntilNothingIsLeft) {
  std::unique_ptr<Store> const store = OpenKeeping();
  std::unique_ptr<ChangeSource> const reader = store->OpenChanges(store->Kept().last);
  auto const readable = [&] {
    pollfd file{reader->File(), POLLIN, 0};
    return poll(&file, 1, 0) == 1;
  };
  EXPECT_EQ(Notes{}, Rest(*reader));
  reader->File();
  EXPECT_EQ(Notes{}, Rest(*reader));
  EXPECT_FALSE(readable());
  CommitNote(*store, "1");
  EXPECT_TRUE(readable());
  EXPECT_EQ(Notes{"1"}, Rest(*reader));
  EXPECT_FALSE(readable());
  CommitNote(*store, "2", 2 * options_.log_limit);
  EXPECT_TRUE(readable());
}

// Another process switches it on while this one has the store open.
TEST_F(LogChangesTest, SwitchedOnElsewhere_HoldsForTheNextCommit) {
  OtherProcess other([this](OtherProcess& test) {
    test.Hear();
    std::unique_ptr<Store> const store = Open();
    store->KeepChanges(kEverything);
    test.Say();
    test.Hear();
  });
  std::unique_ptr<Store> const store = Open();
  CommitNote(*store, "before");
  other.Say();
  other.Hear();
  for (int i = 1; i <= 40; ++i) CommitNote(*store, std::to_string(i));
  EXPECT_EQ(Numbers(1, 40), AllKept(*store));
  other.Say();
  other.ExpectGoodEnd();
}

}  // namespace
}  // namespace lscore
