#include "support/catalogue.h"

namespace sagleme_test {
namespace {

class CleanMetadataTest : public CatalogueTest {
 protected:
  uint32_t Clean() { return lorv_clrmetadata_clean(context()); }
  template <typename Class>
  int CountRows() {
    int count = 0;
    db_util::db_iter_with_keys rows;
    metalayer::RangeGlobalSetspecIndex(Class::setspec().c_str(), &rows);
    for (; rows.current.oid != 0; rows.next()) ++count;
    return count;
  }
};

TEST_F(CleanMetadataTest, WithoutClassesAndProperties_ChangesNothing) {
  Create(u"T", Columns().Long(u"a"));
  ExpectUntouched([&] {
    ExpectOk(Clean());
    ExpectOk(Clean());
  });
}

TEST_F(CleanMetadataTest, AllPropertiesAndClasses_AreForgotten) {
  Create(u"T", Columns().Long(u"a"));
  for (int i = 0; i < 40; ++i) {
    std::u16string const name = u"\uFFFFName" + Utf16(std::to_string(i));
    metalayer::ClrClass const owner = InsertClass(name.c_str(), View(u"T"));
    InsertMappedProperty(owner, name.c_str(), ColumnRow(u"T", u"a"));
  }
  uint64_t const generation = Generation();
  ExpectOk(Clean());
  EXPECT_EQ(0, CountRows<metalayer::ClrClass>());
  EXPECT_EQ(0, CountRows<metalayer::MappedProperty>());
  EXPECT_EQ(generation, Generation());
  ExpectOk(Clean());
}

TEST_F(CleanMetadataTest, ViewsCodePropertiesAndTables_AreSpared) {
  Create(u"T", Columns().Long(u"a"));
  metalayer::VMView::Insert(u"View", db_util::null_obj_ref, true, u"View", u"View.x", u"x.View",
                            View(u"T"));
  metalayer::CodeProperty::Insert(View(u"T"), u"Code", db_util::null_obj_ref, false, true, true, 0);
  CreateIndex(u"I", u"T", {u"a"});
  ExpectUntouched([&] { ExpectOk(Clean()); });
  EXPECT_EQ(1, CountRows<metalayer::VMView>());
  EXPECT_EQ(1, CountRows<metalayer::CodeProperty>());
}

TEST_F(CleanMetadataTest, MappedTable_CanBeDroppedAfterwards) {
  Create(u"T", Columns().Long(u"a").Long(u"b"));
  metalayer::ClrClass const owner = InsertClass(u"Class", View(u"T"));
  InsertMappedProperty(owner, u"Prop", ColumnRow(u"T", u"a"));
  EXPECT_EQ(SAGLEME_TABLE_REFERENCED, lorv_drop_table_by_name(context(), u"T", false, false));
  EXPECT_EQ(SAGLEME_TABLE_REFERENCED,
            lorv_alter_table_drop_column_by_names(context(), u"T", u"a", nullptr));
  ExpectOk(Clean());
  DropColumn(u"T", u"a");
  ExpectOk(lorv_drop_table_by_name(context(), u"T", false, false));
}

TEST_F(CleanMetadataTest, IndexedColumn_IsStillHeld) {
  Create(u"T", Columns().Long(u"a"));
  InsertMappedProperty(View(u"T"), u"Prop", ColumnRow(u"T", u"a"));
  CreateIndex(u"I", u"T", {u"a"});
  ExpectOk(Clean());
  EXPECT_EQ(SAGLEME_COLUMN_INDEXED,
            lorv_alter_table_drop_column_by_names(context(), u"T", u"a", nullptr));
}

}  // namespace
}  // namespace sagleme_test
