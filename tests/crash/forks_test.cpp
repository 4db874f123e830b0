// A process at work that forks all the time, and children that end in any way, close what is not
// theirs, and open the directory for themselves.

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <random>
#include <thread>

#include "crash/directory.h"
#include "crash/rounds.h"
#include "crash/tellers.h"

namespace crash_test {
namespace {

using namespace sagleme;

constexpr std::uint64_t kSeed = 41;
constexpr unsigned kPatience = 60;  // seconds, for a child that might wait for ever

// The parent's bank with tellers in threads, and a snapshot that was there before any fork.
class Parent {
 public:
  Parent(std::string const& directory, Options const& options)
      : bank_(std::make_unique<Bank>(directory, kSeed, options)),
        context_(std::make_unique<Context>(bank_->database())),
        snapshot_(std::make_unique<Transaction>(*context_, Access::kReadOnly)),
        seen_(Bank::Done(*snapshot_)) {
    for (int teller = 0; teller < kTellers; ++teller) {
      threads_.emplace_back([this, teller] {
        Context const context(bank_->database());
        while (!over_) steps_ += bank_->Step(context, teller) > 0 ? 1 : 0;
      });
    }
  }

  void Stop() {
    over_ = true;
    for (std::thread& thread : threads_) thread.join();
    threads_.clear();
  }

  // The snapshot shows what it showed, whatever was committed since.
  void ExpectSnapshotStands() {
    EXPECT_EQ(seen_, Bank::Done(*snapshot_));
    std::int64_t sum = 0;
    for (Object const& account : Range::Subtree(*snapshot_, *snapshot_->table(u"Bank.Account"))) {
      sum += std::get<std::int64_t>(account.Get(u"Balance"));
    }
    EXPECT_EQ(kAccounts * kOpening, sum);
  }

  // In a child: as its owners' destructors do.
  void CloseAll() {
    snapshot_.reset();
    context_.reset();
    bank_.reset();
  }
  Bank& bank() { return *bank_; }
  std::uint64_t context() const { return context_->id(); }
  int steps() const { return steps_; }

 private:
  std::unique_ptr<Bank> bank_;
  std::unique_ptr<Context> context_;
  std::unique_ptr<Transaction> snapshot_;
  Progress const seen_;
  std::atomic<bool> over_{false};
  std::atomic<int> steps_{0};
  std::vector<std::thread> threads_;
};

class ForksTest : public testing::TestWithParam<bool> {
 protected:
  void WorkInChild(Channel& channel, int steps) {
    Bank bank(directory_.path(), kSeed, options_);
    Context const context(bank.database());
    for (int i = 0; i < steps; ++i) bank.Step(context, static_cast<int>(random_() % kTellers));
    channel.Say("done");
  }

  // What a child does with what it was born with, and how it ends.
  int Live(Channel& channel, Parent& parent, std::uint64_t choice) {
    alarm(kPatience);
    switch (choice % 7) {
      case 0:
        _exit(0);
      case 1:
        parent.CloseAll();
        exit(0);  // with the destructors of all that is static
      case 2:
        EXPECT_EQ(LSCOREDB_UNKNOWN_CONTEXT, lscoredb_commit(parent.context()));
        EXPECT_EQ(LSCOREDB_UNKNOWN_CONTEXT, lscoredb_context_close(parent.context()));
        parent.CloseAll();
        WorkInChild(channel, 2);
        return 0;
      case 3:
        WorkInChild(channel, 1);
        InChild([&] {
          parent.CloseAll();
          WorkInChild(channel, 1);
        });
        return 0;
      case 4:
        WorkInChild(channel, 1000000);  // until it is killed
        return 0;
      case 5: {
        std::uint64_t out = 0;
        lscoredb* const of_parent = parent.bank().database().handle();
        EXPECT_EQ(LSCOREDB_OF_PARENT, lscoredb_context_open(of_parent, &out));
        EXPECT_EQ(0U, lscoredb_close(of_parent));
        return 0;
      }
      default:
        execl("/bin/true", "true", nullptr);
        return 0;
    }
  }

  void ForkOnce(Parent& parent) {
    std::uint64_t const choice = random_();
    Child child([&](Channel& channel) { return Live(channel, parent, choice); });
    if (choice % 7 == 4) {
      for (int volatile spin = static_cast<int>(random_() % 3000000); spin > 0;) spin = spin - 1;
      child.Kill();
    } else {
      EXPECT_EQ(0, child.Wait()) << "choice " << choice % 7;
    }
  }

  Directory directory_;
  Options const options_ = UnsyncedOptions(GetParam());
  std::mt19937_64 random_{GetParam() ? 5U : 6U};
};

TEST_P(ForksTest, Children_LeaveTheParentsSnapshotAndItsWorkAlone) {
  InChild([&] { Bank const bank(directory_.path(), kSeed, options_); });
  InChild([&] {
    Parent parent(directory_.path(), options_);
    int const rounds = Rounds(40, 10);
    for (int round = 0; round < rounds && !HasFailure(); ++round) {
      SCOPED_TRACE("round " + std::to_string(round));
      ForkOnce(parent);
      parent.ExpectSnapshotStands();
    }
    parent.Stop();
    EXPECT_LT(0, parent.steps());
    parent.bank().ExpectWhole();
  });
  InChild([&] { Bank(directory_.path(), kSeed).ExpectWhole(); });
}

INSTANTIATE_TEST_SUITE_P(Log, ForksTest, testing::Bool(),
                         [](auto const& with) { return with.param ? "With" : "Without"; });

}  // namespace
}  // namespace crash_test
