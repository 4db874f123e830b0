#include "hidden_runs.h"

#include <gtest/gtest.h>

#include <functional>

namespace lscore {
namespace {

using Runs = HiddenRuns<int, int, std::less<int>>;

void ExpectRun(Runs const& runs, int key, int state, int first, int last) {
  Runs::Run const* const run = runs.Find(key, state);
  ASSERT_NE(nullptr, run) << key;
  EXPECT_EQ(first, run->first);
  EXPECT_EQ(last, run->last);
}

TEST(HiddenRunsTest, Run_IsFoundByEachOfItsKeys) {
  Runs runs;
  EXPECT_EQ(nullptr, runs.Find(5, 100));
  runs.Note(3, 7, 10);
  for (int const key : {3, 5, 7}) ExpectRun(runs, key, 10, 3, 7);
  EXPECT_EQ(nullptr, runs.Find(2, 10));
  EXPECT_EQ(nullptr, runs.Find(8, 10));
}

TEST(HiddenRunsTest, ScanThatSeesLess_DoesNotUseIt) {
  Runs runs;
  runs.Note(3, 7, 10);
  EXPECT_EQ(nullptr, runs.Find(5, 9));
  ExpectRun(runs, 5, 11, 3, 7);
}

TEST(HiddenRunsTest, OverlappingRuns_BecomeOne) {
  Runs runs;
  runs.Note(3, 7, 10);
  runs.Note(20, 30, 12);
  runs.Note(40, 50, 1);
  runs.Note(7, 25, 11);
  ExpectRun(runs, 3, 12, 3, 30);
  EXPECT_EQ(nullptr, runs.Find(3, 11));
  ExpectRun(runs, 45, 1, 40, 50);
  runs.Note(1, 60, 13);
  ExpectRun(runs, 45, 13, 1, 60);
}

TEST(HiddenRunsTest, WrittenKey_EndsTheRunAroundIt) {
  Runs runs;
  runs.Note(3, 7, 10);
  runs.Note(20, 30, 10);
  runs.Break(8);
  runs.Break(7);
  EXPECT_EQ(nullptr, runs.Find(4, 10));
  ExpectRun(runs, 20, 10, 20, 30);
  runs.Clear();
  EXPECT_TRUE(runs.empty());
}

// Forgetting is always right.
TEST(HiddenRunsTest, ManyRuns_AreBounded) {
  Runs runs;
  for (int i = 0; i < 100000; ++i) runs.Note(10 * i, 10 * i + 5, 1);
  ExpectRun(runs, 999990, 1, 999990, 999995);
  int known = 0;
  for (int i = 0; i < 100000; ++i) known += runs.Find(10 * i, 1) != nullptr ? 1 : 0;
  EXPECT_LE(known, 1024);
}

}  // namespace
}  // namespace lscore
