// Who leads a batch, who is in it, and who waits for whom.

#include "commit_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

namespace {

using lscore::CommitQueue;
using lscore::CommitTicket;
using lscore::GroupCommitPolicy;
using namespace std::chrono_literals;

constexpr GroupCommitPolicy::Duration kForEver = 1h;
constexpr GroupCommitPolicy::Duration kLongBatch = 10h;

class CommitQueueTest : public testing::Test {
 protected:
  ~CommitQueueTest() override {
    for (std::thread& thread : threads_) thread.join();
  }

  // A thread that lines up, and finishes the batch if it comes to lead.
  void EnterInThread(CommitQueue& line) {
    threads_.emplace_back([&] {
      CommitTicket ticket;
      CommitQueue::Tickets batch;
      if (!line.Enter(ticket, &batch)) {
        EXPECT_TRUE(ticket.done);
        return;
      }
      led_ = batch.size();
      line.Finish(batch, kLongBatch);
    });
  }
  static void AwaitLined(CommitQueue const& line, std::size_t count) {
    while (line.waiting() < count) std::this_thread::yield();
  }
  void JoinAll() {
    for (std::thread& thread : threads_) thread.join();
    threads_.clear();
  }

  // This thread leads while `count` others line up behind.
  void LeadWithBehind(CommitQueue& line, std::size_t count) {
    CommitTicket ticket;
    CommitQueue::Tickets batch;
    ASSERT_TRUE(line.Enter(ticket, &batch));
    for (std::size_t i = 0; i < count; ++i) EnterInThread(line);
    AwaitLined(line, count);
    line.Finish(batch, kLongBatch);
  }

  std::vector<std::thread> threads_;
  std::atomic<std::size_t> led_{0};  // the size of the last batch that another thread led
};

TEST_F(CommitQueueTest, SingleCommitter_LeadsAtOnce) {
  CommitQueue line(kForEver);
  for (int i = 0; i < 3; ++i) {
    CommitTicket ticket;
    CommitQueue::Tickets batch;
    ASSERT_TRUE(line.Enter(ticket, &batch));
    EXPECT_EQ(batch, CommitQueue::Tickets{&ticket});
    line.Finish(batch, kLongBatch);
    EXPECT_TRUE(ticket.done);
  }
}

TEST_F(CommitQueueTest, CommitterDuringABatch_JoinsTheNext) {
  CommitQueue line(0ns);
  LeadWithBehind(line, 5);
  JoinAll();
  EXPECT_EQ(5U, led_);
}

TEST_F(CommitQueueTest, BusyCommitter_IsAwaitedAndLeadsWhenAllAreThere) {
  CommitQueue line(kForEver);
  LeadWithBehind(line, 4);
  CommitTicket ticket;
  CommitQueue::Tickets batch;
  ASSERT_TRUE(line.Enter(ticket, &batch));
  EXPECT_EQ(5U, batch.size());
  EXPECT_EQ(1, std::count(batch.begin(), batch.end(), &ticket));
  line.Finish(batch, kLongBatch);
  JoinAll();
  EXPECT_EQ(0U, led_) << "nobody else led";
}

TEST_F(CommitQueueTest, AbsentCommitter_HoldsNobodyUpForEver) {
  CommitQueue line(1ms);
  LeadWithBehind(line, 4);
  JoinAll();
  EXPECT_EQ(4U, led_);
}

TEST_F(CommitQueueTest, WorkBetweenBatches_WaitsForTheLeader) {
  CommitQueue line(kForEver);
  CommitTicket ticket;
  CommitQueue::Tickets batch;
  ASSERT_TRUE(line.Enter(ticket, &batch));
  std::atomic<bool> started{false};
  std::atomic<bool> over{false};
  bool seen = false;
  threads_.emplace_back([&] {
    started = true;
    started.notify_all();
    line.BetweenBatches([&] { seen = over; });
  });
  started.wait(false);
  over = true;
  line.Finish(batch, kLongBatch);
  JoinAll();
  EXPECT_TRUE(seen);
}

TEST_F(CommitQueueTest, WorkBetweenBatches_GoesOnWhileOneWaitsForOthers) {
  CommitQueue line(kForEver);
  LeadWithBehind(line, 1);
  bool done = false;
  line.BetweenBatches([&] { done = true; });
  EXPECT_TRUE(done);
  LeadWithBehind(line, 0);
  JoinAll();
}

TEST_F(CommitQueueTest, ManyThreads_EachIsLedOnceAndOneLeadsAtATime) {
  constexpr int kThreads = 8;
  constexpr int kCommits = 500;
  CommitQueue line;
  std::atomic<int> leaders{0};
  std::atomic<std::size_t> committed{0};
  for (int i = 0; i < kThreads; ++i) {
    threads_.emplace_back([&] {
      for (int n = 0; n < kCommits; ++n) {
        CommitTicket ticket;
        CommitQueue::Tickets batch;
        if (line.Enter(ticket, &batch)) {
          EXPECT_EQ(1, ++leaders);
          committed += batch.size();
          --leaders;
          line.Finish(batch, 300us);
        }
        EXPECT_TRUE(ticket.done);
      }
    });
  }
  JoinAll();
  EXPECT_EQ(std::size_t{kThreads} * kCommits, committed);
  EXPECT_EQ(0U, line.waiting());
}

}  // namespace
