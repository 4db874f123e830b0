// Databases of older versions, and one of a newer.

#include "bootstrap/bootstrap_test.h"
#include "bootstrap/old_database.h"

namespace sagleme_test {
namespace {

using namespace metalayer;

constexpr int kYields = 18;

class UpgradeTest : public BootstrapTest {
 protected:
  void SetUp() override { ASSERT_EQ(0u, Bootstrap().status); }

  unsigned long Generation() {
    Lines const answer = Ask([](Database& database) {
      database.Begin();
      EXPECT_EQ(0u, lorv_init_metalayer(database.context()));
      *TlsMetalayerContext::Current() = database.context();
      return Lines{std::to_string(lorv_get_metaschema_generation())};
    });
    return answer.empty() ? ~0ul : std::stoul(answer[0]);
  }
};

// ---- the version row ----------------------------------------------------------------------------

TEST_F(UpgradeTest, VersionEight_IsRaised) {
  Change([] { SetVersion(8); });
  ExpectRepaired(kYields);
}

TEST_F(UpgradeTest, NegativeVersion_IsRaised) {
  Change([] { SetVersion(-1); });
  ExpectRepaired(kYields);
}

TEST_F(UpgradeTest, MissingVersion_IsInserted) {
  Change([] { DeleteRow(VersionRow()); });
  ExpectRepaired(kYields);
}

TEST_F(UpgradeTest, NewerVersion_IsRefusedAndNothingIsTouched) {
  Change([] { SetVersion(12); });
  Lines const before = Objects();
  for (Outcome const& outcome : {Bootstrap(), BootstrapReadOnly()}) {
    EXPECT_EQ(SAGLEME_VERSION_MISMATCH, outcome.status);
    EXPECT_EQ(
        "This version of Lorvenstack has metaschema version 9, while the database has version 12.",
        outcome.text);
  }
  EXPECT_EQ("", Differences(before, Objects()));
}

TEST_F(UpgradeTest, NextVersion_IsRefused) {
  Change([] { SetVersion(10); });
  Outcome const outcome = Bootstrap();
  EXPECT_EQ(SAGLEME_VERSION_MISMATCH, outcome.status);
  EXPECT_EQ(
      "This version of Lorvenstack has metaschema version 9, while the database has version 10.",
      outcome.text);
}

// ---- the generation row -------------------------------------------------------------------------

TEST_F(UpgradeTest, MissingGeneration_StartsAtZero) {
  Change([] { EXPECT_EQ(1, DeleteObjects(UserSchemaGeneration::setspec())); });
  ExpectRepaired(kYields);
}

TEST_F(UpgradeTest, Generation_IsKept) {
  Change([] { AdvanceSchemaGeneration(); });
  ASSERT_EQ(0u, Bootstrap().status);
  EXPECT_EQ(1u, Generation());
}

// ---- the index over the texts of set specifiers -------------------------------------------------

TEST_F(UpgradeTest, UniqueSpecifierIndex_IsReplacedByOneThatIsNot) {
  Change([] { MakeSpecifierIndexUnique(); });
  Outcome const outcome = Bootstrap();
  EXPECT_EQ(0u, outcome.status) << outcome.text;
  EXPECT_EQ(kYields, outcome.yields);
  // Dropping an index is a change of the schema.
  EXPECT_EQ(1u, Generation());
  Change([] { PutULong(SchemaGeneration(), UserSchemaGeneration::kGeneration, 0); });
  ExpectCurrent();
}

TEST_F(UpgradeTest, UniqueSpecifierIndexWithoutRow_IsReplaced) {
  Change([] {
    MakeSpecifierIndexUnique();
    DeleteIndexRows(u"TypeId");
  });
  ExpectRepaired(kYields);
}

TEST_F(UpgradeTest, UniqueSpecifierIndexBesideTheNewOne_IsDropped) {
  Change([] {
    unsigned long const unique =
        CreateKernelIndex(u"TypeId", u"a~", u"TypeId", LORV_TYPE_STRING, 1);
    Index const row = Index::ByIndexPK(u"TypeId");
    PutULong(row, Index::kIndexHandle, unique);
    PutULong(row, Index::kUnique, 1);
  });
  Outcome const outcome = Bootstrap();
  EXPECT_EQ(0u, outcome.status) << outcome.text;
  EXPECT_EQ(1u, Generation());
  Change([] { PutULong(SchemaGeneration(), UserSchemaGeneration::kGeneration, 0); });
  ExpectCurrent();
}

TEST_F(UpgradeTest, MissingSpecifierIndex_IsCreatedAndRecorded) {
  Change([] {
    DropKernelIndex(u"TypeId");
    PutULong(Index::ByIndexPK(u"TypeId"), Index::kIndexHandle, 0);
  });
  ExpectRepaired(kYields);
}

TEST_F(UpgradeTest, SpecifierIndexRecordedUnderAnotherNumber_EndsTheProcess) {
  Change([] { PutULong(Index::ByIndexPK(u"TypeId"), Index::kIndexHandle, 987654321); });
  EXPECT_EQ(kTrapped, Run([](Database& database) { database.Bootstrap(); }));
}

TEST_F(UpgradeTest, SpecifierIndexRecordedAsUnique_EndsTheProcess) {
  Change([] { PutULong(Index::ByIndexPK(u"TypeId"), Index::kUnique, 1); });
  EXPECT_EQ(kTrapped, Run([](Database& database) { database.Bootstrap(); }));
}

TEST_F(UpgradeTest, UniqueIndexOfSpecifiers_IsCreatedWhereOlderVersionsHaveNone) {
  Change([] {
    DropKernelIndex(u"TypeId_postV2_3");
    DeleteIndexRows(u"TypeId_postV2_3");
  });
  EXPECT_EQ(SAGLEME_NOT_PREPARED, StartUp().status);
  ExpectRepaired(kYields);
}

// ---- the index of primitive types ---------------------------------------------------------------

TEST_F(UpgradeTest, PrimitiveTypeIndex_IsCreatedWhereOlderVersionsHaveNone) {
  Change([] {
    DropKernelIndex(u"DbPrimitiveTypePK_postV2_3");
    DeleteIndexRows(u"DbPrimitiveTypePK_postV2_3");
  });
  ExpectRepaired(kYields);
}

TEST_F(UpgradeTest, OldPrimitiveTypeIndex_IsDroppedWithAYieldOfItsOwn) {
  Change([] {
    CreateKernelIndex(u"DbPrimitiveTypePK", u"b~a~", u"PrimitiveType", LORV_TYPE_ULONG, 1);
  });
  ExpectRepaired(kYields + 1);
}

// ---- the oldest of all --------------------------------------------------------------------------

TEST_F(UpgradeTest, EverythingOldAtOnce_IsRepairedInOneRun) {
  Change([] {
    MakeSpecifierIndexUnique();
    DropKernelIndex(u"TypeId_postV2_3");
    DeleteIndexRows(u"TypeId_postV2_3");
    DropKernelIndex(u"DbPrimitiveTypePK_postV2_3");
    DeleteIndexRows(u"DbPrimitiveTypePK_postV2_3");
    CreateKernelIndex(u"DbPrimitiveTypePK", u"b~a~", u"PrimitiveType", LORV_TYPE_ULONG, 1);
    SetVersion(3);
    DeleteObjects(UserSchemaGeneration::setspec());
  });
  Outcome const outcome = Bootstrap();
  EXPECT_EQ(0u, outcome.status) << outcome.text;
  EXPECT_EQ(kYields + 1, outcome.yields);
  EXPECT_EQ(1u, Generation());
  Change([] { PutULong(SchemaGeneration(), UserSchemaGeneration::kGeneration, 0); });
  ExpectCurrent();
}

// ---- type ids -----------------------------------------------------------------------------------

TEST_F(UpgradeTest, UserTableWithoutTypeId_GetsTheNextOne) {
  Change([] {
    unsigned short layout = 0;
    Columns columns;
    columns.Long(u"Number");
    unsigned long const context = TlsContextHandle::context();
    EXPECT_EQ(0u, lorv_create_table_by_names(context, u"App.First", nullptr, columns, &layout));
    EXPECT_EQ(0u, lorv_create_table_by_names(context, u"App.Second", nullptr, columns, &layout));
    DeleteRow(TypeIdsMeta::ByTypeIdsMeta_Type(TableRow(u"App.First")));
  });
  ASSERT_EQ(0u, Bootstrap().status);
  Change([] {
    TypeIdsMeta const row = TypeIdsMeta::ByTypeIdsMeta_Type(TableRow(u"App.First"));
    ASSERT_FALSE(row.is_null());
    EXPECT_EQ(28u, GetULong(row, TypeIdsMeta::kTypeIdsMeta_Id));
  });
}

TEST_F(UpgradeTest, SystemTableWithoutTypeIdInAnUnfinishedDatabase_GetsOne) {
  Change([] {
    DeleteRow(VersionRow());
    DeleteRow(TypeIdsMeta::ByTypeIdsMeta_Type(TableRow(u"Lorvenstack.Metadata.Index")));
  });
  ASSERT_EQ(0u, Bootstrap().status);
  Change([] {
    TypeIdsMeta const row =
        TypeIdsMeta::ByTypeIdsMeta_Type(TableRow(u"Lorvenstack.Metadata.Index"));
    EXPECT_EQ(26u, GetULong(row, TypeIdsMeta::kTypeIdsMeta_Id));
  });
}

// ---- a table that older versions do not have ----------------------------------------------------

constexpr char16_t const* kNewTable = u"Lorvenstack.Internal.Metadata.UserSchemaGeneration";

// The kernel's layout stays, under a name that nobody asks for.
void ForgetLayoutOfNewTable() {
  PutText(Token::ByInvariantName(kNewTable), Token::kInvariantName, u"__forgotten");
}

void ForgetNewTable() {
  RawView const view = TableRow(kNewTable);
  ddl::EnumColumns(view, 0, -1, [](RawColumn const& column) { DeleteRow(column); });
  DeleteRow(TypeIdsMeta::ByTypeIdsMeta_Type(view));
  DeleteRow(SetSpecifier::ByType(view));
  DeleteRow(view);
  DeleteObjects(UserSchemaGeneration::setspec());
  SetVersion(7);
  ForgetLayoutOfNewTable();
}

TEST_F(UpgradeTest, MissingTable_IsCreatedWithFreshSpecifierAndTypeId) {
  Change([] {
    unsigned short layout = 0;
    Columns columns;
    columns.Long(u"Number");
    EXPECT_EQ(0u, lorv_create_table_by_names(TlsContextHandle::context(), u"App.Mine", nullptr,
                                             columns, &layout));
    ForgetNewTable();
  });
  ASSERT_EQ(0u, Bootstrap().status);
  ASSERT_EQ(0u, StartUp().status);
  Change([] {
    EXPECT_EQ(u"j~", UserSchemaGeneration::setspec());
    EXPECT_EQ(27u, UserSchemaGeneration::g_type_id());
    EXPECT_EQ(4, ddl::GetColumnsCount(TableRow(kNewTable)));
    EXPECT_EQ(9, GetLong(VersionRow(), Configuration::kValue));
  });
  EXPECT_EQ(0u, Generation());
}

TEST_F(UpgradeTest, ViewWithoutLayout_EndsTheProcess) {
  Change(ForgetLayoutOfNewTable);
  EXPECT_EQ(kTrapped, Run([](Database& database) { database.Bootstrap(); }));
}

// ---- the primitive types ------------------------------------------------------------------------

TEST_F(UpgradeTest, MissingPrimitiveTypes_AreInsertedAnew) {
  Change([] { EXPECT_EQ(10, DeleteObjects(DbPrimitiveType::setspec())); });
  Outcome const outcome = Bootstrap();
  ASSERT_EQ(0u, outcome.status) << outcome.text;
  EXPECT_EQ(kYields, outcome.yields);
  Change([] {
    for (unsigned char code = 1; code <= 10; ++code) {
      EXPECT_FALSE(DbPrimitiveType::ByDbPrimitiveTypePK_postV2_3(code).is_null()) << int{code};
    }
    EXPECT_EQ(10, DeleteObjects(DbPrimitiveType::setspec()));
  });
}

// The type of texts is the sign that all were written.
TEST_F(UpgradeTest, SingleMissingPrimitiveType_StaysMissing) {
  Change([] { DeleteRow(DbPrimitiveType::ByDbPrimitiveTypePK_postV2_3(LORV_TYPE_DOUBLE)); });
  ASSERT_EQ(0u, Bootstrap().status);
  Change([] {
    EXPECT_TRUE(DbPrimitiveType::ByDbPrimitiveTypePK_postV2_3(LORV_TYPE_DOUBLE).is_null());
  });
}

TEST_F(UpgradeTest, TypeOfTextsMissingAlone_IsTheKernelsRefusalOfTheOthers) {
  Change([] { DeleteRow(DbPrimitiveType::ByDbPrimitiveTypePK_postV2_3(LORV_TYPE_STRING)); });
  EXPECT_EQ(LSCOREDB_DUPLICATE_KEY, Bootstrap().status);
}

}  // namespace
}  // namespace sagleme_test
