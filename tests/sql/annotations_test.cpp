// Defaults, abstract tables and rules of references, as SQL keeps them.

#include <sagleme/annotations.hpp>

#include "support.h"

namespace sql_tests {
namespace {

using sagleme::OnDelete;
using sagleme::Transaction;

class AnnotationsTest : public testing::Test {
 protected:
  AnnotationsTest() {
    library_.Change([](Transaction& transaction) {
      SetDefault(transaction, *transaction.table(u"Library.Item"), u"Title", "It's \"new\"");
      SetDefault(transaction, *transaction.table(u"Library.Item"), u"Price",
                 sagleme::Decimal{1500000});
      SetDefault(transaction, *transaction.table(u"Library.Book"), u"Pages", std::uint64_t{7});
    });
    library_.AttachTo(sql_);
  }
  void SetLenderRule(OnDelete rule) {
    library_.Change([rule](Transaction& transaction) {
      SetOnDelete(transaction, *transaction.table(u"Library.Item"), u"Lender", rule);
    });
  }

  Library library_;
  Sql sql_;
};

TEST_F(AnnotationsTest, Insert_GivesDefaultsToColumnsThatItDoesNotName) {
  EXPECT_EQ(sql_("INSERT INTO Book(Year) VALUES(1)"), "");
  EXPECT_EQ(sql_("INSERT INTO Item(_table, Year) VALUES('Library.Book', 2)"), "");
  EXPECT_EQ(sql_("INSERT INTO Book(Year, Title, Price, Pages) VALUES(3, NULL, 2, 8)"), "");
  EXPECT_EQ(sql_("SELECT Title, Price, Pages FROM Book ORDER BY Year"),
            "It's \"new\"|1.5|7\nIt's \"new\"|1.5|7\nIt's \"new\"|2.0|8");
}

TEST_F(AnnotationsTest, Update_SetsToNullWhatHasADefault) {
  sql_("INSERT INTO Book(Year) VALUES(1)");
  EXPECT_EQ(sql_("UPDATE Book SET Title = NULL"), "");
  EXPECT_EQ(sql_("SELECT Title, Pages FROM Book"), "NULL|7");
}

TEST_F(AnnotationsTest, DefaultChangedMeanwhile_IsSeen) {
  sql_("INSERT INTO Book(Year) VALUES(1)");
  library_.Change([](Transaction& transaction) {
    SetDefault(transaction, *transaction.table(u"Library.Item"), u"Title", "other");
  });
  EXPECT_EQ(sql_("INSERT INTO Book(Year) VALUES(2)"), "");
  EXPECT_EQ(sql_("SELECT Title FROM Book ORDER BY Year"), "It's \"new\"\nother");
}

TEST_F(AnnotationsTest, AbstractTable_TakesNoRow) {
  library_.Change([](Transaction& transaction) {
    SetAbstract(transaction, *transaction.table(u"Library.Item"), true);
  });
  EXPECT_EQ(sql_("INSERT INTO Item(Year) VALUES(1)"),
            "error: Table Library.Item is abstract: create an object of a table that derives from "
            "it.");
  EXPECT_EQ(SQLITE_CONSTRAINT, sql_.code() & 0xFF);
  EXPECT_EQ(sql_("INSERT INTO Book(Year) VALUES(1)"), "");
  EXPECT_EQ(sql_("SELECT COUNT(*) FROM Item"), "1");
}

TEST_F(AnnotationsTest, Delete_OfWhatIsReferredTo_IsRefused) {
  SetLenderRule(OnDelete::kRefuse);
  sql_("INSERT INTO Person(Name) VALUES('Ann'), ('Bob')");
  sql_("INSERT INTO Book(Year, Lender) SELECT 1, _oid FROM Person WHERE Name = 'Ann'");
  std::string const refused = sql_("DELETE FROM Person");
  EXPECT_TRUE(refused.starts_with("error: FOREIGN KEY constraint failed: Object ")) << refused;
  EXPECT_EQ(SQLITE_CONSTRAINT, sql_.code() & 0xFF);
  EXPECT_EQ(sql_("SELECT COUNT(*) FROM Person"), "2");  // the statement as a whole
  EXPECT_EQ(sql_("UPDATE Book SET Lender = NULL"), "");
  EXPECT_EQ(sql_("DELETE FROM Person"), "");
}

TEST_F(AnnotationsTest, Delete_CascadesWithinItsOwnStatement) {
  SetLenderRule(OnDelete::kCascade);
  library_.Change([](Transaction& transaction) {
    SetOnDelete(transaction, *transaction.table(u"Library.Person"), u"Boss", OnDelete::kCascade);
  });
  sql_("INSERT INTO Person(Name) VALUES('Ann')");
  sql_("INSERT INTO Person(Name, Boss) SELECT 'Bob', _oid FROM Person WHERE Name = 'Ann'");
  sql_("INSERT INTO Book(Year, Lender) SELECT 1, _oid FROM Person WHERE Name = 'Bob'");
  EXPECT_EQ(sql_("DELETE FROM Person"), "");  // Bob is gone when his turn comes
  EXPECT_EQ(sql_("SELECT COUNT(*) FROM Item"), "0");
}

TEST_F(AnnotationsTest, LastReference_TakesItsTargetAlong) {
  SetLenderRule(OnDelete::kLast);
  sql_("INSERT INTO Person(Name) VALUES('Ann'), ('Bob')");
  sql_("INSERT INTO Book(Year, Lender) SELECT 1, _oid FROM Person WHERE Name = 'Ann'");
  EXPECT_EQ(sql_("UPDATE Book SET Lender = (SELECT _oid FROM Person WHERE Name = 'Bob')"), "");
  EXPECT_EQ(sql_("SELECT Name FROM Person"), "Bob");
  EXPECT_EQ(sql_("DELETE FROM Book"), "");
  EXPECT_EQ(sql_("SELECT COUNT(*) FROM Person"), "0");
}

// ---- savepoints

// Rolling back to a savepoint undoes what the transaction has required of the annotations, so the
// next write requires it again.
TEST_F(AnnotationsTest, TableMadeAbstractAfterRollbackTo_ConflictsWithItsWriter) {
  sql_("BEGIN; SAVEPOINT s; INSERT INTO Item(Year) VALUES(1); ROLLBACK TO s");
  library_.Change([](Transaction& transaction) {
    SetAbstract(transaction, *transaction.table(u"Library.Item"), true);
  });
  EXPECT_EQ(sql_("INSERT INTO Item(Year) VALUES(2)"), "");
  sql_("COMMIT");
  EXPECT_EQ(SQLITE_BUSY, sql_.code() & 0xFF);
  sql_("ROLLBACK");
  EXPECT_EQ(sql_("SELECT COUNT(*) FROM Item"), "0");
}

TEST_F(AnnotationsTest, RuleChangedAfterRollbackTo_ConflictsWithDeletions) {
  SetLenderRule(OnDelete::kSetNull);
  sql_("INSERT INTO Person(Name) VALUES('Ann'), ('Bob')");
  sql_("INSERT INTO Book(Year, Lender) SELECT 1, _oid FROM Person WHERE Name = 'Ann'");
  sql_("BEGIN; SAVEPOINT s; DELETE FROM Person; ROLLBACK TO s");
  SetLenderRule(OnDelete::kRefuse);
  EXPECT_EQ(sql_("DELETE FROM Person WHERE Name = 'Bob'"), "");
  sql_("COMMIT");
  EXPECT_EQ(SQLITE_BUSY, sql_.code() & 0xFF);
  sql_("ROLLBACK");
  EXPECT_EQ(sql_("SELECT COUNT(*) FROM Person"), "2");
}

// ---- definitions

class AnnotatingTest : public AnnotationsTest {
 protected:
  std::string operator()(std::string const& statement) {
    std::string quoted;
    for (char const c : statement) quoted += c == '\'' ? "''" : std::string(1, c);
    return sql_("SELECT sagleme_exec('" + quoted + "')");
  }
  void Exec(std::string const& statement) {
    std::string const result = (*this)(statement);
    EXPECT_FALSE(result.starts_with("error")) << statement << ": " << result;
  }
};

TEST_F(AnnotatingTest, Definitions_AnnotateAndTakeBack) {
  Exec("CREATE TABLE Shop.Party (Name text DEFAULT 'O''Neill', Since bigint NOT NULL DEFAULT -7)");
  Exec(
      "CREATE TABLE Shop.Customer (Rate double DEFAULT 1.5e3, Code binary DEFAULT X'00ff', "
      "Good boolean NOT NULL DEFAULT TRUE, Credit decimal) UNDER Shop.Party");
  Exec("CREATE TABLE Shop.Orders (By REF(Shop.Customer) ON DELETE RESTRICT)");
  Exec("ALTER TABLE Shop.Orders ADD COLUMN Next REF(Shop.Orders) ON DELETE SET NULL");
  Exec("ALTER TABLE Shop.Party SET ABSTRACT");
  Exec("ALTER TABLE Shop.Customer ALTER COLUMN Credit SET DEFAULT 12.345678");
  Exec("ALTER TABLE Shop.Orders ALTER By SET ON DELETE CASCADE");
  Exec("COMMENT ON TABLE Shop.Party IS 'whom we ''know'''");
  Exec("COMMENT ON COLUMN Shop.Party.Name IS 'as on the letter'");
  Exec("COMMENT ON INDEX Shop.Orders.By.Referrers IS 'made by the rule'");
  EXPECT_EQ(sql_("INSERT INTO Customer DEFAULT VALUES"), "");
  EXPECT_EQ(sql_("SELECT Name, Since, Rate, hex(Code), Good, Credit FROM Customer"),
            "O'Neill|-7|1500.0|00FF|1|12.345678");
  library_.Change([](Transaction& transaction) {
    auto const party = transaction.table(u"Shop.Party");
    auto const orders = transaction.table(u"Shop.Orders");
    EXPECT_EQ("whom we 'know'", CommentOf(transaction, *party));
    EXPECT_EQ("as on the letter", CommentOf(transaction, *party, party->GetColumn(u"Name")));
    EXPECT_TRUE(IsAbstract(transaction, *party));
    EXPECT_EQ(OnDelete::kCascade, OnDeleteOf(transaction, *orders, orders->GetColumn(u"By")));
    EXPECT_EQ(OnDelete::kSetNull, OnDeleteOf(transaction, *orders, orders->GetColumn(u"Next")));
  });
  EXPECT_EQ((*this)("EXPLAIN COMMENT ON TABLE Shop.Party IS NULL"),
            "instant      remove the comment on table Shop.Party");
  Exec("COMMENT ON TABLE Shop.Party IS NULL");
  Exec("ALTER TABLE Shop.Customer ALTER COLUMN Credit DROP DEFAULT");
  Exec("ALTER TABLE Shop.Party SET NOT ABSTRACT");
  Exec("ALTER TABLE Shop.Orders ALTER COLUMN By SET ON DELETE NO ACTION");
  library_.Change([](Transaction& transaction) {
    auto const party = transaction.table(u"Shop.Party");
    auto const customer = transaction.table(u"Shop.Customer");
    auto const orders = transaction.table(u"Shop.Orders");
    EXPECT_EQ("", CommentOf(transaction, *party));
    EXPECT_FALSE(IsAbstract(transaction, *party));
    EXPECT_TRUE(IsNull(DefaultOf(transaction, *customer, customer->GetColumn(u"Credit"))));
    EXPECT_EQ(OnDelete::kKeep, OnDeleteOf(transaction, *orders, orders->GetColumn(u"By")));
  });
}

TEST_F(AnnotatingTest, DroppedColumn_WithTheRuleLast_LeavesItsTargets) {
  SetLenderRule(OnDelete::kLast);
  sql_("INSERT INTO Person(Name) VALUES('Ann')");
  sql_("INSERT INTO Book(Year, Lender) SELECT 1, _oid FROM Person");
  Exec("DROP INDEX Library.Item.Lender.Referrers");
  EXPECT_EQ((*this)("ALTER TABLE Item DROP COLUMN Lender"),
            "destructive  drop column Lender of Library.Item with its values; what they refer to "
            "stays, though they may be the last references");
  EXPECT_EQ(sql_("SELECT Name FROM Person"), "Ann");
}

TEST_F(AnnotatingTest, AnotherType_ConvertsTheDefaultOrSaysThatItGoes) {
  Exec("CREATE TABLE Shop.Sale (Count bigint DEFAULT 5, By REF(Person) ON DELETE SET NULL)");
  EXPECT_EQ((*this)("ALTER TABLE Shop.Sale ALTER COLUMN Count TYPE text"),
            "background   change column Count of Shop.Sale from long to string\n"
            "instant      let column Count of Shop.Sale default to \"5\"");
  EXPECT_EQ(sql_("INSERT INTO Sale DEFAULT VALUES"), "");
  EXPECT_EQ(sql_("SELECT quote(Count) FROM Sale"), "'5'");
  EXPECT_EQ((*this)("ALTER TABLE Shop.Sale ALTER COLUMN Count TYPE boolean"),
            "error: 1 value of column Count of Shop.Sale does not convert to bool: \"5\" (object " +
                sql_("SELECT _oid FROM Sale") + ").");
  EXPECT_EQ(sql_("DELETE FROM Sale"), "");
  EXPECT_EQ((*this)("ALTER TABLE Shop.Sale ALTER COLUMN Count TYPE boolean"),
            "background   change column Count of Shop.Sale from string to bool\n"
            "instant      remove the default of column Count of Shop.Sale");
  EXPECT_EQ((*this)("ALTER TABLE Shop.Sale ALTER COLUMN By TYPE bigint"),
            "background   change column By of Shop.Sale from reference to Library.Person to long\n"
            "instant      on deletion of the target of column By of Shop.Sale: keep");
  EXPECT_EQ(sql_("INSERT INTO Sale DEFAULT VALUES"), "");
  EXPECT_EQ(sql_("SELECT Count, \"By\" FROM Sale"), "NULL|NULL");
}

TEST_F(AnnotatingTest, BadDefinitions_SayWhatWasExpected) {
  EXPECT_EQ((*this)("CREATE TABLE A (B text DEFAULT)"),
            "error: line 1, column 31: expected a number, a text in single quotes, TRUE, FALSE, "
            "NULL or X'...', found )");
  EXPECT_EQ((*this)("CREATE TABLE A (B bigint DEFAULT 'x')"),
            "error: the default 'x' does not fit a column of type long: \"x\" is not a number");
  EXPECT_EQ((*this)("CREATE TABLE A (B REF(Person) ON DELETE EXPLODE)"),
            "error: line 1, column 41: expected RESTRICT, SET NULL, CASCADE, LAST or NO ACTION, "
            "found EXPLODE");
  EXPECT_EQ((*this)("COMMENT ON COLUMN Name IS 'x'"),
            "error: line 1, column 19: expected TABLE.COLUMN, found a name");
  EXPECT_EQ((*this)("COMMENT ON TABLE Person IS 7"),
            "error: line 1, column 28: expected a comment in single quotes, or NULL, found 7");
  EXPECT_EQ((*this)("COMMENT ON COLUMN Book.Year IS 'x'"),
            "error: Column Year of table Library.Book is inherited; annotate it in Library.Item.");
}

}  // namespace
}  // namespace sql_tests
