// What the numbers of states say about who committed them.

#include "foreign_commits.h"

#include <gtest/gtest.h>

#include "status.h"

namespace lscore {
namespace {

constexpr CommitId State(std::uint64_t number) { return CommitId{number}; }

bool ListNone(CommitId, std::vector<ObjectId>*) { return false; }

void CommitOwn(ForeignCommits& commits, std::uint64_t state, bool succeeded = true) {
  commits.BeginCommit(State(state), ListNone);
  commits.EndCommit(State(state), succeeded);
}

TEST(ForeignCommitsTest, StateMadeElsewhere_IsForeign) {
  ForeignCommits commits;
  EXPECT_TRUE(commits.Notice(State(7), ListNone));
  EXPECT_EQ(State(7), commits.unlisted());
  EXPECT_TRUE(commits.Notice(State(6), ListNone));
  EXPECT_EQ(State(7), commits.unlisted());
}

TEST(ForeignCommitsTest, OwnCommits_AreAccountedFor) {
  ForeignCommits commits;
  commits.Notice(State(7), ListNone);
  for (std::uint64_t state = 8; state < 11; ++state) CommitOwn(commits, state);
  EXPECT_TRUE(commits.Notice(State(10), ListNone));
  EXPECT_EQ(State(7), commits.unlisted());
}

TEST(ForeignCommitsTest, CommitOfAnotherProcessBetweenOwnOnes_IsForeign) {
  ForeignCommits commits;
  commits.Notice(State(7), ListNone);
  CommitOwn(commits, 8);
  CommitOwn(commits, 10);
  EXPECT_EQ(State(9), commits.unlisted());
  EXPECT_TRUE(commits.Notice(State(10), ListNone));
  EXPECT_EQ(State(9), commits.unlisted());
  EXPECT_TRUE(commits.Notice(State(11), ListNone));
  EXPECT_EQ(State(11), commits.unlisted());
}

TEST(ForeignCommitsTest, StateOfACommitUnderWay_IsNobodysYet) {
  ForeignCommits commits;
  commits.Notice(State(7), ListNone);
  commits.BeginCommit(State(8), ListNone);
  EXPECT_FALSE(commits.Notice(State(8), ListNone));
  EXPECT_TRUE(commits.Notice(State(7), ListNone));
  EXPECT_EQ(State(7), commits.unlisted());
  commits.EndCommit(State(8), true);
  EXPECT_TRUE(commits.Notice(State(8), ListNone));
  EXPECT_EQ(State(7), commits.unlisted());
}

// The number of a commit that failed goes to whoever commits next.
TEST(ForeignCommitsTest, FailedCommit_LeavesItsNumberToOthers) {
  ForeignCommits commits;
  commits.Notice(State(7), ListNone);
  CommitOwn(commits, 8, false);
  EXPECT_TRUE(commits.Notice(State(8), ListNone));
  EXPECT_EQ(State(8), commits.unlisted());
}

class ListedCommitsTest : public testing::Test {
 protected:
  ListedCommitsTest() {
    commits_.SetListener([this](std::vector<ObjectId> const& changed, CommitId state) {
      reported_.insert(reported_.end(), changed.begin(), changed.end());
      reported_for_ = state;
    });
    commits_.Notice(State(7), ListNone);
  }

  // Object n is what state n changed.
  ForeignCommits::Changes Listed(std::uint64_t upto) {
    return [upto](CommitId after, std::vector<ObjectId>* changed) {
      for (std::uint64_t i = Raw(after) + 1; i <= upto; ++i) changed->push_back(ObjectId{i});
      return true;
    };
  }

  ForeignCommits commits_;
  std::vector<ObjectId> reported_;
  CommitId reported_for_{};
};

TEST_F(ListedCommitsTest, ListedChanges_AreReportedAndTheRestStays) {
  EXPECT_TRUE(commits_.Notice(State(9), Listed(9)));
  EXPECT_EQ((std::vector{ObjectId{8}, ObjectId{9}}), reported_);
  EXPECT_EQ(State(9), reported_for_);
  EXPECT_EQ(State(7), commits_.unlisted());
}

TEST_F(ListedCommitsTest, State_IsListedOnce) {
  commits_.Notice(State(8), Listed(8));
  commits_.Notice(State(8), Listed(8));
  EXPECT_EQ(std::vector{ObjectId{8}}, reported_);
}

TEST_F(ListedCommitsTest, OwnCommit_ListsWhatCameBeforeIt) {
  commits_.BeginCommit(State(9), Listed(8));
  commits_.EndCommit(State(9), true);
  EXPECT_EQ(std::vector{ObjectId{8}}, reported_);
  EXPECT_EQ(State(7), commits_.unlisted());
}

TEST_F(ListedCommitsTest, OwnCommitWhoseNumberWasNotKnown_EvictsWhatItReplaced) {
  std::vector<CommitId> evicted;
  auto const evict = [&](CommitId state) { evicted.push_back(state); };
  commits_.NoteOwnCommit(State(9), Listed(8), evict);
  EXPECT_EQ(std::vector{ObjectId{8}}, reported_);
  EXPECT_EQ(std::vector{State(9)}, evicted);
  EXPECT_TRUE(commits_.Notice(State(9), Listed(9)));
  EXPECT_EQ(std::vector{ObjectId{8}}, reported_);
  EXPECT_EQ(State(7), commits_.unlisted());
}

// A transaction may have begun at its state before its own process learned of it.
TEST_F(ListedCommitsTest, OwnCommitThatAReaderReported_IsReportedOnce) {
  EXPECT_TRUE(commits_.Notice(State(10), Listed(10)));
  std::size_t const reported = reported_.size();
  commits_.NoteOwnCommit(State(9), Listed(8), [](CommitId) {});
  EXPECT_EQ(reported, reported_.size());
  EXPECT_TRUE(commits_.Notice(State(11), Listed(11)));
  EXPECT_EQ(ObjectId{11}, reported_.back());
  EXPECT_EQ(State(7), commits_.unlisted());
}

TEST_F(ListedCommitsTest, FailedListing_CountsAsNone) {
  auto const fail = [](CommitId, std::vector<ObjectId>* changed) -> bool {
    changed->push_back(ObjectId{1});
    Throw(LSCOREDB_IO_ERROR);
  };
  EXPECT_TRUE(commits_.Notice(State(8), fail));
  EXPECT_TRUE(reported_.empty());
  EXPECT_EQ(State(8), commits_.unlisted());
}

}  // namespace
}  // namespace lscore
