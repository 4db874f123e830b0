// SELECT DISTINCT over an index passes over equal rows, and gives what it gives without.

#include <array>

#include "support.h"

namespace sql_tests {
namespace {

constexpr int kRows = 2000;

class DistinctTest : public testing::Test {
 protected:
  DistinctTest() {
    library_.Change([](sagleme::Transaction& transaction) {
      using sagleme::ColumnSpec;
      using sagleme::IndexColumnSpec;
      using sagleme::Type;
      sagleme::CreateTable(
          transaction, u"Library.Sample", u"",
          std::array{ColumnSpec{u"Kind", Type::kString}, ColumnSpec{u"Size", Type::kDouble},
                     ColumnSpec{u"Count", Type::kULong}, ColumnSpec{u"Weight", Type::kDecimal},
                     ColumnSpec{u"Year", Type::kLong}});
      for (auto const* column : {u"Kind", u"Size", u"Count", u"Weight"}) {
        sagleme::CreateIndex(transaction, std::u16string(u"SampleBy") + column, u"Library.Sample",
                             std::array{IndexColumnSpec{column}});
      }
      sagleme::CreateIndex(transaction, u"SampleByYearAndKind", u"Library.Sample",
                           std::array{IndexColumnSpec{u"Year", false}, IndexColumnSpec{u"Kind"}});
    });
    library_.AttachTo(sql_);
    for (int i = 0; i < kRows; ++i) AddRow(i);
    EXPECT_EQ(sql_("COMMIT"), "");
  }

  void AddRow(int i) {
    static constexpr char const* kKinds[] = {
        "NULL", "''", "'a'", "'a b'", "'\xc3\xa9'", "'\xef\xbf\xbd'", "'\xf0\x9f\x98\x80'"};
    static constexpr char const* kSizes[] = {"NULL", "-0.0", "0.0", "-1.5", "1e300", "9e999"};
    static constexpr char const* kCounts[] = {"NULL",
                                              "0",
                                              "9007199254740993",
                                              "9007199254740992",
                                              "9223372036854775807",
                                              "'9223372036854775809'",
                                              "'9223372036854775810'",
                                              "'18446744073709551615'"};
    static constexpr char const* kWeights[] = {"NULL", "0.1", "-0.000001", "9000000000000"};
    if (i == 0) sql_("BEGIN");
    ASSERT_EQ(sql_(std::string("INSERT INTO Sample VALUES(") + kKinds[i % 7] + ", " +
                   kSizes[i / 3 % 6] + ", " + kCounts[i / 5 % 8] + ", " + kWeights[i / 7 % 4] +
                   ", " + std::to_string(i % 4) + ")"),
              "");
  }

  int StepsOf(std::string const& query) {
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(sql_.handle(), query.c_str(), -1, &statement, nullptr), SQLITE_OK);
    while (sqlite3_step(statement) == SQLITE_ROW) continue;
    int const steps = sqlite3_stmt_status(statement, SQLITE_STMTSTATUS_VM_STEP, 0);
    sqlite3_finalize(statement);
    return steps;
  }

