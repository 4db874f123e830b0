#include <bit>
#include <cmath>
#include <limits>
#include <set>

#include "kernel_test.h"

namespace lscoredb_test {
namespace {

// In the order of their numbers, which the columns of RowTest go by.
constexpr std::uint32_t kTypes[] = {LORV_TYPE_STRING, LORV_TYPE_BINARY,    LORV_TYPE_LONG,
                                    LORV_TYPE_ULONG,  LORV_TYPE_DECIMAL,   LORV_TYPE_FLOAT,
                                    LORV_TYPE_DOUBLE, LORV_TYPE_REFERENCE, LORV_TYPE_KEY};

// A layout that has a nullable column of each type, then one of each that takes no null.
class RowTest : public KernelTest {
 protected:
  static std::uint32_t Nullable(std::uint32_t type) { return 1 + type; }
  static std::uint32_t Required(std::uint32_t type) { return 10 + type; }

  void SetUp() override {
    Columns columns;
    for (std::uint32_t const type : kTypes) columns.push_back({type, 100 + type, true});
    for (std::uint32_t const type : kTypes) columns.push_back({type, 200 + type, false});
    session_.Begin();
    layout_ = session_.CreateLayout(50, columns);
    row_ = session_.Insert(layout_);
  }

  std::uint64_t context() const { return session_.context(); }

