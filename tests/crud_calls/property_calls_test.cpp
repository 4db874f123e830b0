// What one property access asks of the kernel.

#include <gtest/gtest.h>

#include <functional>

#include "crud/handles.h"
#include "support/recording_kernel.h"

namespace {

constexpr uint64_t kContext = 77;
constexpr uint64_t kOid = 4711;
constexpr uint64_t kCallersAddr = 0x1234'5678'9ABC'DEF0;
constexpr uint64_t kKernelAddr = 0x1234'5678'9ABC'0102;
constexpr uint32_t kLocation = 0xFEDC'0102;
constexpr uint32_t kColumn = 0xFEDC;
constexpr uint32_t kStatus = 5555;

// Every function of the kernel that the family may call refuses, so that nothing needs a database.
class PropertyCallsTest : public ::testing::Test {
 protected:
  PropertyCallsTest() : handle_({1, 1}, {2, 2}) { handle_.location.store(kLocation); }
  void SetUp() override {
    recording_kernel::Reset();
    *metalayer::TlsMetalayerContext::Current() = 1;
  }
  void TearDown() override {
    EXPECT_EQ(1u, *metalayer::TlsMetalayerContext::Current());
    recording_kernel::Reset();
    *metalayer::TlsMetalayerContext::Current() = 0;
  }

  // `access` makes exactly one call, to `function`, with the handle's place and `rest` behind it.
  void ExpectOneCall(char const* function, std::function<uint32_t()> const& access,
                     std::vector<uint64_t> const& rest = {}) {
    metalayer::is_errbuf_clear_requested();
    recording_kernel::Record();
    recording_kernel::FailNth(1, kStatus);
    EXPECT_EQ(kStatus, access());
    EXPECT_EQ(has_frame_, metalayer::is_errbuf_clear_requested());
    ASSERT_EQ(std::vector<std::string>{function}, recording_kernel::Names());
    std::vector<uint64_t> expected = {kContext, kOid, kKernelAddr, kColumn};
    expected.insert(expected.end(), rest.begin(), rest.end());
    EXPECT_EQ(expected, recording_kernel::Calls().front().numbers);
  }

  template <typename Function, typename... Arguments>
  std::function<uint32_t()> Access(Function function, Arguments... arguments) {
    return [=, this] { return function(kContext, &handle_, kOid, kCallersAddr, arguments...); };
  }

