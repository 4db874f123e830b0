// Several databases in one program.

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <sagleme/host.hpp>
#include <thread>

#include "new_database.h"

namespace {

using sagleme::ColumnSpec;
using sagleme::Context;
using sagleme::Database;
using sagleme::Object;
using sagleme::Property;
using sagleme::Range;
using sagleme::Transaction;
using sagleme::Type;

constexpr char16_t kBook[] = u"App.Book";

// A database with books that have a title, and tables of other names before them.
class Library {
 public:
  explicit Library(std::string const& directory = "", int tables_before = 0)
      : database(directory.empty() ? sagleme_test::NewDatabase() : Database::Create(directory)),
        context(database) {
    std::array const columns{ColumnSpec{u"Title", Type::kString}};
    std::array const index{sagleme::IndexColumnSpec{u"Title"}};
    Transaction transaction(context);
    for (int i = 0; i < tables_before; ++i) {
      sagleme::CreateTable(transaction, u"App.Before" + std::u16string(1, u'a' + char16_t(i)), u"",
                           columns);
    }
    sagleme::CreateTable(transaction, kBook, u"", columns);
    sagleme::CreateIndex(transaction, u"BookTitle", kBook, index);
    transaction.Commit();
  }

  void Add(std::vector<std::u16string> const& titles) {
    Transaction transaction(context);
    for (std::u16string const& title : titles) {
      Object::Create(transaction, *transaction.table(kBook)).Set(u"Title", title);
    }
    transaction.Commit();
  }

  std::u16string Titles() {
    Transaction transaction(context);
    std::u16string titles;
    for (Object& book : Range::Matching(transaction, *transaction.FindIndex(u"BookTitle"), {})) {
      titles += std::get<std::u16string>(book.Get(u"Title")) + u";";
    }
    return titles;
  }

  Database database;
  Context context;
};

std::uint32_t StatusOf(std::function<void()> const& work) {
  try {
    work();
  } catch (sagleme::Error const& error) {
    return error.status();
  }
  return 0;
}

TEST(DatabasesTest, Program_CopiesFromOneToTheOther) {
  Library from("", 3);
  Library to;
  from.Add({u"a", u"b", u"c"});
  Transaction reading(from.context, sagleme::Access::kReadOnly);
  Transaction writing(to.context);
  Property<std::u16string> const source(*reading.table(kBook), u"Title");
  Property<std::u16string> const target(*writing.table(kBook), u"Title");
  for (Object& book : Range::Subtree(reading, *reading.table(kBook))) {
    target.Set(Object::Create(writing, *writing.table(kBook)), source.GetOr(book, u"?") + u"!");
  }
  writing.Commit();
  reading.Rollback();
  EXPECT_EQ(from.Titles(), u"a;b;c;");
  EXPECT_EQ(to.Titles(), u"a!;b!;c!;");
}

TEST(DatabasesTest, ValuesReadInOne_AreRefusedInTheOther) {
  Library first;
  Library second("", 3);
  second.Add({u"x"});
  Transaction one(first.context);
  Transaction two(second.context);
  sagleme::TablePtr const book = one.table(kBook);
  sagleme::Index const index = *one.FindIndex(u"BookTitle");
  Property<std::u16string> const title(*book, u"Title");
  Object own = *Range::Only(two, *two.table(kBook)).begin();
  constexpr std::uint32_t kForeign = LORV_STATUS_FOREIGN_DATABASE;
  EXPECT_EQ(kForeign, StatusOf([&] { Object::Create(two, *book); }));
  EXPECT_EQ(kForeign, StatusOf([&] { Object::CreateWithId(two, *book, {1u << 30}); }));
  EXPECT_EQ(kForeign, StatusOf([&] { Range::Subtree(two, *book); }));
  EXPECT_EQ(kForeign, StatusOf([&] { Range::Only(two, *book); }));
  EXPECT_EQ(kForeign, StatusOf([&] { Range::Matching(two, index, {}); }));
  EXPECT_EQ(kForeign, StatusOf([&] { two.Children(*book); }));
  EXPECT_EQ(kForeign, StatusOf([&] { title.Get(own); }));
  EXPECT_EQ(kForeign, StatusOf([&] { title.Set(own, u"y"); }));
  EXPECT_EQ(kForeign, StatusOf([&] { own.Set(*book, *book->FindColumn(u"Title"), {}); }));
  EXPECT_EQ(std::get<std::u16string>(own.Get(u"Title")), u"x");
}

TEST(DatabasesTest, ValuesReadBeforeTheClose_AreRefusedAfterIt) {
  std::string directory = (std::filesystem::temp_directory_path() / "sagleme-XXXXXX").string();
  ASSERT_NE(nullptr, mkdtemp(directory.data()));
  sagleme::TablePtr before;
  {
    Library library(directory);
    before = Transaction(library.context).table(kBook);
  }
  {
    Database const database = Database::Open(directory);
    Context const context(database);
    Transaction transaction(context);
    EXPECT_EQ(LORV_STATUS_FOREIGN_DATABASE,
              StatusOf([&] { Object::Create(transaction, *before); }));
    EXPECT_NO_THROW(Object::Create(transaction, *transaction.table(kBook)));
  }
  std::filesystem::remove_all(directory);
}

TEST(DatabasesTest, Database_IsCreatedWhileAnotherIsBeingCreated) {
  std::unique_ptr<Library> inner;
  Database const outer = Database::InMemory([&](int step) {
    if (step == 3) inner = std::make_unique<Library>();
  });
  inner->Add({u"a"});
  EXPECT_EQ(inner->Titles(), u"a;");
  Context const context(outer);
  EXPECT_FALSE(Transaction(context).Tables(true).empty());
}

TEST(DatabasesTest, Threads_CreateAndUseTheirOwn) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([i] {
      Library library("", i);
      library.Add({u"a", u"b"});
      EXPECT_EQ(library.Titles(), u"a;b;");
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