  LayoutId layout_ = 0;
  Oid row_ = 0;
};

TEST_F(RowTest, UnwrittenNullableColumn_IsNullAndLeavesTheOutput) {
  std::int64_t number = 77;
  EXPECT_STATUS(LORV_STATUS_NULL,
                lorv_context_get_long(context(), row_, layout_, Nullable(LORV_TYPE_LONG), &number));
  EXPECT_EQ(number, 77);
  LORV_STRING* text = nullptr;
  EXPECT_STATUS(LORV_STATUS_NULL, lorv_context_get_string(context(), row_, layout_,
                                                          Nullable(LORV_TYPE_STRING), &text));
  EXPECT_EQ(text, nullptr);
  EXPECT_FALSE(session_.ULong(row_, Nullable(LORV_TYPE_ULONG)));
  EXPECT_FALSE(session_.ULong(row_, Nullable(LORV_TYPE_KEY)));
  EXPECT_FALSE(session_.Decimal(row_, Nullable(LORV_TYPE_DECIMAL)));
  EXPECT_FALSE(session_.Float(row_, Nullable(LORV_TYPE_FLOAT)));
  EXPECT_FALSE(session_.Double(row_, Nullable(LORV_TYPE_DOUBLE)));
  EXPECT_FALSE(session_.Binary(row_, Nullable(LORV_TYPE_BINARY)));
  EXPECT_FALSE(session_.Reference(row_, Nullable(LORV_TYPE_REFERENCE)));
  EXPECT_FALSE(session_.RefId(row_, Nullable(LORV_TYPE_REFERENCE)));
}

TEST_F(RowTest, UnwrittenRequiredColumn_IsZero) {
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(session_.Long(row_, Required(LORV_TYPE_LONG)), 0);
    EXPECT_EQ(session_.ULong(row_, Required(LORV_TYPE_ULONG)), 0U);
    EXPECT_EQ(session_.ULong(row_, Required(LORV_TYPE_KEY)), 0U);
    EXPECT_EQ(session_.Decimal(row_, Required(LORV_TYPE_DECIMAL)), 0);
    EXPECT_EQ(session_.Float(row_, Required(LORV_TYPE_FLOAT)), 0.0F);
    EXPECT_EQ(session_.Double(row_, Required(LORV_TYPE_DOUBLE)), 0.0);
    EXPECT_EQ(session_.String(row_, Required(LORV_TYPE_STRING)), u"");
    EXPECT_EQ(session_.Binary(row_, Required(LORV_TYPE_BINARY)), Bytes{});
    EXPECT_EQ(session_.RefId(row_, Required(LORV_TYPE_REFERENCE)), Oid{0});
    EXPECT_EQ(session_.Reference(row_, Required(LORV_TYPE_REFERENCE))->oid, Oid{0});
    Restart();
  }
}

TEST_F(RowTest, EveryType_KeepsItsExtremes) {
  using Signed = std::numeric_limits<std::int64_t>;
  for (std::int64_t const value :
       {Signed::min(), std::int64_t{-1}, std::int64_t{0}, Signed::max()}) {
    session_.PutLong(row_, Nullable(LORV_TYPE_LONG), value);
    session_.PutDecimal(row_, Nullable(LORV_TYPE_DECIMAL), value);
    session_.PutULong(row_, Nullable(LORV_TYPE_ULONG), static_cast<std::uint64_t>(value));
    session_.PutULong(row_, Nullable(LORV_TYPE_KEY), static_cast<std::uint64_t>(value));
    Restart();
    EXPECT_EQ(session_.Long(row_, Nullable(LORV_TYPE_LONG)), value);
    EXPECT_EQ(session_.Decimal(row_, Nullable(LORV_TYPE_DECIMAL)), value);
    EXPECT_EQ(session_.ULong(row_, Nullable(LORV_TYPE_ULONG)), static_cast<std::uint64_t>(value));
    EXPECT_EQ(session_.ULong(row_, Nullable(LORV_TYPE_KEY)), static_cast<std::uint64_t>(value));
  }
}

TEST_F(RowTest, Floats_KeepTheirBits) {
  for (double const value : {-0.0, 1.5, -1e300, 5e-324, std::numeric_limits<double>::infinity()}) {
    session_.PutDouble(row_, Nullable(LORV_TYPE_DOUBLE), value);
    session_.PutFloat(row_, Nullable(LORV_TYPE_FLOAT), static_cast<float>(value));
    Restart();
    double const read = *session_.Double(row_, Nullable(LORV_TYPE_DOUBLE));
    EXPECT_EQ(std::bit_cast<std::uint64_t>(read), std::bit_cast<std::uint64_t>(value));
    EXPECT_EQ(session_.Float(row_, Nullable(LORV_TYPE_FLOAT)), static_cast<float>(value));
  }
  session_.PutDouble(row_, Nullable(LORV_TYPE_DOUBLE), std::nan(""));
  Restart();
  EXPECT_TRUE(std::isnan(*session_.Double(row_, Nullable(LORV_TYPE_DOUBLE))));
}

TEST_F(RowTest, Default_IsNullOrZero) {
  for (std::uint32_t const type : kTypes) {
    if (type == LORV_TYPE_LONG) session_.PutLong(row_, Nullable(type), 5);
    if (type == LORV_TYPE_LONG) session_.PutLong(row_, Required(type), 5);
    session_.PutDefault(row_, Nullable(type));
    session_.PutDefault(row_, Required(type));
  }
  EXPECT_FALSE(session_.Long(row_, Nullable(LORV_TYPE_LONG)));
  EXPECT_EQ(session_.Long(row_, Required(LORV_TYPE_LONG)), 0);
  Restart();
  EXPECT_FALSE(session_.Long(row_, Nullable(LORV_TYPE_LONG)));
  EXPECT_EQ(session_.Long(row_, Required(LORV_TYPE_LONG)), 0);
}

TEST_F(RowTest, NullTextBinaryOrReference_WritesNull) {
  session_.PutString(row_, Nullable(LORV_TYPE_STRING), u"text");
  session_.PutBinary(row_, Nullable(LORV_TYPE_BINARY), {1, 2});
  session_.PutReference(row_, Nullable(LORV_TYPE_REFERENCE), row_);
  Restart();
  EXPECT_STATUS(0,
                lorv_context_put_string(context(), row_, 0, Nullable(LORV_TYPE_STRING), nullptr));
  EXPECT_STATUS(
      0, lorv_context_put_binary(context(), row_, 0, Nullable(LORV_TYPE_BINARY), nullptr, 0));
  session_.PutReference(row_, Nullable(LORV_TYPE_REFERENCE), 0);
  for (int round = 0; round < 2; ++round) {
    EXPECT_FALSE(session_.String(row_, Nullable(LORV_TYPE_STRING)));
    EXPECT_FALSE(session_.Binary(row_, Nullable(LORV_TYPE_BINARY)));
    EXPECT_FALSE(session_.RefId(row_, Nullable(LORV_TYPE_REFERENCE)));
    Restart();
  }
}

TEST_F(RowTest, ColumnsWrittenOneByOne_KeepTheirNeighbours) {
  session_.PutLong(row_, Nullable(LORV_TYPE_LONG), 1);
  Restart();
  session_.PutString(row_, Nullable(LORV_TYPE_STRING), u"a");
  Restart();
  session_.PutBinary(row_, Required(LORV_TYPE_BINARY), {9});
  session_.PutString(row_, Nullable(LORV_TYPE_STRING), u"longer than before");
  Restart();
  session_.PutDefault(row_, Nullable(LORV_TYPE_LONG));
  session_.PutDouble(row_, Nullable(LORV_TYPE_DOUBLE), 2.5);
  Restart();
  EXPECT_FALSE(session_.Long(row_, Nullable(LORV_TYPE_LONG)));
  EXPECT_EQ(session_.String(row_, Nullable(LORV_TYPE_STRING)), u"longer than before");
  EXPECT_EQ(session_.Binary(row_, Required(LORV_TYPE_BINARY)), Bytes{9});
  EXPECT_EQ(session_.Double(row_, Nullable(LORV_TYPE_DOUBLE)), 2.5);
}

TEST_F(RowTest, ColumnZeroAndOne_AreIdentityAndSetSpecifier) {
  EXPECT_EQ(session_.ULong(row_, 0), row_);
  EXPECT_EQ(session_.String(row_, 1), kSet);
  EXPECT_EQ(session_.Setspec(row_), kSet);
  EXPECT_STATUS(LSCOREDB_WRONG_TYPE, lorv_context_put_ulong(context(), row_, 0, 0, 5));
  EXPECT_STATUS(LSCOREDB_WRONG_TYPE, lorv_context_put_string(context(), row_, 0, 1, u"x"));
  Restart();
  EXPECT_EQ(session_.ULong(row_, 0), row_);
  EXPECT_EQ(session_.String(row_, 1), kSet);
}

TEST_F(RowTest, NewRow_HasNoSetSpecifier) {
  Oid const bare = session_.InsertBare(layout_);
  EXPECT_FALSE(session_.Setspec(bare));
  EXPECT_FALSE(session_.String(bare, 1));
  Restart();
  EXPECT_FALSE(session_.Setspec(bare));
  session_.PutSetspec(bare, u"");
  EXPECT_EQ(session_.Setspec(bare), u"") << "an empty one is one";
}

// Calls every getter on one column and gives the numbers of those types that it took.
std::set<std::uint32_t> ReadableAs(std::uint64_t context, Oid oid, std::uint32_t column) {
  std::uint64_t word = 0;
  std::int64_t number = 0;
  float single = 0;
  double twice = 0;
  LORV_STRING* text = nullptr;
  LORV_BINARY* binary = nullptr;
  LORV_REFERENCE reference{};
  std::set<std::uint32_t> types;
  auto const note = [&](std::uint32_t type, std::uint32_t status) {
    if (status == LSCOREDB_WRONG_TYPE) return;
    EXPECT_STATUS(LORV_STATUS_NULL, status);
    types.insert(type);
  };
  note(LORV_TYPE_ULONG, lorv_context_get_ulong(context, oid, 0, column, &word));
  note(LORV_TYPE_LONG, lorv_context_get_long(context, oid, 0, column, &number));
  note(LORV_TYPE_DECIMAL, lorv_context_get_decimal(context, oid, 0, column, &number));
  note(LORV_TYPE_FLOAT, lorv_context_get_float(context, oid, 0, column, &single));
  note(LORV_TYPE_DOUBLE, lorv_context_get_double(context, oid, 0, column, &twice));
  note(LORV_TYPE_STRING, lorv_context_get_string(context, oid, 0, column, &text));
  note(LORV_TYPE_BINARY, lorv_context_get_binary(context, oid, 0, column, &binary));
  note(LORV_TYPE_REFERENCE, lorv_context_get_reference(context, oid, 0, column, &reference));
  std::uint32_t const by_refid = lorvi_context_get_refid(context, oid, 0, column, &word);
  EXPECT_EQ(by_refid != LSCOREDB_WRONG_TYPE, types.contains(LORV_TYPE_REFERENCE));
  return types;
}

std::set<std::uint32_t> WritableAs(std::uint64_t context, Oid oid, std::uint32_t column) {
  std::set<std::uint32_t> types;
  auto const note = [&](std::uint32_t type, std::uint32_t status) {
    if (status == LSCOREDB_WRONG_TYPE) return;
    EXPECT_STATUS(LORV_STATUS_OK, status);
    types.insert(type);
  };
  note(LORV_TYPE_ULONG, lorv_context_put_ulong(context, oid, 0, column, 1));
  note(LORV_TYPE_LONG, lorv_context_put_long(context, oid, 0, column, 1));
  note(LORV_TYPE_DECIMAL, lorv_context_put_decimal(context, oid, 0, column, 1));
  note(LORV_TYPE_FLOAT, lorv_context_put_float(context, oid, 0, column, 1));
  note(LORV_TYPE_DOUBLE, lorv_context_put_double(context, oid, 0, column, 1));
  note(LORV_TYPE_STRING, lorv_context_put_string(context, oid, 0, column, u"x"));
  note(LORV_TYPE_BINARY, lorv_context_put_binary(context, oid, 0, column, "x", 1));
  note(LORV_TYPE_REFERENCE, lorv_context_put_reference(context, oid, 0, column, oid, 0));
  return types;
}

TEST_F(RowTest, Column_IsReadAndWrittenOnlyAsItsOwnType) {
  for (std::uint32_t const type : kTypes) {
    std::uint32_t const as = type == LORV_TYPE_KEY ? LORV_TYPE_ULONG : type;
    EXPECT_EQ(ReadableAs(context(), row_, Nullable(type)), std::set{as}) << type;
    EXPECT_EQ(WritableAs(context(), row_, Nullable(type)), std::set{as}) << type;
  }
}

TEST_F(RowTest, Reference_NamesTheTargetsCurrentLayout) {
  Oid const target = session_.Insert(layout_);
  session_.PutReference(row_, Nullable(LORV_TYPE_REFERENCE), target);
  Restart();
  EXPECT_EQ(session_.Reference(row_, Nullable(LORV_TYPE_REFERENCE))->oid, target);
  EXPECT_EQ(session_.Reference(row_, Nullable(LORV_TYPE_REFERENCE))->layout, layout_);
  LayoutId const newer = session_.CreateLayout(50, {{LORV_TYPE_LONG, 100 + LORV_TYPE_LONG}});
  Check("move_object", lscoredb_move_object(context(), target, newer));
  EXPECT_EQ(session_.Reference(row_, Nullable(LORV_TYPE_REFERENCE))->layout, newer);
  EXPECT_EQ(session_.RefId(row_, Nullable(LORV_TYPE_REFERENCE)), target);
}

TEST_F(RowTest, ReferenceToADeletedObject_KeepsItsIdentityAndHasNoLayout) {
  Oid const target = session_.Insert(layout_);
  session_.PutReference(row_, Nullable(LORV_TYPE_REFERENCE), target);
  Restart();
  session_.Delete(target);
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(session_.Reference(row_, Nullable(LORV_TYPE_REFERENCE))->oid, target);
    EXPECT_EQ(session_.Reference(row_, Nullable(LORV_TYPE_REFERENCE))->layout, 0);
    EXPECT_EQ(session_.RefId(row_, Nullable(LORV_TYPE_REFERENCE)), target);
    Restart();
  }
}

