// Several connections at once, of one thread, of several, and of several processes.

#include <atomic>
#include <deque>
#include <thread>

#include "crash/child.h"
#include "sql_crash/accounts.h"

namespace sql_crash {
namespace {

constexpr unsigned kWorkers = 4;
constexpr unsigned kTransfers = 60;

void TransferMany(Accounts const& accounts, unsigned worker) {
  Sql sql;
  accounts.AttachTo(sql);
  for (unsigned i = 0; i < kTransfers; ++i) Transfer(sql, worker * 1009 + i * 37);
}

// Each transaction reads one state, whatever others commit between its statements.
void ReadMany(Accounts const& accounts, std::function<bool()> const& more) {
  Sql sql;
  accounts.AttachTo(sql);
  while (more()) {
    std::string const sums =
        sql("BEGIN; SELECT sum(Balance) FROM Account; "
            "SELECT sum(Balance) FROM Account WHERE Balance > -1000000 ORDER BY Balance; COMMIT");
    ASSERT_EQ(sums, std::to_string(kSum) + "\n" + std::to_string(kSum));
  }
}

// Changes the table under everybody's statements; a refused change is made again.
void DefineMany(Accounts const& accounts) {
  Sql sql;
  accounts.AttachTo(sql);
  for (int i = 0; i < 6; ++i) {
    std::string const column = "Extra" + std::to_string(i);
    for (std::string const& change :
         {"ALTER TABLE Account ADD COLUMN " + column + " text",
          "CREATE INDEX By" + column + " ON Account (" + column + ")"}) {
      for (;;) {
        sql("SELECT sagleme_exec('" + change + "', 'bank')");
        if (sql.code() == SQLITE_OK) break;
        ASSERT_EQ(sql.code() & 0xFF, SQLITE_BUSY) << change;
      }
    }
  }
}

TEST(SqlConnectionsTest, TwoOfOneThread_SeeTheirOwnStates) {
  Accounts const accounts;
  crash_test::InChild([&] {
    Sql one;
    Sql other;
    accounts.AttachTo(one);
    accounts.AttachTo(other);
    std::string const sum = "SELECT sum(Balance) FROM Account";
    EXPECT_EQ(one("BEGIN; " + sum), "800");
    EXPECT_EQ(other("UPDATE Account SET Balance = 0 WHERE Name = '1'; " + sum), "700");
    EXPECT_EQ(one(sum), "800");
    EXPECT_EQ(one("COMMIT; " + sum), "700");
    // Each waits for nobody; who commits second is refused and reads the first one's state then.
    EXPECT_EQ(one("BEGIN; UPDATE Account SET Balance = 1 WHERE Name = '1'"), "");
    EXPECT_EQ(other("BEGIN; UPDATE Account SET Balance = 2 WHERE Name = '1'"), "");
    EXPECT_EQ(other("COMMIT"), "");
    EXPECT_TRUE(one("COMMIT").starts_with("error"));
    EXPECT_EQ(one.code(), SQLITE_BUSY_SNAPSHOT);
    EXPECT_EQ(one("SELECT Balance FROM Account WHERE Name = '1'"), "2");
  });
}

TEST(SqlConnectionsTest, ThreadsThatTransferReadAndDefine_KeepTheSum) {
  Accounts const accounts;
  crash_test::InChild([&] {
    std::atomic<unsigned> working{kWorkers + 1};
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < kWorkers; ++i) {
      threads.emplace_back([&, i] {
        TransferMany(accounts, i);
        --working;
      });
    }
    threads.emplace_back([&] {
      DefineMany(accounts);
      --working;
    });
    threads.emplace_back([&] { ReadMany(accounts, [&] { return working > 0; }); });
    for (std::thread& thread : threads) thread.join();
  });
  accounts.ExpectWhole();
}

TEST(SqlConnectionsTest, ProcessesThatTransferReadAndDefine_KeepTheSum) {
  Accounts const accounts;
  {
    std::deque<crash_test::Child> workers;
    for (unsigned i = 0; i < kWorkers; ++i) {
      workers.emplace_back([&, i](crash_test::Channel&) {
        TransferMany(accounts, i);
        return 0;
      });
    }
    workers.emplace_back([&](crash_test::Channel&) {
      DefineMany(accounts);
      return 0;
    });
    workers.emplace_back([&](crash_test::Channel&) {
      int left = 150;
      ReadMany(accounts, [&] { return left-- > 0; });
      return 0;
    });
    for (crash_test::Child& worker : workers) EXPECT_EQ(worker.Wait(), 0);
  }
  accounts.ExpectWhole();
}

}  // namespace
}  // namespace sql_crash
