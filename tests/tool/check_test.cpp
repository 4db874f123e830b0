#include <lmdb.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <sagleme/check.hpp>
#include <sagleme/host.hpp>

#include "run_tool.h"

namespace tool_test {
namespace {

using Json = nlohmann::json;
using metalayer::RawColumn;
using metalayer::RawView;

class CheckTest : public ToolTest {
 protected:
  void SetUp() override {
    Create();
    Apply(kLibrary);
    On("import", {"Person", "-"}, 0, "Name\nAda\n");
    On("import", {"Book", "-"}, 0,
       "Title,Pages,Owner,Isbn,Price\nOne,1,Name=Ada,1,1\nTwo,2,,2,2\n");
    On("check");
  }

  // Writes past all rules, in a transaction that is kept.
  void Plant(std::function<void(sagleme::Transaction&)> const& damage) {
    auto const open = sagleme::Database::Open(database());
    sagleme::Context const context(open);
    sagleme::Transaction transaction(context);
    sagleme::detail::Inside(transaction.context(), [&] { damage(transaction); });
    transaction.Commit();
  }
  static RawColumn ColumnRow(char16_t const* table, char16_t const* column) {
    return RawColumn(metalayer::Member::ByMemberPK(RawView::ByRawViewPK2fullname(table), column));
  }

  // Works on a tree of the data file itself.
  void PlantInFile(char const* tree,
                   std::function<bool(MDB_cursor*, MDB_val, MDB_val)> const& damage) {
    MDB_env* env = nullptr;
    MDB_txn* transaction = nullptr;
    MDB_dbi dbi = 0;
    MDB_cursor* cursor = nullptr;
    ASSERT_EQ(0, mdb_env_create(&env));
    mdb_env_set_maxdbs(env, 8);
    mdb_env_set_mapsize(env, std::size_t{1} << 30);
    ASSERT_EQ(0, mdb_env_open(env, database().c_str(), 0, 0640));
    ASSERT_EQ(0, mdb_txn_begin(env, nullptr, 0, &transaction));
    ASSERT_EQ(0, mdb_dbi_open(transaction, tree, 0, &dbi));
    ASSERT_EQ(0, mdb_cursor_open(transaction, dbi, &cursor));
    bool done = false;
    MDB_val key;
    MDB_val value;
    while (!done && mdb_cursor_get(cursor, &key, &value, MDB_NEXT) == 0) {
      done = damage(cursor, key, value);
    }
    EXPECT_TRUE(done);
    mdb_cursor_close(cursor);
    ASSERT_EQ(0, mdb_txn_commit(transaction));
    mdb_env_close(env);
  }
  static bool Holds(MDB_val value, std::string_view text) {
    return std::string_view(static_cast<char const*>(value.mv_data), value.mv_size).find(text) !=
           std::string_view::npos;
  }

