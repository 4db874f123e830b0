// A database that is cut off while it is made.

#include "crash/directory.h"
#include "crash/store_faults.h"
#include "crash/tellers.h"

namespace crash_test {
namespace {

constexpr std::uint64_t kSeed = 31;
constexpr int kKilled = 128 + 9;

// Makes a database in a process that is killed once `commits` changes are kept; returns whether it
// was.
bool MakeUpTo(int commits, std::string const& directory) {
  Child maker([&](Channel&) {
    store_faults::Arm(store_faults::Point::kAfterCommit, commits, store_faults::Kill);
    Bank const bank(directory, kSeed, {.no_sync = true});
    return 0;
  });
  int const end = maker.Wait();
  EXPECT_TRUE(end == 0 || end == kKilled) << end;
  return end == kKilled;
}

TEST(CreationTest, KilledAfterAnyCommit_IsCompletedByTheNextProcess) {
  int commits = 1;
  for (bool killed = true; killed; ++commits) {
    SCOPED_TRACE("killed after commit " + std::to_string(commits));
    Directory const directory;
    killed = MakeUpTo(commits, directory.path());
    ExpectWholeAfter(directory.path(), kSeed, {});
  }
  EXPECT_LT(5, commits);
}

}  // namespace
}  // namespace crash_test
