// Statements of any shape are refused or done, and a rollback takes back whatever they did. The
// number of seeds may be raised by SAGLEME_HOSTILE_SEEDS.

#include <cstdlib>

#include "crash/child.h"
#include "sql_crash/accounts.h"
#include "sql_crash/hostile_sql.h"

namespace sql_crash {
namespace {

constexpr int kTransactions = 60;
constexpr int kStatements = 25;
constexpr int kSteps = 200000;  // of SQLite's, after which a statement has had its chance

int Stop(void*) { return 1; }

// What a statement gives is not looked at: most are refused, and those that are not may give
// anything.
void Execute(Sql& sql, std::string const& statement) {
  sqlite3_progress_handler(sql.handle(), kSteps, Stop, nullptr);
  sqlite3_exec(sql.handle(), statement.c_str(), nullptr, nullptr, nullptr);
  sqlite3_progress_handler(sql.handle(), 0, nullptr, nullptr);
}

TEST(HostileSqlTest, HostileStatements_LeaveTheDatabaseAsItWas) {
  Accounts const accounts;
  char const* const seeds = std::getenv("SAGLEME_HOSTILE_SEEDS");
  std::uint64_t const last = seeds == nullptr ? 4 : std::stoull(seeds);
  for (std::uint64_t seed = 1; seed <= last; ++seed) {
    SCOPED_TRACE(seed);
    crash_test::InChild([&] {
      Sql sql(accounts.plain());
      accounts.AttachTo(sql);
      std::string const state =
          "SELECT Name, Balance, _table, _oid FROM Account ORDER BY Name; "
          "SELECT FullName FROM RawView ORDER BY 1; SELECT count(*) FROM main.log";
      std::string const before = sql(state);
      ASSERT_FALSE(before.starts_with("error")) << before;
      HostileSql hostile(seed);
      for (int i = 0; i < kTransactions; ++i) {
        std::string done;
        ASSERT_EQ(sql("BEGIN"), "");
        for (int k = 0; k < kStatements; ++k) {
          std::string const statement = hostile.Statement();
          done += statement + ";\n";
          Execute(sql, statement);
          if (sqlite3_get_autocommit(sql.handle()) != 0) sql("BEGIN");
        }
        ASSERT_EQ(sql("ROLLBACK"), "") << done;
        ASSERT_EQ(sql(state), before) << done;
      }
    });
    accounts.ExpectWhole();
  }
}

}  // namespace
}  // namespace sql_crash
