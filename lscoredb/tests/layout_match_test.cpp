// Objects under one layout, addressed through another: columns are matched by token.

#include "kernel_test.h"

namespace lscoredb_test {
namespace {

constexpr std::uint64_t kTable = 50;
constexpr std::uint64_t kA = 100;
constexpr std::uint64_t kB = 101;
constexpr std::uint64_t kC = 102;
constexpr std::uint64_t kD = 103;

// One table, two layouts: the newer one has its columns in another order, and two more.
class LayoutMatchTest : public KernelTest {
 protected:
  void SetUp() override {
    session_.Begin();
    old_ = session_.CreateLayout(kTable, {{LORV_TYPE_LONG, kA}, {LORV_TYPE_STRING, kB}});
    Restart();
    row_ = session_.Insert(old_);
    session_.PutLong(row_, 2, 7);
    session_.PutString(row_, 3, u"b");
    Restart();
    new_ = session_.CreateLayout(kTable, {{LORV_TYPE_STRING, kB},
                                          {LORV_TYPE_LONG, kC},
                                          {LORV_TYPE_LONG, kA},
                                          {LORV_TYPE_LONG, kD, false}});
  }

  std::uint64_t context() const { return session_.context(); }

  LayoutId old_ = 0;  // id, set, a, b
  LayoutId new_ = 0;  // id, set, b, c, a, d
  Oid row_ = 0;
};

TEST_F(LayoutMatchTest, ReadThroughTheNewerLayout_FindsColumnsByToken) {
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(session_.String(row_, 2, new_), u"b");
    EXPECT_EQ(session_.Long(row_, 4, new_), 7);
    EXPECT_EQ(session_.ULong(row_, 0, new_), row_);
    EXPECT_EQ(session_.String(row_, 1, new_), kSet);
    EXPECT_EQ(session_.LayoutOf(row_), old_);
    Restart();
  }
}

TEST_F(LayoutMatchTest, ColumnMissingInTheObjectsLayout_IsNullOrZero) {
  EXPECT_FALSE(session_.Long(row_, 3, new_));
  EXPECT_EQ(session_.Long(row_, 5, new_), 0);
  EXPECT_EQ(session_.LayoutOf(row_), old_);
}

TEST_F(LayoutMatchTest, WriteThroughTheNewerLayout_MovesTheObject) {
  session_.PutLong(row_, 3, 9, new_);
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(session_.LayoutOf(row_), new_);
    EXPECT_EQ(session_.String(row_, 2), u"b");
    EXPECT_EQ(session_.Long(row_, 3), 9);
    EXPECT_EQ(session_.Long(row_, 4), 7);
    EXPECT_EQ(session_.Long(row_, 5), 0);
    EXPECT_EQ(session_.Setspec(row_), kSet);
    Restart();
  }
}

TEST_F(LayoutMatchTest, WriteToASharedColumnThroughTheNewerLayout_MovesTheObject) {
  session_.PutLong(row_, 4, 8, new_);
  Restart();
  EXPECT_EQ(session_.LayoutOf(row_), new_);
  EXPECT_EQ(session_.Long(row_, 2, old_), 8);
  EXPECT_EQ(session_.String(row_, 3, old_), u"b");
}

TEST_F(LayoutMatchTest, WriteThroughTheOlderLayout_StaysInPlace) {
  session_.PutLong(row_, 3, 9, new_);
  Restart();
  session_.PutLong(row_, 2, 70, old_);
  Restart();
  EXPECT_EQ(session_.LayoutOf(row_), new_);
  EXPECT_EQ(session_.Long(row_, 4, new_), 70);
  EXPECT_EQ(session_.Long(row_, 3, new_), 9);
}

TEST_F(LayoutMatchTest, ColumnDroppedByTheNewerLayout_IsGoneAfterTheMove) {
  LayoutId const without_a = session_.CreateLayout(kTable, {{LORV_TYPE_STRING, kB}});
  EXPECT_EQ(session_.Long(row_, 2, old_), 7);
  session_.PutString(row_, 2, u"bb", without_a);
  Restart();
  EXPECT_EQ(session_.LayoutOf(row_), without_a);
  EXPECT_EQ(session_.String(row_, 3, old_), u"bb");
  EXPECT_FALSE(session_.Long(row_, 2, old_));
}

TEST_F(LayoutMatchTest, TokenWithAnotherType_IsRefused) {
  LayoutId const other =
      session_.CreateLayout(kTable + 1, {{LORV_TYPE_STRING, kA}, {LORV_TYPE_STRING, kB}});
  LORV_STRING* text = nullptr;
  EXPECT_STATUS(LSCOREDB_WRONG_TYPE, lorv_context_get_string(context(), row_, other, 2, &text));
  EXPECT_STATUS(LSCOREDB_WRONG_TYPE, lorv_context_put_string(context(), row_, other, 2, u"x"));
  EXPECT_EQ(session_.Long(row_, 2), 7);
  EXPECT_EQ(session_.LayoutOf(row_), old_);
}

