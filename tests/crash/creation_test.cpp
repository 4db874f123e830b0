// A database that is cut off while it is made.

#include <algorithm>

#include "crash/directory.h"
#include "crash/recording.h"
#include "crash/store_faults.h"
#include "crash/tellers.h"

namespace crash_test {
namespace {

constexpr std::uint64_t kSeed = 31;

// Makes a database in a process that is killed once `commits` changes are kept; returns whether it
// was.
bool MakeUpTo(int commits, std::string const& directory, std::uint32_t log) {
  Child maker([&](Channel&) {
    store_faults::Arm(store_faults::Point::kAfterCommit, commits, store_faults::Kill);
    Bank const bank(directory, kSeed, {.no_sync = true, .log = log});
    return 0;
  });
  int const end = maker.Wait();
  EXPECT_TRUE(end == 0 || end == Child::kKilled) << end;
  return end == Child::kKilled;
}

TEST(CreationTest, KilledAfterAnyCommit_IsCompletedByTheNextProcess) {
  for (std::uint32_t const log : {LSCOREDB_NO_LOG, LSCOREDB_DEFAULT_LOG}) {
    int commits = 1;
    for (bool killed = true; killed; ++commits) {
      SCOPED_TRACE("killed after commit " + std::to_string(commits) + " of the data file");
      Directory const directory;
      killed = MakeUpTo(commits, directory.path(), log);
      ExpectWholeAfter(directory.path(), kSeed, {});
    }
    EXPECT_LT(log == LSCOREDB_NO_LOG ? 5 : 1, commits);
  }
}

// Also the first of all commits, which makes the file itself.
TEST(CreationTest, LossOfPowerAtAnyPointOfTheFirstWrites_LeavesADatabaseOrNone) {
  using store_faults::Point;
  for (Point const point : {Point::kWriting, Point::kBeforeSync, Point::kAfterSync,
                            Point::kBeforeRoot, Point::kAfterRoot}) {
    for (int const nth : {1, 2, 3}) {
      SCOPED_TRACE("point " + std::to_string(static_cast<int>(point)) + ", passage " +
                   std::to_string(nth));
      Directory const directory;
      Recording const recording(directory.path());
      Child maker([&](Channel&) {
        recording.Join();
        store_faults::Arm(point, nth, store_faults::Kill);
        Bank const bank(directory.path(), kSeed);
        return 0;
      });
      EXPECT_EQ(Child::kKilled, maker.Wait());
      recording.ForEachLossAtItsEnd(
          [](std::string const& left) { ExpectWholeAfter(left, kSeed, {}); });
    }
  }
}

// A name that did not reach the disk is a file that is not there after a loss of power.
TEST(CreationTest, Directories_AreSyncedAfterFilesAreMadeInThem) {
  Directory const directory;
  InChild([&] {
    std::string const place = directory.path() + "/a/b";
    lscoredb* database = nullptr;
    EXPECT_EQ(0U, lscoredb_open(place.c_str(), nullptr, &database));
    EXPECT_EQ(0U, lscoredb_close(database));
    std::vector<std::string> const synced = store_faults::SyncedDirectories();
    for (std::string const& one : {directory.path(), directory.path() + "/a"}) {
      EXPECT_EQ(1, std::count(synced.begin(), synced.end(), one)) << one;
    }
    EXPECT_LE(1, std::count(synced.begin(), synced.end(), place)) << "again with the log";
  });
}

}  // namespace
}  // namespace crash_test