  Library library_;
  Sql sql_;
};

TEST_F(DistinctTest, ValuesOfAnIndex_AreReadOnceEach) {
  for (std::string const column : {"Kind", "Count", "Weight", "Year"}) {
    std::string const query = "SELECT DISTINCT " + column + " FROM Sample";
    EXPECT_NE(sql_("EXPLAIN QUERY PLAN " + query).find(", each value once"), std::string::npos)
        << sql_("EXPLAIN QUERY PLAN " + query);
  }
  EXPECT_LT(StepsOf("SELECT DISTINCT Year FROM Sample"), kRows);
  EXPECT_LT(StepsOf("SELECT DISTINCT Weight FROM Sample"), kRows);
  EXPECT_LT(StepsOf("SELECT DISTINCT Kind FROM Sample WHERE Year = 2"), kRows);
  // Each row counts, or another column does.
  EXPECT_GT(StepsOf("SELECT Year, count(*) FROM Sample GROUP BY Year"), kRows);
  EXPECT_GT(StepsOf("SELECT DISTINCT Year FROM Sample WHERE length(Kind) + Size > 1e9"), kRows);
}

TEST_F(DistinctTest, Distinct_GivesWhatAScanGives) {
  for (std::string const column : {"Kind", "Size", "Count", "Weight", "Year"}) {
    for (std::string const where :
         {"", " WHERE # IS NOT NULL", " WHERE # > 0", " WHERE # <= 1", " WHERE # < 'b'",
          " WHERE Year = 1", " WHERE Kind = 'a'", " WHERE rowid % 3 = 0 AND # > -5",
          " WHERE rowid % 500 = 7", " WHERE length(Kind) = 3", " WHERE _oid % 97 = 1 OR # = 0",
          " WHERE Weight + Size > 100", " WHERE # IN (SELECT Year FROM Sample WHERE Size > 3)"}) {
      for (std::string const order : {" ORDER BY #", " ORDER BY # DESC", " ORDER BY 1 LIMIT 3"}) {
        auto const with = [&](std::string text, std::string const& name) {
          for (auto at = text.find('#'); at != std::string::npos; at = text.find('#')) {
            text.replace(at, 1, name);
          }
          return text;
        };
        std::string const rest = with(where, column);
        std::string const by_index =
            sql_("SELECT DISTINCT " + column + " FROM Sample" + rest + with(order, column));
        std::string const by_scan =
            sql_("SELECT DISTINCT +" + column + " FROM Sample" + rest + with(order, "+" + column));
        EXPECT_EQ(by_index, by_scan) << column << rest << order;
        EXPECT_EQ(sql_("SELECT count(DISTINCT " + column + ") FROM Sample" + rest),
                  sql_("SELECT count(DISTINCT +" + column + ") FROM Sample" + rest))
            << column << rest;
      }
    }
  }
}

TEST_F(DistinctTest, InJoinsAndSubqueries_GivesWhatAScanGives) {
  for (std::string const query : {
           "SELECT DISTINCT a.Year FROM Sample AS a JOIN Sample AS b ON b._oid = a._oid "
           "WHERE b.Weight > 5 ORDER BY 1",
           "SELECT DISTINCT a.Year FROM Sample AS a, (SELECT 1 UNION SELECT 2) ORDER BY 1 DESC",
           "SELECT DISTINCT Year FROM Sample AS a WHERE EXISTS (SELECT 1 FROM Sample AS b WHERE "
           "b._oid = a._oid AND b.Size < 0) ORDER BY 1",
           "SELECT count(*) FROM (SELECT DISTINCT Kind FROM Sample)",
           "SELECT count(DISTINCT Year), count(*) FROM Sample",
           "SELECT Year FROM Sample WHERE Size < 0 UNION SELECT Year FROM Sample ORDER BY 1",
       }) {
    std::string scan = query;
    for (std::string const name : {"a.Year", "DISTINCT Kind", "DISTINCT Year"}) {
      auto const at = scan.find(name);
      auto const dot = name.find_last_of(". ");
      bool const table = name[dot] == '.';
      if (at != std::string::npos) scan.insert(table ? at : at + dot + 1, "+");
    }
    EXPECT_EQ(sql_(query), sql_(scan)) << query << "\n" << scan;
  }
}

TEST_F(DistinctTest, RowsChangedMeanwhile_AreReadCorrectly) {
  Statement scan(sql_, "SELECT DISTINCT Year FROM Sample");
  EXPECT_EQ(scan.Next(), "0");
  sql_("DELETE FROM Sample WHERE Year = 1");
  EXPECT_EQ(scan.Next(), "2");
  EXPECT_EQ(scan.Next(), "3");
  EXPECT_EQ(scan.Next(), "");
}

}  // namespace
}  // namespace sql_tests
