// Rows of which nothing is asked are only counted; nobody may notice.

#include "sql/attachment.h"
#include "sql/vfs.h"
#include "support.h"

namespace sql_tests {
namespace {

class CountTest : public testing::Test {
 protected:
  static constexpr int kRows = 1500;

  // Every third is a book.
  void SetUp() override {
    library_.AttachTo(sql_);
    sql_(
        "BEGIN;"
        "SELECT sagleme_exec('CREATE INDEX ItemByYearFalling ON Item (Year DESC)');"
        "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < 1499)"
        " INSERT INTO Item(_table, Title, Year)"
        " SELECT CASE WHEN i % 3 = 0 THEN 'Library.Book' ELSE 'Library.Item' END,"
        " 'Item ' || (i % 7), i FROM n;"
        "COMMIT");
    ASSERT_EQ(sql_("SELECT sum(Year >= 0) FROM Item"), "1500");
  }

  bool MayCount() {
    sql_("BEGIN; SELECT count(*) FROM Item");
    bool const may = sagleme::sql::FindAttachment(sql_.handle(), "lib")->MayCount();
    sql_("COMMIT");
    return may;
  }
  // As many rows as are left.
  static int Rest(Statement& scan) {
    int rows = 0;
    for (std::string row = scan.Next(); !row.empty(); row = scan.Next()) {
      if (row.starts_with("error")) ADD_FAILURE() << row;
      ++rows;
    }
    return rows;
  }

