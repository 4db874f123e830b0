#include "support/catalogue.h"

namespace sagleme_test {
namespace {

using metalayer::DottedName;

// Several tables at once, which may refer to one another.
class DropTablesTest : public CatalogueTest {
 protected:
  uint32_t Drop(std::vector<char16_t const*> names, bool drop_children = false,
                bool force = false) {
    names.push_back(nullptr);
    return lorv_drop_tables_by_names(context(), names.data(), drop_children, force);
  }
  // Two tables that refer to each other.
  void CreateMutual() {
    Create(u"One", Columns().Ref(u"two", u"Two"));
    Create(u"Two", Columns().Ref(u"one", u"One"));
    ExpectOk(lorv_update_reference_columns_types(context()));
  }
};

TEST_F(DropTablesTest, MutualReferences_GoTogetherOnly) {
  CreateMutual();
  ExpectRefusedUntouched(SAGLEME_TABLE_REFERENCED,
                         u"Table One is still referenced at least by column one from table Two.",
                         [&] { return lorv_drop_table_by_name(context(), u"One", false, false); });
  ExpectRefusedUntouched(SAGLEME_TABLE_REFERENCED,
                         u"Table Two is still referenced at least by column two from table One.",
                         [&] { return Drop({u"Two"}); });
  uint64_t const generation = Generation();
  ExpectOk(Drop({u"Two", u"One"}));
  EXPECT_TRUE(View(u"One").is_null());
  EXPECT_TRUE(View(u"Two").is_null());
  EXPECT_EQ(generation + 2, Generation());
  EXPECT_EQ(2, CountRequests());
}

TEST_F(DropTablesTest, SelfReference_GoesAlone) {
  Create(u"T", Columns().Ref(u"self", u"T"));
  ExpectOk(Drop({u"T"}));
  EXPECT_TRUE(View(u"T").is_null());
}

TEST_F(DropTablesTest, SameNameTwice_IsDroppedOnce) {
  Create(u"T");
  uint64_t const generation = Generation();
  ExpectOk(Drop({u"T", u"T"}));
  EXPECT_EQ(generation + 1, Generation());
}

TEST_F(DropTablesTest, NoNames_DoNothing) {
  ExpectUntouched([&] { ExpectOk(Drop({})); });
}

TEST_F(DropTablesTest, ReferenceFromOutside_IsFoundBeforeAnythingGoes) {
  CreateMutual();
  Create(u"Third");
  Create(u"Outside", Columns().Ref(u"r", u"Third"));
  ExpectRefusedUntouched(
      SAGLEME_TABLE_REFERENCED,
      u"Table Third is still referenced at least by column r from table Outside.", [&] {
        return Drop({u"One", u"Two", u"Third"});
      });
  ExpectOk(Drop({u"One", u"Two", u"Third"}, false, true));
}

TEST_F(DropTablesTest, FirstReferrer_IsTheOnlyOneExamined) {
  Create(u"Target");
  Create(u"Inside", Columns().Ref(u"r", u"Target"));
  Create(u"Outside", Columns().Ref(u"r", u"Target"));
  ExpectOk(Drop({u"Target", u"Inside"}));
  EXPECT_FALSE(View(u"Outside").is_null());
}

TEST_F(DropTablesTest, Class_HoldsATableUnlessForced) {
  Create(u"First");
  Create(u"Second");
  InsertClass(u"Class", View(u"Second"));
  ExpectRefused(SAGLEME_TABLE_REFERENCED, u"Table Second is still referenced by clr class Class.",
                Drop({u"First", u"Second"}));
  EXPECT_TRUE(View(u"First").is_null());
  ExpectOk(Drop({u"Second"}, false, true));
}

TEST_F(DropTablesTest, ParentInFrontOfItsChild_IsHeldByIt) {
  Create(u"Parent");
  Create(u"Child", {}, u"Parent");
  ASSERT_LT(View(u"Parent").oid, View(u"Child").oid);
  ExpectRefusedUntouched(SAGLEME_TABLE_HAS_DESCENDANTS, u"Table Parent still has child Child.",
                         [&] {
                           return Drop({u"Child", u"Parent"});
                         });
}

TEST_F(DropTablesTest, DescendantReachedTwice_FailsWithTheKernelsStatus) {
  Create(u"Parent");
  Create(u"Child", {}, u"Parent");
  ASSERT_LT(View(u"Parent").oid, View(u"Child").oid);
  EXPECT_EQ(LORV_STATUS_UNREACHABLE, Drop({u"Parent", u"Child"}, true));
}

TEST_F(DropTablesTest, Arguments_AreCheckedPerName) {
  Create(u"T");
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument full_table_name is empty.", [&] {
    return Drop({u"T", u""});
  });
  ExpectRefusedUntouched(SAGLEME_TABLE_NOT_FOUND, u"Table Nobody not found.", [&] {
    return Drop({u"T", u"Nobody"});
  });
}