TEST_F(RowTest, Lookup_GivesAnAddressThatEveryCallTakes) {
  session_.PutLong(row_, Nullable(LORV_TYPE_LONG), 5);
  for (int round = 0; round < 2; ++round) {
    std::uint64_t addr = 0;
    EXPECT_STATUS(0, lorv_context_lookup(context(), row_, &addr));
    EXPECT_EQ(addr & 0xFFFF, layout_);
    std::int64_t value = 0;
    EXPECT_STATUS(0,
                  lorv_context_get_long(context(), row_, addr, Nullable(LORV_TYPE_LONG), &value));
    EXPECT_EQ(value, 5);
    Restart();
  }
}

TEST_F(RowTest, UnknownObject_IsNoObject) {
  for (Oid const oid : {Oid{0}, row_ + 1000000, ~Oid{0}}) {
    std::uint64_t addr = 1234;
    std::int64_t value = 1234;
    LORV_STRING* text = nullptr;
    EXPECT_STATUS(LORV_STATUS_NO_OBJECT, lorv_context_lookup(context(), oid, &addr));
    EXPECT_STATUS(LORV_STATUS_NO_OBJECT, lorv_context_delete(context(), oid, layout_));
    EXPECT_STATUS(LORV_STATUS_NO_OBJECT, lorv_context_get_long(context(), oid, layout_, 4, &value));
    EXPECT_STATUS(LORV_STATUS_NO_OBJECT, lorv_context_put_long(context(), oid, layout_, 4, 1));
    EXPECT_STATUS(LORV_STATUS_NO_OBJECT, lorv_context_get_setspec(context(), oid, layout_, &text));
    EXPECT_STATUS(LORV_STATUS_NO_OBJECT, lorv_context_put_setspec(context(), oid, layout_, u"x"));
    EXPECT_EQ(addr, 1234U);
    EXPECT_EQ(value, 1234);
    EXPECT_EQ(text, nullptr);
  }
}

