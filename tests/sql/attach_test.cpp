// Attaching, what clients see of it, and definitions that change meanwhile.

#include <array>

#include "support.h"

namespace sql_tests {
namespace {

using sagleme::ColumnSpec;
using sagleme::Transaction;
using sagleme::Type;

TEST(AttachTest, Schema_IsNamedAfterTheDirectoryByDefault) {
  Library library;
  Sql sql;
  std::string const name = sagleme::NameOfPlace(library.directory());
  EXPECT_EQ(sql("SELECT sagleme_attach('" + library.directory() + "')"), name);
  EXPECT_EQ(library.AttachTo(sql), "lib");
  EXPECT_EQ(sql("SELECT name FROM pragma_database_list WHERE name <> 'main' ORDER BY 1"),
            "lib\n" + name);
}

TEST(AttachTest, Schema_ListsTablesAndKnowsOtherNamesWithoutListingThem) {
  Library library;
  Sql sql;
  library.AttachTo(sql);
  EXPECT_EQ(sql("SELECT name FROM lib.sqlite_schema WHERE type = 'table' ORDER BY 1"),
            "Book\nItem\nPerson");
  library.AddItem(u"Library.Book", u"Dune", 1965);
  library.AddItem(u"Library.Item", u"Map", 1800);
  EXPECT_EQ(sql("SELECT Title FROM Item ORDER BY Title"), "Dune\nMap");
  EXPECT_EQ(sql("SELECT Title FROM lib.\"Library.Item\" ORDER BY Title"), "Dune\nMap");
  EXPECT_EQ(sql("SELECT Title FROM \"Item only\""), "Map");
  EXPECT_EQ(sql("SELECT Title FROM \"Library.Item only\""), "Map");
  EXPECT_EQ(sql("SELECT FullName FROM RawView WHERE FullName LIKE 'Library.%' ORDER BY 1"),
            "Library.Book\nLibrary.Item\nLibrary.Person");
}

TEST(AttachTest, CatalogueTables_CanAllBeRead) {
  Library library;
  Sql sql;
  library.AttachTo(sql);
  int tables = 0;
  library.Change([&](Transaction& transaction) {
    for (auto const& table : transaction.Tables(true)) {
      if (!table->system) continue;
      ++tables;
      std::string const rows = sql("SELECT * FROM \"" + sagleme::ToUtf8(table->name) + "\"");
      EXPECT_FALSE(rows.starts_with("error")) << sagleme::ToUtf8(table->name) << ": " << rows;
    }
  });
  EXPECT_EQ(tables, 25);
}

TEST(AttachTest, NameSharedByTwoTables_IsLengthened) {
  Library library;
  library.Change([](Transaction& transaction) {
    sagleme::CreateTable(transaction, u"Shop.Item", u"", std::array{ColumnSpec{u"X", Type::kLong}});
  });
  Sql sql;
  library.AttachTo(sql);
  EXPECT_EQ(sql("SELECT name FROM lib.sqlite_schema WHERE type = 'table' ORDER BY 1"),
            "Book\nLibrary.Item\nPerson\nShop.Item");
  EXPECT_EQ(sql("SELECT * FROM Item"), "error: no such table: Item");
}

TEST(AttachTest, NoDatabase_IsRefusedWithItsName) {
  Sql sql;
  EXPECT_EQ(sql("SELECT sagleme_attach('/nowhere/at/all')"),
            "error: There is no database in /nowhere/at/all: No such file or directory.");
  std::string const empty = std::filesystem::temp_directory_path().string();
  EXPECT_EQ(sql("SELECT sagleme_attach('" + empty + "')"),
            "error: There is no database in " + empty + ".");
  EXPECT_EQ(sql("SELECT sagleme_attach(7)"),
            "error: The directory of the database is not given as a text.");
}

TEST(AttachTest, Attach_WorksForConnectionsOfEachEncoding) {
  Library library;
  library.AddItem(u"Library.Book", u"Wörter \U0001F600", 1965);
  for (char const* const encoding : {"UTF-8", "UTF-16le", "UTF-16be"}) {
    Sql sql;
    sql(std::string("PRAGMA encoding = '") + encoding + "'");
    EXPECT_EQ(library.AttachTo(sql), "lib");
    EXPECT_EQ(sql("SELECT Title FROM Book"), "Wörter \U0001F600");
    EXPECT_EQ(sql("SELECT Year FROM Book WHERE Title = 'Wörter \U0001F600'"), "1965");
  }
}

TEST(AttachTest, OrdinaryTable_CannotBeCreatedInTheSchema) {
  Library library;
  Sql sql;
  library.AttachTo(sql);
  EXPECT_TRUE(sql("CREATE TABLE lib.other(x)").starts_with("error"));
  EXPECT_EQ(sql("CREATE TABLE other(x); INSERT INTO other VALUES(1); SELECT x FROM other"), "1");
  EXPECT_EQ(sql("SELECT count(*) FROM Item"), "0");
}

TEST(AttachTest, DetachedAndAttachedAgain_ReadsOn) {
  Library library;
  library.AddItem(u"Library.Book", u"Dune", 1965);
  Sql sql;
  for (int i = 0; i < 3; ++i) {
    library.AttachTo(sql);
    EXPECT_EQ(sql("SELECT Title FROM Book"), "Dune");
    EXPECT_EQ(sql("DETACH lib"), "");
    EXPECT_EQ(sql("SELECT Title FROM Book"), "error: no such table: Book");
  }
}

TEST(DefinitionTest, ColumnAddedByOthers_IsSeenByTheNextStatement) {
  Library library;
  library.AddItem(u"Library.Book", u"Dune", 1965);
  Sql sql;
  library.AttachTo(sql);
  EXPECT_EQ(sql("SELECT * FROM Book"), "Dune|1965|NULL|NULL|NULL");
  Statement all(sql, "SELECT * FROM Book");
  Statement pages(sql, "SELECT Pages FROM Book");
  EXPECT_EQ(all.Next(), "Dune|1965|NULL|NULL|NULL");
  all.Restart();
  library.Change([](Transaction& transaction) {
    sagleme::AddColumns(transaction, u"Library.Item",
                        std::array{ColumnSpec{u"Shelf", Type::kString}});
  });
  EXPECT_EQ(all.Next(), "Dune|1965|NULL|NULL|NULL|NULL");
  all.Restart();
  EXPECT_EQ(sql("SELECT Shelf FROM Book"), "NULL");
  library.Change([](Transaction& transaction) {
    sagleme::DropIndex(transaction, u"BookByPages");
    sagleme::DropColumn(transaction, u"Library.Book", u"Pages");
  });
  EXPECT_EQ(pages.Next(), "error: no such column: Pages");
}

TEST(DefinitionTest, TableMadeAndRenamedByOthers_IsSeenByTheNextStatement) {
  Library library;
  Sql sql;
  library.AttachTo(sql);
  EXPECT_EQ(sql("SELECT * FROM Film"), "error: no such table: Film");
  library.Change([](Transaction& transaction) {
    sagleme::CreateTable(transaction, u"Library.Film", u"Library.Item",
                         std::array{ColumnSpec{u"Minutes", Type::kLong}});
  });
  library.AddItem(u"Library.Film", u"Metropolis", 1927);
  EXPECT_EQ(sql("SELECT Title FROM Film"), "Metropolis");
  EXPECT_EQ(sql("SELECT Title FROM Item"), "Metropolis");
  library.Change([](Transaction& transaction) {
    sagleme::RenameTable(transaction, u"Library.Film", u"Library.Movie");
  });
  EXPECT_EQ(sql("SELECT Title FROM Film"), "error: no such table: Film");
  EXPECT_EQ(sql("SELECT Title, _table FROM Movie"), "Metropolis|Library.Movie");
}

TEST(DefinitionTest, DroppedIndex_IsNotUsedByPreparedStatements) {
  Library library;
  library.AddItem(u"Library.Book", u"Dune", 1965);
  Sql sql;
  library.AttachTo(sql);
  Statement by_year(sql, "SELECT Title FROM Item WHERE Year = 1965");
  EXPECT_EQ(by_year.Next(), "Dune");
  by_year.Restart();
  library.Change([](Transaction& transaction) { sagleme::DropIndex(transaction, u"ItemByYear"); });
  EXPECT_EQ(by_year.Next(), "Dune");
}

TEST(SnapshotTest, Snapshot_LastsAsLongAsTheTransaction) {
  Library library;
  library.AddItem(u"Library.Book", u"Dune", 1965);
  Sql sql;
  library.AttachTo(sql);
  sql("BEGIN");
  EXPECT_EQ(sql("SELECT count(*) FROM Item"), "1");
  library.AddItem(u"Library.Book", u"Emma", 1815);
  library.Change([](Transaction& transaction) {
    sagleme::AddColumns(transaction, u"Library.Item",
                        std::array{ColumnSpec{u"Shelf", Type::kString}});
  });
  EXPECT_EQ(sql("SELECT * FROM Item"), "Dune|1965|NULL|NULL");
  sql("COMMIT");
  EXPECT_EQ(sql("SELECT count(*) FROM Item"), "2");
  EXPECT_EQ(sql("SELECT Shelf FROM Item LIMIT 1"), "NULL");
}

TEST(SnapshotTest, Snapshot_LastsAsLongAsAStatementThatReads) {
  Library library;
  for (char16_t const* title : {u"a", u"b", u"c"}) library.AddItem(u"Library.Item", title, 1);
  Sql sql;
  library.AttachTo(sql);
  Statement scan(sql, "SELECT Title FROM Item");
  EXPECT_EQ(scan.Next(), "a");
  library.AddItem(u"Library.Item", u"d", 1);
  EXPECT_EQ(sql("SELECT count(*) FROM Item"), "3");
  EXPECT_EQ(scan.Next(), "b");
  EXPECT_EQ(scan.Next(), "c");
  EXPECT_EQ(scan.Next(), "");
  EXPECT_EQ(sql("SELECT count(*) FROM Item"), "4");
}

}  // namespace
}  // namespace sql_tests
