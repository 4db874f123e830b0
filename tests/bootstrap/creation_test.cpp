// What a new database holds, and what a second run does to one.

#include <set>

#include "bootstrap/bootstrap_test.h"
#include "bootstrap/system_tables.h"
#include "frame/cps.h"

namespace sagleme_test {
namespace {

using namespace metalayer;

constexpr int kNewYields = 19;
constexpr int kRepeatedYields = 18;

TEST_F(BootstrapTest, NewDatabase_HasTheDefinedCatalogueAfterNineteenYields) {
  ExpectRepaired(kNewYields);
}

TEST_F(BootstrapTest, CreateMetadata_TakesTheSameSteps) {
  Lines const yields = Ask([](Database& database) {
    int count = 0;
    continuation_context* handle = nullptr;
    bool more = false;
    database.Begin();
    EXPECT_EQ(0u, lorv_create_metadata(database.context(), &handle, &more));
    while (more) {
      ++count;
      database.Commit();
      database.Begin();
      continuation_context* next = nullptr;
      EXPECT_EQ(0u, run_continuation(handle, &next, &more));
      free_continuation_handle(handle);
      handle = next;
    }
    EXPECT_EQ(nullptr, handle);
    database.Commit();
    return Lines{std::to_string(count)};
  });
  EXPECT_EQ(Lines{"19"}, yields);
  ExpectCurrent();
}

// For makers of bindings that run the steps in a coroutine of their own.
TEST_F(BootstrapTest, CreateAndVerifyMetatables_YieldsToTheSinkAfterEveryStep) {
  Lines const statuses = Ask([](Database& database) {
    database.Begin();
    *TlsMetalayerContext::Current() = database.context();
    continuation_context* handle = create_continuation_handle([](StepSink& sink) {
      MetaschemaInit metaschema;
      metaschema.CreateAndVerifyMetatables(sink);
    });
    Lines steps;
    while (handle != nullptr) {
      continuation_context* next = nullptr;
      bool more = false;
      steps.push_back(std::to_string(run_continuation(handle, &next, &more)));
      free_continuation_handle(handle);
      handle = next;
      database.Commit();
      database.Begin();
    }
    database.Commit();
    return steps;
  });
  // The exported functions yield twice more; the last step is the end.
  EXPECT_EQ(Lines(kNewYields - 2 + 1, "0"), statuses);
  ExpectCurrent();
}

TEST_F(BootstrapTest, NewDatabaseInOneTransaction_IsTheSame) {
  Lines const found = Ask([](Database& database) {
    continuation_context* handle = nullptr;
    bool more = false;
    database.Begin();
    EXPECT_EQ(0u, lorv_prepare_system_tables(database.context(), &handle, &more));
    while (more) {
      continuation_context* next = nullptr;
      EXPECT_EQ(0u, run_continuation(handle, &next, &more));
      free_continuation_handle(handle);
      handle = next;
    }
    database.Commit();
    return Lines{};
  });
  EXPECT_TRUE(found.empty());
  ExpectCurrent();
}

TEST_F(BootstrapTest, SecondRun_WritesNothingAndYieldsOnceLess) {
  ASSERT_EQ(0u, Bootstrap().status);
  Lines const before = Objects();
  ASSERT_FALSE(before.empty());
  Outcome const read_only = BootstrapReadOnly();
  EXPECT_EQ(0u, read_only.status) << read_only.text;
  EXPECT_EQ(kRepeatedYields, read_only.yields);
  ExpectRepaired(kRepeatedYields);
  EXPECT_EQ("", Differences(before, Objects()));
}

TEST_F(BootstrapTest, SecondRunInTheSameProcess_WritesNothing) {
  Lines const yields = Ask([](Database& database) {
    int first = 0;
    int second = 0;
    EXPECT_EQ(0u, database.Bootstrap(&first));
    EXPECT_EQ(0u, database.Bootstrap(&second));
    return Lines{std::to_string(first), std::to_string(second)};
  });
  EXPECT_EQ((Lines{"19", "18"}), yields);
  ExpectCurrent();
}

// ---- numbers ------------------------------------------------------------------------------------

class NewDatabaseTest : public DatabaseTest {};

TEST_F(NewDatabaseTest, PrimitiveTypes_AreInsertedInTheirOrder) {
  db_util::db_iter_with_keys rows;
  RangeGlobalSetspecIndex(DbPrimitiveType::setspec().c_str(), &rows);
  std::vector<std::pair<unsigned long, std::string>> by_identity;
  for (; rows.current.oid != 0; rows.next()) {
    by_identity.emplace_back(rows.current.oid, Utf8(GetText(rows.current, DbPrimitiveType::kName)));
  }
  std::sort(by_identity.begin(), by_identity.end());
  Lines names;
  for (auto const& [oid, name] : by_identity) names.push_back(name);
  EXPECT_EQ((Lines{"key", "string", "binary", "long", "ulong", "decimal", "float", "double",
                   "reference", "bool"}),
            names);
}

TEST_F(NewDatabaseTest, PredefinedTokens_HaveTheirNumbers) {
  char16_t const* const texts[] = {
      u"__id",
      u"__setspecifier",
      u"__auto",
      u"__type_id",
      u"Lorvenstack.Internal.Metadata.Token",
      u"NameToken",
      u"InvariantName",
      u"Lorvenstack.Metadata.RawView",
      u"LayoutHandle",
      u"RawViewPK",
      u"Lorvenstack.Internal.Metadata.MotherOfAllLayouts",
      u"MotherOfAllLayouts_SetspecIndex",
  };
  unsigned long number = 1;
  for (char16_t const* const text : texts) {
    EXPECT_EQ(Utf8(text), Utf8(GetText(Token::ByNameToken(number), Token::kInvariantName)));
    EXPECT_EQ(number, GetULong(Token::ByInvariantName(text), Token::kNameToken));
    ++number;
  }
}

TEST_F(NewDatabaseTest, Tokens_AreNumberedWithoutGaps) {
  db_util::db_iter_with_keys rows;
  Key(rows.first_key).Null();
  Key(rows.last_key).ULong(~0ul);
  rows.open(Token::index_id_NameToken(), kForward);
  unsigned long expected = 1;
  while (rows.next()) EXPECT_EQ(expected++, GetULong(rows.current, Token::kNameToken));
  EXPECT_LT(13u, expected);
}

TEST_F(NewDatabaseTest, SystemLayouts_CarryThePredefinedTokens) {
  for (DefinedTable const& table : DefinedTables()) {
    if (table.token == 0) continue;
    LORVI_LAYOUT_INFO info{};
    uint32_t count = 1;
    ASSERT_EQ(0u, lorvi_context_get_layout_infos_by_token(context(), table.token, &count, &info));
    EXPECT_EQ(1u, count) << table.name;
  }
}

TEST_F(NewDatabaseTest, ShortSpecifiers_ComeFromTheOrderOfCreation) {
  EXPECT_EQ(u"", MotherOfAllLayouts::setspec());
  EXPECT_EQ(u"~", Token::setspec());
  EXPECT_EQ(u"a~", SetSpecifier::setspec());
  EXPECT_EQ(u"b~~~", RawView::setspec());
  EXPECT_EQ(u"c~a~", Configuration::setspec());
  EXPECT_EQ(u"h~", UserSchemaGeneration::setspec());
}

TEST_F(NewDatabaseTest, TypeIds_AreThePredefinedOnesAndThenInTableOrder) {
  EXPECT_EQ(4u, RawView::g_type_id());
  EXPECT_EQ(6u, Configuration::g_type_id());
  EXPECT_EQ(7u, MetaData::g_type_id());
  EXPECT_EQ(8u, Vacuum::g_type_id());
  EXPECT_EQ(25u, UserSchemaGeneration::g_type_id());
}

TEST_F(NewDatabaseTest, HiddenTypeId_IsLeftUnwrittenInSystemRows) {
  RawView const row = RawView::ByRawViewPK(RawView::metaclass_layout_handle());
  EXPECT_EQ(0u, GetULong(row, 2));
}

TEST_F(NewDatabaseTest, SystemTables_AreFoundByTheirFullNames) {
  for (DefinedTable const& table : DefinedTables()) {
    RawView const row = RawView::ByRawViewPK2fullname(Utf16(table.full_name).c_str());
    ASSERT_FALSE(row.is_null()) << table.full_name;
    EXPECT_FALSE(GetBool(row, RawView::kUpdatable));
  }
}

}  // namespace
}  // namespace sagleme_test