TEST_F(RowTest, ObjectDeletedByThisTransaction_IsUnreachableAndLaterGone) {
  Restart();
  session_.Delete(row_);
  std::int64_t value = 0;
  std::uint64_t addr = 0;
  LORV_STRING* text = nullptr;
  EXPECT_STATUS(LORV_STATUS_UNREACHABLE, lorv_context_get_long(context(), row_, 0, 4, &value));
  EXPECT_STATUS(LORV_STATUS_UNREACHABLE, lorv_context_put_long(context(), row_, 0, 4, 1));
  EXPECT_STATUS(LORV_STATUS_UNREACHABLE, lorv_context_get_setspec(context(), row_, 0, &text));
  EXPECT_STATUS(LORV_STATUS_UNREACHABLE, lorv_context_put_setspec(context(), row_, 0, u"x"));
  EXPECT_STATUS(LORV_STATUS_NO_OBJECT, lorv_context_lookup(context(), row_, &addr));
  EXPECT_STATUS(LORV_STATUS_NO_OBJECT, lorv_context_delete(context(), row_, 0));
  Restart();
  EXPECT_STATUS(LORV_STATUS_NO_OBJECT, lorv_context_get_long(context(), row_, 0, 4, &value));
  EXPECT_STATUS(LORV_STATUS_NO_OBJECT, lorv_context_lookup(context(), row_, &addr));
}

