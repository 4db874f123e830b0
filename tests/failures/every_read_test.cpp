// Each call that looks something up or works on an object, with each of its kernel calls refused in
// turn: the kernel's status comes out, nothing stays open, and the same call succeeds afterwards.

#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "failures/sweep.h"
#include "support/catalogue.h"
#include "support/database.h"
#include "support/recording_kernel.h"

namespace {

using namespace failures_test;
using sagleme_test::Columns;

constexpr int kMoreCallsThanAny = 2000;
constexpr uint64_t kFreeId = 1'000'000'000;

// What the calls ask for.
struct Asked {
  LS_OBJ_REF table{};
  LS_OBJ_REF setspec{};
  uint16_t layout = 0;
  uint64_t token_of_column = 0;
  uint64_t token_of_table = 0;
  uint64_t object = 0;
  CreateInfo* create = nullptr;
  PropertyAccessInfo* reference = nullptr;
};
Asked asked;

struct Reading {
  char const* name;
  uint32_t (*call)(uint64_t context);
};

Reading const kReadings[] = {
    {"GetToken",
     [](uint64_t context) {
       uint64_t token = 0;
       return lorv_get_token(context, u"a word", &token);
     }},
    {"GetTokenName",
     [](uint64_t context) {
       char16_t const* name = nullptr;
       return lorv_get_token_name(context, asked.token_of_column, &name);
     }},
    {"GetColumnNameByToken",
     [](uint64_t context) {
       char16_t const* name = nullptr;
       return lorv_get_column_name_by_token(context, asked.token_of_column, &name);
     }},
    {"GetTableNameByToken",
     [](uint64_t context) {
       char16_t const* name = nullptr;
       return lorv_get_table_name_by_token(context, asked.token_of_table, &name);
     }},
    {"SetspecNameBySetspecRef",
     [](uint64_t context) {
       char16_t const* name = nullptr;
       return lorv_setspec_name_by_setspec_ref(context, asked.setspec.oid, asked.setspec.addr,
                                               &name);
     }},
    {"SetspecRefByTableRef",
     [](uint64_t context) {
       LS_OBJ_REF found{};
       return lorv_setspec_ref_by_table_ref(context, asked.table.oid, asked.table.addr, &found.oid,
                                            &found.addr);
     }},
    {"SetspecNameByTable",
     [](uint64_t context) {
       char16_t const* name = nullptr;
       return lorv_setspec_name_by_table_incomplete_reverse_uid(context, u"T", &name);
     }},
    {"TableByReversedName",
     [](uint64_t context) {
       LS_OBJ_REF found{};
       return lorv_table_ref_by_incomplete_reverse_uid(context, u"T.App", &found.oid, &found.addr);
     }},
    {"TableByBeginningOfItsName",
     [](uint64_t context) {
       LS_OBJ_REF found{};
       return lorv_table_ref_by_incomplete_reverse_uid(context, u"T", &found.oid, &found.addr);
     }},
    {"TableByLayout",
     [](uint64_t context) {
       LS_OBJ_REF found{};
       return lorv_table_ref_by_layout_id(context, asked.layout, &found.oid, &found.addr);
     }},
    {"GetTypeId",
     [](uint64_t context) {
       uint64_t type_id = 0;
       return lorv_crud_GetTypeId(context, u"App.T", &type_id);
     }},
    {"GetDeleteHandle",
     [](uint64_t context) {
       uint64_t handle = 0;
       return lorv_crud_GetDeleteHandle(context, u"App.T", &handle);
     }},
    {"CreateObject",
     [](uint64_t context) {
       LS_OBJ_REF made{};
       return lorv_crud_CreateObject(context, asked.create, &made.oid, &made.addr);
     }},
    {"CreateObjectWithId",
     [](uint64_t context) {
       uint64_t addr = 0;
       return lorv_crud_CreateObjectWithId(context, asked.create, kFreeId, &addr);
     }},
    {"Lookup",
     [](uint64_t context) {
       uint64_t addr = 0;
       uint64_t type_id = 0;
       return lorv_crud_Lookup(context, asked.object, &addr, &type_id);
     }},
    {"GetObjectTypeId",
     [](uint64_t context) {
       uint64_t type_id = 0;
       return lorv_crud_GetObjectTypeId(context, asked.object, 0, &type_id);
     }},
    {"ReadRefAndType",
     [](uint64_t context) {
       LS_OBJ_REF target{};
       uint64_t type_id = 0;
       return lorv_crud_ReadRefAndType(context, asked.reference, asked.object, 0, &target,
                                       &type_id);
     }},
    {"DeleteObject",
     [](uint64_t context) { return lorv_crud_DeleteObject_NoHandle(context, asked.object, 0); }},
};

class EveryReadTest : public sagleme_test::CatalogueTest,
                      public ::testing::WithParamInterface<Reading> {
 protected:
  // App.T (next -> App.T), with an object that refers to itself.
  void SetUp() override {
    recording_kernel::Reset();
    CatalogueTest::SetUp();
    asked = {};
    asked.layout = Create(u"App.T", Columns().Ref(u"next", u"App.T"));
    asked.table = sagleme_test::View(u"App.T");
    asked.setspec = metalayer::SetSpecifier::ByType(asked.table);
    asked.token_of_column = sagleme_test::TokensOfLayout(asked.layout).back();
    uint64_t token = 0;
    ExpectOk(lorv_assure_token(context(), u"a word", &token));
    asked.token_of_table = sagleme_test::TokenOf(u"App.T");
    ExpectOk(lorv_crud_GetCreateHandle(context(), u"App.T", &asked.create));
    ExpectOk(lorv_crud_GetPropertyHandle(context(), u"App.T", u"next", &asked.reference));
    asked.object = CreateObject(u"App.T");
    ExpectOk(lorv_crud_WriteRef(context(), asked.reference, asked.object, 0, asked.object,
                                asked.layout));
    Commit();
    Begin();
  }

  void StartOver() {
    Rollback();
    Begin();
  }
};

TEST_P(EveryReadTest, Refused_PassesTheStatusOutAndCanBeRepeated) {
  ExpectRefusalsPassedOut(
      kMoreCallsThanAny, [this] { return GetParam().call(context()); }, [this] { StartOver(); });
}

INSTANTIATE_TEST_SUITE_P(Readings, EveryReadTest, ::testing::ValuesIn(kReadings),
                         [](auto const& reading) { return std::string(reading.param.name); });

// A table without a layout cannot be, so nobody could say what is wrong.
using EveryReadDeathTest = EveryReadTest;

TEST_P(EveryReadDeathTest, LayoutOfATableThatIsRefused_EndsTheProcess) {
  recording_kernel::FailNthOf("lorvi_context_get_layout_info", 1, kRefused);
  EXPECT_EXIT(GetParam().call(context()), ::testing::KilledBySignal(SIGABRT), "");
  recording_kernel::FailNth(0, 0);
}

constexpr Reading kTokenOfATable = {"TokenOfATable", [](uint64_t context) {
                                      uint64_t token = 0;
                                      return lorv_get_token(context, u"App.T", &token);
                                    }};

INSTANTIATE_TEST_SUITE_P(Readings, EveryReadDeathTest, ::testing::Values(kTokenOfATable),
                         [](auto const& reading) { return std::string(reading.param.name); });

}  // namespace
