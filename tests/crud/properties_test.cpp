// Values of every type, written and read through handles.

#include <cmath>
#include <limits>

#include "crud/crud_test.h"

namespace sagleme_test {
namespace {

class PropertiesTest : public CrudTest {
 protected:
  void SetUp() override {
    CrudTest::SetUp();
    CreateTable(u"Thing", Columns()
                              .String(u"String")
                              .Binary(u"Binary")
                              .Long(u"Long", true)
                              .ULong(u"ULong", true)
                              .Add(SAGLEME_TYPE_DECIMAL, u"Decimal", true)
                              .Add(SAGLEME_TYPE_FLOAT, u"Float", true)
                              .Double(u"Double", true)
                              .Ref(u"Ref", u"Thing")
                              .Bool(u"Bool", true)
                              .Long(u"Number"));
    CreateTable(u"Special", Columns().Long(u"Extra"), u"Thing");
    thing_ = CreateObject(u"Thing");
  }

  PropertyAccessInfo* P(char16_t const* name) { return Property(u"Thing", name); }

  // Writes each value and reads it back.
  template <typename Value, typename Argument, typename Out>
  void ExpectRoundTrip(char16_t const* property,
                       uint32_t (*write)(uint64_t, PropertyAccessInfo const*, uint64_t, uint64_t,
                                         Argument),
                       uint32_t (*read)(uint64_t, PropertyAccessInfo const*, uint64_t, uint64_t,
                                        Out*),
                       std::initializer_list<Value> values) {
    for (Value const value : values) {
      ExpectOk(write(context(), P(property), thing_.oid, thing_.addr, value));
      Out out{};
      ExpectOk(read(context(), P(property), thing_.oid, thing_.addr, &out));
      EXPECT_EQ(static_cast<Out>(value), out);
    }
  }