TEST_F(RowTest, InsertForSystemTables_IsAnInsert) {
  Oid oid = 0;
  EXPECT_STATUS(0, lorv_context_insert_system(context(), layout_, &oid));
  session_.PutSetspec(oid, kSet);
  session_.PutLong(oid, Nullable(LORV_TYPE_LONG), 5);
  Restart();
  EXPECT_EQ(session_.Long(oid, Nullable(LORV_TYPE_LONG)), 5);
  EXPECT_EQ(session_.LayoutOf(oid), layout_);
}

TEST_F(RowTest, ChosenId_IsTakenOnceAndNeverReused) {
  Oid const given = row_ + 100000;
  session_.InsertWithId(layout_, given);
  EXPECT_STATUS(LSCOREDB_ID_IN_USE, lorvi_context_insert_with_id(context(), layout_, given));
  EXPECT_STATUS(LSCOREDB_ID_IN_USE, lorvi_context_insert_with_id(context(), layout_, row_));
  Restart();
  EXPECT_TRUE(session_.Exists(given));
  EXPECT_STATUS(LSCOREDB_ID_IN_USE, lorvi_context_insert_with_id(context(), layout_, given));
  for (int i = 0; i < 2000; ++i) EXPECT_NE(session_.InsertBare(layout_), given);
}

