// Each change of the schema, with each of its kernel calls refused in turn: the kernel's status
// comes out, nothing stays open, and after a rollback the same change succeeds.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "failures/sweep.h"
#include "support/catalogue.h"
#include "support/database.h"
#include "support/recording_kernel.h"

namespace {

using namespace failures_test;
using sagleme_test::Columns;

constexpr int kMoreCallsThanAny = 20000;

using Call = uint32_t (*)(uint64_t context);

// The layout of App.Empty, and the rows, which calls by layout and by row name things by.
uint16_t layout_of_empty = 0;
LS_OBJ_REF row_of_base{};
LS_OBJ_REF row_of_index{};
LS_OBJ_REF row_of_long{};

uint32_t CreateTable(uint64_t context, char16_t const* name, char16_t const* base, Columns columns,
                     uint16_t* layout = nullptr) {
  return lorv_create_table_by_names(context, name, base, columns, layout);
}

// A reference that waits for its target, and a class with a property, on tables that nothing else
// touches.
uint32_t MakeUpkeep(uint64_t context) {
  uint32_t status =
      CreateTable(context, u"App.Waiting", nullptr, Columns().Ref(u"Later", u"App.Mapped"));
  if (status == 0) status = CreateTable(context, u"App.Mapped", nullptr, Columns().String(u"Name"));
  if (status != 0) return status;
  sagleme_test::InsertMappedProperty(
      sagleme_test::InsertClass(u"Class", sagleme_test::View(u"App.Mapped")), u"Property",
      sagleme_test::ColumnRow(u"App.Mapped", u"Name"));
  return 0;
}

// App.Base (Name, Count) <- App.Child (Owner -> App.Base), index ByCount over App.Base, App.Empty.
uint32_t MakeSchema(uint64_t context) {
  uint32_t status =
      CreateTable(context, u"App.Base", nullptr, Columns().String(u"Name").Long(u"Count"));
  if (status == 0)
    status = CreateTable(context, u"App.Child", u"App.Base", Columns().Ref(u"Owner", u"App.Base"));
  if (status == 0)
    status = CreateTable(context, u"App.Empty", nullptr, Columns().Bool(u"On"), &layout_of_empty);
  LORV_INDEXED_COLUMN const by_count[] = {{u"Count", 1}, {nullptr, 0}};
  if (status == 0)
    status = lorv_create_index_by_names(context, u"ByCount", u"App.Base", by_count, false);
  if (status == 0) status = MakeUpkeep(context);
  return status;
}

void FindRows() {
  row_of_base = metalayer::RawView::ByRawViewPK2fullname(u"App.Base");
  row_of_index = metalayer::Index::ByIndexPK(u"ByCount");
  row_of_long = metalayer::DbPrimitiveType::ByDbPrimitiveTypePK_postV2_3(3);
}

uint32_t CreateTableByRow(uint64_t context, char16_t const* name, LS_OBJ_REF const& base,
                          std::vector<LORV_COLUMN_DEFINITION> columns) {
  columns.push_back({{}, 0, nullptr});
  LS_OBJ_REF made{};
  return lorv_create_table(context, name, base.oid, base.addr, columns.data(), &made.oid,
                           &made.addr);
}

struct Change {
  char const* name;
  Call call;
};

Change const kChanges[] = {
    {"CreateTable",
     [](uint64_t context) {
       return CreateTable(context, u"App.New", nullptr,
                          Columns().String(u"Text").Ref(u"Later", u"App.NotYet"));
     }},
    {"CreateDerivedTable",
     [](uint64_t context) {
       return CreateTable(context, u"App.New", u"App.Child", Columns().ULong(u"Size"));
     }},
    {"CreateTableThatExists",
     [](uint64_t context) {
       return CreateTable(context, u"App.Base", nullptr, Columns().String(u"Name").Long(u"Count"));
     }},
    {"CreateTableCheckingTypes",
     [](uint64_t context) {
       Columns columns = Columns().Ref(u"Owner", u"App.Child");
       return lorv_create_table_high_check_types(context, u"App.New", nullptr, columns, nullptr);
     }},
    {"CreateTableByRow",
     [](uint64_t context) {
       return CreateTableByRow(context, u"App.New", {},
                               {{row_of_long, 0, u"Size"}, {row_of_base, 1, u"Owner"}});
     }},
    {"CreateDerivedTableByRow",
     [](uint64_t context) {
       return CreateTableByRow(context, u"App.New", row_of_base, {{row_of_long, 1, u"Size"}});
     }},
    {"CreateTableByRowThatExists",
     [](uint64_t context) {
       return CreateTableByRow(context, u"App.Child", row_of_base, {{row_of_base, 1, u"Owner"}});
     }},
    {"CreateIndexByRow",
     [](uint64_t context) {
       int16_t const columns[] = {4, 3, -1};
       return lorv_create_index(context, row_of_base.oid, row_of_base.addr, u"ByBoth", 2, columns,
                                1);
     }},
    {"DropIndexByRow",
     [](uint64_t context) {
       return lorv_drop_index(context, row_of_index.oid, row_of_index.addr);
     }},
    {"CreateIndexByNames",
     [](uint64_t context) {
       LORV_INDEXED_COLUMN const columns[] = {{u"Name", 1}, {u"Count", 0}, {nullptr, 0}};
       return lorv_create_index_by_names(context, u"ByName", u"App.Base", columns, true);
     }},
    {"CreateIndexByLayout",
     [](uint64_t context) {
       int16_t const columns[] = {3, -1};
       return lorv_create_index_ids(context, layout_of_empty, u"ByOn", 0, columns, 0);
     }},
    {"DropIndexByName",
     [](uint64_t context) { return lorv_drop_index_by_name(context, u"ByCount"); }},
    {"DropIndexByTableAndName",
     [](uint64_t context) {
       return lorv_drop_index_by_table_and_name(context, u"Base", u"ByCount");
     }},
    {"AddColumns",
     [](uint64_t context) {
       Columns columns = Columns().String(u"Added").Ref(u"Friend", u"App.Child");
       return lorv_alter_table_add_columns(context, u"App.Base", columns, nullptr);
     }},
    {"DropColumn",
     [](uint64_t context) {
       return lorv_alter_table_drop_column_by_names(context, u"App.Base", u"Name", nullptr);
     }},
    {"RenameColumn",
     [](uint64_t context) {
       return lorv_alter_table_rename_column(context, u"App.Base", u"Name", u"Title");
     }},
    {"RenameTable",
     [](uint64_t context) { return lorv_rename_table(context, u"App.Base", u"App.Root"); }},
    {"DropTable",
     [](uint64_t context) { return lorv_drop_table_by_name(context, u"App.Child", false, false); }},
    {"DropTableWithChildren",
     [](uint64_t context) { return lorv_drop_table_by_name(context, u"App.Base", true, true); }},
    {"DropTablesTogether",
     [](uint64_t context) {
       char16_t const* names[] = {u"App.Child", u"App.Empty", nullptr};
       return lorv_drop_tables_by_names(context, names, false, false);
     }},
    {"DropTableCascade",
     [](uint64_t context) { return lorv_drop_table_cascade(context, u"App.Empty"); }},
    {"UpdateReferences",
     [](uint64_t context) { return lorv_update_reference_columns_types(context); }},
    {"CleanClasses", [](uint64_t context) { return lorv_clrmetadata_clean(context); }},
    {"AssureToken",
     [](uint64_t context) {
       uint64_t token = 0;
       return lorv_assure_token(context, u"a new word", &token);
     }},
};

class EveryCallTest : public sagleme_test::DatabaseTest,
                      public ::testing::WithParamInterface<Change> {
 protected:
  void SetUp() override {
    recording_kernel::Reset();
    DatabaseTest::SetUp();
    ExpectOk(MakeSchema(context()));
    FindRows();
    Commit();
    Begin();
  }

  void StartOver() {
    Rollback();
    Begin();
  }
};

TEST_P(EveryCallTest, Refused_PassesTheStatusOutAndCanBeRepeated) {
  ExpectRefusalsPassedOut(
      kMoreCallsThanAny, [this] { return GetParam().call(context()); }, [this] { StartOver(); });
}

// An iterator that cannot be freed leaves no way on: the first and the last that a change opens.
using EveryCallDeathTest = EveryCallTest;

TEST_P(EveryCallDeathTest, IteratorThatTheKernelKeeps_EndsTheProcess) {
  recording_kernel::Record();
  ASSERT_EQ(0u, GetParam().call(context()));
  int const frees = static_cast<int>(recording_kernel::CallsOf("lorv_iterator_free").size());
  ASSERT_GT(frees, 0);
  for (int const nth : {1, frees}) {
    StartOver();
    recording_kernel::FailNthOf("lorv_iterator_free", nth, kRefused);
    EXPECT_EXIT(GetParam().call(context()), ::testing::KilledBySignal(SIGABRT), "") << nth;
    recording_kernel::FailNth(0, 0);
  }
}

INSTANTIATE_TEST_SUITE_P(Changes, EveryCallDeathTest, ::testing::ValuesIn(kChanges),
                         [](auto const& change) { return std::string(change.param.name); });

INSTANTIATE_TEST_SUITE_P(Changes, EveryCallTest, ::testing::ValuesIn(kChanges),
                         [](auto const& change) { return std::string(change.param.name); });

}  // namespace
