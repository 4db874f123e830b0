// Which frame each exported function has: the eager one empties the error buffer when it is
// entered, the lazy one asks for that. The kernel refuses the first thing that each call asks.

#include <gtest/gtest.h>
#include <sagleme/sagleme.h>

#include <sagleme/metalayer/errors.hpp>
#include <string>
#include <vector>

#include "crud/handles.h"
#include "frame/contexts.h"

namespace {

using namespace frame_test;

constexpr uint32_t kStatus = 4711;
constexpr char16_t kOldText[] = u"The argument setspec_oid is zero.";

struct Call {
  char const* name;
  uint32_t (*make)();
};

// What calls are given, and where their outputs would go.
LORV_COLUMN_DEFINITION const no_columns[] = {{{0, 0}, 0, nullptr}};
LORV_COLUMN_DEFINITION_NAMES const one_column[] = {{SAGLEME_TYPE_SIGNED, nullptr, 0, u"a"},
                                                   {0, nullptr, 0, nullptr}};
LORV_INDEXED_COLUMN const by_name[] = {{u"a", 1}, {nullptr, 0}};
int16_t const by_ordinal[] = {3, -1};
char16_t const* names[] = {u"t", nullptr};
PropertyAccessInfo const property({1, 1}, {2, 2});
CreateInfo const creator;
uint64_t number = 77;
uint64_t other_number = 78;
uint16_t layout = 79;
char16_t const* text = u"untouched";
LS_OBJ_REF ref{80, 81};
CreateInfo* create_handle = nullptr;
PropertyAccessInfo* property_handle = nullptr;

Call const kEager[] = {
    {"init_metalayer", [] { return lorv_init_metalayer(kInner); }},
    {"update_reference_columns_types", [] { return lorv_update_reference_columns_types(kInner); }},
    {"assure_token", [] { return lorv_assure_token(kInner, u"n", &number); }},
    {"get_token", [] { return lorv_get_token(kInner, u"n", &number); }},
    {"get_token_name", [] { return lorv_get_token_name(kInner, 1, &text); }},
    {"get_column_name_by_token", [] { return lorv_get_column_name_by_token(kInner, 1, &text); }},
    {"get_table_name_by_token", [] { return lorv_get_table_name_by_token(kInner, 1, &text); }},
    {"setspec_name_by_setspec_ref",
     [] { return lorv_setspec_name_by_setspec_ref(kInner, 1, 1, &text); }},
    {"setspec_ref_by_table_ref",
     [] { return lorv_setspec_ref_by_table_ref(kInner, 1, 1, &number, &other_number); }},
    {"setspec_name_by_table_incomplete_reverse_uid",
     [] { return lorv_setspec_name_by_table_incomplete_reverse_uid(kInner, u"t", &text); }},
    {"table_ref_by_incomplete_reverse_uid",
     [] { return lorv_table_ref_by_incomplete_reverse_uid(kInner, u"t", &number, &other_number); }},
    {"table_ref_by_layout_id",
     [] { return lorv_table_ref_by_layout_id(kInner, 1, &number, &other_number); }},
    {"create_table",
     [] { return lorv_create_table(kInner, u"t", 0, 0, no_columns, &number, &other_number); }},
    {"create_table_by_names",
     [] { return lorv_create_table_by_names(kInner, u"t", nullptr, one_column, &layout); }},
    {"create_table_high_check_types",
     [] { return lorv_create_table_high_check_types(kInner, u"t", nullptr, one_column, &layout); }},
    {"drop_table_cascade", [] { return lorv_drop_table_cascade(kInner, u"t"); }},
    {"drop_table_by_name", [] { return lorv_drop_table_by_name(kInner, u"t", true, true); }},
    {"drop_tables_by_names", [] { return lorv_drop_tables_by_names(kInner, names, true, true); }},
    {"rename_table", [] { return lorv_rename_table(kInner, u"t", u"u"); }},
    {"alter_table_add_columns",
     [] { return lorv_alter_table_add_columns(kInner, u"t", one_column, &number); }},
    {"alter_table_drop_column_by_names",
     [] { return lorv_alter_table_drop_column_by_names(kInner, u"t", u"a", &number); }},
    {"alter_table_rename_column",
     [] { return lorv_alter_table_rename_column(kInner, u"t", u"a", u"b"); }},
    {"create_index", [] { return lorv_create_index(kInner, 1, 1, u"i", 0, by_ordinal, 0); }},
    {"create_index_by_names",
     [] { return lorv_create_index_by_names(kInner, u"i", u"t", by_name, false); }},
    {"create_index_ids", [] { return lorv_create_index_ids(kInner, 1, u"i", 0, by_ordinal, 0); }},
    {"drop_index", [] { return lorv_drop_index(kInner, 1, 1); }},
    {"drop_index_by_name", [] { return lorv_drop_index_by_name(kInner, u"i"); }},
    {"drop_index_by_table_and_name",
     [] { return lorv_drop_index_by_table_and_name(kInner, u"t", u"i"); }},
    {"clrmetadata_clean", [] { return lorv_clrmetadata_clean(kInner); }},
};

Call const kLazy[] = {
    {"GetTypeId", [] { return lorv_crud_GetTypeId(kInner, u"t", &number); }},
    {"GetDeleteHandle", [] { return lorv_crud_GetDeleteHandle(kInner, u"t", &number); }},
    {"GetPropertyHandle",
     [] { return lorv_crud_GetPropertyHandle(kInner, u"t", u"a", &property_handle); }},
    {"GetCreateHandle", [] { return lorv_crud_GetCreateHandle(kInner, u"t", &create_handle); }},
    {"GetCreateHandleOrSystem",
     [] { return lorv_crud_GetCreateHandleOrSystem(kInner, u"t", true, &create_handle); }},
    {"CreateObject",
     [] { return lorv_crud_CreateObject(kInner, &creator, &number, &other_number); }},
    {"CreateObjectWithId",
     [] { return lorv_crud_CreateObjectWithId(kInner, &creator, 1, &number); }},
    {"GetObjectTypeId", [] { return lorv_crud_GetObjectTypeId(kInner, 1, 1, &number); }},
    {"ReadRefAndType",
     [] { return lorv_crud_ReadRefAndType(kInner, &property, 1, 1, &ref, &number); }},
};

class FrameFormsTest : public ::testing::Test {
 protected:
  void SetUp() override { *metalayer::TlsMetalayerContext::Current() = kOuter; }
  void TearDown() override {
    *metalayer::TlsMetalayerContext::Current() = 0;
    recording_kernel::Reset();
  }

