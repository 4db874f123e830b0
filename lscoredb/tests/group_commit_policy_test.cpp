// When a committer waits for others, and how long.

#include "group_commit_policy.h"

#include <gtest/gtest.h>

namespace {

using lscore::GroupCommitPolicy;
using namespace std::chrono_literals;

constexpr GroupCommitPolicy::Duration kTook = 600us;

GroupCommitPolicy::Batch Ended(std::size_t size, std::size_t behind) {
  return {size, behind, false, kTook};
}
GroupCommitPolicy::Batch Waited(std::size_t size, std::size_t behind) {
  return {size, behind, true, kTook};
}

class GroupCommitPolicyTest : public testing::Test {
 protected:
  // How many batches of two go without waiting from now on, before one waits again.
  int Pauses() {
    int pauses = 0;
    for (; company_.wanted() == 1; ++pauses) company_.Ended(Ended(2, 0));
    return pauses;
  }

  GroupCommitPolicy company_{GroupCommitPolicy::kLongest};
};

TEST_F(GroupCommitPolicyTest, FirstBatch_WaitsForNobody) {
  EXPECT_EQ(1U, company_.wanted());
  EXPECT_EQ(0us, company_.patience());
}

TEST_F(GroupCommitPolicyTest, SingleCommitter_WaitsForNobody) {
  company_.Ended(Ended(1, 0));
  EXPECT_EQ(1U, company_.wanted());
}

TEST_F(GroupCommitPolicyTest, MembersOfTheBatchAndThoseBehindIt_AreExpected) {
  company_.Ended(Ended(7, 0));
  EXPECT_EQ(7U, company_.wanted());
  company_.Ended(Ended(1, 7));
  EXPECT_EQ(8U, company_.wanted());
}

TEST_F(GroupCommitPolicyTest, AbsentCommitter_IsNotExpectedAgain) {
  company_.Ended(Ended(8, 0));
  company_.Ended(Ended(5, 0));
  EXPECT_EQ(5U, company_.wanted());
}

TEST_F(GroupCommitPolicyTest, Waits_ArePartOfABatchsDuration) {
  company_.Ended({2, 0, false, 600us});
  EXPECT_EQ(600us / GroupCommitPolicy::kPart, company_.patience());
}

TEST_F(GroupCommitPolicyTest, Wait_IsNeverLongerThanTheLimit) {
  company_.Ended({2, 0, false, 1h});
  EXPECT_EQ(GroupCommitPolicy::kLongest, company_.patience());
}

TEST_F(GroupCommitPolicyTest, QuickBatches_WaitForNobody) {
  company_.Ended({8, 3, false, GroupCommitPolicy::kShortest});
  EXPECT_EQ(1U, company_.wanted());
}

TEST_F(GroupCommitPolicyTest, WaitsTooShort_AreSkippedForTwiceAsManyBatches) {
  company_.Ended(Ended(2, 0));
  for (int const pauses : {1, 2, 4, 8, 16, 32, 64, 64}) {
    company_.Ended(Waited(1, 1));
    EXPECT_EQ(pauses, Pauses());
  }
}

TEST_F(GroupCommitPolicyTest, SomeOfThoseExpected_AreTooFew) {
  company_.Ended(Ended(8, 0));
  company_.Ended(Waited(7, 1));
  EXPECT_EQ(1U, company_.wanted());
}

TEST_F(GroupCommitPolicyTest, WaitTooShortAfterAFullOne_CostsLittleAgain) {
  company_.Ended(Ended(2, 0));
  for (int i = 0; i < 5; ++i) {
    company_.Ended(Waited(1, 1));
    Pauses();
  }
  company_.Ended(Waited(2, 0));
  EXPECT_EQ(2U, company_.wanted());
  company_.Ended(Waited(1, 1));
  EXPECT_EQ(1, Pauses());
}

}  // namespace
