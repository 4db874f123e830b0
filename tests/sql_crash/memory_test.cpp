// Memory that runs out at each request of a statement, SQLite's own requests included: the
// statement fails as SQLite says, leaves nothing, and succeeds when there is memory again.

#include <new>

#include "crash/child.h"
#include "crash/failing_memory.h"
#include "sql_crash/accounts.h"

namespace sql_crash {
namespace {

sqlite3_mem_methods real_methods;

// Counts a request of SQLite's among all others.
bool Refused() {
  void* const probe = ::operator new(1, std::nothrow);
  ::operator delete(probe);
  return probe == nullptr;
}

void* Malloc(int size) { return Refused() ? nullptr : real_methods.xMalloc(size); }
void* Realloc(void* memory, int size) {
  return Refused() ? nullptr : real_methods.xRealloc(memory, size);
}

// REQUIRES: SQLite has not been used in this process.
void CountMemoryOfSqlite() {
  EXPECT_EQ(sqlite3_config(SQLITE_CONFIG_GETMALLOC, &real_methods), SQLITE_OK);
  sqlite3_mem_methods counting = real_methods;
  counting.xMalloc = Malloc;
  counting.xRealloc = Realloc;
  EXPECT_EQ(sqlite3_config(SQLITE_CONFIG_MALLOC, &counting), SQLITE_OK);
}

struct Case {
  std::string statement;
  std::string gives;
};

// A connection of its own for each failure, so that nothing is kept from the one before.
void ExpectRefusedEverywhere(Accounts const& accounts, Case const& each) {
  std::string const state = "SELECT Name, Balance, _table FROM Account ORDER BY Name";
  Sql looking;
  accounts.AttachTo(looking);
  std::string const before = looking(state);
  bool failed = true;
  int nth = 1;
  for (; failed; ++nth) {
    SCOPED_TRACE(each.statement + ", request " + std::to_string(nth));
    Sql sql;
    accounts.AttachTo(sql);
    failing_memory::FailNth(nth);
    int const code = sqlite3_exec(sql.handle(), each.statement.c_str(), nullptr, nullptr, nullptr);
    failed = failing_memory::Failed();
    failing_memory::FailNth(0);
    if (code != SQLITE_OK) {
      ASSERT_TRUE(failed) << sqlite3_errmsg(sql.handle());
      ASSERT_EQ(code & 0xFF, SQLITE_NOMEM) << sqlite3_errmsg(sql.handle());
      if (sqlite3_get_autocommit(sql.handle()) == 0) sql("ROLLBACK");
      ASSERT_EQ(looking(state), before);
    } else if (failed) {
      // SQLite did without what was refused. What was done is undone for the next round.
      ASSERT_EQ(looking("UPDATE Account SET Balance = 100 WHERE Balance <> 100"), "");
      ASSERT_EQ(looking("DELETE FROM Account WHERE Name = 'new'"), "");
      ASSERT_EQ(looking(state), before);
    }
  }
  EXPECT_GT(nth, 50);
  EXPECT_EQ(looking("UPDATE Account SET Balance = 100 WHERE Balance <> 100"), "");
  EXPECT_EQ(looking("DELETE FROM Account WHERE Name = 'new'"), "");
  Sql again;
  accounts.AttachTo(again);
  EXPECT_EQ(again(each.statement), each.gives);
  looking("UPDATE Account SET Balance = 100; DELETE FROM Account WHERE Name = 'new'");
}

TEST(SqlWithoutMemoryTest, Statement_IsRefusedInWholeAndDoneLater) {
  Accounts const accounts;
  crash_test::InChild([&] {
    CountMemoryOfSqlite();
    for (Case const& each : {
             Case{"SELECT Name FROM Account WHERE Balance = 100 ORDER BY Name LIMIT 2", "0\n1"},
             Case{"SELECT count(*) FROM Savings AS a JOIN Account AS b ON b._oid = a._oid", "4"},
             Case{"SELECT Name FROM Account WHERE Name IN ('3', '5') OR Name LIKE '7%'", "3\n5\n7"},
             Case{"INSERT INTO Savings(Name, Balance, Rate) VALUES('new', 1, 0.5)", ""},
             Case{"UPDATE Account SET Balance = Balance + 1 WHERE Name = '3'", ""},
             Case{"BEGIN; UPDATE Account SET Balance = 7 WHERE Name < '4'; SAVEPOINT s; "
                  "INSERT INTO Account(Name, Balance) VALUES('new', 2); ROLLBACK TO s; COMMIT",
                  ""},
         }) {
      ExpectRefusedEverywhere(accounts, each);
    }
  });
  accounts.ExpectWhole();
}

// Attaching asks thousands of times, most of them for definitions, which are all alike: beyond the
// first ones every so many.
TEST(SqlWithoutMemoryTest, Attaching_IsRefusedAndDoneLater) {
  Accounts const accounts;
  crash_test::InChild([&] {
    CountMemoryOfSqlite();
    std::string const attach = "SELECT sagleme_attach('" + accounts.database() + "', 'bank')";
    bool failed = true;
    int nth = 1;
    for (; failed; nth += nth < 100 ? 1 : 19) {
      SCOPED_TRACE(nth);
      Sql sql;
      failing_memory::FailNth(nth);
      int const code = sqlite3_exec(sql.handle(), attach.c_str(), nullptr, nullptr, nullptr);
      failed = failing_memory::Failed();
      failing_memory::FailNth(0);
      ASSERT_TRUE(code == SQLITE_OK || failed);
      // The last requests are for what the statement gives, when the database is attached already.
      bool const attached = !sql("PRAGMA bank.user_version").starts_with("error");
      ASSERT_TRUE(attached || code != SQLITE_OK);
      if (!attached) {
        ASSERT_EQ(sql(attach), "bank");
      }
      ASSERT_EQ(sql("SELECT count(*) FROM Account"), std::to_string(kAccounts));
    }
    EXPECT_GT(nth, 1000);
  });
}

}  // namespace
}  // namespace sql_crash
