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

}  // namespace
}  // namespace sql_tests
