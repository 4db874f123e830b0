// Layout numbers and type ids.

#include <csignal>

#include "support/catalogue_definition.h"
#include "support/database.h"

namespace sagleme_test {
namespace {

using namespace metalayer;

auto const kTrap = ::testing::KilledBySignal(SIGABRT);

class TypeIdsTest : public DatabaseTest {
 protected:
  RawView View(char16_t const* name) { return RawView::ByRawViewPK2fullname(name); }

  // The table's layout.
  unsigned short Create(char16_t const* name, char16_t const* base = nullptr) {
    unsigned short layout = 0;
    column_names_.push_back(u"Of" + std::u16string(name).substr(4));
    LORV_COLUMN_DEFINITION_NAMES const list[] = {
        {LORV_TYPE_LONG, nullptr, 0, column_names_.back().c_str()}, {0, nullptr, 0, nullptr}};
    ExpectOk(lorv_create_table_by_names(context(), name, base, list, &layout));
    return layout;
  }
  LS_OBJ_REF NewObject(char16_t const* table) {
    CreateInfo* handle = nullptr;
    ExpectOk(lorv_crud_GetCreateHandle(context(), table, &handle));
    LS_OBJ_REF object{};
    ExpectOk(lorv_crud_CreateObject(context(), handle, &object.oid, &object.addr));
    return object;
  }
  // Gives the table a new layout and leaves its objects under the old one.
  void AddColumn(char16_t const* table) {
    unsigned long layout = 0;
    Columns columns;
    columns.Long(u"Added");
    ExpectOk(lorv_alter_table_add_columns(context(), table, columns, &layout));
  }
  unsigned long TypeIdOf(RawView const& view) {
    return GetULong(TypeIdsMeta::ByTypeIdsMeta_Type(view), TypeIdsMeta::kTypeIdsMeta_Id);
  }