  LS_OBJ_REF thing_{};
};

TEST_F(PropertiesTest, Long_RoundTrip) {
  ExpectRoundTrip<int64_t>(
      u"Long", lorv_crud_WriteLong, lorv_crud_ReadLong,
      {0, -1, std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max()});
}

TEST_F(PropertiesTest, ULong_RoundTrip) {
  ExpectRoundTrip<uint64_t>(u"ULong", lorv_crud_WriteULong, lorv_crud_ReadULong,
                            {0, 1, std::numeric_limits<uint64_t>::max()});
}

TEST_F(PropertiesTest, Decimal_RoundTrip) {
  ExpectRoundTrip<int64_t>(u"Decimal", lorv_crud_WriteDecimal, lorv_crud_ReadDecimal,
                           {1'500'000, -1, std::numeric_limits<int64_t>::min()});
}

TEST_F(PropertiesTest, Float_RoundTrip) {
  ExpectRoundTrip<float>(u"Float", lorv_crud_WriteFloat, lorv_crud_ReadFloat,
                         {0.0f, -1.5f, std::numeric_limits<float>::infinity()});
}

TEST_F(PropertiesTest, Double_RoundTrip) {
  ExpectRoundTrip<double>(u"Double", lorv_crud_WriteDouble, lorv_crud_ReadDouble,
                          {0.0, -0.1, std::numeric_limits<double>::max()});
}

TEST_F(PropertiesTest, Bool_RoundTrip) {
  ExpectRoundTrip<bool>(u"Bool", lorv_crud_WriteBool, lorv_crud_ReadBool, {true, false});
}

TEST_F(PropertiesTest, ReadBool_WritesTheWholeOutput) {
  ExpectOk(lorv_crud_WriteBool(context(), P(u"Bool"), thing_.oid, thing_.addr, true));
  uint64_t out = 0xFFFF'FFFF'FFFF'FFFF;
  ExpectOk(lorv_crud_ReadBool(context(), P(u"Bool"), thing_.oid, thing_.addr, &out));
  EXPECT_EQ(1u, out);
}

TEST_F(PropertiesTest, String_RoundTrip_IsTerminatedInPlace) {
  std::u16string long_text(5000, u'x');
  for (std::u16string const& text :
       {std::u16string(u"Ärger"), std::u16string(), long_text, std::u16string(u"\xD800 alone")}) {
    ExpectOk(lorv_crud_WriteString(context(), P(u"String"), thing_.oid, thing_.addr, text.c_str()));
    char16_t const* out = nullptr;
    ExpectOk(lorv_crud_ReadString(context(), P(u"String"), thing_.oid, thing_.addr, &out));
    ASSERT_NE(nullptr, out);
    EXPECT_EQ(text, std::u16string(out));
  }
}

TEST_F(PropertiesTest, ReadString_Null_LeavesTheOutputAlone) {
  char16_t const* out = u"kept";
  EXPECT_EQ(LORV_STATUS_NULL,
            lorv_crud_ReadString(context(), P(u"String"), thing_.oid, thing_.addr, &out));
  EXPECT_EQ(u"kept", std::u16string(out));
}

TEST_F(PropertiesTest, Binary_RoundTrip) {
  std::vector<uint8_t> const bytes = {0, 1, 0xFF, 0, 7};
  ExpectOk(lorv_crud_WriteBinary(context(), P(u"Binary"), thing_.oid, thing_.addr, bytes.data(),
                                 bytes.size()));
  LORV_BINARY* out = nullptr;
  ExpectOk(lorv_crud_ReadBinary(context(), P(u"Binary"), thing_.oid, thing_.addr, &out));
  ASSERT_EQ(bytes.size(), out->length);
  uint8_t const* const stored = out->bytes;
  EXPECT_EQ(bytes, std::vector<uint8_t>(stored, stored + out->length));
}

TEST_F(PropertiesTest, Ref_RoundTrip) {
  LS_OBJ_REF const other = CreateObject(u"Special");
  ExpectOk(
      lorv_crud_WriteRef(context(), P(u"Ref"), thing_.oid, thing_.addr, other.oid, other.addr));
  LS_OBJ_REF out{};
  ExpectOk(lorv_crud_ReadRef(context(), P(u"Ref"), thing_.oid, thing_.addr, &out));
  EXPECT_EQ(other.oid, out.oid);
  EXPECT_EQ(static_cast<uint16_t>(other.addr), static_cast<uint16_t>(out.addr));
  uint64_t id = 0;
  ExpectOk(lorv_crud_ReadRefId(context(), P(u"Ref"), thing_.oid, thing_.addr, &id));
  EXPECT_EQ(other.oid, id);
}

TEST_F(PropertiesTest, UnwrittenNullableProperty_IsNull) {
  uint64_t number = 0;
  LS_OBJ_REF target{};
  EXPECT_EQ(LORV_STATUS_NULL,
            lorv_crud_ReadULong(context(), P(u"ULong"), thing_.oid, thing_.addr, &number));
  EXPECT_EQ(LORV_STATUS_NULL,
            lorv_crud_ReadRef(context(), P(u"Ref"), thing_.oid, thing_.addr, &target));
}

TEST_F(PropertiesTest, WriteDefault_NullableIsNull_OtherIsZero) {
  WriteLong(P(u"Long"), thing_, 5);
  WriteLong(P(u"Number"), thing_, 5);
  ExpectOk(lorv_crud_WriteDefault(context(), P(u"Long"), thing_.oid, thing_.addr));
  ExpectOk(lorv_crud_WriteDefault(context(), P(u"Number"), thing_.oid, thing_.addr));
  int64_t out = 0;
  EXPECT_EQ(LORV_STATUS_NULL,
            lorv_crud_ReadLong(context(), P(u"Long"), thing_.oid, thing_.addr, &out));
  EXPECT_EQ(0, ReadLong(P(u"Number"), thing_));
}

TEST_F(PropertiesTest, WrongType_IsTheKernelsToRefuse_AndLeavesNoText) {
  double out = 0.5;
  EXPECT_EQ(LSCOREDB_WRONG_TYPE,
            lorv_crud_ReadDouble(context(), P(u"Long"), thing_.oid, thing_.addr, &out));
  EXPECT_EQ(0.5, out);
  EXPECT_TRUE(LastText(context()).empty());
}

TEST_F(PropertiesTest, BasesHandle_ReachesDescendantsObjects) {
  LS_OBJ_REF const special = CreateObject(u"Special");
  WriteLong(Property(u"Special", u"Number"), special, 41);
  EXPECT_EQ(41, ReadLong(P(u"Number"), special));
  WriteLong(P(u"Number"), special, 42);
  EXPECT_EQ(42, ReadLong(Property(u"Special", u"Number"), special));
  EXPECT_EQ(TypeId(u"Special"), TypeIdOf(special));
}

TEST_F(PropertiesTest, CallersLayout_DoesNotMatter) {
  WriteLong(P(u"Number"), {thing_.oid, thing_.addr | 0xFFFF}, 17);
  EXPECT_EQ(17, ReadLong(P(u"Number"), {thing_.oid, 0}));
}

}  // namespace
}  // namespace sagleme_test
