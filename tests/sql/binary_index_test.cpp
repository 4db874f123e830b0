// An index on binaries brings them in order. Conditions are not looked up in it, but for null.

#include <array>

#include "support.h"

namespace sql_tests {
namespace {

class BinaryIndexTest : public testing::Test {
 protected:
  BinaryIndexTest() {
    library_.Change([](sagleme::Transaction& transaction) {
      using sagleme::ColumnSpec;
      using sagleme::IndexColumnSpec;
      using sagleme::Type;
      sagleme::CreateTable(
          transaction, u"Library.Cover", u"",
          std::array{ColumnSpec{u"Kind", Type::kLong}, ColumnSpec{u"Image", Type::kBinary}});
      sagleme::CreateIndex(transaction, u"CoverByImage", u"Library.Cover",
                           std::array{IndexColumnSpec{u"Image"}});
      sagleme::CreateIndex(transaction, u"CoverByKindAndImage", u"Library.Cover",
                           std::array{IndexColumnSpec{u"Kind"}, IndexColumnSpec{u"Image"}});
    });
    library_.AttachTo(sql_);
    sql_(
        "INSERT INTO Cover VALUES (1, X'61'), (2, X''), (1, NULL), (1, X'6100'), (2, X'FF'),"
        " (1, X'00')");
  }

  Library library_;
  Sql sql_;
};

TEST_F(BinaryIndexTest, Conditions_FindWhatTheyDescribe) {
  EXPECT_EQ("x'61'", sql_("SELECT Image FROM Cover WHERE Image = X'61'"));
  EXPECT_EQ("x'6100'\nx'ff'", sql_("SELECT Image FROM Cover WHERE Image > X'61' ORDER BY Image"));
  EXPECT_EQ("x'ff'\nx'6100'\nx'61'",
            sql_("SELECT Image FROM Cover WHERE Image >= X'61' ORDER BY Image DESC"));
  EXPECT_EQ("3", sql_("SELECT count(*) FROM Cover WHERE Image BETWEEN X'' AND X'61'"));
  EXPECT_EQ("2", sql_("SELECT count(*) FROM Cover WHERE Image IN (X'61', X'', X'62')"));
  EXPECT_EQ("1", sql_("SELECT count(*) FROM Cover WHERE Image IS X'61'"));
  EXPECT_EQ("5", sql_("SELECT count(*) FROM Cover WHERE Image > 'text'"));
  EXPECT_EQ("x'61'\nx'6100'", sql_("SELECT Image FROM Cover WHERE Kind = 1 AND Image >= X'61'"
                                   " ORDER BY Image"));
}

TEST_F(BinaryIndexTest, Writes_FindWhatTheyDescribe) {
  EXPECT_EQ("", sql_("UPDATE Cover SET Kind = 7 WHERE Image = X'61'"));
  EXPECT_EQ("", sql_("DELETE FROM Cover WHERE Image < X'61'"));
  EXPECT_EQ("1|NULL\n7|x'61'\n1|x'6100'\n2|x'ff'",
            sql_("SELECT Kind, Image FROM Cover ORDER BY Image"));
}

TEST_F(BinaryIndexTest, UniqueKeys_AreReplacedOrRefused) {
  library_.Change([](sagleme::Transaction& transaction) {
    sagleme::CreateIndex(
        transaction, u"OneCover", u"Library.Cover",
        std::array{sagleme::IndexColumnSpec{u"Kind"}, sagleme::IndexColumnSpec{u"Image"}},
        sagleme::Uniqueness::kUnique);
  });
  EXPECT_EQ(sql_("INSERT INTO Cover VALUES (1, X'61')").find("error: "), 0U);
  EXPECT_EQ(SQLITE_CONSTRAINT, sql_.code());
  std::string const before = sql_("SELECT _oid FROM Cover WHERE Image = X'61'");
  EXPECT_EQ("", sql_("INSERT OR REPLACE INTO Cover VALUES (1, X'61')"));
  EXPECT_EQ("6", sql_("SELECT count(*) FROM Cover"));
  EXPECT_NE(before, sql_("SELECT _oid FROM Cover WHERE Image = X'61'"));
}

TEST_F(BinaryIndexTest, Null_IsLookedUp) {
  EXPECT_EQ("1", sql_("SELECT Kind FROM Cover WHERE Image IS NULL"));
  EXPECT_NE(sql_("EXPLAIN QUERY PLAN SELECT Kind FROM Cover WHERE Image IS NULL").find("IS NULL"),
            std::string::npos);
}

TEST_F(BinaryIndexTest, DistinctValuesThatRepeat_AreAllThere) {
  sql_(
      "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < 99)"
      " INSERT INTO Cover SELECT 3, CASE WHEN i % 2 = 0 THEN X'61' END FROM n");
  EXPECT_EQ("NULL\nx''\nx'00'\nx'61'\nx'6100'\nx'ff'",
            sql_("SELECT DISTINCT Image FROM Cover ORDER BY Image"));
  EXPECT_EQ("NULL\nx'61'", sql_("SELECT DISTINCT Image FROM Cover WHERE Kind = 3 ORDER BY Image"));
}

}  // namespace
}  // namespace sql_tests
