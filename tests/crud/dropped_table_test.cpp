// Create handles outlive their table: whichever way it went, they make no objects any more.

#include "crud/crud_test.h"

namespace sagleme_test {
namespace {

class DroppedTableTest : public CrudTest {
 protected:
  uint32_t Create(CreateInfo const* handle, uint64_t in) {
    LS_OBJ_REF object{};
    return lorv_crud_CreateObject(in, handle, &object.oid, &object.addr);
  }
  uint32_t Create(CreateInfo const* handle) { return Create(handle, context()); }

  // A table whose handle, when `superseded`, still has the layout of before a change.
  CreateInfo* Table(char16_t const* name, bool superseded, char16_t const* base = nullptr) {
    CreateTable(name, Columns(), base);
    CreateInfo* const handle = Creator(name);
    std::u16string const column = std::u16string(u"Of").append(name);
    Columns added;
    added.Long(column.c_str());
    ExpectOk(lorv_alter_table_add_columns(context(), name, added, nullptr));
    if (!superseded) ExpectOk(lorv_crud_RefreshIssuedHandles(context()));
    return handle;
  }

  std::vector<uint64_t> CountsByLayout() {
    uint32_t count = 0;
    ExpectOk(lscoredb_layout_stats(context(), &count, nullptr));
    std::vector<lscoredb_layout_statistics> statistics(count);
    ExpectOk(lscoredb_layout_stats(context(), &count, statistics.data()));
    std::vector<uint64_t> counts;
    for (auto const& layout : statistics) counts.push_back(layout.objects);
    return counts;
  }