TEST_F(RowTest, ChosenIdFarAhead_DoesNotStopTheOrdinaryOnes) {
  Oid const given = Oid{1} << 62;
  session_.InsertWithId(layout_, given);
  session_.InsertWithId(layout_, given + 5);
  Restart();
  std::set<Oid> ids{given, given + 5};
  for (int i = 0; i < 100; ++i) EXPECT_TRUE(ids.insert(session_.InsertBare(layout_)).second);
}

TEST_F(RowTest, IdZero_IsRefused) {
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, lorvi_context_insert_with_id(context(), layout_, 0));
}

TEST_F(RowTest, IdOfADeletedObject_IsNotReused) {
  Restart();
  session_.Delete(row_);
  Restart();
  EXPECT_STATUS(LSCOREDB_ID_GIVEN_OUT, lorvi_context_insert_with_id(context(), layout_, row_));
}

TEST_F(RowTest, RowOfHundredsOfColumns_KeepsTheFewThatAreWritten) {
  Columns columns;
  for (std::uint64_t i = 0; i < 600; ++i)
    columns.push_back({i % 3 == 0 ? LORV_TYPE_STRING : LORV_TYPE_LONG, 1000 + i, true});
  LayoutId const wide = session_.CreateLayout(51, columns);
  Oid const oid = session_.Insert(wide);
  session_.PutLong(oid, 601, -1);
  session_.PutString(oid, 2, u"first");
  session_.PutString(oid, 302, u"middle");
  Restart();
  EXPECT_EQ(session_.Long(oid, 601), -1);
  EXPECT_EQ(session_.String(oid, 2), u"first");
  EXPECT_EQ(session_.String(oid, 302), u"middle");
  EXPECT_FALSE(session_.Long(oid, 300));
  EXPECT_FALSE(session_.String(oid, 599));
}

TEST_F(RowTest, ManyRows_KeepTheirValues) {
  Oids rows;
  for (int i = 0; i < 3000; ++i) {
    rows.push_back(session_.Insert(layout_));
    session_.PutLong(rows.back(), Nullable(LORV_TYPE_LONG), i);
    session_.PutString(rows.back(), Nullable(LORV_TYPE_STRING),
                       Text(static_cast<std::size_t>(i % 50), u'x'));
  }
  Restart();
  for (std::size_t i = 0; i < rows.size(); ++i) {
    EXPECT_EQ(session_.Long(rows[i], Nullable(LORV_TYPE_LONG)), static_cast<std::int64_t>(i));
    EXPECT_EQ(session_.String(rows[i], Nullable(LORV_TYPE_STRING))->size(), i % 50);
  }
}

}  // namespace
}  // namespace lscoredb_test