  PropertyAccessInfo handle_;
  bool has_frame_ = false;  // its mark is the request to empty the error buffer
  int64_t signed_ = 1;
  uint64_t unsigned_ = 1;
  double double_ = 1;
  float float_ = 1;
  LORV_BINARY* binary_ = nullptr;
  char16_t const* text_ = u"kept";
  LS_OBJ_REF ref_{9, 9};
};

TEST_F(PropertyCallsTest, Numbers_ReachTheKernel) {
  ExpectOneCall("lorv_context_get_long", Access(lorv_crud_ReadLong, &signed_));
  ExpectOneCall("lorv_context_put_long", Access(lorv_crud_WriteLong, 6), {6});
  ExpectOneCall("lorv_context_get_ulong", Access(lorv_crud_ReadULong, &unsigned_));
  ExpectOneCall("lorv_context_put_ulong", Access(lorv_crud_WriteULong, 6u), {6});
  ExpectOneCall("lorv_context_get_decimal", Access(lorv_crud_ReadDecimal, &signed_));
  ExpectOneCall("lorv_context_put_decimal", Access(lorv_crud_WriteDecimal, 6), {6});
  ExpectOneCall("lorv_context_get_double", Access(lorv_crud_ReadDouble, &double_));
  ExpectOneCall("lorv_context_put_double", Access(lorv_crud_WriteDouble, 6.0));
  ExpectOneCall("lorv_context_get_float", Access(lorv_crud_ReadFloat, &float_));
  ExpectOneCall("lorv_context_put_float", Access(lorv_crud_WriteFloat, 6.0f));
  EXPECT_EQ(1, signed_);
  EXPECT_EQ(1u, unsigned_);
}

TEST_F(PropertyCallsTest, Booleans_AreUnsignedNumbers) {
  ExpectOneCall("lorv_context_get_ulong", Access(lorv_crud_ReadBool, &unsigned_));
  ExpectOneCall("lorv_context_put_ulong", Access(lorv_crud_WriteBool, true), {1});
  ExpectOneCall("lorv_context_put_ulong", Access(lorv_crud_WriteBool, false), {0});
}

TEST_F(PropertyCallsTest, TextsAndBinaries_ReachTheKernel) {
  ExpectOneCall("lorv_context_get_string", Access(lorv_crud_ReadString, &text_));
  EXPECT_EQ(std::u16string(u"kept"), text_);
  ExpectOneCall("lorv_context_put_string", Access(lorv_crud_WriteString, u"text"));
  EXPECT_EQ(std::vector<std::u16string>{u"text"}, recording_kernel::Calls().front().texts);
  ExpectOneCall("lorv_context_get_binary", Access(lorv_crud_ReadBinary, &binary_));
  EXPECT_EQ(nullptr, binary_);
  // The size is no business of the layer's.
  void const* const nowhere = nullptr;
  ExpectOneCall("lorv_context_put_binary", Access(lorv_crud_WriteBinary, nowhere, ~0ull), {~0ull});
}

TEST_F(PropertyCallsTest, ReferencesAndDefaults_ReachTheKernel) {
  ExpectOneCall("lorvi_context_get_refid", Access(lorv_crud_ReadRefId, &unsigned_));
  ExpectOneCall("lorv_context_put_reference", Access(lorv_crud_WriteRef, 6u, 7u), {6, 7});
  ExpectOneCall("lorv_context_put_default", Access(lorv_crud_WriteDefault));
}

TEST_F(PropertyCallsTest, ReadRef_WritesItsOutputWhateverTheStatus) {
  ExpectOneCall("lorv_context_get_reference", Access(lorv_crud_ReadRef, &ref_));
  EXPECT_EQ(0u, ref_.oid);
  EXPECT_EQ(0u, ref_.addr);
}

TEST_F(PropertyCallsTest, ReadRef_FoldsPositionAndLayout) {
  recording_kernel::Answer<&lorv_context_get_reference>(
      [](uint64_t, uint64_t, uint64_t, uint32_t, LORV_REFERENCE* out) {
        *out = {42, 0x1234'5678'9ABC, 0xDEF0};
        return 0u;
      });
  EXPECT_EQ(0u, Access(lorv_crud_ReadRef, &ref_)());
  EXPECT_EQ(42u, ref_.oid);
  EXPECT_EQ(0x1234'5678'9ABC'DEF0u, ref_.addr);
}

TEST_F(PropertyCallsTest, ReadRefAndType_KernelRefuses_WritesNothing) {
  has_frame_ = true;
  uint64_t type_id = 8;
  ExpectOneCall("lorv_context_get_reference", Access(lorv_crud_ReadRefAndType, &ref_, &type_id));
  EXPECT_EQ(9u, ref_.oid);
  EXPECT_EQ(9u, ref_.addr);
  EXPECT_EQ(8u, type_id);
}

TEST_F(PropertyCallsTest, ReadRefAndType_KernelGivesNoObject_IsNullWithoutType) {
  recording_kernel::Answer<&lorv_context_get_reference>(
      [](uint64_t, uint64_t, uint64_t, uint32_t, LORV_REFERENCE* out) {
        *out = {0, 0, 0};
        return 0u;
      });
  uint64_t type_id = 8;
  EXPECT_EQ(0u, Access(lorv_crud_ReadRefAndType, &ref_, &type_id)());
  EXPECT_EQ(0u, ref_.oid);
  EXPECT_EQ(0u, ref_.addr);
  EXPECT_EQ(0u, type_id);
}

TEST_F(PropertyCallsTest, ReadString_EndsTheKernelsTextAndCopiesNothing) {
  alignas(LORV_STRING) static unsigned char memory[64];
  auto* const record = new (memory) LORV_STRING{3, {u'a'}};
  auto* const units = reinterpret_cast<char16_t*>(memory + offsetof(LORV_STRING, units));
  units[1] = u'b', units[2] = u'c', units[3] = u'!';
  recording_kernel::Answer<&lorv_context_get_string>(
      [record](uint64_t, uint64_t, uint64_t, uint32_t, LORV_STRING** out) {
        *out = record;
        return 0u;
      });
  EXPECT_EQ(0u, Access(lorv_crud_ReadString, &text_)());
  EXPECT_EQ(units, text_);
  EXPECT_EQ(u'\0', units[3]);
}

TEST_F(PropertyCallsTest, DeleteObject_PassesTheAddressAsItIs) {
  for (bool const with_handle : {true, false}) {
    recording_kernel::Record();
    recording_kernel::FailNth(1, kStatus);
    EXPECT_EQ(kStatus, with_handle ? lorv_crud_DeleteObject(kContext, 0, kOid, kCallersAddr)
                                   : lorv_crud_DeleteObject_NoHandle(kContext, kOid, kCallersAddr));
    ASSERT_EQ(std::vector<std::string>{"lorv_context_delete"}, recording_kernel::Names());
    EXPECT_EQ((std::vector<uint64_t>{kContext, kOid, kCallersAddr}),
              recording_kernel::Calls().front().numbers);
  }
}

}  // namespace
