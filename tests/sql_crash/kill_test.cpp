// What is left of a COMMIT of SQLite's that ends at each of its points.

#include "crash/child.h"
#include "crash/store_faults.h"
#include "sql_crash/accounts.h"

namespace sql_crash {
namespace {

using store_faults::Point;

std::string Numbered(std::string text, int n) {
  for (auto at = text.find('#'); at != std::string::npos; at = text.find('#')) {
    text.replace(at, 1, std::to_string(n));
  }
  return text;
}

// Transactions over the database and an ordinary table until the end, which comes at a point of one
// of them. Tells each that has returned.
int WorkUntilTheEnd(crash_test::Channel& channel, Accounts const& accounts, Point point, int nth) {
  Sql sql(accounts.plain());
  accounts.AttachTo(sql);
  for (int n = 1; n < 50; ++n) {
    if (n == 3) store_faults::Arm(point, nth, store_faults::Kill);
    std::string const failed =
        sql(Numbered("BEGIN; INSERT INTO main.log VALUES(#); INSERT INTO Savings(Name, Balance) "
                     "VALUES('n#', 7); UPDATE Account SET Balance = Balance - 7 WHERE Name = '0'; "
                     "COMMIT",
                     n));
    EXPECT_EQ(failed, "");
    channel.Say(std::to_string(n));
  }
  return 0;  // the point was not passed
}

// The database is committed before the ordinary table, so it may be one transaction ahead.
void ExpectWholeTransactions(Accounts const& accounts, int acknowledged) {
  crash_test::InChild([&] {
    Sql sql(accounts.plain());
    accounts.AttachTo(sql);
    int const ours = std::stoi(sql("SELECT count(*) FROM Account WHERE Name LIKE 'n%'"));
    int const plain = std::stoi(sql("SELECT count(*) FROM main.log"));
    EXPECT_GE(ours, acknowledged);
    EXPECT_LE(ours, acknowledged + 1);
    EXPECT_GE(plain, acknowledged);
    EXPECT_LE(plain, ours);
    EXPECT_EQ(sql("SELECT Balance FROM Account WHERE Name = '0'"), std::to_string(100 - 7 * ours));
    EXPECT_EQ(sql("SELECT count(*), max(n) FROM main.log"),
              std::to_string(plain) + "|" + std::to_string(plain));
  });
}

TEST(SqlKilledTest, EndAtAnyPointOfCommit_LeavesWholeTransactions) {
  for (Point const point : store_faults::kAllPoints) {
    for (int const nth : {1, 2}) {
      SCOPED_TRACE("point " + std::to_string(static_cast<int>(point)) + ", passage " +
                   std::to_string(nth));
      Accounts const accounts;
      int acknowledged = 0;
      crash_test::Child writer([&](crash_test::Channel& channel) {
        return WorkUntilTheEnd(channel, accounts, point, nth);
      });
      while (auto const line = writer.Next()) acknowledged = std::stoi(*line);
      EXPECT_EQ(writer.Wait(), crash_test::Child::kKilled);
      EXPECT_GE(acknowledged, 2);
      ExpectWholeTransactions(accounts, acknowledged);
      accounts.ExpectWhole();
    }
  }
}

}  // namespace
}  // namespace sql_crash
