// The constant table.

#include <sagleme/metalayer/metaschema.hpp>
#include <set>

#include "support/catalogue_definition.h"
#include "support/database.h"

namespace sagleme_test {
namespace {

using namespace metalayer;

std::string NameOr(char16_t const* name) { return name == nullptr ? "" : Utf8(name); }

void ExpectColumns(TABLE_INFO_STATIC const& record, DefinedTable const& expected) {
  std::vector<DefinedColumn> const own = expected.OwnColumns();
  for (std::size_t i = 0; i < own.size(); ++i) {
    COLUMN_INFO_STATIC const& column = record.columns[i];
    EXPECT_EQ(own[i].name, NameOr(column.name));
    EXPECT_EQ(own[i].token, column.token) << own[i].name;
    EXPECT_EQ(own[i].type, column.type) << own[i].name;
    EXPECT_EQ(own[i].target, NameOr(column.ref_table)) << own[i].name;
    EXPECT_FALSE(column.nullable) << own[i].name;
  }
  ASSERT_LT(own.size(), std::size(record.columns));
  EXPECT_EQ(nullptr, record.columns[own.size()].name);
}

void ExpectIndexes(TABLE_INFO_STATIC const& record, DefinedTable const& expected) {
  for (std::size_t i = 0; i < expected.indexes.size(); ++i) {
    INDEX_INFO_STATIC const& index = record.indexes[i];
    DefinedIndex const& defined = expected.indexes[i];
    EXPECT_EQ(defined.name, NameOr(index.name));
    EXPECT_EQ(defined.token, index.token) << defined.name;
    EXPECT_EQ(defined.unique ? 1u : 0u, index.flags) << defined.name;
    for (std::size_t c = 0; c < defined.columns.size(); ++c) {
      EXPECT_EQ(defined.columns[c], NameOr(index.columns[c])) << defined.name;
    }
    EXPECT_EQ(nullptr, index.columns[defined.columns.size()]) << defined.name;
  }
  if (expected.indexes.size() < std::size(record.indexes)) {
    EXPECT_EQ(nullptr, record.indexes[expected.indexes.size()].name);
  }
}

TEST(DefinitionTest, Catalogue_HasTwentyFiveTables) {
  EXPECT_EQ(25u, nr_meta_table_inits());
  EXPECT_EQ(25u, nr_meta_table_inits_generated_from_json);
  EXPECT_EQ(25u, DefinedTables().size());
}

TEST(DefinitionTest, Catalogue_MatchesTheWrittenDefinition) {
  for (std::size_t i = 0; i < DefinedTables().size(); ++i) {
    DefinedTable const& expected = DefinedTables()[i];
    TABLE_INFO_STATIC const& record = metaschema_init_generated_from_json[i];
    SCOPED_TRACE(expected.name);
    EXPECT_EQ(expected.name, NameOr(record.name));
    EXPECT_EQ(expected.base, NameOr(record.base_table));
    EXPECT_EQ(expected.token, record.token);
    EXPECT_EQ(expected.type_id, record.type_id);
    EXPECT_EQ(expected.full_name.find(".Internal.") == std::string::npos, record.is_public);
    ExpectColumns(record, expected);
    ExpectIndexes(record, expected);
  }
}

TEST(DefinitionTest, EveryTable_StandsBehindItsBase) {
  std::set<std::string> seen;
  for (TABLE_INFO_STATIC const& record : metaschema_init_generated_from_json) {
    EXPECT_TRUE(record.base_table == nullptr || seen.contains(Utf8(record.base_table)));
    seen.insert(Utf8(record.name));
  }
}

TEST(DefinitionTest, MetaData_HasNeitherColumnsNorIndexes) {
  TABLE_INFO_STATIC const& record = metaschema_init_generated_from_json[3];
  EXPECT_EQ("MetaData", Utf8(record.name));
  EXPECT_EQ(nullptr, record.columns[0].name);
  EXPECT_EQ(nullptr, record.indexes[0].name);
}

TEST(DefinitionTest, OnlyTwoColumns_AreSigned) {
  std::set<std::string> names;
  for (TABLE_INFO_STATIC const& record : metaschema_init_generated_from_json) {
    for (COLUMN_INFO_STATIC const& column : record.columns) {
      if (column.name != nullptr && column.type == LORV_TYPE_LONG) names.insert(Utf8(column.name));
    }
  }
  EXPECT_EQ((std::set<std::string>{"Value", "ColumnIndex"}), names);
}

// The ordinals that all code uses, against the ones written down.
TEST(DefinitionTest, OrdinalConstants_AreTheWrittenOnes) {
  auto const ordinal = [](char const* table, char const* column) {
    for (DefinedColumn const& defined : Defined(table).columns) {
      if (defined.name == column) return static_cast<unsigned int>(defined.ordinal);
    }
    return ~0u;
  };
  EXPECT_EQ(ordinal("SetSpecifier", "Type"), SetSpecifier::kType);
  EXPECT_EQ(ordinal("Member", "Table"), Member::kTable);
  EXPECT_EQ(ordinal("Member", "Name"), Member::kName);
  EXPECT_EQ(ordinal("Index", "Table"), Index::kTable);
  EXPECT_EQ(ordinal("Index", "Name"), Index::kName);
  EXPECT_EQ(ordinal("RawView", "LayoutHandle"), RawView::kLayoutHandle);
  EXPECT_EQ(ordinal("RawColumn", "ColumnIndex"), RawColumn::kColumnIndex);
  EXPECT_EQ(ordinal("ReferenceRawColumn", "DataTypeName"), ReferenceRawColumn::kDataTypeName);
  EXPECT_EQ(ordinal("ClrClass", "Mapper"), ClrClass::kMapper);
  EXPECT_EQ(ordinal("MapPrimitiveType", "DbPrimitiveType"), MapPrimitiveType::kDbPrimitiveType);
  EXPECT_EQ(ordinal("UserSchemaGeneration", "Generation"), UserSchemaGeneration::kGeneration);
}

}  // namespace
}  // namespace sagleme_test
