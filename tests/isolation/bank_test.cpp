// A bank: money moves between accounts in several threads, some transfers are taken back to a
// savepoint and made otherwise, accounts are opened and closed, others add it all up, and the
// schema changes beside them. No snapshot shows more or less money than there is, and the history
// of all transactions is one that snapshot isolation allows.

#include <gtest/gtest.h>

#include <numeric>
#include <random>
#include <sagleme/index_build.hpp>

#include "recording.h"

namespace sagleme_isolation {
namespace {

using sagleme::ColumnSpec;
using sagleme::Object;
using sagleme::Property;
using sagleme::Type;

constexpr int kAccounts = 12;
constexpr std::int64_t kEach = 1000;
constexpr std::int64_t kTotal = kAccounts * kEach;

class BankTest : public ::testing::Test {
 protected:
  BankTest() : context_(database_) {
    sagleme::Transaction transaction(context_);
    std::array const columns{ColumnSpec{u"Balance", Type::kLong, false},
                             ColumnSpec{kVersion, Type::kULong, false},
                             ColumnSpec{u"Owner", Type::kString}};
    sagleme::CreateTable(transaction, u"Bank.Account", u"", columns);
    std::array const more{ColumnSpec{u"Interest", Type::kLong, false}};
    sagleme::CreateTable(transaction, u"Bank.Savings", u"Bank.Account", more);
    std::array const by_balance{sagleme::IndexColumnSpec{u"Balance"}};
    sagleme::CreateIndex(transaction, u"ByBalance", u"Bank.Account", by_balance);
    for (int i = 0; i < kAccounts; ++i) {
      auto const table = transaction.table(i % 2 == 0 ? u"Bank.Account" : u"Bank.Savings");
      Object const account = Object::Create(transaction, *table);
      Property<std::int64_t>(*table, u"Balance").Set(account, kEach);
      accounts_.push_back(account.id());
    }
    transaction.Commit();
  }

  // Reads and writes go by the layout that the account's table has in this transaction's snapshot,
  // so that accounts move to new layouts while money moves.
  static Property<std::int64_t> Balance(Object const& account) {
    return {*account.table(), u"Balance"};
  }

  static std::int64_t BalanceOf(Recorded& work, Object const& account) {
    work.Saw(account);
    return *Balance(account).Get(account);
  }

  static void Put(Recorded& work, Object const& account, std::int64_t balance) {
    Balance(account).Set(account, balance);
    work.Wrote(account);
  }

  Object Account(Recorded& work, std::size_t number) const {
    return *Object::Find(work.transaction(), accounts_[number]);
  }

  void Transfer(Recorded& work, std::mt19937_64& random) const {
    std::size_t const from = random() % kAccounts;
    std::size_t const to = (from + 1 + random() % (kAccounts - 1)) % kAccounts;
    auto const amount = static_cast<std::int64_t>(random() % 50);
    Object const payer = Account(work, from);
    Object const payee = Account(work, to);
    std::int64_t const had = BalanceOf(work, payer);
    std::int64_t const has = BalanceOf(work, payee);
    if (random() % 3 == 0) ThinkAgain(work, random);
    Put(work, payer, had - amount);
    Put(work, payee, has + amount);
  }

  // A transfer to a new account that is taken back: others may change what it wrote meanwhile.
  void ThinkAgain(Recorded& work, std::mt19937_64& random) const {
    Object const payer = Account(work, random() % kAccounts);
    std::int64_t const had = BalanceOf(work, payer);
    work.TakeBack([&] {
      Put(work, payer, had - 1);
      Put(work, Object::Create(work.transaction(), *payer.table()), 1);
    });
    EXPECT_EQ(had, *Balance(payer).Get(payer));
  }

