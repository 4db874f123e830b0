// INSERT, UPDATE, DELETE and transactions.

#include "support.h"

namespace sql_tests {
namespace {

using sagleme::Object;
using sagleme::ObjectId;
using sagleme::Transaction;

class WriteTest : public testing::Test {
 protected:
  WriteTest() { library_.AttachTo(sql_); }

  Library library_;
  Sql sql_;
};

TEST_F(WriteTest, Insert_IntoEachTableOfTheTree) {
  EXPECT_EQ(sql_("INSERT INTO Item(Title, Year) VALUES('Map', 1800)"), "");
  EXPECT_EQ(sql_("INSERT INTO Book(Title, Year, Pages) VALUES('Dune', 1965, 600)"), "");
  EXPECT_EQ(sql_("INSERT INTO Item(_table, Title, Year) VALUES('Library.Book', 'Emma', 1815)"), "");
  EXPECT_EQ(sql_("SELECT _table, Title, Year, Price FROM Item ORDER BY Year"),
            "Library.Item|Map|1800|NULL\nLibrary.Book|Emma|1815|NULL\nLibrary.Book|Dune|1965|NULL");
  EXPECT_EQ(sql_("INSERT INTO Book(_table, Title, Year) VALUES('Item', 'x', 1)"),
            "error: Table Item is not derived from Library.Book.");
}

TEST_F(WriteTest, Returning_GivesTheInsertedRowAndItsId) {
  EXPECT_EQ(sql_("INSERT INTO Book(Title, Year, Price) VALUES('a', 1, '1.25') "
                 "RETURNING Title, Price"),
            "a|1.25");
  EXPECT_EQ(sql_("SELECT Title FROM Book WHERE _oid = last_insert_rowid()"), "a");
}

TEST_F(WriteTest, ValuesOfEachType_ComeBack) {
  sql_("INSERT INTO Person(Name) VALUES('Ann')");
  EXPECT_EQ(sql_("INSERT INTO Book(Title, Year, Price, Lender, Pages) "
                 "SELECT 'Ä\U0001F600', -9223372036854775808, '9223372036854.775807', _oid, "
                 "'18446744073709551615' FROM Person"),
            "");
  EXPECT_EQ(sql_("SELECT Title, Year, Pages, Lender = (SELECT _oid FROM Person) FROM Book"),
            "Ä\U0001F600|-9223372036854775808|1.84467440737096e+19|1");
  library_.Change([](Transaction& transaction) {
    auto const book = transaction.table(u"Library.Book");
    for (Object const& object : sagleme::Range::Only(transaction, *book)) {
      EXPECT_EQ(std::get<sagleme::Decimal>(object.Get(u"Price")).millionths, INT64_MAX);
      EXPECT_EQ(std::get<std::uint64_t>(object.Get(u"Pages")), UINT64_MAX);
    }
  });
  // Columns that are not assigned keep what SQLite cannot hold.
  EXPECT_EQ(sql_("UPDATE Book SET Year = 7"), "");
  library_.Change([](Transaction& transaction) {
    auto const book = transaction.table(u"Library.Book");
    for (Object const& object : sagleme::Range::Only(transaction, *book)) {
      EXPECT_EQ(std::get<sagleme::Decimal>(object.Get(u"Price")).millionths, INT64_MAX);
      EXPECT_EQ(std::get<std::uint64_t>(object.Get(u"Pages")), UINT64_MAX);
      EXPECT_EQ(std::get<std::int64_t>(object.Get(u"Year")), 7);
    }
  });
}

TEST_F(WriteTest, ValueThatDoesNotFitItsColumn_IsRefused) {
  auto const refused = [&](std::string const& columns, std::string const& values) {
    return sql_("INSERT INTO Book(" + columns + ") VALUES(" + values + ")");
  };
  EXPECT_EQ(refused("Title", "'a'"), "error: NOT NULL constraint failed: Year");
  EXPECT_EQ(sql_.code() & 0xFF, SQLITE_CONSTRAINT);
  EXPECT_EQ(refused("Year", "'abc'"), "error: Column Year of type long does not take a text abc.");
  EXPECT_EQ(refused("Year", "1.5"),
            "error: Column Year of type long does not take a real number 1.5.");
  EXPECT_EQ(refused("Year, Pages", "1, -1"),
            "error: Column Pages of type ulong does not take an integer -1.");
  EXPECT_EQ(refused("Year, Price", "1, 9223372036855"),
            "error: Column Price of type decimal does not take an integer 9223372036855.");
  EXPECT_EQ(refused("Year, Title", "1, CAST(x'4100' AS TEXT)"),
            "error: The text for column Title is not UTF-8, or has a zero byte in it.");
  EXPECT_EQ(sql_("SELECT count(*) FROM Item"), "0");
}

TEST_F(WriteTest, DuplicateKey_IsAConstraintAndLeavesNothing) {
  sql_("INSERT INTO Person(Name) VALUES('Ann'), ('Bob')");
  EXPECT_EQ(sql_("INSERT INTO Person(Name) VALUES('Ann')"),
            "error: UNIQUE constraint failed: Person: another object has the same values in the "
            "index PersonByName (Name)");
  EXPECT_EQ(sql_.code() & 0xFF, SQLITE_CONSTRAINT);
  EXPECT_EQ(sql_("SELECT count(*) FROM Person"), "2");
  EXPECT_EQ(sql_("INSERT OR IGNORE INTO Person(Name) VALUES('Ann'), ('Cid')"), "");
  EXPECT_EQ(sql_("SELECT Name FROM Person ORDER BY Name"), "Ann\nBob\nCid");
  EXPECT_TRUE(sql_("UPDATE Person SET Name = 'Bob' WHERE Name = 'Cid'").starts_with("error"));
  EXPECT_EQ(sql_("SELECT Name FROM Person ORDER BY Name"), "Ann\nBob\nCid");
}

TEST_F(WriteTest, StatementThatFailsHalfWay_LeavesNothing) {
  sql_("INSERT INTO Person(Name) VALUES('Ann')");
  EXPECT_TRUE(sql_("INSERT INTO Person(Name) VALUES('x'), ('y'), ('Ann')").starts_with("error"));
  EXPECT_EQ(sql_("SELECT Name FROM Person"), "Ann");
}

TEST_F(WriteTest, UpdateAndDelete_ByIndexAndById) {
  sql_("INSERT INTO Book(Title, Year) VALUES('a', 1), ('b', 2), ('c', 3)");
  // The very column that the rows are found by changes, and each row changes once.
  EXPECT_EQ(sql_("UPDATE Item SET Year = Year + 1 WHERE Year >= 1"), "");
  EXPECT_EQ(sql_("SELECT changes()"), "3");
  EXPECT_EQ(sql_("SELECT Title, Year FROM Book ORDER BY Year"), "a|2\nb|3\nc|4");
  EXPECT_EQ(sql_("DELETE FROM Item WHERE rowid = (SELECT _oid FROM Book WHERE Title = 'b')"), "");
  EXPECT_EQ(sql_("SELECT Title FROM Book ORDER BY Title"), "a\nc");
  EXPECT_EQ(sql_("DELETE FROM Book"), "");
  EXPECT_EQ(sql_("SELECT count(*) FROM Item"), "0");
}

TEST_F(WriteTest, IdOfAnObject_IsNotChanged) {
  sql_("INSERT INTO Book(Title, Year) VALUES('a', 1)");
  EXPECT_EQ(sql_("UPDATE Book SET _oid = 5"), "error: An object's id cannot be changed.");
  EXPECT_EQ(sql_("UPDATE Book SET rowid = 5"), "error: An object's id cannot be changed.");
}

TEST_F(WriteTest, TableOfAnObject_ChangesWithItsValues) {
  sql_("INSERT INTO Book(Title, Year) VALUES('a', 1), ('b', 2)");
  EXPECT_EQ(sql_("UPDATE Item SET _table = 'Book', Year = 2 WHERE Title = 'a'; SELECT Year FROM "
                 "Item WHERE Title = 'a'"),
            "2");
  EXPECT_EQ(sql_("UPDATE Item SET _table = 'Item', Year = 3 WHERE Title = 'a'"), "");
  EXPECT_EQ(sql_("SELECT Title, Year, _table FROM Item ORDER BY Title"),
            "a|3|Library.Item\nb|2|Library.Book");
  EXPECT_EQ(sql_("SELECT Title FROM Book"), "b");
  EXPECT_EQ(sql_("UPDATE Item SET _table = 'Library.Book'; SELECT count(*) FROM Book"), "2");
  EXPECT_EQ(sql_("BEGIN; UPDATE Item SET _table = 'Item'; ROLLBACK; SELECT count(*) FROM Book"),
            "2");
  EXPECT_EQ(sql_("UPDATE Book SET _table = 'Item'"),
            "error: Table Item is not derived from Library.Book.");
  EXPECT_EQ(sql_("UPDATE Item SET _table = 'Nothing'"), "error: no such table: Nothing");
}

TEST_F(WriteTest, ChosenId_IsTakenOnce) {
  EXPECT_EQ(sql_("INSERT INTO Book(_oid, Title, Year) VALUES(123456789, 'a', 1)"), "");
  EXPECT_EQ(sql_("SELECT Title FROM Item WHERE _oid = 123456789"), "a");
  EXPECT_EQ(sql_("INSERT INTO Book(_oid, Title, Year) VALUES(123456789, 'b', 1)"),
            "error: UNIQUE constraint failed: Book._oid: ids are given once, and this one was");
  EXPECT_EQ(sql_("INSERT OR REPLACE INTO Book(_oid, Title, Year) VALUES(123456789, 'b', 2)"), "");
  EXPECT_EQ(sql_("SELECT Title, Year FROM Item"), "b|2");
}

TEST_F(WriteTest, Catalogue_IsNotWritten) {
  EXPECT_EQ(sql_("DELETE FROM RawView"),
            "error: Table Lorvenstack.Metadata.RawView is part of the catalogue, which changes by "
            "definitions alone.");
  EXPECT_EQ(sql_.code(), SQLITE_READONLY);
}

TEST_F(WriteTest, Rollback_UndoesOrdinaryTablesToo) {
  sql_("CREATE TABLE log(x); BEGIN; INSERT INTO log VALUES(1)");
  sql_("INSERT INTO Item(Title, Year) VALUES('a', 1)");
  EXPECT_EQ(sql_("SELECT count(*) FROM Item, log"), "1");
  sql_("ROLLBACK");
  EXPECT_EQ(sql_("SELECT (SELECT count(*) FROM Item), (SELECT count(*) FROM log)"), "0|0");
  sql_("BEGIN; INSERT INTO log VALUES(1); INSERT INTO Item(Title, Year) VALUES('a', 1); COMMIT");
  EXPECT_EQ(sql_("SELECT (SELECT count(*) FROM Item), (SELECT count(*) FROM log)"), "1|1");
}

TEST_F(WriteTest, Conflict_IsReportedByCommitAndCanBeRetried) {
  sql_("INSERT INTO Item(Title, Year) VALUES('a', 1)");
  Sql other;
  library_.AttachTo(other);
  sql_("BEGIN; UPDATE Item SET Year = Year + 10");
  other("UPDATE Item SET Year = Year + 100");
  EXPECT_TRUE(sql_("COMMIT").starts_with("error"));
  EXPECT_EQ(sql_.code(), SQLITE_BUSY_SNAPSHOT);
  EXPECT_EQ(sql_("SELECT Year FROM Item"), "101");
  EXPECT_EQ(sql_("BEGIN; UPDATE Item SET Year = Year + 10; COMMIT"), "");
  EXPECT_EQ(other("SELECT Year FROM Item"), "111");
}

TEST_F(WriteTest, Scan_ContinuesOverACommit) {
  sql_("INSERT INTO Item(Title, Year) VALUES('a', 1), ('b', 2), ('c', 3), ('d', 4)");
  Statement scan(sql_, "SELECT Title, Year FROM Item ORDER BY Year");
  EXPECT_EQ(scan.Next(), "a|1");
  sql_("UPDATE Item SET Title = Title || '!' WHERE Year = 2; DELETE FROM Item WHERE Year = 3");
  EXPECT_EQ(scan.Next(), "b!|2");
  EXPECT_EQ(scan.Next(), "d|4");
  EXPECT_EQ(scan.Next(), "");
}

TEST_F(WriteTest, Scan_ContinuesOverARollback) {
  sql_("INSERT INTO Item(Title, Year) VALUES('a', 1), ('b', 2), ('c', 3)");
  sql_("BEGIN; DELETE FROM Item WHERE Year = 2");
  Statement scan(sql_, "SELECT Title FROM Item ORDER BY Year");
  EXPECT_EQ(scan.Next(), "a");
  sql_("ROLLBACK");
  EXPECT_EQ(scan.Next(), "c");
  EXPECT_EQ(scan.Next(), "");
  EXPECT_EQ(sql_("SELECT count(*) FROM Item"), "3");
}

TEST_F(WriteTest, Savepoints_Nest) {
  sql_("SAVEPOINT a; INSERT INTO Item(Title, Year) VALUES('1', 1)");
  sql_("SAVEPOINT b; INSERT INTO Book(Title, Year) VALUES('2', 2)");
  sql_("SAVEPOINT c; INSERT INTO Person(Name) VALUES('3')");
  EXPECT_EQ(sql_("ROLLBACK TO b; SELECT group_concat(Title) FROM Item"), "1");
  EXPECT_EQ(sql_("SELECT count(*) FROM Person"), "0");
  sql_("INSERT INTO Book(Title, Year) VALUES('4', 4); RELEASE b");
  EXPECT_EQ(sql_("SELECT group_concat(Title) FROM Item"), "1,4");
  EXPECT_EQ(sql_("ROLLBACK TO a; SELECT count(*) FROM Item; RELEASE a"), "0");
}

TEST_F(WriteTest, SavepointBeforeAStatementThatFailed_IsKept) {
  sql_("BEGIN; SAVEPOINT a");
  EXPECT_TRUE(sql_("INSERT INTO Item(Year) VALUES('x')").starts_with("error"));
  sql_("INSERT INTO Item(Title, Year) VALUES('1', 1)");
  EXPECT_EQ(sql_("ROLLBACK TO a; SELECT count(*) FROM Item; COMMIT"), "0");
}

TEST_F(WriteTest, UpsertAndReturningOfChanges_AreRefusedBySqlite) {
  sql_("INSERT INTO Person(Name) VALUES('Ann')");
  EXPECT_EQ(sql_("INSERT INTO Person(Name) VALUES('Ann') ON CONFLICT DO NOTHING"),
            "error: UPSERT not implemented for virtual table \"Person\"");
  EXPECT_EQ(sql_("UPDATE Person SET Name = 'Bob' RETURNING Name"),
            "error: UPDATE RETURNING is not available on virtual tables");
  EXPECT_EQ(sql_("DELETE FROM Person RETURNING Name"),
            "error: DELETE RETURNING is not available on virtual tables");
  EXPECT_EQ(sql_("SELECT Name FROM Person"), "Ann");
}

// SQLite stops behind the first row of a plan that it takes for unique.
TEST_F(WriteTest, RowsThatAUniqueIndexHoldsUnderOneValueOfSqlite_AreAllChanged) {
  sql_("INSERT INTO Person(Name) VALUES(NULL), (NULL), ('a'), (NULL)");
  sql_("UPDATE Person SET Boss = _oid WHERE Name IS NULL");
  EXPECT_EQ(sql_("SELECT count(*) FROM Person WHERE Boss = _oid"), "3");
  library_.Change([](sagleme::Transaction& transaction) {
    for (auto const* name : {u"\xd800", u"\xd801", u"\xfffd"}) {
      sagleme::Object::Create(transaction, *transaction.table(u"Library.Person"))
          .Set(u"Name", std::u16string(name));
    }
  });
  sql_("UPDATE Person SET Boss = _oid WHERE Name = char(0xFFFD)");
  EXPECT_EQ(sql_("SELECT count(*) FROM Person WHERE Boss = _oid"), "6");
  sql_("DELETE FROM Person WHERE Name IS NULL");
  EXPECT_EQ(sql_("SELECT count(*) FROM Person"), "4");
}

TEST_F(WriteTest, OrReplace_DeletesTheRowWithTheSameKey) {
  sql_("INSERT INTO Person(Name) VALUES('Ann'), ('Bob'), ('Cid')");
  EXPECT_EQ(sql_("INSERT OR REPLACE INTO Person(Name) VALUES('Ann'), ('Dee')"), "");
  EXPECT_EQ(sql_("SELECT Name FROM Person ORDER BY _oid"), "Bob\nCid\nAnn\nDee");
  EXPECT_EQ(sql_("UPDATE OR REPLACE Person SET Name = 'Bob' WHERE Name = 'Cid'"), "");
  EXPECT_EQ(sql_("UPDATE OR REPLACE Person SET Name = 'Bob' WHERE Name = 'Bob'"), "");
  EXPECT_EQ(sql_("SELECT Name FROM Person ORDER BY _oid"), "Bob\nAnn\nDee");
  // All of them come to have one name, and the last one keeps it.
  EXPECT_EQ(sql_("UPDATE OR REPLACE Person SET Name = 'Eve'"), "");
  EXPECT_EQ(sql_("SELECT Name FROM Person"), "Eve");
}

TEST_F(WriteTest, StatementThatFailsInATransaction_IsUndoneAlone) {
  sql_("BEGIN; INSERT INTO Person(Name) VALUES('Ann')");
  EXPECT_TRUE(sql_("INSERT INTO Person(Name) VALUES('x'), ('y'), ('Ann')").starts_with("error"));
  EXPECT_TRUE(sql_("UPDATE Person SET Name = 'z', Boss = 'b'").starts_with("error"));
  sql_("INSERT INTO Person(Name) VALUES('Bob'); COMMIT");
  EXPECT_EQ(sql_("SELECT Name FROM Person ORDER BY Name"), "Ann\nBob");
}

TEST_F(WriteTest, SecondDatabase_IsRefusedInOneTransaction) {
  Sql other;
  EXPECT_EQ(sql_("SELECT sagleme_attach('" + library_.directory() + "', 'again')"), "again");
  sql_("BEGIN; INSERT INTO lib.Item(Title, Year) VALUES('1', 1)");
  EXPECT_EQ(sql_("INSERT INTO again.Item(Title, Year) VALUES('1', 1)"),
            "error: A transaction changes one sagleme database, and this one changes lib; commit "
            "it before again is changed.");
  EXPECT_EQ(sql_("COMMIT; INSERT INTO again.Item(Title, Year) VALUES('2', 2)"), "");
  EXPECT_EQ(sql_("SELECT count(*) FROM lib.Item"), "2");
}

TEST_F(WriteTest, TriggersAndViewsOverTables_Work) {
  sql_("CREATE TEMP VIEW old AS SELECT Title FROM Item WHERE Year < 1900");
  sql_(
      "CREATE TEMP TRIGGER add_old INSTEAD OF INSERT ON old BEGIN "
      "INSERT INTO Item(Title, Year) VALUES(new.Title, 1899); END");
  EXPECT_EQ(sql_("INSERT INTO old VALUES('x'); SELECT Title, Year FROM Item"), "x|1899");
}

}  // namespace
}  // namespace sql_tests
