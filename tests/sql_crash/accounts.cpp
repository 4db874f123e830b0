#include "sql_crash/accounts.h"

#include <sagleme/check.hpp>

#include "crash/child.h"

namespace sql_crash {

Accounts::Accounts() {
  crash_test::InChild([this] {
    // The points at which processes end are those of the data file.
    sagleme::Database::Create(database(), {}, {.log = LSCOREDB_NO_LOG});
    Sql sql(plain());
    AttachTo(sql);
    EXPECT_EQ(sql("CREATE TABLE main.log(n INTEGER PRIMARY KEY)"), "");
    sql("SELECT sagleme_exec('CREATE TABLE Bank.Account (Name text, Balance bigint NOT NULL); "
        "CREATE TABLE Bank.Savings (Rate double) UNDER Bank.Account; "
        "CREATE UNIQUE INDEX AccountByName ON Account (Name); "
        "CREATE INDEX AccountByBalance ON Account (Balance)')");
    EXPECT_EQ(sql.code(), SQLITE_OK);
    for (int i = 0; i < kAccounts; ++i) {
      std::string const table = i % 2 == 0 ? "Account" : "Savings";
      EXPECT_EQ(
          sql("INSERT INTO " + table + "(Name, Balance) VALUES('" + std::to_string(i) + "', 100)"),
          "");
    }
  });
}

void Accounts::AttachTo(Sql& sql) const {
  EXPECT_EQ(sql("SELECT sagleme_attach('" + database() + "', 'bank')"), "bank");
}

void Accounts::ExpectWhole() const {
  crash_test::InChild([this] {
    sagleme::CheckDatabase(database(), {}, [](sagleme::Finding const& finding) {
      ADD_FAILURE() << finding.rule << ": " << finding.what;
    });
    Sql sql;
    AttachTo(sql);
    std::string const sum = std::to_string(kSum);
    EXPECT_EQ(sql("SELECT sum(Balance) FROM Account"), sum);
    // The same by way of an index.
    EXPECT_EQ(sql("SELECT sum(Balance) FROM Account WHERE Balance > -1000000"), sum);
  });
}

void Transfer(Sql& sql, unsigned number) {
  unsigned const from = number % kAccounts;
  unsigned const to = (from + 1 + number / kAccounts % (kAccounts - 1)) % kAccounts;
  std::string const amount = std::to_string(number % 5 + 1);
  std::string const work = "BEGIN; UPDATE Account SET Balance = Balance - " + amount +
                           " WHERE Name = '" + std::to_string(from) +
                           "'; UPDATE Account SET Balance = Balance + " + amount +
                           " WHERE Name = '" + std::to_string(to) + "'; COMMIT";
  for (;;) {
    std::string const refused = sql(work);
    if (refused.empty()) return;
    ASSERT_EQ(sql.code() & 0xFF, SQLITE_BUSY) << refused;
    if (sqlite3_get_autocommit(sql.handle()) == 0) sql("ROLLBACK");
  }
}

}  // namespace sql_crash