  // Opens an account with money of another one, and closes it again in the next transaction.
  void OpenAndClose(sagleme::Context& context, std::mt19937_64& random) {
    std::size_t const number = random() % kAccounts;
    sagleme::ObjectId opened;
    Retry(recorder_, context, [&](Recorded& work) {
      Object const payer = Account(work, number);
      std::int64_t const had = BalanceOf(work, payer);
      Object const made = Object::Create(work.transaction(), *payer.table());
      Put(work, payer, had - 10);
      Put(work, made, 10);
      opened = made.id();
    });
    Retry(recorder_, context, [&](Recorded& work) {
      Object const payee = Account(work, number);
      Object closed = *Object::Find(work.transaction(), opened);
      std::int64_t const has = BalanceOf(work, payee);
      std::int64_t const rest = BalanceOf(work, closed);
      Put(work, payee, has + rest);
      work.Deletes(closed);
      closed.Delete();
    });
  }

  // The accounts of a range with their balances; in an index over them, in its order.
  static std::vector<std::pair<std::int64_t, Oid>> Balances(Recorded& work, sagleme::Range range) {
    std::vector<std::pair<std::int64_t, Oid>> found;
    for (Object& account : range) {
      found.emplace_back(BalanceOf(work, account), account.id().value);
    }
    return found;
  }

  void Audit(sagleme::Context& context) {
    Recorded work(recorder_, context, sagleme::Access::kReadOnly);
    auto const table = work.transaction().table(u"Bank.Account");
    auto const index = work.transaction().FindIndex(u"ByBalance");
    auto by_scan = Balances(work, sagleme::Range::Subtree(work.transaction(), *table));
    auto const by_index = Balances(work, sagleme::Range::Matching(work.transaction(), *index, {}));
    std::sort(by_scan.begin(), by_scan.end());
    EXPECT_EQ(by_scan, by_index);
    EXPECT_EQ(kTotal, std::accumulate(by_scan.begin(), by_scan.end(), std::int64_t{0},
                                      [](std::int64_t sum, auto const& account) {
                                        return sum + account.first;
                                      }));
    EXPECT_TRUE(work.Commit());
  }

  // Builds an index beside the transfers and audits it, some times.
  void BuildAndAudit(sagleme::Context& context, int rounds) {
    sagleme::IndexSpec const by_balance{u"Built", u"Bank.Account", {{u"Balance", false}}};
    sagleme::IndexBuildOptions options;
    options.batch = 2;
    for (int round = 0; round < rounds; ++round) {
      EXPECT_TRUE(BuildIndex(context, by_balance, options));
      {
        Recorded work(recorder_, context, sagleme::Access::kReadOnly);
        auto const table = work.transaction().table(u"Bank.Account");
        auto const index = work.transaction().FindIndex(u"Built");
        auto by_scan = Balances(work, sagleme::Range::Subtree(work.transaction(), *table));
        auto by_index = Balances(work, sagleme::Range::Matching(work.transaction(), *index, {}));
        EXPECT_TRUE(std::is_sorted(by_index.rbegin(), by_index.rend(),
                                   [](auto const& a, auto const& b) { return a.first < b.first; }));
        std::sort(by_scan.begin(), by_scan.end());
        std::sort(by_index.begin(), by_index.end());
        EXPECT_EQ(by_scan, by_index);
        EXPECT_TRUE(work.Commit());
      }
      Retry(context,
            [&](sagleme::Transaction& transaction) { sagleme::DropIndex(transaction, u"Built"); });
    }
  }

  // One of the changes that touch the tables of the accounts; all leave Balance and Version alone.
  static void ChangeSchema(sagleme::Transaction& transaction, int step) {
    std::u16string const name = sagleme::ToUtf16("Extra" + std::to_string(step / 5));
    std::array const column{ColumnSpec{name, Type::kLong, false}};
    std::array const indexed{sagleme::IndexColumnSpec{name}};
    switch (step % 5) {
      case 0:
        return sagleme::AddColumns(transaction, u"Bank.Account", column);
      case 1:
        return sagleme::CreateIndex(transaction, u"ByExtra", u"Bank.Account", indexed);
      case 2:
        sagleme::CreateTable(transaction, u"Bank." + name, u"Bank.Savings", {});
        return;
      case 3:
        return sagleme::DropIndex(transaction, u"ByExtra");
      default:
        return sagleme::DropColumn(transaction, u"Bank.Account", name);
    }
  }

  void ExpectIsolated() const {
    std::vector<std::string> const found = Violations(recorder_.history());
    for (std::string const& each : found) ADD_FAILURE() << each;
  }

