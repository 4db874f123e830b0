// The row of a new table is looked for by its name once more before its layout is made. When the
// kernel does not find it then, the catalogue cannot be trusted any further.

#include <gtest/gtest.h>

#include <csignal>
#include <sagleme/metalayer/keys.hpp>
#include <string>

#include "support/catalogue.h"
#include "support/database.h"
#include "support/recording_kernel_internal.h"

namespace {

using metalayer::Key;
using metalayer::RawView;

constexpr char16_t kName[] = u"App.New";
constexpr uint16_t kNoLayout = 0xFFFF;

class KeyOf {
 public:
  explicit KeyOf(char16_t const* text) { Key(bytes_).Text(text); }
  uint8_t const* bytes() const { return bytes_; }

 private:
  alignas(8) uint8_t bytes_[db_util::db_iter_with_keys::kKeySize];
};

// A table without columns of its own: nothing but the row itself is looked for on the way.
class UnfoundRowTest : public sagleme_test::CatalogueTest {
 protected:
  void SetUp() override {
    recording_kernel::Reset();
    CatalogueTest::SetUp();
  }

  // Counts the lookups of the table by its name, and lets the `hidden`th find nothing.
  void Watch(int hidden) {
    lookups_ = 0;
    auto const scan = [this, hidden](uint64_t context, uint64_t index, uint32_t flags,
                                     void const* first, void const* last, uint64_t* out) {
      bool const by_name =
          index == RawView::index_id_RawViewPK2fullname() &&
          recording_kernel::KeyBytes(first) == recording_kernel::KeyBytes(KeyOf(kName).bytes());
      KeyOf const nobody(u"Nobody");
      if (by_name && ++lookups_ == hidden) first = last = nobody.bytes();
      return recording_kernel::Forward<&lorv_context_create_iterator>(
          "lorv_context_create_iterator", context, index, flags, first, last, out);
    };
    recording_kernel::Answer<&lorv_context_create_iterator>(scan);
  }

  uint32_t ByNames() {
    layout_ = kNoLayout;
    return lorv_create_table_by_names(context(), kName, nullptr, sagleme_test::Columns(), &layout_);
  }
  uint32_t ByReference() {
    LORV_COLUMN_DEFINITION const end[] = {{db_util::null_obj_ref, 0, nullptr}};
    return lorv_create_table(context(), kName, 0, 0, end, nullptr, nullptr);
  }

  int lookups_ = 0;
  uint16_t layout_ = kNoLayout;
};

using UnfoundRowDeathTest = UnfoundRowTest;

TEST_F(UnfoundRowTest, NewTable_IsLookedForTwice) {
  Watch(0);
  ExpectOk(ByNames());
  EXPECT_EQ(2, lookups_);
  EXPECT_EQ(sagleme_test::LayoutOfTable(kName), layout_);
}

TEST_F(UnfoundRowDeathTest, CreatingByNames_EndsTheProcess) {
  Watch(2);
  EXPECT_EXIT(ByNames(), ::testing::KilledBySignal(SIGABRT), "");
}

TEST_F(UnfoundRowDeathTest, CreatingByReference_EndsTheProcess) {
  Watch(2);
  EXPECT_EXIT(ByReference(), ::testing::KilledBySignal(SIGABRT), "");
}

// A table that is there and not found at first is written a second time, which the kernel refuses.
TEST_F(UnfoundRowTest, ExistingTable_IsNotWrittenTwice) {
  ExpectOk(ByNames());
  Watch(1);
  ExpectRefused(LSCOREDB_DUPLICATE_KEY, u"", ByNames());
  EXPECT_EQ(kNoLayout, layout_);
}

}  // namespace
