#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <sagleme/metalayer/keys.hpp>

#include "support/catalogue.h"
#include "support/recording_kernel.h"

namespace {

std::atomic<bool> no_memory{false};

}  // namespace

// The library's request for memory that may be refused comes here, since an executable's operators
// replace the standard ones.
__attribute__((visibility("default"))) void* operator new[](std::size_t size,
                                                            std::nothrow_t const&) noexcept {
  if (no_memory) return nullptr;
  return ::operator new[](size);
}

namespace {

TEST(KeysWithoutMemoryTest, LongText_IsRefusedAsOutOfMemory) {
  recording_kernel::Reset();
  std::u16string const name(300, u'n');
  alignas(8) unsigned char buffer[1024];
  no_memory = true;
  unsigned int code = 0;
  try {
    metalayer::Key(buffer).Text(name.c_str());
  } catch (db_util::db_exception const& failure) {
    code = failure.code();
  }
  no_memory = false;
  EXPECT_EQ(SAGLEME_NO_MEMORY, code);
}

TEST(KeysWithoutMemoryTest, CallWithALongName_IsRefusedAsOutOfMemory) {
  recording_kernel::Reset();
  std::u16string const name(300, u'n');
  uint64_t token = 77;
  recording_kernel::Record();
  no_memory = true;
  uint32_t const status = lorv_get_token(1, name.c_str(), &token);
  no_memory = false;
  EXPECT_EQ(SAGLEME_NO_MEMORY, status);
  EXPECT_EQ(77u, token);
  EXPECT_TRUE(recording_kernel::Names().empty());
}

TEST(KeysWithoutMemoryTest, ShortText_NeedsNone) {
  recording_kernel::Reset();
  alignas(8) unsigned char buffer[1024];
  no_memory = true;
  metalayer::Key(buffer).Text(u"short");
  no_memory = false;
  EXPECT_EQ(0x25, buffer[0]);
}

// A table whose set specifier has a text that takes memory as a key.
class LongSpecifierWithoutMemoryTest : public sagleme_test::CatalogueTest {
 protected:
  static constexpr std::size_t kLength = 300;

  void SetUp() override {
    recording_kernel::Reset();
    CatalogueTest::SetUp();
    Create(u"T", sagleme_test::Columns().Long(u"a"));
    metalayer::PutText(metalayer::SetSpecifier::ByType(sagleme_test::View(u"T")),
                       metalayer::SetSpecifier::kTypeId, std::u16string(kLength, u's').c_str());
  }

  template <typename Call>
  uint32_t WithoutMemory(Call const& call) {
    no_memory = true;
    uint32_t const status = call();
    no_memory = false;
    return status;
  }
  uint32_t Drop() { return lorv_drop_table_by_name(context(), u"T", false, false); }
  uint32_t Cascade() { return lorv_drop_table_cascade(context(), u"T"); }
};

// The request is what needs the text: the table stands, and the rest is the transaction's to undo.
TEST_F(LongSpecifierWithoutMemoryTest, DroppingTheTable_StopsAtTheRequest) {
  ExpectRefused(SAGLEME_NO_MEMORY, u"", WithoutMemory([this] { return Drop(); }));
  EXPECT_EQ(0, recording_kernel::OpenIterators());
  EXPECT_EQ(0, sagleme_test::CountRequests());
  EXPECT_EQ(sagleme_test::WithRootColumns({"3 a long"}), sagleme_test::ColumnsOf(u"T"));
  ExpectOk(Drop());
  EXPECT_EQ(2u, sagleme_test::RequestOfSetspec(std::string(kLength, 's')).kind);
  EXPECT_TRUE(sagleme_test::View(u"T").is_null());
}

TEST_F(LongSpecifierWithoutMemoryTest, DroppingInACascade_LeavesAllAsItWas) {
  ExpectRefusedUntouched(SAGLEME_NO_MEMORY, u"",
                         [this] { return WithoutMemory([this] { return Cascade(); }); });
  EXPECT_EQ(0, recording_kernel::OpenIterators());
  ExpectOk(Cascade());
  EXPECT_TRUE(sagleme_test::View(u"T").is_null());
}

}  // namespace