  Library library_;
  Sql sql_;
};

TEST_F(CountTest, Counts_AreThoseOfRowsThatAreRead) {
  EXPECT_TRUE(MayCount());
  for (std::string const where :
       {"Year >= 0", "Year >= 700", "Year > 1488", "Year < 9", "Year BETWEEN 3 AND 1400",
        "Year IN (1, 2, 5000, 77)", "Title = 'Item 3'", "Title LIKE 'Item%'", "Title > 'Item 2'",
        "Title IN ('Item 1', 'Item 5', 'Item 9')", "Title = 'Item 3' AND Year > 100",
        "Title IN ('Item 0', 'Item 6') AND Year BETWEEN 10 AND 1490", "Year IS NULL", "1"}) {
    for (std::string const table : {"Item", "Book", "\"Item only\"", "\"Book only\""}) {
      std::string read = where;
      for (std::string const column : {"Year", "Title"}) {
        for (auto at = read.find(column); at != std::string::npos; at = read.find(column, at + 2)) {
          read.insert(at, "+");
        }
      }
      EXPECT_EQ(sql_("SELECT sum(Year IS NOT NULL) FROM " + table + " WHERE " + read),
                sql_("SELECT nullif(count(*), 0) FROM " + table + " WHERE " + where))
          << table << " " << where;
    }
  }
  EXPECT_EQ(sql_("SELECT count(*) FROM Item; SELECT count(*) FROM Item NOT INDEXED"), "1500\n1500");
}

TEST_F(CountTest, RowsBehindAnOffset_AreRead) {
  EXPECT_EQ(sql_("SELECT Year FROM Item ORDER BY Year LIMIT 3 OFFSET 1000"), "1000\n1001\n1002");
  EXPECT_EQ(sql_("SELECT Year FROM Item ORDER BY Year DESC LIMIT 2 OFFSET 1000"), "499\n498");
  EXPECT_EQ(sql_("SELECT Year FROM Item WHERE Year < 900 ORDER BY Year LIMIT 9 OFFSET 898"),
            "898\n899");
  EXPECT_EQ(sql_("SELECT Year FROM Item WHERE Year < 900 ORDER BY Year LIMIT 9 OFFSET 900"), "");
  for (std::string const offset : {"9", "10", "11", "73", "74", "75", "330", "1499"}) {
    EXPECT_EQ(sql_("SELECT _oid FROM Item ORDER BY Year LIMIT 1 OFFSET " + offset),
              sql_("SELECT _oid FROM Item WHERE Year = " + offset))
        << offset;
  }
  EXPECT_EQ(sql_("SELECT count(*) FROM (SELECT 1 FROM Item ORDER BY Year DESC LIMIT 700)"), "700");
}

TEST_F(CountTest, RowsOfSeveralRanges_AreReadBehindAnOffset) {
  std::string const in = " FROM Item WHERE Title IN ('Item 1', 'Item 4')";
  EXPECT_EQ(sql_("SELECT count(*)" + in), "429");
  EXPECT_EQ(sql_("SELECT group_concat(Year) FROM (SELECT Year" + in + " LIMIT 3 OFFSET 300)"),
            sql_("SELECT group_concat(Year) FROM (SELECT Year FROM (SELECT Title, Year" + in +
                 ") WHERE +Title > '' LIMIT 3 OFFSET 300)"));
}

TEST_F(CountTest, InJoinsAndSubqueries_CountsAreRight) {
  EXPECT_EQ(sql_("SELECT count(*) FROM Item a, Item b WHERE a.Year < 3 AND b.Year >= 1400"), "300");
  EXPECT_EQ(sql_("SELECT count(*) FROM Item a CROSS JOIN Item b WHERE b.Year > a.Year + 1400"),
            "4950");
  EXPECT_EQ(sql_("SELECT (SELECT count(*) FROM Item b WHERE b.Year > a.Year) FROM Item a "
                 "WHERE Year IN (0, 700, 1499) ORDER BY Year"),
            "1499\n799\n0");
  EXPECT_EQ(sql_("SELECT EXISTS (SELECT 1 FROM Item WHERE Year > 1498)"), "1");
}

TEST_F(CountTest, OwnWrites_AreCounted) {
  sql_("BEGIN");
  EXPECT_EQ(sql_("SELECT count(*) FROM Item WHERE Year >= 100"), "1400");
  sql_("DELETE FROM Item WHERE Year BETWEEN 500 AND 899");
  sql_("INSERT INTO Item(Title, Year) VALUES('new', 600), ('new', 5000)");
  sql_("UPDATE Item SET Year = Year + 10000 WHERE Year BETWEEN 100 AND 149");
  EXPECT_EQ(sql_("SELECT count(*) FROM Item WHERE Year BETWEEN 100 AND 5000"), "952");
  EXPECT_EQ(sql_("SELECT count(*) FROM Item"), "1102");
  sql_("SAVEPOINT s; DELETE FROM Item");
  EXPECT_EQ(sql_("SELECT count(*) FROM Item"), "0");
  EXPECT_EQ(sql_("ROLLBACK TO s; SELECT count(*) FROM Item"), "1102");
  EXPECT_EQ(sql_("ROLLBACK; SELECT count(*) FROM Item"), "1500");
}

TEST_F(CountTest, RowsDeletedDuringAScan_AreLeftOutAhead) {
  sql_("BEGIN");
  Statement scan(sql_, "SELECT 1 FROM Item WHERE Year >= 0");
  for (int i = 0; i < 300; ++i) EXPECT_EQ(scan.Next(), "1");
  sql_("DELETE FROM Item WHERE Year < 100 OR Year BETWEEN 400 AND 1299");
  EXPECT_EQ(Rest(scan), 300);
  sql_("ROLLBACK");
}

TEST_F(CountTest, RowsWrittenDuringAScan_AreNoPartOfIt) {
  sql_("BEGIN");
  Statement scan(sql_, "SELECT 1 FROM Item WHERE Year >= 0");
  for (int i = 0; i < 5; ++i) EXPECT_EQ(scan.Next(), "1");
  sql_("INSERT INTO Item(Title, Year) SELECT 'new', Year + 2000 FROM Item WHERE Year < 50");
  for (int i = 5; i < 300; ++i) EXPECT_EQ(scan.Next(), "1");
  sql_("INSERT INTO Item(Title, Year) SELECT 'new', Year + 3000 FROM Item WHERE Year < 50");
  EXPECT_EQ(Rest(scan), 1200);
  sql_("ROLLBACK");
}

TEST_F(CountTest, WritesUndoneDuringAScan_ChangeNothing) {
  sql_("BEGIN; INSERT INTO Item(Title, Year) VALUES('first', 9000)");
  Statement scan(sql_, "SELECT 1 FROM Item WHERE Year >= 0");
  for (int i = 0; i < 300; ++i) EXPECT_EQ(scan.Next(), "1");
  sql_(
      "SAVEPOINT s; INSERT INTO Item(Title, Year) VALUES('second', 8001);"
      "UPDATE Item SET Year = Year + 20000 WHERE Year > 1000");
  sql_("ROLLBACK TO s");
  EXPECT_EQ(Rest(scan), 1201);
  sql_("ROLLBACK");
}

TEST_F(CountTest, ScanOverACommit_GoesOn) {
  Statement scan(sql_, "SELECT 1 FROM Item WHERE Year >= 0");
  for (int i = 0; i < 300; ++i) EXPECT_EQ(scan.Next(), "1");
  EXPECT_EQ(sql_("INSERT INTO Item(Title, Year) VALUES('new', 7000)"), "");
  EXPECT_EQ(Rest(scan), 1200);
  EXPECT_EQ(sql_("SELECT count(*) FROM Item"), "1501");
}

TEST_F(CountTest, TableFilledFromItself_GetsEachRowOnce) {
  EXPECT_EQ(sql_("INSERT INTO Item(Title, Year) SELECT 'copy', 1 FROM Item WHERE Year >= 0"), "");
  EXPECT_EQ(sql_("SELECT count(*), sum(Title = 'copy') FROM Item"), "3000|1500");
}

TEST_F(CountTest, CommitsOfOthers_AreCountedInTheNextTransaction) {
  Sql other;
  library_.AttachTo(other);
  sql_("BEGIN; SELECT count(*) FROM Item");
  other("DELETE FROM Item WHERE Year < 500");
  EXPECT_EQ(sql_("SELECT count(*) FROM Item WHERE Year >= 0"), "1500");
  EXPECT_EQ(sql_("COMMIT; SELECT count(*) FROM Item WHERE Year >= 0"), "1000");
}

TEST_F(CountTest, ObjectsOfADroppedTable_AreNotCounted) {
  sql_(
      "SELECT sagleme_exec('CREATE TABLE Library.Film () UNDER Library.Item');"
      "INSERT INTO Film(Title, Year) SELECT Title, Year FROM Item WHERE Year < 400");
  std::string const counts =
      "SELECT count(*) FROM Item; SELECT count(*) FROM Item WHERE Year >= 300";
  EXPECT_EQ(sql_(counts), "1900\n1300");
  EXPECT_TRUE(MayCount());
  sql_("BEGIN; SELECT sagleme_exec('DROP TABLE Film')");
  EXPECT_EQ(sql_(counts), "1500\n1200");
  EXPECT_EQ(sql_("ROLLBACK; " + counts), "1900\n1300");
  sql_("SELECT sagleme_exec('DROP TABLE Film')");
  EXPECT_EQ(sql_(counts), "1500\n1200");
  EXPECT_FALSE(MayCount());
}

// ---- one row of a unique index -----------------------------------------------------------------

TEST_F(CountTest, RowOfAUniqueKey_IsFound) {
  sql_("INSERT INTO Person(Name) VALUES('Ada'), ('Eve'), (NULL), (NULL), ('Zoe')");
  EXPECT_EQ(sql_("SELECT count(*) FROM Person WHERE Name = 'Eve'"), "1");
  EXPECT_EQ(sql_("SELECT count(*) FROM Person WHERE Name IS NULL"), "2");
  EXPECT_EQ(sql_("SELECT count(*) FROM Person WHERE Name = 'Eva'"), "0");
  EXPECT_EQ(sql_("SELECT a.Name, b.Name FROM Person a JOIN Person b ON b.Name = a.Name "
                 "ORDER BY 1"),
            "Ada|Ada\nEve|Eve\nZoe|Zoe");
  sql_("BEGIN; UPDATE Person SET Name = 'Eva' WHERE Name = 'Eve'");
  EXPECT_EQ(sql_("SELECT count(*) FROM Person WHERE Name = 'Eve'"), "0");
  EXPECT_EQ(sql_("SELECT Name FROM Person WHERE Name = 'Eva'"), "Eva");
  EXPECT_EQ(sql_("ROLLBACK; SELECT Name FROM Person WHERE Name = 'Eve'"), "Eve");
  EXPECT_EQ(sql_("UPDATE Person SET Name = Name || '!' WHERE Name = 'Zoe'"), "");
  EXPECT_EQ(sql_("SELECT Name FROM Person WHERE Name >= 'Z'"), "Zoe!");
}

TEST_F(CountTest, RowOfAUniqueKey_IsKeptOverACommit) {
  sql_("INSERT INTO Person(Name) VALUES('Ada')");
  Statement scan(sql_, "SELECT Name FROM Person WHERE Name = 'Ada'");
  EXPECT_EQ(scan.Next(), "Ada");
  EXPECT_EQ(sql_("INSERT INTO Person(Name) VALUES('Eve')"), "");
  EXPECT_EQ(scan.Next(), "");
}

}  // namespace
}  // namespace sql_tests