  SharedDatabase database_;
  sagleme::Context context_;
  std::vector<sagleme::ObjectId> accounts_;
  Recorder recorder_;
};

TEST_F(BankTest, TransfersBesideIndexBuilds_AreIsolatedAndInTheIndex) {
  constexpr int kMovers = 4;
  constexpr int kTransfers = 300;
  std::atomic<bool> built = false;
  Together(database_, kMovers + 2, [&](int thread, sagleme::Context& context) {
    std::mt19937_64 random(static_cast<std::uint64_t>(thread));
    if (thread == kMovers) {
      BuildAndAudit(context, 12);
      built = true;
    } else if (thread == kMovers + 1) {
      for (int i = 0; i < 60; ++i) OpenAndClose(context, random);
    } else {
      for (int i = 0; i < kTransfers || !built; ++i) {
        Retry(recorder_, context, [&](Recorded& work) { Transfer(work, random); });
      }
    }
  });
  BuildAndAudit(context_, 1);
  Audit(context_);
  ExpectIsolated();
}

TEST_F(BankTest, TransfersBesideAuditsAndSchemaChanges_AreIsolated) {
  constexpr int kMovers = 4;
  constexpr int kTransfers = 300;
  std::atomic<int> moving = kMovers;
  Together(database_, 8, [&](int thread, sagleme::Context& context) {
    std::mt19937_64 random(static_cast<std::uint64_t>(thread));
    if (thread < kMovers) {
      for (int i = 0; i < kTransfers; ++i) {
        Retry(recorder_, context, [&](Recorded& work) { Transfer(work, random); });
      }
      --moving;
    } else if (thread == kMovers) {
      for (int i = 0; i < 60; ++i) OpenAndClose(context, random);
    } else if (thread == kMovers + 1) {
      for (int step = 0; step < 25; ++step) {
        Retry(context, [&](sagleme::Transaction& transaction) { ChangeSchema(transaction, step); });
      }
    } else {
      do {
        Audit(context);
      } while (moving > 0);
    }
  });
  Audit(context_);
  ExpectIsolated();
  EXPECT_GE(recorder_.Count(Outcome::kCommitted), std::size_t{kMovers * kTransfers + 120});
}

// All threads want the same two objects.
TEST_F(BankTest, IncrementsUnderContention_AreAllThere) {
  constexpr int kThreads = 8;
  constexpr int kIncrements = 100;
  Together(database_, kThreads, [&](int thread, sagleme::Context& context) {
    for (int i = 0; i < kIncrements; ++i) {
      Retry(recorder_, context, [&](Recorded& work) {
        Object const account = Account(work, static_cast<std::size_t>((i + thread) % 2));
        Put(work, account, BalanceOf(work, account) + 1);
      });
    }
  });
  Recorded work(recorder_, context_);
  std::int64_t const sum = BalanceOf(work, Account(work, 0)) + BalanceOf(work, Account(work, 1));
  EXPECT_EQ(2 * kEach + kThreads * kIncrements, sum);
  ExpectIsolated();
}

// All have begun before the first one commits: one of them wins, in any order, and each of the
// others gets the conflict and succeeds when it tries again.
TEST_F(BankTest, ConcurrentWriters_OneWinsAndTheOthersSucceedLater) {
  constexpr int kThreads = 8;
  std::barrier meet(kThreads);
  std::atomic<int> won = 0;
  Together(database_, kThreads, [&](int, sagleme::Context& context) {
    auto const increment = [this](Recorded& work) {
      Object const account = Account(work, 0);
      Put(work, account, BalanceOf(work, account) + 1);
    };
    bool committed = false;
    {
      Recorded work(recorder_, context);
      increment(work);
      meet.arrive_and_wait();
      committed = work.Commit();
    }
    if (committed) ++won;
    meet.arrive_and_wait();
    if (!committed) Retry(recorder_, context, increment);
  });
  EXPECT_EQ(1, won);
  Recorded work(recorder_, context_);
  EXPECT_EQ(kEach + kThreads, BalanceOf(work, Account(work, 0)));
  ExpectIsolated();
}

}  // namespace
}  // namespace sagleme_isolation
