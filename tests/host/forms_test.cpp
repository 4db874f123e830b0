// Texts in every form, definitions that are there already, and databases opened or created.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sagleme/sagleme.hpp>
#include <string>
#include <vector>

#include "new_database.h"
#include "status_of.h"

namespace {

using sagleme::Type;

class FormsTest : public ::testing::Test {
 protected:
  FormsTest() : database_(sagleme_test::NewDatabase()), context_(database_) {}

  sagleme::Database database_;
  sagleme::Context context_;
};

TEST_F(FormsTest, Names_ComeInUtf8AndUtf16) {
  sagleme::Transaction transaction(context_);
  CreateTable(transaction, "App.Größe", "", {{u8"Länge", Type::kLong}, {u"Name"}});
  auto const table = transaction.table(u"App.Größe");
  EXPECT_EQ(table, transaction.table("App.Größe"));
  EXPECT_EQ(table, transaction.table(std::string("App.Größe")));
  EXPECT_EQ(table, transaction.Find(u8"App.Größe"));
  EXPECT_EQ(table, transaction.Resolve(std::u8string_view(u8"Größe")));
  EXPECT_EQ(Type::kLong, table->GetColumn(std::string_view("Länge")).type);
  EXPECT_EQ(nullptr, table->FindColumn("Lange"));
  AddColumns(transaction, u8"App.Größe", {{"Höhe", Type::kDouble}});
  RenameColumn(transaction, "App.Größe", "Höhe", u8"Tiefe");
  CreateIndex(transaction, "NachName", u8"App.Größe", {{"Name"}});
  EXPECT_TRUE(transaction.FindIndex(u8"NachName").has_value());
  DropIndex(transaction, "NachName");
  RenameTable(transaction, "App.Größe", "App.Maß");
  DropColumn(transaction, "App.Maß", "Tiefe");
  DropTables(transaction, {"App.Maß"});
  EXPECT_EQ(nullptr, transaction.Find("App.Maß"));
}

TEST_F(FormsTest, Values_ComeInUtf8AndUtf16) {
  sagleme::Transaction transaction(context_);
  auto const table = CreateTable(transaction, "App.Thing", {}, {{"Name"}});
  CreateIndex(transaction, "ByName", "App.Thing", {{"Name"}});
  auto object = sagleme::Object::Create(transaction, *table);
  sagleme::Property<std::string> const name(*table, "Name");
  sagleme::Property<std::u8string> const eighth(*table, u8"Name");
  std::vector<sagleme::Value> forms{"für 😀", u8"für 😀", u"für 😀"};
  forms.push_back(std::string("für 😀"));
  forms.push_back(std::u16string_view(u"für 😀"));
  for (sagleme::Value const& value : forms) {
    object.Set("Name", value);
    EXPECT_EQ("für 😀", name.Get(object));
    EXPECT_TRUE(eighth.Get(object) == u8"für 😀");
    EXPECT_TRUE(sagleme::Range::StartingWith(transaction, *transaction.FindIndex("ByName"), "für")
                    .Next()
                    .has_value());
  }
  name.Set(object, "\xED\xA0\x80");  // a lone surrogate, as it comes out
  EXPECT_EQ("\xED\xA0\x80", name.Get(object));
  name.Clear(object);
  EXPECT_EQ(std::nullopt, name.Get(object));
  EXPECT_THROW(name.Set(object, "\xFF"), sagleme::BadUtf8);
  EXPECT_THROW(object.Set("Name", "\xFF"), sagleme::BadUtf8);
  EXPECT_THROW(transaction.Find("\xFF"), sagleme::BadUtf8);
  sagleme::TablePtr const other =
      CreateTable(transaction, "App.Number", "", {{"Number", Type::kLong}});
  EXPECT_EQ(LSCOREDB_WRONG_TYPE,
            StatusOf([&] { sagleme::Property<std::string> const none(*other, "Number"); }));
}

TEST_F(FormsTest, CreateIndex_LeavesAnEqualOneAlone) {
  sagleme::Transaction transaction(context_);
  CreateTable(transaction, "App.Thing", "", {{"Name"}, {"Size", Type::kLong}});
  auto const create = [&](std::vector<sagleme::IndexColumnSpec> const& columns,
                          sagleme::Uniqueness uniqueness, char const* table) {
    return StatusOf([&] { CreateIndex(transaction, "ByName", table, columns, uniqueness); });
  };
  auto const any = sagleme::Uniqueness::kAny;
  EXPECT_EQ(0u, create({{"Name"}, {"Size", false}}, any, "App.Thing"));
  auto const generation = transaction.Generation();
  EXPECT_EQ(0u, create({{u"Name"}, {u"Size", false}}, any, "App.Thing"));
  EXPECT_EQ(generation, transaction.Generation());
  EXPECT_EQ(SAGLEME_INDEX_EXISTS, create({{"Name"}}, any, "App.Thing"));
  EXPECT_EQ(SAGLEME_INDEX_EXISTS, create({{"Name"}, {"Size"}}, any, "App.Thing"));
  EXPECT_EQ(SAGLEME_INDEX_EXISTS, create({{"Size", false}, {"Name"}}, any, "App.Thing"));
  EXPECT_EQ(SAGLEME_INDEX_EXISTS,
            create({{"Name"}, {"Size", false}}, sagleme::Uniqueness::kUnique, "App.Thing"));
  CreateTable(transaction, "App.Other", "", {{"Name"}, {"Size", Type::kLong}});
  EXPECT_EQ(SAGLEME_INDEX_EXISTS, create({{"Name"}, {"Size", false}}, any, "App.Other"));
}

class OpenOrCreateTest : public ::testing::Test {
 protected:
  OpenOrCreateTest() {
    std::string pattern = (std::filesystem::temp_directory_path() / "sagleme-XXXXXX").string();
    directory_ = mkdtemp(pattern.data());
  }
  ~OpenOrCreateTest() override { std::filesystem::remove_all(directory_); }
  std::string Path(char const* name) const { return (directory_ / name).string(); }