 private:
  std::vector<std::u16string> column_names_;
};

// ---- giving type ids ----------------------------------------------------------------------------

TEST_F(TypeIdsTest, Next_IsOneAboveTheHighest) {
  LS_OBJ_REF const first = Configuration::Insert(u"First", 1);
  LS_OBJ_REF const second = Configuration::Insert(u"Second", 1);
  EXPECT_EQ(26u, NextTypeId(first));
  EXPECT_EQ(27u, NextTypeId(second));
  EXPECT_EQ(second.oid, LoadRawViewByTypeId(27).oid);
}

TEST_F(TypeIdsTest, NextOfNothing_EndsTheProcess) {
  EXPECT_EXIT(NextTypeId(db_util::null_obj_ref), kTrap, "");
}

TEST_F(TypeIdsTest, NextWithoutAnyRow_EndsTheProcess) {
  LS_OBJ_REF const view = View(u"Lorvenstack.Metadata.Index");
  for (unsigned long id = 0; id <= 25; ++id) DeleteRow(TypeIdsMeta::ByTypeIdsMeta_PK(id));
  EXPECT_EXIT(NextTypeId(view), kTrap, "");
}

TEST_F(TypeIdsTest, NextAfterThePredefinedOnes_IsSeven) {
  for (unsigned long id = 7; id <= 25; ++id) DeleteRow(TypeIdsMeta::ByTypeIdsMeta_PK(id));
  EXPECT_EQ(7u, NextTypeId(View(u"Lorvenstack.Metadata.Index")));
}

TEST_F(TypeIdsTest, FloorOfNumberZero_StaysOneRow) {
  TypeIdsMeta const floor = TypeIdsMeta::ByTypeIdsMeta_PK(0);
  ASSERT_FALSE(floor.is_null());
  EXPECT_EQ(0u, floor.get_ref(TypeIdsMeta::kTypeIdsMeta_Type).oid);
  std::vector<std::string> const before = DumpObjects();
  AssureTypeId(0, db_util::null_obj_ref);
  EXPECT_EQ("", Differences(before, DumpObjects()));
}

TEST_F(TypeIdsTest, ReservedNumber_TakesItsTableLater) {
  LS_OBJ_REF const row = Configuration::Insert(u"Some", 1);
  AssureTypeId(100, db_util::null_obj_ref);
  AssureTypeId(100, row);
  AssureTypeId(100, row);
  AssureTypeId(100, db_util::null_obj_ref);
  EXPECT_EQ(row.oid,
            TypeIdsMeta::ByTypeIdsMeta_PK(100).get_ref(TypeIdsMeta::kTypeIdsMeta_Type).oid);
  EXPECT_EQ(101u, NextTypeId(Configuration::Insert(u"Other", 1)));
}

TEST_F(TypeIdsTest, NumberOfAnotherTable_EndsTheProcess) {
  LS_OBJ_REF const row = Configuration::Insert(u"Some", 1);
  EXPECT_EXIT(AssureTypeId(6, row), kTrap, "");
}

TEST_F(TypeIdsTest, TableOfAnotherNumber_EndsTheProcess) {
  EXPECT_EXIT(AssureTypeId(100, View(u"Lorvenstack.Metadata.RawView")), kTrap, "");
}

// ---- by type id ---------------------------------------------------------------------------------

TEST_F(TypeIdsTest, LoadedView_IsCached) {
  RawView const view = View(u"Lorvenstack.Metadata.Index");
  unsigned long const type_id = TypeIdOf(view);
  RawViewSlot(type_id) = db_util::null_obj_ref;
  EXPECT_EQ(view.oid, raw_view_by_type_id(type_id).oid);
  EXPECT_EQ(view.oid, RawViewSlot(type_id).oid);
  // From now on the catalogue is not asked.
  RawViewSlot(type_id) = {4711, 0};
  EXPECT_EQ(4711u, raw_view_by_type_id(type_id).oid);
  EXPECT_EQ(view.oid, LoadRawViewByTypeId(type_id).oid);
}

TEST_F(TypeIdsTest, FlagInTheHighestBit_ReachesTheSameSlot) {
  unsigned long const type_id = TypeIdOf(View(u"Lorvenstack.Metadata.Index"));
  LS_OBJ_REF const view = raw_view_by_type_id(type_id);
  EXPECT_EQ(view.oid, raw_view_by_type_id(type_id | 1ul << 63).oid);
}

TEST_F(TypeIdsTest, FlagInTheHighestBitOfAColdSlot_EndsTheProcess) {
  EXPECT_EXIT(raw_view_by_type_id(9 | 1ul << 63), kTrap, "");
}

TEST_F(TypeIdsTest, ReservedNumber_HasNoView) {
  AssureTypeId(100, db_util::null_obj_ref);
  EXPECT_EQ(0u, LoadRawViewByTypeId(100).oid);
  EXPECT_EQ(0u, raw_view_by_type_id(100).oid);
  EXPECT_EQ(0u, RawViewSlot(100).oid);
}

TEST_F(TypeIdsTest, NumberZero_EndsTheProcess) { EXPECT_EXIT(raw_view_by_type_id(0), kTrap, ""); }

TEST_F(TypeIdsTest, UnknownNumber_EndsTheProcess) {
  EXPECT_EXIT(raw_view_by_type_id(50000), kTrap, "");
  EXPECT_EXIT(LoadRawViewByTypeId(50000), kTrap, "");
}

// Numbers never come back, so in a long life they grow past the table of slots.
TEST_F(TypeIdsTest, NumberBeyondTheSlots_IsReadFromTheCatalogue) {
  LS_OBJ_REF const row = Configuration::Insert(u"Some", 1);
  unsigned long const number = kLayouts + 9;
  AssureTypeId(number, row);
  LS_OBJ_REF const ninth = raw_view_by_type_id(9);
  EXPECT_EQ(row.oid, raw_view_by_type_id(number).oid);
  EXPECT_EQ(ninth.oid, raw_view_by_type_id(9).oid);
}

TEST_F(TypeIdsTest, Root_IsTheAncestorBelowTheTopmostTable) {
  EXPECT_EQ(TypeIdOf(View(u"Lorvenstack.Metadata.DataType")), GetRootTypeId(4));
  EXPECT_EQ(2u, GetRootTypeId(2));
  unsigned long const member = TypeIdOf(View(u"Lorvenstack.Metadata.Member"));
  EXPECT_EQ(member,
            GetRootTypeId(TypeIdOf(View(u"Lorvenstack.Internal.Metadata.ReferenceRawColumn"))));
}

TEST_F(TypeIdsTest, RootOfUnknownNumbers_EndsTheProcess) {
  EXPECT_EXIT(GetRootTypeId(50000), kTrap, "");
  EXPECT_EXIT(GetRootTypeId(0), kTrap, "");
}

TEST_F(TypeIdsTest, RootOfTheTopmostTable_IsTheKernelsFailure) {
  try {
    GetRootTypeId(1);
    FAIL() << "the topmost table has no root below itself";
  } catch (db_util::db_exception const& failure) {
    EXPECT_EQ(LORV_STATUS_NO_OBJECT, failure.code());
  }
}

// ---- by layout number ---------------------------------------------------------------------------

TEST_F(TypeIdsTest, CurrentLayout_GivesTheTypeAndFillsItsEntry) {
  unsigned short const layout = Create(u"App.Item");
  LS_OBJ_REF const object = NewObject(u"App.Item");
  EXPECT_EQ(26u, AssureCurrentLayoutId(object));
  EXPECT_EQ(26u, EntryOfLayout(layout).type_id);
  EXPECT_EQ(View(u"App.Item").oid, EntryOfLayout(layout).raw_view.oid);
}

TEST_F(TypeIdsTest, SupersededLayout_LeadsToTheTableOfToday) {
  unsigned short const old_layout = Create(u"App.Item");
  LS_OBJ_REF const object = NewObject(u"App.Item");
  AddColumn(u"App.Item");
  ASSERT_TRUE(RawView::ByRawViewPK(old_layout).is_null());
  EXPECT_EQ(26u, AssureCurrentLayoutId(object));
  EXPECT_EQ(26u, EntryOfLayout(old_layout).type_id);
  EXPECT_EQ(View(u"App.Item").oid, EntryOfLayout(old_layout).raw_view.oid);
}

TEST_F(TypeIdsTest, DroppedTable_HasNoType) {
  unsigned short const layout = Create(u"App.Item");
  LS_OBJ_REF const object = NewObject(u"App.Item");
  ExpectOk(lorv_drop_table_by_name(context(), u"App.Item", false, true));
  EXPECT_EQ(0u, AssureCurrentLayoutId(object));
  EXPECT_EQ(0u, EntryOfLayout(layout).type_id);
}

TEST_F(TypeIdsTest, DroppedTableAfterCommit_HasNoType) {
  Create(u"App.Item");
  LS_OBJ_REF const object = NewObject(u"App.Item");
  ExpectOk(lorv_drop_table_by_name(context(), u"App.Item", false, true));
  Commit();
  Begin();
  EXPECT_EQ(0u, AssureCurrentLayoutId(object));
}

TEST_F(TypeIdsTest, DeletedObjectOfASupersededLayout_HasNoType) {
  Create(u"App.Item");
  LS_OBJ_REF const object = NewObject(u"App.Item");
  AddColumn(u"App.Item");
  DeleteRow(object);
  EXPECT_EQ(0u, AssureCurrentLayoutId(object));
}

TEST_F(TypeIdsTest, TableWithoutTypeId_EndsTheProcess) {
  Create(u"App.Item");
  LS_OBJ_REF const object = NewObject(u"App.Item");
  DeleteRow(TypeIdsMeta::ByTypeIdsMeta_Type(View(u"App.Item")));
  EXPECT_EXIT(AssureCurrentLayoutId(object), kTrap, "");
}

TEST_F(TypeIdsTest, LayoutNumber_GivesTheTable) {
  unsigned short const layout = Create(u"App.Item");
  unsigned long oid = 0;
  unsigned long addr = 0;
  ExpectOk(lorv_table_ref_by_layout_id(context(), layout, &oid, &addr));
  EXPECT_EQ(View(u"App.Item").oid, oid);
}

TEST_F(TypeIdsTest, SupersededLayoutNumber_GivesNoTable) {
  unsigned short const layout = Create(u"App.Item");
  AddColumn(u"App.Item");
  unsigned long oid = 77;
  unsigned long addr = 77;
  std::u16string const text =
      u"No table is associated with layout id " + Utf16(std::to_string(layout)) + u".";
  ExpectRefused(SAGLEME_LAYOUT_NOT_FOUND, text,
                lorv_table_ref_by_layout_id(context(), layout, &oid, &addr));
  EXPECT_EQ(77u, oid);
  EXPECT_EQ(77u, addr);
}

}  // namespace
}  // namespace sagleme_test
