// References and the functions over them.

#include "support.h"

namespace sql_tests {
namespace {

class FunctionsTest : public testing::Test {
 protected:
  FunctionsTest() {
    library_.AttachTo(sql_);
    sql_("INSERT INTO Person(Name) VALUES('Ann'), ('Bob')");
    sql_(
        "UPDATE Person SET Boss = (SELECT _oid FROM Person WHERE Name = 'Bob') "
        "WHERE Name = 'Ann'");
    sql_(
        "INSERT INTO Book(Title, Year, Lender) "
        "SELECT 'Dune', 1965, _oid FROM Person WHERE Name = 'Ann'");
    sql_("INSERT INTO Item(Title, Year) VALUES('Map', 1800)");
  }

  Library library_;
  Sql sql_;
};

TEST_F(FunctionsTest, Arrow_FollowsReferences) {
  EXPECT_EQ(sql_("SELECT Title, Lender->'Name', Lender->'Boss'->'Name' FROM Item ORDER BY Year"),
            "Map|NULL|NULL\nDune|Ann|Bob");
  EXPECT_EQ(sql_("SELECT Title FROM Book WHERE Lender->>'Boss'->>'name' = 'Bob'"), "Dune");
  EXPECT_EQ(sql_("SELECT Lender->'Shoe' FROM Book"), "error: no such column: Person.Shoe");
}

TEST_F(FunctionsTest, Arrow_StillReadsJson) {
  EXPECT_EQ(sql_("SELECT '{\"a\":{\"b\":5}}'->'a'->'b', '{\"a\":\"x\"}'->>'$.a', '[1,2]'->1"),
            "5|x|2");
  EXPECT_EQ(sql_("SELECT json_type('{\"a\":[1]}'->'a')"), "array");
  EXPECT_EQ(sql_("SELECT 'nonsense'->'a'"), "error: malformed JSON");
}

TEST_F(FunctionsTest, NumberThatMayHaveBeenAReference_IsRefused) {
  EXPECT_TRUE(sql_("SELECT x->'Name' FROM (SELECT Lender AS x FROM Book ORDER BY Price LIMIT 3)")
                  .starts_with("error: -> cannot tell"));
  EXPECT_EQ(sql_("SELECT sagleme_deref('lib', x, 'Name') FROM "
                 "(SELECT Lender AS x FROM Book ORDER BY Price LIMIT 3)"),
            "Ann");
  EXPECT_EQ(sql_("SELECT sagleme_deref('lib', NULL, 'Name')"), "NULL");
  EXPECT_EQ(sql_("SELECT sagleme_deref('nix', 1, 'Name')"),
            "error: No sagleme database is attached as nix; see sagleme_attach.");
}

TEST_F(FunctionsTest, IsOf_AsksForTheTable) {
  EXPECT_EQ(sql_("SELECT Title, is_of(_oid, 'Library.Book'), is_of(_oid, 'Item'), "
                 "is_of(_oid, 'Item only'), is_of(Lender, 'Person') FROM Item ORDER BY Year"),
            "Map|0|1|1|NULL\nDune|1|1|0|1");
  EXPECT_EQ(sql_("SELECT is_of(_oid, 'Film') FROM Book"), "error: no such table: Film");
}

TEST_F(FunctionsTest, Only_ListsOneTable) {
  EXPECT_EQ(sql_("SELECT o._table, i.Title FROM only('Library.Item') o JOIN Item i "
                 "ON i._oid = o._oid"),
            "Library.Item|Map");
  EXPECT_EQ(sql_("SELECT count(*) FROM only('Book', 'lib')"), "1");
  EXPECT_EQ(sql_("SELECT count(*) FROM only('Film')"), "error: no such table: lib.Film only");
}

TEST_F(FunctionsTest, JoinOnAReference_IsALookUp) {
  EXPECT_EQ(sql_("SELECT b.Title, p.Name FROM Book b JOIN Person p ON p._oid = b.Lender"),
            "Dune|Ann");
  std::string const plan =
      sql_("EXPLAIN QUERY PLAN SELECT * FROM Book b JOIN Person p ON p._oid = b.Lender");
  EXPECT_NE(plan.find("_oid (_oid=?)"), std::string::npos) << plan;
}

TEST_F(FunctionsTest, Exact_IsABlobOfTheWholeValue) {
  sql_("UPDATE Book SET Pages = '18446744073709551615', Price = '-0.000001'");
  EXPECT_EQ(sql_("SELECT hex(sagleme_exact('lib', _oid, 'Pages')), "
                 "hex(sagleme_exact('lib', _oid, 'Price')), "
                 "hex(sagleme_exact('lib', _oid, 'Title')) FROM Book"),
            "FFFFFFFFFFFFFFFF|FFFFFFFFFFFFFFFF|440075006E006500");
  sql_("UPDATE Item SET Price = x'0000000000000001', Title = x'00D8' WHERE Year = 1800");
  EXPECT_EQ(sql_("SELECT Price, Title = char(0xFFFD), hex(sagleme_exact('lib', _oid, 'Title')) "
                 "FROM Item WHERE Year = 1800"),
            "1.0e-06|1|00D8");
}

}  // namespace
}  // namespace sql_tests