TEST_F(LayoutMatchTest, UnknownLayoutOrColumnInTheAddress_IsRefused) {
  std::int64_t value = 0;
  EXPECT_STATUS(LSCOREDB_UNKNOWN_LAYOUT, lorv_context_get_long(context(), row_, 40000, 2, &value));
  EXPECT_STATUS(LSCOREDB_UNKNOWN_LAYOUT, lorv_context_put_long(context(), row_, 40000, 2, 1));
  for (LayoutId const layout : {LayoutId{0}, old_}) {
    EXPECT_STATUS(LSCOREDB_UNKNOWN_COLUMN,
                  lorv_context_get_long(context(), row_, layout, 4, &value));
    EXPECT_STATUS(LSCOREDB_UNKNOWN_COLUMN, lorv_context_put_long(context(), row_, layout, 4, 1));
    EXPECT_STATUS(LSCOREDB_UNKNOWN_COLUMN,
                  lorv_context_put_long(context(), row_, layout, 0xFFFFFFFF, 1));
  }
}

TEST_F(LayoutMatchTest, MoveObject_KeepsWhatBothLayoutsHave) {
  EXPECT_STATUS(0, lscoredb_move_object(context(), row_, new_));
  Restart();
  EXPECT_EQ(session_.LayoutOf(row_), new_);
  EXPECT_EQ(session_.String(row_, 2), u"b");
  EXPECT_FALSE(session_.Long(row_, 3));
  EXPECT_EQ(session_.Long(row_, 4), 7);
  EXPECT_STATUS(LSCOREDB_UNKNOWN_LAYOUT, lscoredb_move_object(context(), row_, 40000));
  EXPECT_STATUS(LORV_STATUS_NO_OBJECT, lscoredb_move_object(context(), row_ + 100000, old_));
}

// A base table and a table derived from it.
class InheritanceTest : public KernelTest {
 protected:
  static constexpr std::uint64_t kBaseToken = 50;
  static constexpr std::uint64_t kDerivedToken = 51;
  static constexpr char16_t kDerivedSet[] = u"set/derived/";

  void SetUp() override {
    session_.Begin();
    base_ = session_.CreateLayout(kBaseToken, {{LORV_TYPE_LONG, kA}});
    derived_ = session_.CreateLayout(kDerivedToken, {{LORV_TYPE_LONG, kB}}, base_);
    Oid const other = session_.Insert(base_);
    session_.PutLong(other, 2, 1);
    row_ = session_.Insert(derived_, kDerivedSet);
    session_.PutLong(row_, 2, 7);
    session_.PutLong(row_, 3, 8);
    Restart();
  }

  LayoutId base_ = 0;
  LayoutId derived_ = 0;
  Oid row_ = 0;
};

TEST_F(InheritanceTest, BasesHandle_ReadsAndWritesADescendantsObjectInPlace) {
  EXPECT_EQ(session_.Long(row_, 2, base_), 7);
  session_.PutLong(row_, 2, 70, base_);
  Restart();
  EXPECT_EQ(session_.LayoutOf(row_), derived_);
  EXPECT_EQ(session_.Long(row_, 2), 70);
  EXPECT_EQ(session_.Long(row_, 3), 8);
}

TEST_F(InheritanceTest, ColumnNewInTheBase_IsNullInADescendantThatLacksIt) {
  LayoutId const newer_base =
      session_.CreateLayout(kBaseToken, {{LORV_TYPE_LONG, kA}, {LORV_TYPE_LONG, kC}});
  EXPECT_FALSE(session_.Long(row_, 3, newer_base));
  EXPECT_EQ(session_.Long(row_, 2, newer_base), 7);
  session_.PutLong(row_, 2, 70, newer_base);
  EXPECT_EQ(session_.LayoutOf(row_), derived_) << "the base's layout is not for this set";
  EXPECT_EQ(session_.Long(row_, 3), 8);
}

TEST_F(InheritanceTest, WriteToAColumnNewInTheBase_MovesADescendantToItsOwnNewLayout) {
  LayoutId const newer_base =
      session_.CreateLayout(kBaseToken, {{LORV_TYPE_LONG, kA}, {LORV_TYPE_LONG, kC}});
  EXPECT_STATUS(LSCOREDB_UNKNOWN_COLUMN,
                lorv_context_put_long(session_.context(), row_, newer_base, 3, 9));
  EXPECT_EQ(session_.LayoutOf(row_), derived_);
  LayoutId const newer_derived =
      session_.CreateLayout(kDerivedToken, {{LORV_TYPE_LONG, kB}}, newer_base);
  session_.PutLong(row_, 3, 9, newer_base);
  Restart();
  EXPECT_EQ(session_.LayoutOf(row_), newer_derived);
  EXPECT_EQ(session_.Long(row_, 2), 7);
  EXPECT_EQ(session_.Long(row_, 3), 9);
  EXPECT_EQ(session_.Long(row_, 4), 8);
}

}  // namespace
}  // namespace lscoredb_test