  using Drop = std::function<uint32_t()>;
  std::vector<std::pair<std::string, Drop>> WaysToDrop(char16_t const* name) {
    auto const by_names = [this, name] {
      char16_t const* names[] = {name, nullptr};
      return lorv_drop_tables_by_names(context(), names, false, false);
    };
    return {
        {"plain", [=, this] { return lorv_drop_table_by_name(context(), name, false, false); }},
        {"with children",
         [=, this] { return lorv_drop_table_by_name(context(), name, true, false); }},
        {"by force", [=, this] { return lorv_drop_table_by_name(context(), name, false, true); }},
        {"cascade", [=, this] { return lorv_drop_table_cascade(context(), name); }},
        {"mutual", by_names}};
  }
};

TEST_F(DroppedTableTest, EveryDropAndEveryHandle_RefusedAtOnceAndInLaterTransactions) {
  for (bool const superseded : {false, true}) {
    for (auto const& [way, drop] : WaysToDrop(u"Gone")) {
      SCOPED_TRACE(way + (superseded ? ", superseded layout" : ""));
      CreateInfo* const handle = Table(u"Gone", superseded);
      ExpectOk(drop());
      EXPECT_EQ(LSCOREDB_SET_CLOSED, Create(handle));
      uint64_t addr = 0;
      EXPECT_EQ(LSCOREDB_SET_CLOSED,
                lorv_crud_CreateObjectWithId(context(), handle, uint64_t{1} << 50, &addr));
      Commit();
      Begin();
      EXPECT_EQ(LSCOREDB_SET_CLOSED, Create(handle));
    }
  }
}

TEST_F(DroppedTableTest, RefusedInsert_LeavesNothingToCommit) {
  CreateInfo* const handle = Table(u"Gone", false);
  ExpectOk(lorv_drop_table_by_name(context(), u"Gone", false, false));
  Commit();
  Begin();
  std::vector<uint64_t> const before = CountsByLayout();
  EXPECT_EQ(LSCOREDB_SET_CLOSED, Create(handle));
  Commit();
  Begin();
  EXPECT_EQ(before, CountsByLayout());
}

TEST_F(DroppedTableTest, TransactionOlderThanTheDrop_RefusedAtCommit) {
  for (auto const& [way, drop] : WaysToDrop(u"Gone")) {
    SCOPED_TRACE(way);
    CreateInfo* const handle = Table(u"Gone", false);
    Commit();
    uint64_t other = 0;
    ExpectOk(lscoredb_context_open(database().handle(), &other));
    ExpectOk(lscoredb_begin(other, LSCOREDB_READ_WRITE));
    Begin();
    ExpectOk(drop());
    ExpectOk(Create(handle, other));
    Commit();
    EXPECT_EQ(LSCOREDB_SET_CLOSED, lscoredb_commit(other));
    ExpectOk(lscoredb_context_close(other));
    Begin();
  }
}

// A cascade drop promises that nothing is left; the plain one leaves a request for what came in.
TEST_F(DroppedTableTest, CascadeDrop_ConflictsWithAnObjectThatCameInMeanwhile) {
  CreateInfo* const handle = Table(u"Gone", false);
  Commit();
  uint64_t other = 0;
  ExpectOk(lscoredb_context_open(database().handle(), &other));
  Begin();
  ExpectOk(lorv_drop_table_cascade(context(), u"Gone"));
  ExpectOk(lscoredb_begin(other, LSCOREDB_READ_WRITE));
  ExpectOk(Create(handle, other));
  ExpectOk(lscoredb_commit(other));
  EXPECT_EQ(LSCOREDB_CONFLICT, lscoredb_commit(context()));
  ExpectOk(lscoredb_context_close(other));
  Begin();
  EXPECT_FALSE(ViewOf(u"Gone").is_null());
}

TEST_F(DroppedTableTest, DescendantsOfADroppedTable_AreClosedToo) {
  for (bool const cascade : {false, true}) {
    SCOPED_TRACE(cascade);
    CreateInfo* const parent = Table(u"Parent", false);
    CreateInfo* const child = Table(u"Child", false, u"Parent");
    CreateInfo* const grandchild = Table(u"Grandchild", false, u"Child");
    ExpectOk(cascade ? lorv_drop_table_cascade(context(), u"Parent")
                     : lorv_drop_table_by_name(context(), u"Parent", true, false));
    for (CreateInfo* const handle : {parent, child, grandchild}) {
      EXPECT_EQ(LSCOREDB_SET_CLOSED, Create(handle));
    }
  }
}

TEST_F(DroppedTableTest, TablesAround_StayOpen) {
  CreateInfo* const parent = Table(u"Parent", true);
  CreateInfo* const child = Table(u"Child", false, u"Parent");
  CreateInfo* const other = Table(u"Other", true);
  ExpectOk(lorv_drop_table_by_name(context(), u"Child", false, false));
  EXPECT_EQ(LSCOREDB_SET_CLOSED, Create(child));
  ExpectOk(Create(parent));
  ExpectOk(Create(other));
}

// The new table's layouts have the same token as those of the renamed one.
TEST_F(DroppedTableTest, NameTakenOverFromARenamedTable_ClosesTheDroppedOneAlone) {
  CreateInfo* const renamed = Table(u"Name", true);
  ExpectOk(lorv_rename_table(context(), u"Name", u"Renamed"));
  CreateInfo* const dropped = Table(u"Name", true);
  ASSERT_NE(renamed, dropped);
  ExpectOk(lorv_drop_table_by_name(context(), u"Name", false, false));
  EXPECT_EQ(LSCOREDB_SET_CLOSED, Create(dropped));
  ExpectOk(Create(renamed));
  CreateInfo* const again = Table(u"Name", false);
  ExpectOk(Create(again));
}

TEST_F(DroppedTableTest, DropThatIsRolledBack_ClosesNothing) {
  CreateInfo* const handle = Table(u"Kept", false);
  Commit();
  for (auto const& [way, drop] : WaysToDrop(u"Kept")) {
    SCOPED_TRACE(way);
    Begin();
    ExpectOk(drop());
    Rollback();
    Begin();
    uint64_t savepoint = 0;
    ExpectOk(lscoredb_savepoint(context(), &savepoint));
    ExpectOk(drop());
    ExpectOk(lscoredb_rollback_to(context(), savepoint));
    ExpectOk(Create(handle));
    Rollback();
  }
  Begin();
}

}  // namespace
}  // namespace sagleme_test
