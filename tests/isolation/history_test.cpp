// The checker of histories, with histories that are right and with one for each way to be wrong.

#include "history.h"

#include <gtest/gtest.h>

namespace sagleme_isolation {
namespace {

constexpr Oid kA = 101;
constexpr Oid kB = 102;

// A transaction whose begin and end were called at these moments. Calls take one tick, unless the
// begin is said to have returned later.
struct Life {
  Number number;
  Tick begin;
  Tick end;
  Outcome outcome = Outcome::kCommitted;
  Tick begin_returned = begin + 1;
};

Record Made(Life const& life, std::vector<Read> reads, std::vector<Write> writes = {}) {
  return {life.number,  life.begin,   life.begin_returned, life.end,
          life.end + 1, life.outcome, std::move(reads),    std::move(writes)};
}

std::vector<std::string> One(std::string text) { return {std::move(text)}; }

TEST(HistoryTest, SerialTransactions_AreAllowed) {
  EXPECT_TRUE(
      Violations({Made({1, 10, 20}, {{kA, 0}}, {{kA, 0}}), Made({2, 30, 40}, {{kA, 1}}, {{kA, 1}}),
                  Made({3, 50, 60}, {{kA, 2}, {kA, 2}})})
          .empty());
}

TEST(HistoryTest, OldSnapshot_IsAllowed) {
  EXPECT_TRUE(
      Violations({Made({1, 10, 20}, {{kA, 0}}, {{kA, 0}}), Made({2, 5, 50}, {{kA, 0}, {kB, 0}})})
          .empty());
}

// Each reads what the other writes: snapshot isolation lets both through.
TEST(HistoryTest, WriteSkew_IsAllowed) {
  EXPECT_TRUE(Violations({Made({1, 10, 30}, {{kA, 0}, {kB, 0}}, {{kA, 0}}),
                          Made({2, 12, 32}, {{kA, 0}, {kB, 0}}, {{kB, 0}})})
                  .empty());
}

TEST(HistoryTest, ConflictWithCause_IsAllowed) {
  EXPECT_TRUE(Violations({Made({1, 10, 20}, {{kA, 0}}, {{kA, 0}}),
                          Made({2, 12, 22, Outcome::kConflict}, {{kA, 0}}, {{kA, 0}})})
                  .empty());
}

// The commit may have come before the begin or behind it: the calls overlap.
TEST(HistoryTest, OverlappingBeginAndCommit_MayGoEitherWay) {
  for (Number const seen : {Number{0}, Number{1}}) {
    EXPECT_TRUE(
        Violations({Made({1, 10, 20}, {{kA, 0}}, {{kA, 0}}), Made({2, 20, 30}, {{kA, seen}})})
            .empty());
  }
}

TEST(HistoryTest, UncommittedRead_IsFound) {
  EXPECT_EQ(One("transaction 2 read version 1 of object 101, which was not committed"),
            Violations({Made({1, 10, 20, Outcome::kAbandoned}, {{kA, 0}}, {{kA, 0}}),
                        Made({2, 30, 40}, {{kA, 1}})}));
}

TEST(HistoryTest, TwoVersionsOfOneObject_AreFound) {
  EXPECT_EQ(
      One("transaction 2 read version 0 of object 101 and version 1 of object 101"),
      Violations({Made({1, 10, 20}, {{kA, 0}}, {{kA, 0}}), Made({2, 19, 40}, {{kA, 0}, {kA, 1}})}));
}

TEST(HistoryTest, LostUpdate_IsFound) {
  EXPECT_EQ(One("version 0 of object 101 was replaced by transaction 1 and by transaction 2"),
            Violations({Made({1, 10, 30}, {{kA, 0}}, {{kA, 0}}),
                        Made({2, 12, 32}, {{kA, 0}}, {{kA, 0}})}));
}

TEST(HistoryTest, YoungerThanTheSnapshot_IsFound) {
  EXPECT_EQ(One("transaction 2 read version 1 of object 101, committed after it had begun"),
            Violations({Made({1, 10, 20}, {{kA, 0}}, {{kA, 0}}), Made({2, 12, 40}, {{kA, 1}})}));
}

TEST(HistoryTest, OlderThanTheSnapshot_IsFound) {
  EXPECT_EQ(
      One("transaction 2 read version 0 of object 101, which transaction 1 had replaced before"),
      Violations({Made({1, 10, 20}, {{kA, 0}}, {{kA, 0}}), Made({2, 30, 40}, {{kA, 0}})}));
}

TEST(HistoryTest, ConflictWithoutCause_IsFound) {
  EXPECT_EQ(One("transaction 2 was refused, and nobody had replaced version 0 of object 102"),
            Violations({Made({1, 10, 20}, {{kA, 0}}, {{kA, 0}}),
                        Made({2, 12, 22, Outcome::kConflict}, {{kB, 0}}, {{kB, 0}})}));
}

TEST(HistoryTest, ConflictWithAFinishedTransaction_IsFound) {
  EXPECT_EQ(One("transaction 2 was refused, and nobody had replaced version 1 of object 101"),
            Violations({Made({1, 10, 20}, {{kA, 0}}, {{kA, 0}}),
                        Made({2, 30, 40, Outcome::kConflict}, {{kA, 1}}, {{kA, 1}})}));
}

void ExpectNoOrder(History const& history) {
  std::vector<std::string> const found = Violations(history);
  ASSERT_EQ(1U, found.size());
  EXPECT_TRUE(found[0].starts_with("no order explains transaction ")) << found[0];
}

// One write of a transaction was seen, the other was not.
TEST(HistoryTest, HalfATransaction_IsFound) {
  ExpectNoOrder({Made({1, 10, 20}, {{kA, 0}, {kB, 0}}, {{kA, 0}, {kB, 0}}),
                 Made({2, 19, 40}, {{kA, 1}, {kB, 0}})});
}

// Two readers saw two independent writes in opposite order.
TEST(HistoryTest, LongFork_IsFound) {
  ExpectNoOrder({Made({1, 10, 30}, {{kA, 0}}, {{kA, 0}}), Made({2, 12, 31}, {{kB, 0}}, {{kB, 0}}),
                 Made({3, 29, 50}, {{kA, 1}, {kB, 0}}), Made({4, 30, 52}, {{kA, 0}, {kB, 2}})});
}

// The effect was seen, and what caused it was not.
TEST(HistoryTest, EffectWithoutCause_IsFound) {
  ExpectNoOrder({Made({1, 10, 20}, {{kA, 0}}, {{kA, 0}}),
                 Made({2, 19, 21}, {{kA, 1}, {kB, 0}}, {{kB, 0}}),
                 Made({3, 18, 40, Outcome::kCommitted, 22}, {{kA, 0}, {kB, 2}})});
}

// The second began when the first was over, so nobody sees the second one alone.
TEST(HistoryTest, OrderOfRealTime_IsPartOfIt) {
  ExpectNoOrder({Made({1, 10, 20}, {{kA, 0}}, {{kA, 0}}), Made({2, 22, 30}, {{kB, 0}}, {{kB, 0}}),
                 Made({3, 19, 50, Outcome::kCommitted, 31}, {{kA, 0}, {kB, 2}})});
}

// What a transaction saw counts, whatever became of it.
TEST(HistoryTest, ReadsOfRefusedTransactions_AreChecked) {
  ExpectNoOrder({Made({1, 10, 20}, {{kA, 0}, {kB, 0}}, {{kA, 0}, {kB, 0}}),
                 Made({2, 19, 40, Outcome::kAbandoned}, {{kA, 1}, {kB, 0}})});
}

}  // namespace
}  // namespace sagleme_isolation