  // Expects a finding of that rule, and returns the first of them.
  Json Finding(std::string const& rule, Arguments rest = {}) {
    rest.insert(rest.end(), {"--format", "json"});
    Result const result = On("check", rest, 1);
    for (Json const& finding : Json::parse(result.out)) {
      if (finding["rule"] == rule) return finding;
    }
    ADD_FAILURE() << result.out;
    return {};
  }
};

TEST_F(CheckTest, ColumnWithAWrongNumber_IsFound) {
  Plant([](auto&) {
    metalayer::PutLong(ColumnRow(u"App.Book", u"Price"), RawColumn::kColumnIndex, 9);
  });
  EXPECT_EQ("App.Book", Finding("ordinals")["table"]);
}

TEST_F(CheckTest, InheritedColumnThatDiffers_IsFound) {
  Plant([](auto&) {
    metalayer::PutText(ColumnRow(u"App.Book", u"Title"), RawColumn::kName, u"Headline");
  });
  EXPECT_EQ("App.Book", Finding("inheritance")["table"]);
}

TEST_F(CheckTest, ColumnOfAnotherTypeThanItsLayout_IsFound) {
  Plant([](auto&) {
    auto const type = metalayer::DbPrimitiveType::ByDbPrimitiveTypePK_postV2_3(7);
    metalayer::PutRef(ColumnRow(u"App.Book", u"Isbn"), RawColumn::kDataType, type);
  });
  EXPECT_EQ("App.Book", Finding("layout")["table"]);
}

TEST_F(CheckTest, SetSpecifierOutsideOfTheBase_IsFoundWithItsObjects) {
  Plant([](auto&) {
    auto const row = metalayer::SetSpecifier::ByType(RawView::ByRawViewPK2fullname(u"App.Book"));
    metalayer::PutText(row, metalayer::SetSpecifier::kTypeId, u"wwww~");
  });
  EXPECT_EQ("App.Book", Finding("set")["table"]);
  EXPECT_TRUE(Finding("object")["table"].is_null());
}

TEST_F(CheckTest, TableWithoutATypeId_IsFound) {
  Plant([](auto&) {
    metalayer::DeleteRow(
        metalayer::TypeIdsMeta::ByTypeIdsMeta_Type(RawView::ByRawViewPK2fullname(u"App.Film")));
  });
  EXPECT_EQ("App.Film", Finding("type id")["table"]);
}

TEST_F(CheckTest, ColumnWithTheTokenOfAnother_IsFound) {
  Plant([](sagleme::Transaction& transaction) {
    auto const book = transaction.table(u"App.Book");
    LORVI_COLUMN_INFO info{};
    ASSERT_EQ(0u, lorvi_context_get_column_info(transaction.context(), book->layout,
                                                book->GetColumn(u"Isbn").ordinal, &info));
    metalayer::PutText(metalayer::Token::ByNameToken(info.token), metalayer::Token::kInvariantName,
                       u"another");
  });
  EXPECT_EQ("App.Book", Finding("tokens")["table"]);
}

TEST_F(CheckTest, CounterOfChildrenThatLagsBehind_IsFound) {
  Plant([](auto&) {
    auto const row = metalayer::SetSpecifier::ByType(RawView::ByRawViewPK2fullname(u"App.Item"));
    metalayer::PutULong(row, metalayer::SetSpecifier::kNumberOfChildren, 0);
  });
  EXPECT_EQ("App.Item", Finding("children")["table"]);
}

TEST_F(CheckTest, ReferenceThatStillWaitsForATableThatIsThere_IsFound) {
  Plant([](sagleme::Transaction& transaction) {
    auto const columns = transaction.table(u"Lorvenstack.Internal.Metadata.ReferenceRawColumn");
    auto const owner = transaction.table(u"App.Book")->GetColumn(u"Owner").id;
    sagleme::Property<sagleme::ObjectId>(*columns, u"DataType")
        .Clear(*sagleme::Object::Find(transaction, owner));
  });
  EXPECT_EQ("App.Book", Finding("deferred")["table"]);
}

TEST_F(CheckTest, ImpossibleRequest_IsFound) {
  Plant([](sagleme::Transaction& transaction) {
    metalayer::Vacuum::Insert(transaction.table(u"App.Film")->setspec.c_str(), 1, 2);
  });
  EXPECT_LT(0, Finding("vacuum")["object"]);
}

// Committed it would end every process that starts the layer.
TEST_F(CheckTest, SecondCounterOfSchemaChanges_IsFoundInTheTransactionThatMadeIt) {
  auto const open = sagleme::Database::Open(database());
  sagleme::Context const context(open);
  sagleme::Transaction transaction(context);
  std::vector<sagleme::Finding> findings;
  auto const keep = [&](sagleme::Finding const& finding) { findings.push_back(finding); };
  sagleme::CheckCatalogue(transaction, {}, keep);
  EXPECT_TRUE(findings.empty());
  sagleme::detail::Inside(transaction.context(),
                          [] { metalayer::UserSchemaGeneration::Insert(7); });
  sagleme::CheckCatalogue(transaction, {}, keep);
  ASSERT_EQ(1u, findings.size());
  EXPECT_EQ("generation", findings[0].rule);
  EXPECT_EQ("Lorvenstack.Internal.Metadata.UserSchemaGeneration", findings[0].table);
  EXPECT_EQ("there are 2 counters of schema changes", findings[0].what);
}

TEST_F(CheckTest, IndexThatTheKernelLacks_IsFound) {
  Plant([](sagleme::Transaction& transaction) {
    auto const index = *transaction.FindIndex(u"ItemByTitle");
    ASSERT_EQ(0u, lorvi_context_drop_index(transaction.context(), index.handle));
  });
  EXPECT_EQ("App.Item", Finding("index")["table"]);
}

TEST_F(CheckTest, ObjectOfNoTable_IsFound) {
  Plant([](sagleme::Transaction& transaction) {
    auto const book = *sagleme::Range::Only(transaction, *transaction.table(u"App.Book")).Next();
    auto const reference = book.reference();
    ASSERT_EQ(0u, lorv_context_put_setspec(transaction.context(), reference.oid, reference.addr,
                                           u"wwww~"));
  });
  EXPECT_LT(0, Finding("object")["object"]);
}

TEST_F(CheckTest, ObjectUnderAnOldLayoutThatNothingMoves_IsFound) {
  std::string schema = On("schema").out;
  schema.replace(schema.find("{\"name\": \"Pages\""), 0,
                 "{\"name\": \"New\", \"type\": \"long\"}, ");
  Apply(schema);
  On("check");
  Plant([](sagleme::Transaction& transaction) {
    auto const vacuum = transaction.table(u"Lorvenstack.Internal.Metadata.Vacuum");
    for (sagleme::Object& row : sagleme::Range::Only(transaction, *vacuum)) row.Delete();
  });
  EXPECT_EQ("App.Book", Finding("object")["table"]);
}

TEST_F(CheckTest, EntryMissingInAnIndex_IsFound) {
  PlantInFile("index", [](MDB_cursor* cursor, MDB_val key, MDB_val) {
    return Holds(key, "One") && mdb_cursor_del(cursor, 0) == 0;
  });
  Json const finding = Finding("entries");
  EXPECT_EQ("App.Item", finding["table"]);
  EXPECT_LT(0, finding["object"]);
}

TEST_F(CheckTest, RowThatWasOverwritten_IsFound) {
  PlantInFile("rows", [](MDB_cursor* cursor, MDB_val key, MDB_val value) {
    if (!Holds(value, "Two")) return false;
    std::string bytes(static_cast<char const*>(value.mv_data), value.mv_size);
    bytes.back() = static_cast<char>(bytes.back() ^ 1);
    MDB_val changed{bytes.size(), bytes.data()};
    return mdb_cursor_put(cursor, &key, &changed, MDB_CURRENT) == 0;
  });
  EXPECT_EQ(1, RunTool({"check", database()}).status);
}

TEST_F(CheckTest, BrokenPage_IsFoundBeforeAnythingIsRead) {
  std::string const path = database() + "/data.mdb";
  std::string content = ReadText(path);
  for (std::size_t at = content.find("Two"); at != std::string::npos;
       at = content.find("Two", at + 1)) {
    content[at / 4096 * 4096 + 10] = 0x55;
  }
  std::ofstream(path, std::ios::binary) << content;
  EXPECT_TRUE(Finding("pages")["table"].is_null());
}

TEST_F(CheckTest, ReferenceThatLeadsNowhere_IsFound) {
  Plant([](sagleme::Transaction& transaction) {
    sagleme::Range::Only(transaction, *transaction.table(u"App.Person")).Next()->Delete();
  });
  EXPECT_EQ("App.Book", Finding("reference")["table"]);
  On("check", {"--no-references"});
}

TEST_F(CheckTest, ReferenceToAnotherTable_IsFound) {
  Plant([](sagleme::Transaction& transaction) {
    auto const table = transaction.table(u"App.Book");
    auto const book = *sagleme::Range::Only(transaction, *table).Next();
    auto const owner = table->GetColumn(u"Owner").ordinal;
    ASSERT_EQ(0u, lorv_context_put_reference(transaction.context(), book.id().value, table->layout,
                                             owner, book.id().value, 0));
  });
  Json const finding = Finding("reference");
  EXPECT_NE(std::string::npos,
            finding["problem"].get<std::string>().find("which is not of App.Person"))
      << finding;
}

TEST_F(CheckTest, CheckInATransactionAtThePrompt_SeesTheTransactionsState) {
  Plant([](sagleme::Transaction& transaction) {
    sagleme::Range::Only(transaction, *transaction.table(u"App.Person")).Next()->Delete();
  });
  Json without_owner = Json::parse(kLibrary);
  without_owner["tables"][0]["columns"].erase(2);
  std::string const change =
      "apply " + Write("without.json", without_owner.dump()) + " --allow-destructive\n";
  On("shell", {}, 1, "check\n");
  On("shell", {}, 0, "begin\n" + change + "check\nrollback\n");
  On("shell", {}, 1, "check\n");
}

TEST_F(CheckTest, DirectoryWithoutADatabase_IsReportedAndNothingIsCreated) {
  std::string const nowhere = Path("nowhere");
  auto const ignore = [](sagleme::Finding const&) {};
  EXPECT_THROW(sagleme::CheckDatabase(nowhere, {}, ignore), sagleme::Error);
  EXPECT_FALSE(std::filesystem::exists(nowhere));
  EXPECT_EQ(3, RunTool({"check", nowhere}).status);
  EXPECT_FALSE(std::filesystem::exists(nowhere));
}

}  // namespace
}  // namespace tool_test
