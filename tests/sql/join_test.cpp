// Statements inside the transactions of the program that runs them.

#include "sql/extension.h"
#include "support.h"

namespace sql_tests {
namespace {

// A program with a transaction of its own, and a connection whose statements join it.
class JoinTest : public ::testing::Test {
 protected:
  JoinTest() : database_(sagleme::Database::Open(library_.directory())), context_(database_) {
    library_.AddItem(u"Library.Item", u"Old", 1900);
    sqlite3_open(":memory:", &handle_);
    EXPECT_EQ(sagleme::sql::RegisterToJoin(handle_, nullptr), SQLITE_OK);
  }
  ~JoinTest() override { EXPECT_EQ(sqlite3_close(handle_), SQLITE_OK); }

  void Join() {
    EXPECT_EQ(
        Run("SELECT sagleme_join(" + std::to_string(context_.id()) + ", 'the library', 'db')"),
        "NULL");
  }
  std::string Run(std::string const& text) {
    sqlite3_stmt* made = nullptr;
    code_ = sqlite3_prepare_v2(handle_, text.c_str(), -1, &made, nullptr);
    std::string rows;
    while (code_ == SQLITE_OK || code_ == SQLITE_ROW) {
      code_ = sqlite3_step(made);
      if (code_ != SQLITE_ROW) break;
      auto const* const value = reinterpret_cast<char const*>(sqlite3_column_text(made, 0));
      rows += rows.empty() ? "" : " ";
      rows += value == nullptr ? "NULL" : value;
    }
    std::string const failure = sqlite3_errmsg(handle_);
    sqlite3_finalize(made);
    return code_ == SQLITE_DONE ? rows : "error: " + failure;
  }
  std::string Titles() { return Run("SELECT Title FROM Item ORDER BY Title"); }
  std::string StatusOfFailure() {
    return Run("SELECT sagleme_status(" + std::to_string(code_) + ")");
  }

  Library library_;
  sagleme::Database database_;
  sagleme::Context context_;
  sqlite3* handle_ = nullptr;
  int code_ = SQLITE_OK;
};

TEST_F(JoinTest, Statement_SeesWhatTheTransactionWrote) {
  sagleme::Transaction transaction(context_);
  Join();
  auto made = sagleme::Object::Create(transaction, *transaction.table(u"Library.Item"));
  made.Set(u"Title", u"New");
  made.Set(u"Year", 1);
  EXPECT_EQ(Titles(), "New Old");
}

TEST_F(JoinTest, Writes_GoWithTheTransaction) {
  {
    sagleme::Transaction transaction(context_);
    Join();
    EXPECT_EQ(Run("INSERT INTO Item (Title, Year) VALUES ('New', 1)"), "");
    EXPECT_EQ(Titles(), "New Old");
    transaction.Rollback();
  }
  sagleme::Transaction transaction(context_);
  EXPECT_EQ(Titles(), "Old");
  EXPECT_EQ(Run("INSERT INTO Item (Title, Year) VALUES ('Kept', 1)"), "");
  transaction.Commit();
  sagleme::Transaction const later(context_);
  EXPECT_EQ(Titles(), "Kept Old");
}

TEST_F(JoinTest, StatementThatFails_IsUndoneAlone) {
  sagleme::Transaction transaction(context_);
  Join();
  Run("INSERT INTO Item (Title, Year) VALUES ('One', 1)");
  EXPECT_NE(
      Run("INSERT INTO Item (Title, Year) VALUES ('Two', 2), ('Three', NULL)").find("NOT NULL"),
      std::string::npos);
  EXPECT_EQ(Titles(), "Old One");
}

TEST_F(JoinTest, StatusOfAFailure_IsTheLibrarysAndIsGivenOnce) {
  sagleme::Transaction transaction(context_, sagleme::Access::kReadOnly);
  Join();
  EXPECT_NE(Run("DELETE FROM Item"), "");
  EXPECT_EQ(code_ & 0xFF, SQLITE_READONLY);
  EXPECT_EQ(StatusOfFailure(), std::to_string(LSCOREDB_WRITE_REFUSED));
  code_ = SQLITE_READONLY;
  EXPECT_EQ(StatusOfFailure(), "0");
  Run("SELEC");
  EXPECT_EQ(StatusOfFailure(), "0");
}

TEST_F(JoinTest, TransactionsTablesAndDefinitions_AreTheProgramsOwn) {
  sagleme::Transaction transaction(context_);
  Join();
  for (char const* const text :
       {"BEGIN", "COMMIT", "SAVEPOINT a", "CREATE TABLE a (b)", "CREATE VIEW db.a AS SELECT 1"}) {
    EXPECT_EQ(Run(text), "error: not authorized") << text;
  }
  EXPECT_EQ(Run("CREATE TEMP TABLE a (b)"), "");
  EXPECT_NE(Run("SELECT sagleme_exec('CREATE TABLE A (b integer)')").find("change the models"),
            std::string::npos);
}

TEST_F(JoinTest, ContextWithoutATransaction_IsRefused) {
  EXPECT_NE(Run("SELECT sagleme_join(" + std::to_string(context_.id()) + ", 'l', 'db')"), "NULL");
  EXPECT_NE(Run("SELECT sagleme_join(123456789, 'l', 'db')"), "NULL");
  {
    sagleme::Transaction const transaction(context_);
    Join();
    EXPECT_EQ(Titles(), "Old");
  }
  EXPECT_EQ(Titles().substr(0, 5), "error");
  sagleme::Transaction const transaction(context_);
  EXPECT_EQ(Titles(), "Old");
}

TEST_F(JoinTest, OrdinaryConnections_CannotJoin) {
  Sql sql;
  EXPECT_NE(sql("SELECT sagleme_join(1, 'l', 'db')").find("no such function"), std::string::npos);
}

}  // namespace
}  // namespace sql_tests