  std::filesystem::path directory_;
};

TEST_F(OpenOrCreateTest, FirstCall_CreatesAndLaterOnesOpen) {
  int steps = 0;
  auto const count = [&](int) { ++steps; };
  for (bool const first : {true, false}) {
    auto const database = sagleme::Database::OpenOrCreate(Path("db"), count);
    EXPECT_EQ(first, std::exchange(steps, 0) > 0);
    sagleme::Context const context(database);
    sagleme::Transaction transaction(context);
    EXPECT_EQ(first, transaction.Find("App.Thing") == nullptr);
    CreateTable(transaction, "App.Thing", "", {{"Name"}});
    transaction.Commit();
  }
}

TEST_F(OpenOrCreateTest, CreationCutOff_IsCompleted) {
  struct Cut {};
  EXPECT_THROW(sagleme::Database::Create(Path("db"),
                                         [](int step) {
                                           if (step == 3) throw Cut{};
                                         }),
               Cut);
  EXPECT_THROW(sagleme::Database::Open(Path("db")), sagleme::Error);
  auto const database = sagleme::Database::OpenOrCreate(Path("db"));
  sagleme::Context const context(database);
  sagleme::Transaction transaction(context, sagleme::Access::kReadOnly);
  EXPECT_EQ(25u, transaction.Tables(true).size());
}

TEST_F(OpenOrCreateTest, SeveralProcessesAtOnce_OpenOneDatabase) {
  constexpr int kProcesses = 4;
  int start[2];
  ASSERT_EQ(0, pipe(start));
  std::vector<pid_t> children;
  for (int i = 0; i < kProcesses; ++i) {
    pid_t const child = fork();
    ASSERT_NE(-1, child);
    if (child == 0) {
      close(start[1]);
      char end = 0;
      (void)!read(start[0], &end, 1);  // until the parent closes its end
      try {
        auto const database = sagleme::Database::OpenOrCreate(Path("db"));
        sagleme::Context const context(database);
        sagleme::Transaction transaction(context, sagleme::Access::kReadOnly);
        _exit(transaction.Tables(true).size() == 25 ? 0 : 2);
      } catch (std::exception const& error) {
        (void)!write(2, error.what(), std::strlen(error.what()));
        _exit(1);
      }
    }
    children.push_back(child);
  }
  close(start[0]);
  close(start[1]);
  for (pid_t const child : children) {
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(0, WEXITSTATUS(status));
  }
}

TEST_F(OpenOrCreateTest, FileInTheWay_IsRefused) {
  std::ofstream(Path("db")) << "text";
  EXPECT_THROW(sagleme::Database::OpenOrCreate(Path("db")), sagleme::Error);
}

}  // namespace
