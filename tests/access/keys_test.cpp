#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <new>
#include <sagleme/metalayer/keys.hpp>
#include <stdexcept>

#include "support/recording_kernel.h"

namespace {

using metalayer::Key;
using recording_kernel::Bytes;
using recording_kernel::Hex;
using recording_kernel::KeyBytes;

// A key as it stands in a buffer.
template <typename Write>
std::string Written(Write const& write) {
  alignas(8) unsigned char buffer[1024];
  std::memset(buffer, 0xEE, sizeof buffer);
  {
    Key key(buffer);
    write(key);
  }
  return Hex(KeyBytes(buffer));
}

unsigned int CodeOf(std::function<void()> const& work) {
  try {
    work();
  } catch (db_util::db_exception const& failure) {
    return failure.code();
  }
  return 0;
}

// The kernel's conversion gives exactly these bytes.
void ConvertTo(Bytes const& bytes) {
  recording_kernel::Answer<&lorv_convert_ucs2_to_turbotext>(
      [bytes](char16_t const*, uint32_t, uint8_t* buffer, uint32_t size) {
        if (bytes.size() <= size) std::copy(bytes.begin(), bytes.end(), buffer);
        return static_cast<uint32_t>(bytes.size());
      });
}

// The conversion gives `n` payload bytes, counted up from 1.
Bytes Payload(std::size_t n) {
  Bytes bytes;
  for (std::size_t i = 0; i < n; ++i) bytes.push_back(static_cast<uint8_t>(i + 1));
  return bytes;
}

Bytes WithHeader(Bytes header, Bytes const& payload) {
  header.insert(header.end(), payload.begin(), payload.end());
  return header;
}

Bytes Joined(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (Bytes const& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

Bytes Part(Bytes const& bytes, std::size_t from, std::size_t to) {
  return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(from),
               bytes.begin() + static_cast<std::ptrdiff_t>(to));
}

// The text field that the conversion's bytes become.
Bytes TextField(Bytes const& converted) {
  Bytes field(4096);
  ukf::ENCODER encoder{field.data()};
  ukf::encode_tt4(converted.data(), static_cast<unsigned int>(converted.size()), encoder);
  field.resize(static_cast<std::size_t>(encoder.position - field.data()));
  return field;
}

class KeysTest : public ::testing::Test {
 protected:
  void SetUp() override { recording_kernel::Reset(); }
  void TearDown() override { recording_kernel::Reset(); }
};

TEST_F(KeysTest, UnsignedInteger_IsTagAndEightBytesMostSignificantFirst) {
  EXPECT_EQ("28 01 02 03 04 05 06 07 08 C0 00 00 00 00 00 00",
            Written([](Key& key) { key.ULong(0x0102030405060708); }));
}

TEST_F(KeysTest, SignedInteger_HasItsTopBitFlipped) {
  EXPECT_EQ("28 80 00 00 00 00 00 7F FF C0 00 00 00 00 00 00",
            Written([](Key& key) { key.Long(32767); }));
  EXPECT_EQ("28 7F FF FF FF FF FF FF FF C0 00 00 00 00 00 00",
            Written([](Key& key) { key.Long(-1); }));
  EXPECT_EQ("28 00 00 00 00 00 00 00 00 C0 00 00 00 00 00 00",
            Written([](Key& key) { key.Long(std::numeric_limits<long>::min()); }));
}

TEST_F(KeysTest, SmallNumbers_WidenByTheirSign) {
  EXPECT_EQ("28 00 00 00 00 00 00 FF FE C0 00 00 00 00 00 00",
            Written([](Key& key) { key.ULong(static_cast<unsigned short>(0xFFFE)); }));
  EXPECT_EQ("28 7F FF FF FF FF FF FF FE C0 00 00 00 00 00 00",
            Written([](Key& key) { key.Long(static_cast<short>(-2)); }));
}

TEST_F(KeysTest, Double_KeepsItsOrder) {
  EXPECT_EQ("28 BF F0 00 00 00 00 00 00 C0 00 00 00 00 00 00",
            Written([](Key& key) { key.Double(1.0); }));
  EXPECT_EQ("28 40 0F FF FF FF FF FF FF C0 00 00 00 00 00 00",
            Written([](Key& key) { key.Double(-1.0); }));
  EXPECT_EQ(Written([](Key& key) { key.Double(0.0); }),
            Written([](Key& key) { key.Double(-0.0); }));
  EXPECT_LT(Written([](Key& key) { key.Double(std::numeric_limits<double>::infinity()); }),
            Written([](Key& key) { key.Double(std::numeric_limits<double>::quiet_NaN()); }));
}

TEST_F(KeysTest, Reference_IsKeyedByItsOidAlone) {
  EXPECT_EQ("28 00 00 00 00 00 00 00 2A C0 00 00 00 00 00 00", Written([](Key& key) {
              key.Ref({42, 0xFFFFFFFF});
            }));
}

TEST_F(KeysTest, NullField_IsOneByte) {
  EXPECT_EQ("60 C0 00 00 00 00 00 00", Written([](Key& key) { key.Null(); }));
  EXPECT_EQ("60 C0 00 00 00 00 00 00", Hex(KeyBytes(ukf::full_key_ukn)));
}

TEST_F(KeysTest, NullText_IsTheNullFieldAndNothingIsConverted) {
  recording_kernel::Record();
  EXPECT_EQ("60 60 60 60 C0 00 00 00", Written([](Key& key) {
              key.Text(nullptr).TextUpperBound(nullptr);
              key.SetspecLowerBound(nullptr).SetspecUpperBound(nullptr);
            }));
  EXPECT_TRUE(recording_kernel::Calls().empty());
}

TEST_F(KeysTest, EndMarkAsTheEighthByte_HasNoPadding) {
  ConvertTo(WithHeader({0x80}, Payload(5)));
  EXPECT_EQ("25 01 02 03 04 05 80 C0", Written([](Key& key) { key.Text(u"x"); }));
}

TEST_F(KeysTest, FieldsThatFillAMultipleOfEight_ArePaddedByAWholeEight) {
  ConvertTo(WithHeader({0x80}, Payload(6)));
  EXPECT_EQ("26 01 02 03 04 05 06 80 C0 00 00 00 00 00 00 00",
            Written([](Key& key) { key.Text(u"x"); }));
}

TEST_F(KeysTest, RangeOfATablesColumns_HasTheKnownBounds) {
  EXPECT_EQ("28 00 00 00 00 00 00 12 34 28 80 00 00 00 00 00 7F FF C0 00 00 00 00 00",
            Written([](Key& key) {
              key.Ref({0x1234, 9}).Long(0x7FFF);
            }));
  EXPECT_EQ("28 00 00 00 00 00 00 12 34 60 C0 00 00 00 00 00", Written([](Key& key) {
              key.Ref({0x1234, 9}).Null();
            }));
}

TEST_F(KeysTest, EmptyText_IsTwoBytes) {
  EXPECT_EQ((Bytes{0x20, 0x80}), TextField({0x80}));
  EXPECT_EQ("20 80 C0 00 00 00 00 00", Written([](Key& key) { key.Text(u""); }));
}

TEST_F(KeysTest, TextOf31Bytes_IsOneChunk) {
  Bytes const payload = Payload(31);
  EXPECT_EQ(Joined({{0x3F}, payload, {0x80}}), TextField(WithHeader({0x80}, payload)));
}

TEST_F(KeysTest, TextOf32Bytes_HasASecondChunkOfOne) {
  Bytes const payload = Payload(32);
  Bytes const field = TextField(WithHeader({0x80}, payload));
  EXPECT_EQ(Joined({{0x3F}, Part(payload, 0, 31), {0x01}, Part(payload, 31, 32), {0x80}}), field);
  EXPECT_EQ(35u, field.size());
}

TEST_F(KeysTest, TextOf62Bytes_HasNoEmptyLastChunk) {
  Bytes const payload = Payload(62);
  EXPECT_EQ(Joined({{0x3F}, Part(payload, 0, 31), {0x1F}, Part(payload, 31, 62), {0x80}}),
            TextField(WithHeader({0x80}, payload)));
}

TEST_F(KeysTest, SpareBits_CutWholeBytesOffTheEnd) {
  Bytes const payload = Payload(3);
  EXPECT_EQ(Joined({{0x23}, payload, {0x80}}), TextField(WithHeader({0x87}, payload)));
  EXPECT_EQ(Joined({{0x22}, Part(payload, 0, 2), {0x80}}), TextField(WithHeader({0x88}, payload)));
  EXPECT_EQ((Bytes{0x20, 0x80}), TextField(WithHeader({0x98}, payload)));
}

TEST_F(KeysTest, LongHeader_IsReadSevenBitsAByte) {
  // 1 * 128 + 0 spare bits: 16 of 20 bytes are not payload.
  EXPECT_EQ(Joined({{0x24}, Payload(4), {0x80}}), TextField(WithHeader({0x01, 0x80}, Payload(20))));
}

TEST_F(KeysTest, HeaderWithoutAnEnd_IsAnEmptyText) {
  EXPECT_EQ((Bytes{0x20, 0x80}), TextField({0x01, 0x02}));
  EXPECT_EQ((Bytes{0x20, 0x80}), TextField({}));
}

TEST_F(KeysTest, LongText_IsConvertedAgainIntoALargerBuffer) {
  Bytes const payload = Payload(200);
  std::vector<uint32_t> rooms;
  recording_kernel::Answer<&lorv_convert_ucs2_to_turbotext>(
      [&](char16_t const*, uint32_t, uint8_t* buffer, uint32_t size) {
        rooms.push_back(size);
        if (size < 201) return 201u;
        buffer[0] = 0x80;
        std::copy(payload.begin(), payload.end(), buffer + 1);
        return 201u;
      });
  std::string const key = Written([](Key& to) { to.Text(u"long"); });
  EXPECT_EQ((std::vector<uint32_t>{128, 201}), rooms);
  EXPECT_EQ(0u, key.find("3F 01 02 03"));
}

TEST_F(KeysTest, ConversionThatGrowsBetweenTheCalls_IsRepeatedUntilItFits) {
  std::vector<uint32_t> rooms;
  recording_kernel::Answer<&lorv_convert_ucs2_to_turbotext>(
      [&](char16_t const*, uint32_t, uint8_t* buffer, uint32_t size) {
        rooms.push_back(size);
        if (size < 300) return size + 100;
        std::fill(buffer, buffer + 300, uint8_t{0x80});
        return 300u;
      });
  Written([](Key& to) { to.Text(u"long"); });
  EXPECT_EQ((std::vector<uint32_t>{128, 228, 328}), rooms);
}

TEST_F(KeysTest, TextBounds_AskForTheRightForm) {
  recording_kernel::Record();
  Written([](Key& key) {
    key.Text(u"t").TextUpperBound(u"u").SetspecLowerBound(u"s~").SetspecUpperBound(u"v~");
  });
  auto const& calls = recording_kernel::Calls();
  ASSERT_EQ(4u, calls.size());
  std::vector<std::string> names;
  std::vector<uint64_t> flags;
  for (auto const& call : calls) {
    names.push_back(call.function);
    flags.push_back(call.numbers.front());
  }
  EXPECT_EQ((std::vector<std::string>{
                "lorv_convert_ucs2_to_turbotext", "lorv_convert_ucs2_to_turbotext",
                "lorv_convert_ucs2_to_setspectt", "lorv_convert_ucs2_to_setspectt"}),
            names);
  EXPECT_EQ((std::vector<uint64_t>{0, 1, 0, 1}), flags);
}

TEST_F(KeysTest, UpperBoundOfATextPrefix_StandsAboveAllTextsThatBeginWithIt) {
  EXPECT_LT(Written([](Key& key) { key.Text(u"ab\xFFFF"); }),
            Written([](Key& key) { key.TextUpperBound(u"ab\xFFFF"); }));
}

// ---- room ---------------------------------------------------------------------------------------

TEST_F(KeysTest, KeyBufferThatIsAskedToGrow_Refuses) {
  alignas(8) unsigned char buffer[64];
  EXPECT_EQ(SAGLEME_NAME_TOO_LONG, CodeOf([&] { db_util::KeyBuf(buffer).resize(65); }));
}

TEST_F(KeysTest, FieldWithoutRoom_IsRefused) {
  alignas(8) unsigned char buffer[16];
  EXPECT_EQ(SAGLEME_NAME_TOO_LONG, CodeOf([&] { Key(buffer).ULong(1).ULong(2); }));
  EXPECT_EQ(SAGLEME_NAME_TOO_LONG, CodeOf([&] { Key(buffer).ULong(1).Text(u"a text too long"); }));
}

TEST_F(KeysTest, EndWithoutRoom_IsRefused) {
  alignas(8) unsigned char buffer[8];
  EXPECT_EQ(SAGLEME_NAME_TOO_LONG, CodeOf([&] {
              Key key(buffer);
              for (int i = 0; i < 8; ++i) key.Null();
            }));
}

TEST_F(KeysTest, KeyThatFillsTheBufferToTheLastByte_Fits) {
  alignas(8) unsigned char buffer[1024];
  auto const fill = [&buffer](std::size_t nulls) {
    Key key(buffer);
    for (std::size_t i = 0; i < nulls; ++i) key.Null();
  };
  EXPECT_EQ(0u, CodeOf([&] { fill(1023); }));
  EXPECT_EQ(0xC0, buffer[1023]);
  EXPECT_EQ(SAGLEME_NAME_TOO_LONG, CodeOf([&] { fill(1024); }));
}

TEST_F(KeysTest, LookupWithTooLongAText_IsRefusedBeforeTheKernelIsAsked) {
  recording_kernel::Record();
  std::u16string const name(2000, u'n');
  alignas(8) unsigned char buffer[1024];
  EXPECT_EQ(SAGLEME_NAME_TOO_LONG, CodeOf([&] {
              Key(buffer).Text(name.c_str());
              metalayer::LookupByKey(1, buffer);
            }));
  EXPECT_TRUE(recording_kernel::Names().empty());
}

TEST_F(KeysTest, FailureWhileAFullKeyIsOpen_PassesOutUnchanged) {
  alignas(8) unsigned char buffer[8];
  EXPECT_THROW(
      {
        Key key(buffer);
        for (int i = 0; i < 8; ++i) key.Null();
        throw std::runtime_error("first");
      },
      std::runtime_error);
}

TEST_F(KeysTest, FailureWhileAKeyIsOpen_LeavesTheKeyFinished) {
  alignas(8) unsigned char buffer[16];
  EXPECT_THROW(
      {
        Key key(buffer);
        key.Null();
        throw std::runtime_error("first");
      },
      std::runtime_error);
  EXPECT_EQ("60 C0 00 00 00 00 00 00", Hex(KeyBytes(buffer)));
}

TEST_F(KeysTest, HeaderThatClaimsTooMuch_IsRefused) {
  alignas(8) unsigned char buffer[1024];
  ConvertTo({0x90, 0x01});  // 16 spare bits in one byte
  EXPECT_EQ(SAGLEME_NAME_TOO_LONG, CodeOf([&] { Key(buffer).Text(u"x"); }));
}

}  // namespace
