// What the numbers of states tell of who committed them.

#include "foreign_commits.h"

#include <gtest/gtest.h>

namespace lscore {
namespace {

constexpr CommitId State(std::uint64_t number) { return CommitId{number}; }

void CommitOwn(ForeignCommits& watch, std::uint64_t state, bool succeeded = true) {
  watch.BeginCommit(State(state));
  watch.EndCommit(State(state), succeeded);
}

TEST(ForeignCommitsTest, AStateThatNobodyHereMadeIsForeign) {
  ForeignCommits watch;
  EXPECT_TRUE(watch.Notice(State(7)));
  EXPECT_EQ(State(7), watch.foreign());
  EXPECT_TRUE(watch.Notice(State(6)));
  EXPECT_EQ(State(7), watch.foreign());
}

TEST(ForeignCommitsTest, OwnCommitsAreAccountedFor) {
  ForeignCommits watch;
  watch.Notice(State(7));
  for (std::uint64_t state = 8; state < 11; ++state) CommitOwn(watch, state);
  EXPECT_TRUE(watch.Notice(State(10)));
  EXPECT_EQ(State(7), watch.foreign());
}

TEST(ForeignCommitsTest, ACommitOfAnotherProcessBetweenOwnOnesIsForeign) {
  ForeignCommits watch;
  watch.Notice(State(7));
  CommitOwn(watch, 8);
  CommitOwn(watch, 10);
  EXPECT_EQ(State(9), watch.foreign());
  EXPECT_TRUE(watch.Notice(State(10)));
  EXPECT_EQ(State(9), watch.foreign());
  EXPECT_TRUE(watch.Notice(State(11)));
  EXPECT_EQ(State(11), watch.foreign());
}

TEST(ForeignCommitsTest, AStateWhoseCommitIsUnderWayIsNobodysYet) {
  ForeignCommits watch;
  watch.Notice(State(7));
  watch.BeginCommit(State(8));
  EXPECT_FALSE(watch.Notice(State(8)));
  EXPECT_TRUE(watch.Notice(State(7)));
  EXPECT_EQ(State(7), watch.foreign());
  watch.EndCommit(State(8), true);
  EXPECT_TRUE(watch.Notice(State(8)));
  EXPECT_EQ(State(7), watch.foreign());
}

// The number of a commit that failed goes to whoever commits next.
TEST(ForeignCommitsTest, AFailedCommitLeavesItsNumberToOthers) {
  ForeignCommits watch;
  watch.Notice(State(7));
  CommitOwn(watch, 8, false);
  EXPECT_TRUE(watch.Notice(State(8)));
  EXPECT_EQ(State(8), watch.foreign());
}

}  // namespace
}  // namespace lscore