  // The call is refused in its own context, which leaves its outputs alone and the thread's context
  // as it was.
  static void ExpectRefused(Call const& call) {
    EXPECT_EQ(SAGLEME_BAD_ARGUMENT, lorv_setspec_name_by_setspec_ref(kInner, 0, 0, nullptr));
    metalayer::is_errbuf_clear_requested();
    recording_kernel::Reset();
    recording_kernel::FailNth(1, kStatus);
    recording_kernel::Record();
    EXPECT_EQ(kStatus, call.make());
    ASSERT_EQ(1u, recording_kernel::Names().size());
    EXPECT_EQ(kInner, recording_kernel::CallsOf(recording_kernel::Names()[0])[0].numbers[0]);
    EXPECT_EQ(kOuter, *metalayer::TlsMetalayerContext::Current());
    EXPECT_TRUE(number == 77 && other_number == 78 && layout == 79 && ref.oid == 80);
    EXPECT_EQ(u"untouched", std::u16string(text));
    EXPECT_TRUE(create_handle == nullptr && property_handle == nullptr);
  }
};

TEST_F(FrameFormsTest, EagerCalls_EmptyTheBuffer) {
  for (Call const& call : kEager) {
    SCOPED_TRACE(call.name);
    ExpectRefused(call);
    EXPECT_EQ(nullptr, lorv_metalayer_errbuf(kInner));
    EXPECT_EQ(0, metalayer::tls_clear_errbuf);
  }
}

TEST_F(FrameFormsTest, LazyCalls_AskThatTheBufferBeEmptied) {
  for (Call const& call : kLazy) {
    SCOPED_TRACE(call.name);
    ExpectRefused(call);
    ASSERT_NE(nullptr, lorv_metalayer_errbuf(kInner));
    EXPECT_EQ(kOldText, std::u16string(lorv_metalayer_errbuf(kInner)));
    EXPECT_EQ(1, metalayer::tls_clear_errbuf);
  }
}

// The kernel finds the object outside any frame, and what is read of it then inside one.
TEST_F(FrameFormsTest, Lookup_EntersItsFrameBehindTheKernelsCall) {
  Call const lookup{"Lookup", [] { return lorv_crud_Lookup(kInner, 1, &number, &other_number); }};
  ExpectRefused(lookup);
  EXPECT_EQ(0, metalayer::tls_clear_errbuf);
  recording_kernel::Answer<&lorv_context_lookup>([](uint64_t, uint64_t, uint64_t* out_addr) {
    *out_addr = 1;
    return 0u;
  });
  recording_kernel::FailNth(2, kStatus);
  EXPECT_EQ(kStatus, lookup.make());
  EXPECT_EQ(kOuter, *metalayer::TlsMetalayerContext::Current());
  EXPECT_EQ(1, metalayer::tls_clear_errbuf);
  EXPECT_EQ(kOldText, std::u16string(lorv_metalayer_errbuf(kInner)));
  EXPECT_EQ(78u, other_number);
}

}  // namespace
