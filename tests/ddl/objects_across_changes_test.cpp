#include "support/catalogue.h"

namespace sagleme_test {
namespace {

using metalayer::Index;

// Objects stay under the layout that they were written under; what is read and found goes by the
// table's present columns.
class ObjectsAcrossChangesTest : public CatalogueTest {
 protected:
  void Refresh() { ExpectOk(lorv_crud_RefreshIssuedHandles(context())); }
  uint64_t ObjectWith(char16_t const* table, char16_t const* column, int64_t value) {
    uint64_t const oid = CreateObject(table);
    WriteLong(table, column, oid, value);
    return oid;
  }
  // The objects whose indexed column has that value.
  std::vector<uint64_t> Find(char16_t const* index, int64_t value) {
    std::vector<uint64_t> oids;
    db_util::db_iter_with_keys scan;
    metalayer::Key(scan.first_key).Long(value);
    metalayer::Key(scan.last_key).Long(value);
    scan.open(metalayer::GetULong(Index::ByIndexPK(index), Index::kIndexHandle),
              metalayer::kForward);
    while (scan.next()) oids.push_back(scan.current.oid);
    return oids;
  }
  uint16_t LayoutOfObject(uint64_t oid) {
    uint64_t addr = 0;
    EXPECT_EQ(0u, lorv_context_lookup(context(), oid, &addr));
    return static_cast<uint16_t>(addr);
  }
  using Oids = std::vector<uint64_t>;
};

TEST_F(ObjectsAcrossChangesTest, AddedColumns_ReadNullOrZeroAndOthersStay) {
  uint16_t const old_layout = Create(u"T", Columns().Long(u"a").Long(u"b"));
  uint64_t const object = ObjectWith(u"T", u"a", 5);
  WriteLong(u"T", u"b", object, 6);
  AddColumns(u"T", Columns().Long(u"nullable", true).Long(u"counted"));
  Refresh();
  EXPECT_EQ(old_layout, LayoutOfObject(object));
  EXPECT_EQ("5", ReadLong(u"T", u"a", object));
  EXPECT_EQ("6", ReadLong(u"T", u"b", object));
  EXPECT_EQ("null", ReadLong(u"T", u"nullable", object));
  EXPECT_EQ("0", ReadLong(u"T", u"counted", object));
}

TEST_F(ObjectsAcrossChangesTest, WriteToAnAddedColumn_KeepsTheOthers) {
  Create(u"T", Columns().Long(u"a"));
  uint64_t const object = ObjectWith(u"T", u"a", 5);
  AddColumns(u"T", Columns().Long(u"new"));
  Refresh();
  WriteLong(u"T", u"new", object, 9);
  EXPECT_EQ("5", ReadLong(u"T", u"a", object));
  EXPECT_EQ("9", ReadLong(u"T", u"new", object));
}

TEST_F(ObjectsAcrossChangesTest, ColumnAddedAbove_LeavesChildObjectsReadable) {
  Create(u"Parent", Columns().Long(u"p"));
  Create(u"Child", Columns().Long(u"c").Long(u"d"), u"Parent");
  uint64_t const object = ObjectWith(u"Child", u"p", 1);
  WriteLong(u"Child", u"c", object, 2);
  WriteLong(u"Child", u"d", object, 3);
  AddColumns(u"Parent", Columns().Long(u"x", true).Long(u"y"));
  Refresh();
  EXPECT_EQ("1", ReadLong(u"Child", u"p", object));
  EXPECT_EQ("null", ReadLong(u"Child", u"x", object));
  EXPECT_EQ("0", ReadLong(u"Child", u"y", object));
  EXPECT_EQ("2", ReadLong(u"Child", u"c", object));
  EXPECT_EQ("3", ReadLong(u"Child", u"d", object));
}

TEST_F(ObjectsAcrossChangesTest, DroppedColumn_IsGoneAndOthersStay) {
  Create(u"Parent", Columns().Long(u"p").Long(u"q"));
  Create(u"Child", Columns().Long(u"c"), u"Parent");
  uint64_t const object = ObjectWith(u"Child", u"p", 1);
  WriteLong(u"Child", u"q", object, 2);
  WriteLong(u"Child", u"c", object, 3);
  DropColumn(u"Parent", u"p");
  Refresh();
  PropertyAccessInfo* handle = nullptr;
  EXPECT_EQ(SAGLEME_BAD_ARGUMENT, lorv_crud_GetPropertyHandle(context(), u"Child", u"p", &handle));
  EXPECT_EQ("2", ReadLong(u"Child", u"q", object));
  EXPECT_EQ("3", ReadLong(u"Child", u"c", object));
}

TEST_F(ObjectsAcrossChangesTest, ColumnDroppedAndAddedAnew_DoesNotShowOldValues) {
  Create(u"T", Columns().Long(u"a"));
  uint64_t const object = ObjectWith(u"T", u"a", 5);
  DropColumn(u"T", u"a");
  AddColumns(u"T", Columns().Long(u"a", true));
  Refresh();
  EXPECT_EQ("null", ReadLong(u"T", u"a", object));
}

TEST_F(ObjectsAcrossChangesTest, Index_FindsOldAndNewObjectsByOldAndNewValues) {
  Create(u"T", Columns().Long(u"gone").Long(u"a"));
  CreateIndex(u"I", u"T", {u"a"});
  uint64_t const old_object = ObjectWith(u"T", u"a", 5);
  AddColumns(u"T", Columns().Long(u"x"));
  DropColumn(u"T", u"gone");
  Refresh();
  uint64_t const new_object = ObjectWith(u"T", u"a", 5);
  EXPECT_EQ((Oids{old_object, new_object}), Find(u"I", 5));
  WriteLong(u"T", u"a", old_object, 7);
  EXPECT_EQ(Oids{new_object}, Find(u"I", 5));
  EXPECT_EQ(Oids{old_object}, Find(u"I", 7));
  Commit();
  Begin();
  EXPECT_EQ(Oids{new_object}, Find(u"I", 5));
  EXPECT_EQ(Oids{old_object}, Find(u"I", 7));
}

TEST_F(ObjectsAcrossChangesTest, IndexOnAnAddedColumn_CoversObjectsOfOldLayouts) {
  Create(u"Parent", Columns().Long(u"p"));
  Create(u"Child", Columns().Long(u"c"), u"Parent");
  uint64_t const parent = ObjectWith(u"Parent", u"p", 1);
  uint64_t const child = ObjectWith(u"Child", u"c", 2);
  AddColumns(u"Parent", Columns().Long(u"x"));
  CreateIndex(u"I", u"Parent", {u"x"});
  Refresh();
  EXPECT_EQ((Oids{parent, child}), Find(u"I", 0));
  WriteLong(u"Child", u"x", child, 9);
  EXPECT_EQ(Oids{parent}, Find(u"I", 0));
  EXPECT_EQ(Oids{child}, Find(u"I", 9));
  EXPECT_EQ("2", ReadLong(u"Child", u"c", child));
}

TEST_F(ObjectsAcrossChangesTest, ObjectsOfASubtree_StayInItsRange) {
  Create(u"Parent", Columns().Long(u"p"));
  Create(u"Child", {}, u"Parent");
  uint64_t const parent = CreateObject(u"Parent");
  uint64_t const child = CreateObject(u"Child");
  AddColumns(u"Parent", Columns().Long(u"x"));
  ExpectOk(lorv_rename_table(context(), u"Parent", u"Renamed"));
  Refresh();
  uint64_t const later = CreateObject(u"Child");
  EXPECT_EQ((Oids{parent, child, later}), ObjectsBelow(u"Renamed"));
  EXPECT_EQ((Oids{child, later}), ObjectsBelow(u"Child"));
}

TEST_F(ObjectsAcrossChangesTest, TypeOfAnObject_IsItsTablesUnderAnyLayout) {
  Create(u"T", Columns().Long(u"a"));
  uint64_t const object = CreateObject(u"T");
  uint64_t before = 0;
  ExpectOk(lorv_crud_GetObjectTypeId(context(), object, LayoutOfObject(object), &before));
  AddColumns(u"T", Columns().Long(u"b"));
  uint64_t after = 0;
  ExpectOk(lorv_crud_GetObjectTypeId(context(), object, LayoutOfObject(object), &after));
  EXPECT_EQ(before, after);
  ExpectOk(lorv_drop_table_by_name(context(), u"T", false, false));
  ExpectOk(lorv_crud_GetObjectTypeId(context(), object, LayoutOfObject(object), &after));
  EXPECT_EQ(0u, after);
}

}  // namespace
}  // namespace sagleme_test
