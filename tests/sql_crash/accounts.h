#ifndef SAGLEME_TESTS_SQL_CRASH_ACCOUNTS_H
#define SAGLEME_TESTS_SQL_CRASH_ACCOUNTS_H

// A database of accounts whose balances add up to the same sum after each transaction.

#include <string>

#include "crash/directory.h"
#include "sql/support.h"

namespace sql_crash {

using sql_tests::Sql;

inline constexpr int kAccounts = 8;
inline constexpr int kSum = kAccounts * 100;

class Accounts {
 public:
  // In a process of its own, so that the test's own has no database open.
  Accounts();

  std::string database() const { return directory_.path() + "/accounts"; }
  // An ordinary file of SQLite's beside it, with a table log(n).
  std::string plain() const { return directory_.path() + "/plain.sqlite"; }
  void AttachTo(Sql& sql) const;
  // Whether all rules between objects and indexes hold, and the sum.
  void ExpectWhole() const;

 private:
  crash_test::Directory directory_;
};

// Moves some money from one account to another, both chosen by `number`, in a transaction of its
// own; again when it is refused as SQLite says that it may be.
void Transfer(Sql& sql, unsigned number);

}  // namespace sql_crash

#endif
