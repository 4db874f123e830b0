// Start-up on a complete database.

#include "bootstrap/bootstrap_test.h"
#include "bootstrap/old_database.h"

namespace sagleme_test {
namespace {

using namespace metalayer;

class StartUpTest : public BootstrapTest {
 protected:
  void SetUp() override { ASSERT_EQ(0u, Bootstrap().status); }

  // In a process that has opened the database and knows nothing of it yet.
  void InFreshProcess(std::function<void(Database&)> const& work) {
    EXPECT_EQ(0, Run([&work](Database& database) {
                database.Begin();
                *TlsMetalayerContext::Current() = database.context();
                work(database);
              }));
  }
};

TEST_F(StartUpTest, StartUp_WritesNothing) {
  Outcome const outcome = StartUp();
  EXPECT_EQ(0u, outcome.status);
  EXPECT_EQ("", outcome.text);
}

TEST_F(StartUpTest, StartUp_FillsTheClasses) {
  InFreshProcess([](Database& database) {
    EXPECT_FALSE(IsMetalayerInitialized());
    ASSERT_EQ(0u, lorv_init_metalayer(database.context()));
    EXPECT_TRUE(IsMetalayerInitialized());
    EXPECT_EQ(u"b~~~", RawView::setspec());
    EXPECT_EQ(4u, RawView::g_type_id());
    EXPECT_EQ(u"~", Token::setspec());
    EXPECT_EQ(2u, Token::g_type_id());
    EXPECT_EQ(u"", MotherOfAllLayouts::setspec());
    EXPECT_EQ(0u, MotherOfAllLayouts::g_type_id());
    EXPECT_EQ(25u, UserSchemaGeneration::g_type_id());
    EXPECT_EQ(0u, SetSpecifier::index_id_TypeId());
    EXPECT_NE(0u, SetSpecifier::index_id_TypeId_postV2_3());
  });
}

TEST_F(StartUpTest, StartUp_FindsRootViewAndGeneration) {
  InFreshProcess([](Database& database) {
    ASSERT_EQ(0u, lorv_init_metalayer(database.context()));
    EXPECT_EQ(TableRow(u"Lorvenstack.Internal.Metadata.MotherOfAllLayouts").oid, MomRawView().oid);
    EXPECT_EQ(MotherOfAllLayouts::metaclass_layout_handle(), GetRootLayoutHandle());
    EXPECT_EQ(UserSchemaGeneration::metaclass_layout_handle(), LayoutOf(SchemaGeneration()));
  });
}

TEST_F(StartUpTest, SecondCall_SucceedsAtOnceInAnyContextOfTheDatabase) {
  InFreshProcess([](Database& database) {
    ASSERT_EQ(0u, lorv_init_metalayer(database.context()));
    uint64_t without_transaction = 0;
    ASSERT_EQ(0u, lscoredb_context_open(database.handle(), &without_transaction));
    EXPECT_EQ(0u, lorv_init_metalayer(without_transaction));
    EXPECT_EQ(0u, lscoredb_context_close(without_transaction));
    EXPECT_EQ(0u, InitMetalayer());
  });
}

TEST_F(StartUpTest, AnotherDatabase_IsStartedUpByItself) {
  InFreshProcess([](Database& database) {
    ASSERT_EQ(0u, lorv_init_metalayer(database.context()));
    Database other;
    other.Begin();
    EXPECT_EQ(SAGLEME_NOT_PREPARED, lorv_init_metalayer(other.context()));
    other.Rollback();
    ASSERT_EQ(0u, other.Bootstrap());
    EXPECT_EQ(0u, lorv_init_metalayer(other.context()));
  });
}

TEST_F(StartUpTest, AfterSetUninitialized_RunsAgainInFull) {
  InFreshProcess([](Database& database) {
    ASSERT_EQ(0u, lorv_init_metalayer(database.context()));
    LS_OBJ_REF const generation = SchemaGeneration();
    SetMetalayerUninitialized();
    EXPECT_FALSE(IsMetalayerInitialized());
    EXPECT_EQ(0u, SchemaGeneration().oid);
    EXPECT_EQ(u"b~~~", RawView::setspec());
    MomRawView() = db_util::null_obj_ref;
    EXPECT_EQ(0u, lorv_init_metalayer(database.context()));
    EXPECT_EQ(generation.oid, SchemaGeneration().oid);
    EXPECT_NE(0u, MomRawView().oid);
  });
}

TEST_F(StartUpTest, AfterAFailureThatFoundTheGeneration_CanBeRepeated) {
  InFreshProcess([](Database& database) {
    ASSERT_EQ(0u, lorv_init_metalayer(database.context()));
    LS_OBJ_REF const generation = SchemaGeneration();
    SetMetalayerUninitialized();
    SchemaGeneration() = generation;
    EXPECT_EQ(0u, lorv_init_metalayer(database.context()));
    EXPECT_EQ(generation.oid, SchemaGeneration().oid);
  });
}

TEST_F(StartUpTest, FailedCall_LeavesTheLayerUninitializedUntilItIsRepeated) {
  InFreshProcess([](Database& database) {
    ASSERT_EQ(0u, lorv_init_metalayer(database.context()));
    SetVersion(8);
    SetMetalayerUninitialized();
    EXPECT_EQ(SAGLEME_VERSION_MISMATCH, lorv_init_metalayer(database.context()));
    EXPECT_FALSE(IsMetalayerInitialized());
    EXPECT_EQ(0u, SchemaGeneration().oid);
    SetVersion(9);
    EXPECT_EQ(0u, lorv_init_metalayer(database.context()));
    EXPECT_TRUE(IsMetalayerInitialized());
  });
}

TEST_F(StartUpTest, WithoutTransaction_PassesTheKernelsStatus) {
  EXPECT_EQ(0, Run([](Database& database) {
              EXPECT_EQ(LSCOREDB_NO_TRANSACTION, lorv_init_metalayer(database.context()));
            }));
}

TEST_F(StartUpTest, ReadiedClasses_AllowCatalogueReadsWithoutStartUp) {
  InFreshProcess([](Database&) {
    MetaschemaInit const metaschema;
    TokenMain::Init();
    PrepareGeneratedMetaClassesForReading();
    EXPECT_FALSE(IsMetalayerInitialized());
    EXPECT_FALSE(TableRow(u"Lorvenstack.Metadata.Index").is_null());
    EXPECT_NE(0u, Index::metaclass_layout_handle());
  });
}

// ---- versions -----------------------------------------------------------------------------------

TEST_F(StartUpTest, OlderVersion_IsRefusedWithBothNumbers) {
  Change([] { SetVersion(8); });
  Outcome const outcome = StartUp();
  EXPECT_EQ(SAGLEME_VERSION_MISMATCH, outcome.status);
  EXPECT_EQ(
      "This version of Lorvenstack has metaschema version 9, while the database has version 8.",
      outcome.text);
  EXPECT_EQ(0u, Bootstrap().status);
  EXPECT_EQ(0u, StartUp().status);
}

TEST_F(StartUpTest, NewerVersion_IsRefusedWithBothNumbers) {
  Change([] { SetVersion(12); });
  Outcome const outcome = StartUp();
  EXPECT_EQ(SAGLEME_VERSION_MISMATCH, outcome.status);
  EXPECT_EQ(
      "This version of Lorvenstack has metaschema version 9, while the database has version 12.",
      outcome.text);
}

TEST_F(StartUpTest, NegativeVersion_ShowsAsALargeNumber) {
  Change([] { SetVersion(-1); });
  Outcome const outcome = StartUp();
  EXPECT_EQ(SAGLEME_VERSION_MISMATCH, outcome.status);
  EXPECT_EQ(
      "This version of Lorvenstack has metaschema version 9, while the database has version "
      "18446744073709551615.",
      outcome.text);
}

TEST(VersionTest, Library_IsNineWithoutAnyDatabase) {
  EXPECT_EQ(9u, lorv_get_metaschema_version());
}

TEST(VersionTest, LibraryVersion_IsNoMismatch) { EXPECT_NO_THROW(ReportSchemaMismatchIf(9)); }

// ---- the generation -----------------------------------------------------------------------------

class GenerationTest : public DatabaseTest {};

TEST_F(GenerationTest, NewDatabase_StartsAtZeroAndMovesWithTheTransaction) {
  EXPECT_EQ(0u, lorv_get_metaschema_generation());
  AdvanceSchemaGeneration();
  AdvanceSchemaGeneration();
  EXPECT_EQ(2u, lorv_get_metaschema_generation());
  Rollback();
  Begin();
  EXPECT_EQ(0u, lorv_get_metaschema_generation());
}

TEST_F(GenerationTest, AssuredTwice_StaysOneRow) {
  InitializeGenerationIfDoesntExist();
  db_util::db_iter_with_keys rows;
  RangeGlobalSetspecIndex(UserSchemaGeneration::setspec().c_str(), &rows);
  EXPECT_EQ(SchemaGeneration().oid, rows.current.oid);
  EXPECT_FALSE(rows.next());
}

TEST_F(GenerationTest, InAReadOnlyTransaction_CannotAdvance) {
  Rollback();
  ASSERT_EQ(0u, lscoredb_begin(context(), LSCOREDB_READ_ONLY_TRANSACTION));
  try {
    AdvanceSchemaGeneration();
    FAIL() << "a read-only transaction took a write";
  } catch (db_util::db_exception const& failure) {
    EXPECT_EQ(LSCOREDB_WRITE_REFUSED, failure.code());
  }
}

TEST_F(StartUpTest, GenerationBeforeStartUp_IsTheKernelsFailure) {
  InFreshProcess([](Database&) {
    try {
      lorv_get_metaschema_generation();
      FAIL() << "there is no row to read yet";
    } catch (db_util::db_exception const& failure) {
      EXPECT_EQ(LORV_STATUS_NO_OBJECT, failure.code());
    }
  });
}

TEST_F(GenerationTest, UpdateOfReferenceColumns_ChangesNothingInANewDatabase) {
  std::vector<std::string> const before = DumpObjects();
  ExpectOk(lorv_update_reference_columns_types(context()));
  EXPECT_EQ("", Differences(before, DumpObjects()));
}

}  // namespace
}  // namespace sagleme_test
