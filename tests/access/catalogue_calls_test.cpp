// What the layer asks of a kernel for the catalogue's own rows, call by call and byte by byte.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/catalogue.h"
#include "support/database.h"
#include "support/recording_kernel.h"

namespace {

using namespace metalayer;
using recording_kernel::Call;
using recording_kernel::Hex;

class CatalogueCallsTest : public sagleme_test::DatabaseTest {
 protected:
  void SetUp() override {
    recording_kernel::Reset();
    DatabaseTest::SetUp();
  }

  // The one scan that a lookup opened.
  static Call Scan() {
    std::vector<Call> const scans = recording_kernel::CallsOf("lorv_context_create_iterator");
    EXPECT_EQ(1u, scans.size());
    return scans.at(0);
  }

  void ExpectScan(unsigned long index, uint64_t flags, std::string const& first,
                  std::string const& last) {
    Call const scan = Scan();
    EXPECT_EQ((std::vector<uint64_t>{context(), index, flags}), scan.numbers);
    EXPECT_EQ(first, Hex(scan.keys.at(0)));
    EXPECT_EQ(last, Hex(scan.keys.at(1)));
    EXPECT_EQ(0, recording_kernel::OpenIterators());
  }
};

// The layer's view of the kernel's form of "ab": five bits of length, two bytes, the end.
constexpr char kKeyOfAb[] = "22 61 62 80 C0 00 00 00";

TEST_F(CatalogueCallsTest, LookupByName_IsOneExactScan) {
  recording_kernel::Record();
  EXPECT_TRUE(RawView::ByRawViewPK2fullname(u"ab").is_null());
  ExpectScan(RawView::index_id_RawViewPK2fullname(), 0x70, kKeyOfAb, kKeyOfAb);
  EXPECT_EQ((std::vector<std::string>{"lorv_context_create_iterator", "lorv_iterator_next",
                                      "lorv_iterator_free"}),
            recording_kernel::Names());
}

TEST_F(CatalogueCallsTest, LookupByNumber_IsOneExactScan) {
  recording_kernel::Record();
  EXPECT_TRUE(Token::ByNameToken(0x1122334455667788).is_null());
  std::string const key = "28 11 22 33 44 55 66 77 88 C0 00 00 00 00 00 00";
  ExpectScan(Token::index_id_NameToken(), 0x70, key, key);
}

TEST_F(CatalogueCallsTest, LookupByTableAndName_KeysTheTableByItsOid) {
  recording_kernel::Record();
  EXPECT_TRUE(Member::ByMemberPK({7, 0xFFFF}, u"ab").is_null());
  std::string const key = "28 00 00 00 00 00 00 00 07 22 61 62 80 C0 00 00";
  ExpectScan(Member::index_id_MemberPK(), 0x70, key, key);
}

TEST_F(CatalogueCallsTest, LookupOfANullName_UsesTheNullKey) {
  recording_kernel::Record();
  EXPECT_TRUE(Token::ByInvariantName(nullptr).is_null());
  ExpectScan(Token::index_id_InvariantName(), 0x70, "60 C0 00 00 00 00 00 00",
             "60 C0 00 00 00 00 00 00");
}

TEST_F(CatalogueCallsTest, NextToken_ScansBackwardsFromTheHighest) {
  recording_kernel::Record();
  TokenMain::get_next_token();
  ExpectScan(Token::index_id_NameToken(), 0x80070,
             "28 FF FF FF FF FF FF FF FF C0 00 00 00 00 00 00",
             "28 00 00 00 00 00 00 00 00 C0 00 00 00 00 00 00");
  EXPECT_EQ(1u, recording_kernel::CallsOf("lorv_iterator_next").size());
}

TEST_F(CatalogueCallsTest, ColumnsCount_ScansBackwardsFromTheHighestOrdinal) {
  RawView const table(RawView::ByRawViewPK2fullname(u"Lorvenstack.Metadata.Index"));
  std::string oid;
  for (int shift = 56; shift >= 0; shift -= 8) {
    oid += " " + Hex({static_cast<uint8_t>(table.oid >> shift)});
  }
  recording_kernel::Record();
  EXPECT_LT(3, ddl::GetColumnsCount(table));
  ExpectScan(RawColumn::index_id_RawColumnPK(), 0x80070,
             "28" + oid + " 28 80 00 00 00 00 00 7F FF C0 00 00 00 00 00",
             "28" + oid + " 60 C0 00 00 00 00 00");
  EXPECT_EQ(1u, recording_kernel::CallsOf("lorv_iterator_next").size());
}

// The empty text as a high bound stands above all texts. What it converts to is the kernel's.
TEST_F(CatalogueCallsTest, Clean_ScansFromTheNullKeyToTheHighest) {
  recording_kernel::Record();
  ExpectOk(lorv_clrmetadata_clean(context()));
  std::vector<Call> const scans = recording_kernel::CallsOf("lorv_context_create_iterator");
  uint8_t converted[128];
  uint32_t const size = lorv_convert_ucs2_to_turbotext(u"", 1, converted, sizeof converted);
  uint8_t text[128];
  ukf::ENCODER end{text};
  ukf::encode_tt4(converted, size, end);
  std::vector<uint8_t> const highest(text, end.position);
  auto const finished = [](std::vector<uint8_t> key) {
    key.push_back(0xC0);
    key.resize((key.size() + 7) / 8 * 8);
    return Hex(key);
  };
  std::vector<uint8_t> of_two(9, 0xFF);
  of_two.front() = 0x28;
  of_two.insert(of_two.end(), highest.begin(), highest.end());
  ASSERT_EQ(2u, scans.size());
  EXPECT_EQ((std::vector<uint64_t>{context(), MappedProperty::index_id_MappedPropertyPK(), 0x70}),
            scans[0].numbers);
  EXPECT_EQ("60 C0 00 00 00 00 00 00", Hex(scans[0].keys.at(0)));
  EXPECT_EQ(finished(of_two), Hex(scans[0].keys.at(1)));
  EXPECT_EQ((std::vector<uint64_t>{context(), ClrClass::index_id_ClrClassPK(), 0x70}),
            scans[1].numbers);
  EXPECT_EQ("60 C0 00 00 00 00 00 00", Hex(scans[1].keys.at(0)));
  EXPECT_EQ(finished(highest), Hex(scans[1].keys.at(1)));
}

TEST_F(CatalogueCallsTest, Subtree_IsScannedBetweenTheBoundsOfItsSpecifier) {
  recording_kernel::Record();
  db_util::db_iter_with_keys objects;
  RangeGlobalSetspecIndex(UserSchemaGeneration::setspec().c_str(), &objects);
  Call const scan = Scan();
  EXPECT_EQ((std::vector<uint64_t>{
                context(), MotherOfAllLayouts::index_id_MotherOfAllLayouts_SetspecIndex(), 0x70}),
            scan.numbers);
  EXPECT_LT(scan.keys.at(0), scan.keys.at(1));
  EXPECT_EQ(SchemaGeneration().oid, objects.current.oid);
}

TEST_F(CatalogueCallsTest, Insert_WritesTheSpecifierAndThenTheColumnsInOrder) {
  recording_kernel::Record();
  LS_OBJ_REF const row = Token::Insert(4711, u"word");
  EXPECT_EQ((std::vector<std::string>{"lorv_context_insert_system", "lorv_context_put_setspec",
                                      "lorv_context_put_ulong", "lorv_context_put_string"}),
            recording_kernel::Names());
  auto const& calls = recording_kernel::Calls();
  uint64_t const layout = Token::metaclass_layout_handle();
  EXPECT_EQ(layout, row.addr);
  EXPECT_EQ((std::vector<uint64_t>{context(), layout}), calls.at(0).numbers);
  EXPECT_EQ((std::vector<uint64_t>{context(), row.oid, layout}), calls.at(1).numbers);
  EXPECT_EQ((std::vector<std::u16string>{u"~"}), calls.at(1).texts);
  EXPECT_EQ((std::vector<uint64_t>{context(), row.oid, layout, 3, 4711}), calls.at(2).numbers);
  EXPECT_EQ((std::vector<uint64_t>{context(), row.oid, layout, 4}), calls.at(3).numbers);
  EXPECT_EQ((std::vector<std::u16string>{u"word"}), calls.at(3).texts);
}

TEST_F(CatalogueCallsTest, InsertThatIsRefusedInBetween_StopsThere) {
  recording_kernel::FailNthOf("lorv_context_put_setspec", 1, LSCOREDB_IO_ERROR);
  recording_kernel::Record();
  EXPECT_THROW(Token::Insert(4711, u"word"), db_util::db_exception);
  EXPECT_EQ((std::vector<std::string>{"lorv_context_insert_system", "lorv_context_put_setspec"}),
            recording_kernel::Names());
}

// However many classes map a table, three are enough to say so.
TEST_F(CatalogueCallsTest, MappedTable_IsAskedForThreeClassesAtMost) {
  RawView const table = RawView::ByRawViewPK(Index::metaclass_layout_handle());
  for (char16_t const* const name : {u"a", u"b", u"c", u"d", u"e"}) {
    sagleme_test::InsertClass(name, table);
  }
  recording_kernel::Record();
  EXPECT_THROW(ddl::CheckTableIsNotUsedByLevel1(table), db_util::db_exception);
  EXPECT_EQ(3u, recording_kernel::CallsOf("lorv_iterator_next").size());
  EXPECT_EQ(0, recording_kernel::OpenIterators());
}

TEST_F(CatalogueCallsTest, NewTable_HasALayoutWithTokensOfItsColumnRows) {
  recording_kernel::Record();
  sagleme_test::Columns columns;
  columns.String(u"Name").Bool(u"On");
  ExpectOk(lorv_create_table_by_names(context(), u"App.T", nullptr, columns, nullptr));
  std::vector<Call> const made = recording_kernel::CallsOf("lorvi_context_create_layout");
  ASSERT_EQ(1u, made.size());
  ASSERT_EQ(2u, made[0].columns.size());
  EXPECT_EQ(LORV_TYPE_STRING, made[0].columns[0].type);
  EXPECT_EQ(1, made[0].columns[0].is_nullable);
  EXPECT_EQ(LORV_TYPE_ULONG, made[0].columns[1].type);
  EXPECT_EQ(0, made[0].columns[1].is_nullable);
  char16_t const* name = nullptr;
  ExpectOk(lorv_get_column_name_by_token(context(), made[0].columns[0].token, &name));
  EXPECT_EQ(u"Name", std::u16string(name));
  ExpectOk(lorv_get_column_name_by_token(context(), made[0].columns[1].token, &name));
  EXPECT_EQ(u"On", std::u16string(name));
}

}  // namespace
