// The feed of changes with the names of tables and columns.

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <sagleme/changes.hpp>

#include "postgres_url.h"

namespace {

using sagleme::ChangeKind;
using sagleme::ColumnSpec;
using sagleme::DataChange;
using sagleme::Type;

class ChangesTest : public ::testing::Test {
 protected:
  ChangesTest() : directory_(MakeDirectory()), database_(Create()), context_(database_) {
    sagleme::KeepChanges(database_, {.bytes = std::uint64_t{1} << 30});
    sagleme::Transaction transaction(context_);
    std::array const base{ColumnSpec{u"Name", Type::kString},
                          ColumnSpec{u"Size", Type::kLong, false}};
    std::array const derived{ColumnSpec{u"Weight", Type::kDouble, true}};
    sagleme::CreateTable(transaction, u"App.Thing", u"", base);
    sagleme::CreateTable(transaction, u"App.Tool", u"App.Thing", derived);
    transaction.Commit();
  }
  ~ChangesTest() override { std::filesystem::remove_all(directory_); }

  static std::string MakeDirectory() {
    std::string path = testing::TempDir() + "/changes-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("no directory for the test");
    return path;
  }
  sagleme::Database Create() const {
    sagleme::Options options;
    options.no_sync = true;
    if (!lscore::RunsOnServer()) options.log = LSCOREDB_LOG;
    return sagleme::Database::Create(lscore::NewPlace(directory_ + "/db"), {}, options);
  }
  sagleme::Changes FromNow() const {
    return sagleme::Changes(database_, {sagleme::Kept(database_).last});
  }
  sagleme::ObjectId Make(char const* table) {
    sagleme::Transaction transaction(context_);
    auto const object = sagleme::Object::Create(transaction, *transaction.table(table));
    sagleme::ObjectId const id = object.id();
    transaction.Commit();
    return id;
  }
  static std::vector<DataChange> All(sagleme::Changes& changes) {
    std::vector<DataChange> all;
    for (DataChange const& change : changes) all.push_back(change);
    return all;
  }

  std::string directory_;
  sagleme::Database database_;
  sagleme::Context context_;
};

TEST_F(ChangesTest, ObjectsOfTables_HaveTheirNames) {
  sagleme::Changes changes = FromNow();
  sagleme::ObjectId const id = Make("App.Tool");
  {
    sagleme::Transaction transaction(context_);
    auto object = sagleme::Object::Find(transaction, id);
    object->Set(u"Name", sagleme::Value(std::u16string(u"hammer")));
    object->Set(u"Weight", sagleme::Value(1.5));
    transaction.Commit();
  }
  std::vector<DataChange> const all = All(changes);
  ASSERT_EQ(2u, all.size());
  EXPECT_EQ(ChangeKind::kCreated, all[0].kind);
  EXPECT_EQ(u"App.Tool", all[0].table);
  EXPECT_EQ(id, all[0].object);
  EXPECT_TRUE(all[0].last);
  EXPECT_EQ(ChangeKind::kChanged, all[1].kind);
  EXPECT_EQ((std::vector<std::u16string>{u"Name", u"Weight"}), all[1].columns);
  EXPECT_LT(all[0].position.commit, all[1].position.commit);
}

TEST_F(ChangesTest, SchemaChange_IsOneChangeAndRenamesWhatFollows) {
  Make("App.Tool");
  sagleme::Changes changes = FromNow();
  {
    sagleme::Transaction transaction(context_);
    sagleme::RenameTable(transaction, u"App.Tool", u"App.Utensil");
    transaction.Commit();
  }
  Make("App.Utensil");
  {
    sagleme::Transaction transaction(context_);
    std::array const columns{ColumnSpec{u"Other", Type::kLong, true}};
    sagleme::CreateTable(transaction, u"App.More", u"", columns);
    transaction.Commit();
  }
  std::vector<DataChange> const all = All(changes);
  ASSERT_EQ(3u, all.size());
  EXPECT_EQ(ChangeKind::kSchema, all[0].kind);
  EXPECT_TRUE(all[0].last);
  EXPECT_EQ(u"App.Utensil", all[1].table);
  EXPECT_EQ(ChangeKind::kSchema, all[2].kind);
  sagleme::Changes rest(database_, all[2].position);
  EXPECT_TRUE(All(rest).empty());
}

TEST_F(ChangesTest, SchemaAndObjectsOfOneTransaction_EndWithTheLastThatIsShown) {
  sagleme::Changes changes = FromNow();
  {
    sagleme::Transaction transaction(context_);
    std::array const columns{ColumnSpec{u"Other", Type::kLong, true}};
    sagleme::CreateTable(transaction, u"App.More", u"", columns);
    sagleme::Object::Create(transaction, *transaction.table(u"App.More"));
    transaction.Commit();
  }
  std::vector<DataChange> const all = All(changes);
  ASSERT_EQ(2u, all.size());
  EXPECT_EQ(ChangeKind::kSchema, all[0].kind);
  EXPECT_FALSE(all[0].last);
  EXPECT_EQ(ChangeKind::kCreated, all[1].kind);
  EXPECT_TRUE(all[1].last);
}

TEST_F(ChangesTest, ObjectOfADroppedTable_HasNoTable) {
  sagleme::Changes changes = FromNow();
  sagleme::ObjectId const id = Make("App.Tool");
  {
    sagleme::Transaction transaction(context_);
    sagleme::Object::Find(transaction, id)->Delete();
    sagleme::DropTable(transaction, u"App.Tool");
    transaction.Commit();
  }
  std::vector<DataChange> const all = All(changes);
  ASSERT_LE(2u, all.size());
  EXPECT_EQ(id, all[0].object);
  EXPECT_EQ(u"", all[0].table);
}

TEST_F(ChangesTest, Wait_TellsWhetherThereIsMore) {
  sagleme::Changes changes = FromNow();
  EXPECT_TRUE(All(changes).empty());
  EXPECT_FALSE(changes.Wait(std::chrono::milliseconds(1)));
  Make("App.Thing");
  EXPECT_TRUE(changes.Wait(std::chrono::hours(1)));
  EXPECT_EQ(1u, All(changes).size());
  EXPECT_LE(0, changes.file());
}

TEST_F(ChangesTest, SwitchedOff_IsAnError) {
  sagleme::KeepChanges(database_, {});
  try {
    sagleme::Kept(database_);
    FAIL() << "nothing is kept";
  } catch (sagleme::Error const& error) {
    EXPECT_EQ(LSCOREDB_NO_CHANGES, error.status());
    EXPECT_NE(std::string::npos, std::string(error.what()).find("--keep"));
  }
}

}  // namespace
