// A pass reads rows ahead and columns of many rows at once; nobody may notice.

#include "support.h"

namespace sql_tests {
namespace {

class PageTest : public testing::Test {
 protected:
  static constexpr int kRows = 1500;

  void SetUp() override {
    library_.AttachTo(sql_);
    sql_(
        "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < 1499)"
        " INSERT INTO lib.\"Library.Item\"(Title, Year, Price)"
        " SELECT 'Item ' || i, i, CASE WHEN i % 3 = 0 THEN NULL ELSE i / 2.0 END FROM n");
  }

  Library library_;
  Sql sql_;
};

TEST_F(PageTest, Scan_GivesEachRowOnceWithItsValues) {
  EXPECT_EQ("1500|0|1499|1124250|1000",
            sql_("SELECT count(*), min(Year), max(Year), sum(Year), count(Price) FROM Item"));
  EXPECT_EQ("0", sql_("SELECT count(*) FROM Item WHERE Title != 'Item ' || Year"));
  EXPECT_EQ("0", sql_("SELECT count(*) FROM Item WHERE Price IS NULL AND Year % 3 != 0"));
  EXPECT_EQ("0", sql_("SELECT count(*) FROM Item WHERE Price != Year / 2.0"));
}

// One column is asked of every row, the other of some only.
TEST_F(PageTest, ColumnsOfSomeRows_AreThoseOfTheirRows) {
  EXPECT_EQ("15|10|3750.0",
            sql_("SELECT count(*), count(Price), sum(Price) FROM Item WHERE Year % 100 = 50"));
}

TEST_F(PageTest, RowsDeletedAhead_AreLeftOut) {
  sql_("BEGIN");
  Statement scan(sql_, "SELECT Year FROM Item");
  for (int i = 0; i < 200; ++i) EXPECT_EQ(std::to_string(i), scan.Next());
  sql_("DELETE FROM Item WHERE Year BETWEEN 200 AND 1400");
  for (int i = 1401; i < kRows; ++i) EXPECT_EQ(std::to_string(i), scan.Next());
  EXPECT_EQ("", scan.Next());
  sql_("ROLLBACK");
  EXPECT_EQ("1500", sql_("SELECT count(*) FROM Item"));
}

TEST_F(PageTest, RowsDeletedBehindASavepoint_AreDeliveredAfterItsRollback) {
  for (char const* const order : {"", " ORDER BY Year", " ORDER BY Year + 0"}) {
    sql_("BEGIN; UPDATE Item SET Price = 1");
    Statement scan(sql_, std::string("SELECT Year FROM Item").append(order));
    for (int i = 0; i < 200; ++i) EXPECT_EQ(std::to_string(i), scan.Next());
    sql_("SAVEPOINT s; DELETE FROM Item WHERE Year BETWEEN 200 AND 1400");
    sql_("ROLLBACK TO s");
    for (int i = 200; i < 300; ++i) EXPECT_EQ(std::to_string(i), scan.Next());
    sql_("DELETE FROM Item WHERE Year BETWEEN 400 AND 1400");
    for (int i = 300; i < 399; ++i) EXPECT_EQ(std::to_string(i), scan.Next());
    sql_("ROLLBACK TO s");
    for (int i = 399; i < kRows; ++i) EXPECT_EQ(std::to_string(i), scan.Next());
    EXPECT_EQ("", scan.Next());
    sql_("ROLLBACK");
  }
}

TEST_F(PageTest, ScanBegunBehindASavepoint_GoesOnAfterItsRollback) {
  sql_("BEGIN; UPDATE Item SET Price = 1; SAVEPOINT s");
  sql_("INSERT INTO lib.\"Library.Item\"(Title, Year) VALUES('new', 1500)");
  Statement scan(sql_, "SELECT Year FROM Item");
  for (int i = 0; i < 200; ++i) EXPECT_EQ(std::to_string(i), scan.Next());
  sql_("ROLLBACK TO s");
  for (int i = 200; i < kRows; ++i) EXPECT_EQ(std::to_string(i), scan.Next());
  EXPECT_EQ("", scan.Next());
  sql_("ROLLBACK");
}

TEST_F(PageTest, ValuesWrittenAhead_AreRead) {
  sql_("BEGIN");
  Statement scan(sql_, "SELECT Year, Price FROM Item");
  for (int i = 0; i < 400; ++i) scan.Next();
  sql_("UPDATE Item SET Price = 7.5");
  for (int i = 400; i < kRows; ++i) EXPECT_EQ(std::to_string(i) + "|7.5", scan.Next());
  sql_("ROLLBACK");
}

TEST_F(PageTest, WritesUndoneAhead_AreNotRead) {
  sql_("BEGIN");
  sql_("SAVEPOINT before");
  sql_("UPDATE Item SET Price = 7.5");
  sql_("ROLLBACK TO before");
  EXPECT_EQ("0", sql_("SELECT count(*) FROM Item WHERE Price = 7.5 AND Year != 15"));
  sql_("COMMIT");
}

TEST_F(PageTest, InsertsFromTheSameTable_EndWithWhatItHad) {
  sql_("INSERT INTO lib.\"Library.Item\"(Title, Year) SELECT Title, Year + 5000 FROM Item");
  EXPECT_EQ("3000|1500", sql_("SELECT count(*), sum(Year >= 5000) FROM Item"));
}

}  // namespace
}  // namespace sql_tests
