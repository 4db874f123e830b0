// Definitions: what the grammar takes, what it says of the rest, and when SQL sees the change.

#include "sql/definition.h"

#include "support.h"

namespace sql_tests {
namespace {

class DefineTest : public testing::Test {
 protected:
  DefineTest() { library_.AttachTo(sql_); }

  std::string operator()(std::string const& statement) {
    std::string quoted;
    for (char const c : statement) quoted += c == '\'' ? "''" : std::string(1, c);
    return sql_("SELECT sagleme_exec('" + quoted + "')");
  }

  Library library_;
  Sql sql_;
};

TEST_F(DefineTest, TablesAndIndexes_ComeAndGo) {
  EXPECT_EQ((*this)("CREATE TABLE Library.Film (Minutes integer NOT NULL, \"Made in\" text, "
                    "Director REF(Person)) UNDER Library.Item"),
            "instant      create table Library.Film derived from Library.Item");
  EXPECT_EQ(sql_("INSERT INTO Film(Title, Year, Minutes, \"Made in\") "
                 "VALUES('Metropolis', 1927, 153, 'Berlin'); SELECT Minutes FROM Film"),
            "153");
  EXPECT_EQ((*this)("CREATE INDEX FilmByMinutes ON Film (Minutes DESC, Title)"),
            "background   create index FilmByMinutes on Library.Film");
  // EXPLAIN alone looks at no file, so it does not find the definitions that changed.
  EXPECT_EQ(sql_("SELECT Minutes FROM Film WHERE Minutes > 100"), "153");
  std::string const plan = sql_("EXPLAIN QUERY PLAN SELECT * FROM Film WHERE Minutes > 100");
  EXPECT_NE(plan.find("FilmByMinutes (Minutes>?)"), std::string::npos) << plan;
  EXPECT_EQ((*this)("ALTER TABLE Film RENAME COLUMN Minutes TO Length"),
            "instant      rename column Minutes of Library.Film to Length");
  EXPECT_EQ(sql_("SELECT Length FROM Film WHERE Length > 100"), "153");
  EXPECT_EQ((*this)("ALTER TABLE Film ADD Colour boolean"),
            "background   add Colour to Library.Film");
  EXPECT_EQ(sql_("SELECT Colour FROM Film"), "NULL");
  EXPECT_EQ((*this)("ALTER TABLE Film DROP COLUMN Colour"),
            "destructive  drop column Colour of Library.Film with its values");
  EXPECT_EQ((*this)("ALTER TABLE Film RENAME TO Library.Movie"),
            "instant      rename table Library.Film to Library.Movie");
  EXPECT_EQ((*this)("DROP INDEX FilmByMinutes"), "instant      drop index FilmByMinutes");
  EXPECT_EQ(sql_("SELECT Title FROM Movie"), "Metropolis");
  EXPECT_EQ((*this)("DROP TABLE Movie"), "destructive  drop table Library.Movie with its objects");
  EXPECT_EQ(sql_("SELECT * FROM Movie"), "error: no such table: Movie");
}

TEST_F(DefineTest, AlterColumn_ConvertsValuesOrRefuses) {
  EXPECT_EQ((*this)("ALTER TABLE Item ALTER COLUMN Year DROP NOT NULL"),
            "background   change column Year of Library.Item from long without null to long");
  sql_("INSERT INTO Item(Title, Year) VALUES('1', 1931), ('x', NULL)");
  EXPECT_EQ((*this)("ALTER TABLE Item ALTER COLUMN Year TYPE text"),
            "background   change column Year of Library.Item from long to string");
  EXPECT_EQ(sql_("SELECT Year || typeof(Year) FROM Item WHERE Title = '1'"), "1931text");
  EXPECT_EQ((*this)("ALTER TABLE Item ALTER Year SET DATA TYPE bigint"),
            "background   change column Year of Library.Item from string to long");
  EXPECT_EQ(sql_("SELECT Year + 1 FROM Item WHERE Year = 1931"), "1932");
  EXPECT_EQ((*this)("ALTER TABLE Item ALTER Year TYPE bigint"), "");
  EXPECT_TRUE((*this)("ALTER TABLE Item ALTER Year SET NOT NULL").starts_with("error: 1 value"));
  sql_("UPDATE Item SET Year = 7 WHERE Year IS NULL");
  EXPECT_EQ((*this)("ALTER TABLE Item ALTER COLUMN Year SET NOT NULL"),
            "background   change column Year of Library.Item from long to long without null");
  EXPECT_EQ((*this)("ALTER TABLE Book ALTER Year TYPE text"),
            "error: Column Year of Library.Book is inherited. Change it in the table that declares "
            "it.");
}

TEST_F(DefineTest, AlterColumn_OverValuesThatDoNotConvert_NamesThem) {
  sql_("INSERT INTO Item(Title, Year) VALUES('1', 1), ('x', 2)");
  std::string const plan = (*this)("EXPLAIN ALTER TABLE Item ALTER Title TYPE bigint");
  EXPECT_TRUE(
      plan.starts_with("refused      change column Title of Library.Item from string to "
                       "long: 1 value of column Title of Library.Item does not convert to "
                       "long: \"x\" (object "))
      << plan;
  EXPECT_TRUE((*this)("ALTER TABLE Item ALTER Title TYPE bigint").starts_with("error: 1 value"));
  EXPECT_EQ(sql_("SELECT Title FROM Item WHERE Year = 2"), "x");
}

// They stay until vacuum takes them away.
TEST_F(DefineTest, ObjectsOfADroppedTable_AreInNoTableAboveIt) {
  (*this)("CREATE TABLE Library.Film () INHERITS (Library.Item)");
  sql_(
      "INSERT INTO Film(Title, Year) VALUES('M', 1931); "
      "INSERT INTO Item(Title, Year) VALUES('N', 1931)");
  std::string const counts =
      "SELECT count(*) FROM Item; SELECT count(*) FROM Item WHERE Year = 1931; "
      "SELECT count(*) FROM Item WHERE Title > ''";
  EXPECT_EQ(sql_(counts), "2\n2\n2");
  sql_("BEGIN");
  (*this)("DROP TABLE Film");
  EXPECT_EQ(sql_(counts), "1\n1\n1");
  EXPECT_EQ(sql_("ROLLBACK; " + counts), "2\n2\n2");
  (*this)("DROP TABLE Film");
  EXPECT_EQ(sql_(counts), "1\n1\n1");
}

TEST_F(DefineTest, Explain_ShowsThePlanAndChangesNothing) {
  EXPECT_EQ((*this)("EXPLAIN DROP TABLE Item CASCADE"),
            "instant      drop index ItemByTitle\ninstant      drop index ItemByYear\n"
            "instant      drop index BookByPages\n"
            "destructive  drop table Library.Item with its objects\n"
            "destructive  drop table Library.Book with its objects");
  EXPECT_EQ(sql_("SELECT count(*) FROM Book"), "0");
}

TEST_F(DefineTest, DefinitionInATransaction_EndsWithIt) {
  sql_("BEGIN");
  (*this)("CREATE TABLE Library.Film () INHERITS (Library.Item)");
  EXPECT_EQ(sql_("INSERT INTO Film(Title, Year) VALUES('M', 1931); SELECT _table FROM Item"),
            "Library.Film");
  EXPECT_EQ(sql_("ROLLBACK; SELECT * FROM Film"), "error: no such table: Film");
  sql_("BEGIN");
  (*this)("ALTER TABLE Item ADD Shelf text");
  EXPECT_EQ(sql_("INSERT INTO Book(Title, Year, Shelf) VALUES('Emma', 1815, 'E'); COMMIT"), "");
  EXPECT_EQ(sql_("SELECT Shelf FROM Item"), "E");
  sql_("BEGIN; SAVEPOINT s");
  (*this)("DROP INDEX ItemByYear");
  EXPECT_EQ(sql_("ROLLBACK TO s; SELECT Shelf FROM Item WHERE Year = 1815; COMMIT"), "E");
}

TEST_F(DefineTest, SavepointAfterATableWasDropped_KeepsThatWhenItIsRolledBackTo) {
  (*this)("CREATE TABLE Library.Film () UNDER Library.Item");
  sql_("BEGIN");
  (*this)("DROP TABLE Film");
  sql_("SAVEPOINT s; INSERT INTO Item(Title, Year) VALUES('a', 1)");
  EXPECT_EQ(sql_("ROLLBACK TO s; SELECT count(*) FROM Item; COMMIT"), "0");
  EXPECT_EQ(sql_("SELECT * FROM Film"), "error: no such table: Film");
}

TEST_F(DefineTest, SetParent_MovesTheTableWithItsRows) {
  (*this)("CREATE TABLE Library.Film (Minutes integer) UNDER Library.Item");
  (*this)("CREATE TABLE Library.Show (Title text, Stage text)");
  sql_("INSERT INTO Film(Title, Year, Minutes) VALUES('M', 1931, 117)");
  EXPECT_EQ((*this)("EXPLAIN ALTER TABLE Film SET PARENT Show"),
            "background   move table Library.Film under Library.Show");
  EXPECT_EQ((*this)("ALTER TABLE Film SET PARENT Show"),
            "background   move table Library.Film under Library.Show");
  EXPECT_EQ(sql_("SELECT Title, _table FROM Show; SELECT Year, Minutes FROM Film"),
            "M|Library.Film\n1931|117");
  EXPECT_EQ(sql_("SELECT count(*) FROM Item"), "0");
  EXPECT_EQ((*this)("ALTER TABLE Film SET PARENT NULL"),
            "background   move table Library.Film to the root");
  EXPECT_EQ(sql_("SELECT count(*) FROM Show; SELECT Title FROM Film"), "0\nM");
  EXPECT_EQ((*this)("ALTER TABLE Film SET PARENT Film"),
            "error: table Library.Film cannot derive from itself");
  EXPECT_EQ((*this)("EXPLAIN ALTER TABLE Film SET PARENT Film"),
            "error: table Library.Film cannot derive from itself");
  EXPECT_EQ((*this)("ALTER TABLE Film SET PARENT Nothing"), "error: no such table: Nothing");
}

TEST_F(DefineTest, Error_SaysWhereAndWhatWasExpected) {
  EXPECT_EQ((*this)("CREATE TABLE a.B (\n  x integer,\n  y nonsense)"),
            "error: line 3, column 5: expected a type, or REF(table), found nonsense");
  EXPECT_EQ((*this)("CREATE TABLE (x integer)"),
            "error: line 1, column 14: expected the name of a table, found (");
  EXPECT_EQ(
      (*this)("CREATE TABLE B (x integer"),
      "error: line 1, column 26: expected NOT NULL, DEFAULT, ON DELETE, a comma or ), found the "
      "end");
  EXPECT_EQ((*this)("CREATE TABLE B (x integer PRIMARY KEY)"),
            "error: line 1, column 27: expected NOT NULL, DEFAULT, ON DELETE, a comma or ), found "
            "PRIMARY");
  EXPECT_EQ((*this)("CREATE TABLE B (x varchar(20))"),
            "error: line 1, column 26: expected no length or precision, which columns do not "
            "have, found (");
  EXPECT_EQ((*this)("CREATE TABLE B (x timetz)"),
            "error: line 1, column 19: type timetz is not supported");
  EXPECT_EQ((*this)("ALTER TABLE Item SET PARENT"),
            "error: line 1, column 28: expected the name of the base, or NULL, found the end");
  EXPECT_EQ((*this)("ALTER TABLE Item ALTER Year USING text"),
            "error: line 1, column 29: expected TYPE, SET or DROP NOT NULL, found USING");
  EXPECT_EQ((*this)("ALTER TABLE Item ALTER Year SET PRIMARY KEY"),
            "error: line 1, column 33: expected NOT NULL, DATA TYPE, TYPE, DEFAULT or ON DELETE, "
            "found PRIMARY");
  EXPECT_EQ(
      (*this)("TRUNCATE Item"),
      "error: line 1, column 1: expected CREATE TABLE, CREATE INDEX, ALTER TABLE, DROP TABLE, "
      "DROP INDEX or COMMENT ON, found TRUNCATE");
  EXPECT_EQ((*this)("CREATE TABLE B (x integer) nonsense"),
            "error: line 1, column 28: expected the end of the statement, found nonsense");
}

TEST_F(DefineTest, StatementRefusedByTheLayer_LeavesNothing) {
  EXPECT_EQ((*this)("DROP TABLE Film"), "error: no such table: Film");
  EXPECT_EQ((*this)("DROP TABLE IF EXISTS Film"), "");
  EXPECT_EQ((*this)("CREATE TABLE Library.Book (x text)"),
            "error: table Library.Book already exists");
  EXPECT_TRUE((*this)("DROP TABLE Item").starts_with("error"));
  EXPECT_TRUE((*this)("ALTER TABLE Item DROP COLUMN Year").starts_with("error"));
  EXPECT_EQ((*this)("CREATE TABLE A.B (c REF(No.Such))"), "error: no such table: No.Such");
  EXPECT_EQ(sql_("INSERT INTO Item(Title, Year) VALUES('x', 1); SELECT count(*) FROM Item"), "1");
  EXPECT_TRUE(sql_("DROP TABLE lib.Item").starts_with("error"));
  EXPECT_EQ(sql_("SELECT count(*) FROM Item"), "1");
}

TEST_F(DefineTest, DefinitionsOf_AreReadAgain) {
  (*this)(
      "CREATE TABLE \"Odd \"\"one\" (b boolean, r real NOT NULL, d double, \"a b\" binary, "
      "n decimal, u uint)");
  std::string text;
  library_.Change(
      [&](sagleme::Transaction& transaction) { text = sagleme::sql::DefinitionsOf(transaction); });
  (*this)("DROP TABLE Item CASCADE; DROP TABLE Person CASCADE; DROP TABLE \"Odd \"\"one\"");
  EXPECT_EQ(sql_("SELECT name FROM lib.sqlite_schema WHERE type = 'table'"), "");
  EXPECT_FALSE((*this)(text).starts_with("error"));
  library_.Change([&](sagleme::Transaction& transaction) {
    EXPECT_EQ(sagleme::sql::DefinitionsOf(transaction), text);
  });
}

}  // namespace
}  // namespace sql_tests
