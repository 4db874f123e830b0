// Names that fit into no index key: every change looks its names up before it writes, and refuses
// them without words.

#include "support/catalogue.h"

namespace sagleme_test {
namespace {

std::u16string const kLong(5000, u'x');
char16_t const* const kLongName = kLong.c_str();

struct Request {
  char const* name;
  uint32_t (*call)(uint64_t context);
};

uint32_t CreateIndexByNames(uint64_t context, char16_t const* name, char16_t const* table,
                            char16_t const* column) {
  LORV_INDEXED_COLUMN const columns[] = {{column, 1}, {nullptr, 0}};
  return lorv_create_index_by_names(context, name, table, columns, false);
}

uint32_t DropTables(uint64_t context, char16_t const* first, char16_t const* second) {
  char16_t const* names[] = {first, second, nullptr};
  return lorv_drop_tables_by_names(context, names, false, false);
}

// T (a, b), with the index I over a.
Request const kRequests[] = {
    {"CreateTable",
     [](uint64_t context) {
       return lorv_create_table_by_names(context, kLongName, nullptr, Columns().Long(u"a"),
                                         nullptr);
     }},
    {"CreateTableUnderABase",
     [](uint64_t context) {
       return lorv_create_table_by_names(context, u"New", kLongName, Columns().Long(u"a"), nullptr);
     }},
    {"CreateTableCheckingTypes",
     [](uint64_t context) {
       return lorv_create_table_high_check_types(context, kLongName, nullptr, Columns().Long(u"a"),
                                                 nullptr);
     }},
    {"CreateTableByRow",
     [](uint64_t context) {
       LORV_COLUMN_DEFINITION const none = {{}, 0, nullptr};
       return lorv_create_table(context, kLongName, 0, 0, &none, nullptr, nullptr);
     }},
    {"AddColumnsTable",
     [](uint64_t context) {
       return lorv_alter_table_add_columns(context, kLongName, Columns().Long(u"c"), nullptr);
     }},
    {"AddColumnsColumn",
     [](uint64_t context) {
       return lorv_alter_table_add_columns(context, u"T", Columns().Long(u"c").Long(kLongName),
                                           nullptr);
     }},
    {"DropColumnTable",
     [](uint64_t context) {
       return lorv_alter_table_drop_column_by_names(context, kLongName, u"a", nullptr);
     }},
    {"DropColumnColumn",
     [](uint64_t context) {
       return lorv_alter_table_drop_column_by_names(context, u"T", kLongName, nullptr);
     }},
    {"RenameColumnTable",
     [](uint64_t context) {
       return lorv_alter_table_rename_column(context, kLongName, u"a", u"c");
     }},
    {"RenameColumnOldName",
     [](uint64_t context) {
       return lorv_alter_table_rename_column(context, u"T", kLongName, u"c");
     }},
    {"RenameColumnNewName",
     [](uint64_t context) {
       return lorv_alter_table_rename_column(context, u"T", u"a", kLongName);
     }},
    {"RenameTableOldName",
     [](uint64_t context) { return lorv_rename_table(context, kLongName, u"U"); }},
    {"RenameTableNewName",
     [](uint64_t context) { return lorv_rename_table(context, u"T", kLongName); }},
    {"DropTable",
     [](uint64_t context) { return lorv_drop_table_by_name(context, kLongName, true, true); }},
    {"DropTables", [](uint64_t context) { return DropTables(context, u"T", kLongName); }},
    {"DropTableCascade",
     [](uint64_t context) { return lorv_drop_table_cascade(context, kLongName); }},
    {"CreateIndexName",
     [](uint64_t context) { return CreateIndexByNames(context, kLongName, u"T", u"b"); }},
    {"CreateIndexTable",
     [](uint64_t context) { return CreateIndexByNames(context, u"J", kLongName, u"b"); }},
    {"CreateIndexColumn",
     [](uint64_t context) { return CreateIndexByNames(context, u"J", u"T", kLongName); }},
    {"DropIndexName", [](uint64_t context) { return lorv_drop_index_by_name(context, kLongName); }},
    {"DropIndexOfTableTable",
     [](uint64_t context) { return lorv_drop_index_by_table_and_name(context, kLongName, u"I"); }},
    {"DropIndexOfTableName",
     [](uint64_t context) { return lorv_drop_index_by_table_and_name(context, u"T", kLongName); }},
};

class LongNamesTest : public CatalogueTest, public ::testing::WithParamInterface<Request> {};

TEST_P(LongNamesTest, LongNames_AreRefusedWithoutAnythingWritten) {
  Create(u"T", Columns().Long(u"a").Long(u"b"));
  CreateIndex(u"I", u"T", {u"a"});
  ExpectRefusedUntouched(SAGLEME_NAME_TOO_LONG, u"", [&] { return GetParam().call(context()); });
}

INSTANTIATE_TEST_SUITE_P(Requests, LongNamesTest, ::testing::ValuesIn(kRequests),
                         [](auto const& request) { return std::string(request.param.name); });

}  // namespace
}  // namespace sagleme_test