TEST_F(DropTablesTest, DottedNames_MayBeShortened) {
  Create(u"App.One");
  Create(u"App.Two", Columns().Ref(u"r", u"App.One"));
  metalayer::ddl::DropMutuallyReferencingTables(
      std::vector<DottedName>{DottedName::Split(u"One"), DottedName::Split(u"App.Two")}, false,
      false);
  EXPECT_TRUE(View(u"App.One").is_null());
  EXPECT_TRUE(View(u"App.Two").is_null());
  ExpectThrown(SAGLEME_TABLE_NOT_FOUND, u"Table One not found.", [] {
    metalayer::ddl::DropMutuallyReferencingTables(
        std::vector<DottedName>{DottedName::Split(u"One")}, false, false);
  });
}

TEST_F(DropTablesTest, Class_ComesBeforeChildren) {
  Create(u"Parent");
  Create(u"Child", {}, u"Parent");
  InsertClass(u"Class", View(u"Parent"));
  ExpectRefusedUntouched(SAGLEME_TABLE_REFERENCED,
                         u"Table Parent is still referenced by clr class Class.",
                         [&] { return Drop({u"Parent"}); });
  ExpectRefusedUntouched(SAGLEME_TABLE_HAS_DESCENDANTS, u"Table Parent still has child Child.",
                         [&] { return Drop({u"Parent"}, false, true); });
}

// Each table of the set was judged; their descendants go unasked.
TEST_F(DropTablesTest, Descendants_GoWhateverRefersToThem) {
  Create(u"Parent");
  Create(u"Child", {}, u"Parent");
  Create(u"Outside", Columns().Ref(u"r", u"Child"));
  InsertClass(u"Class", View(u"Child"));
  ExpectOk(Drop({u"Parent"}, true));
  EXPECT_TRUE(View(u"Child").is_null());
  EXPECT_FALSE(View(u"Outside").is_null());
}

TEST_F(DropTablesTest, ReferringColumnWithoutTable_CountsAsOutside) {
  Create(u"Target");
  Create(u"Referrer", Columns().Ref(u"r", u"Target"));
  metalayer::PutRef(ColumnRow(u"Referrer", u"r"), metalayer::RawColumn::kTable,
                    db_util::null_obj_ref);
  ExpectRefusedUntouched(SAGLEME_TABLE_REFERENCED,
                         u"Table Target is still referenced at least by column r from table .",
                         [&] {
                           return Drop({u"Target", u"Referrer"});
                         });
}

TEST_F(DropTablesTest, DottedNameOfTwoTables_IsAmbiguous) {
  Create(u"One.T");
  Create(u"Two.T");
  ExpectUntouched([] {
    try {
      metalayer::ddl::DropMutuallyReferencingTables(
          std::vector<DottedName>{DottedName::Split(u"T")}, false, true);
      ADD_FAILURE();
    } catch (db_util::db_exception const& failure) {
      EXPECT_EQ(SAGLEME_AMBIGUOUS_NAME, failure.code());
    }
  });
}

}  // namespace
}  // namespace sagleme_test
