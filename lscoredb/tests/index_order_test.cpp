// The order of indexes: by every type of column, by several, backwards, and between bounds.

#include <algorithm>
#include <cmath>
#include <limits>

#include "kernel_test.h"

namespace lscoredb_test {
namespace {

constexpr std::uint32_t kColumn = 2;
constexpr std::uint64_t kToken = 100;

// One value of a column: how it is written to a row, and how a key names it.
struct Sample {
  Key key;
  std::function<void(Session&, Oid)> put;
};
using Samples = std::vector<Sample>;

Oids Reversed(Oids oids) {
  std::reverse(oids.begin(), oids.end());
  return oids;
}

class IndexOrderTest : public KernelTest {
 protected:
  void SetUp() override { session_.Begin(); }

  // `samples` rise. One ascending and one descending index have to hold them in order, null below
  // all, whether the rows are pending, committed or some of each.
  void ExpectOrder(std::uint32_t type, Samples samples) {
    LayoutId const layout = session_.CreateLayout(50, {{type, kToken}});
    IndexId const up = session_.CreateIndex(60, kSet, {{type, kToken}});
    IndexId const down =
        session_.CreateIndex(61, kSet, {{type, kToken}}, {.unique = false, .descending = 1});
    samples.insert(samples.begin(),
                   {Key().Null(), [](Session& s, Oid oid) { s.PutDefault(oid, kColumn); }});
    Oids rows(samples.size());
    // Every third row from the top, so that neither ids nor time of writing follow the order.
    for (std::size_t i = 0; i < samples.size(); ++i) {
      std::size_t const at = (samples.size() - 1 - i) * 3 % samples.size();
      std::size_t const position = samples.size() % 3 == 0 ? samples.size() - 1 - i : at;
      rows[position] = session_.Insert(layout);
      samples[position].put(session_, rows[position]);
      if (i == samples.size() / 2) {
        ExpectPartial(up, rows);
        Restart();
      }
    }
    ExpectRows(up, down, rows, samples);
    Restart();
    ExpectRows(up, down, rows, samples);
  }

 private:
  void ExpectPartial(IndexId up, Oids rows) {
    rows.erase(std::remove(rows.begin(), rows.end(), Oid{0}), rows.end());
    EXPECT_EQ(session_.Scan(up), rows);
  }

  void ExpectRows(IndexId up, IndexId down, Oids const& rows, Samples const& samples) {
    EXPECT_EQ(session_.Scan(up), rows);
    EXPECT_EQ(session_.ScanBack(up), Reversed(rows));
    EXPECT_EQ(session_.Scan(down), Reversed(rows));
    EXPECT_EQ(session_.ScanBack(down), rows);
    for (std::size_t i = 0; i < rows.size(); ++i) {
      SCOPED_TRACE(i);
      Key const& key = samples[i].key;
      EXPECT_EQ(session_.At(up, key), Oids{rows[i]});
      EXPECT_EQ(session_.At(down, key), Oids{rows[i]});
      Oids const from(rows.begin() + static_cast<std::ptrdiff_t>(i), rows.end());
      EXPECT_EQ(session_.Scan(up, key, Key()), from);
      EXPECT_EQ(session_.ScanBack(up, Key(), key), Reversed(from));
      EXPECT_EQ(session_.Scan(down, Key(), key), Reversed(from));
      EXPECT_EQ(session_.ScanBack(down, key, Key()), from);
    }
  }
};

template <typename Value, typename ToKey, typename Put>
Samples SamplesOf(std::vector<Value> const& values, ToKey to_key, Put put) {
  Samples samples;
  for (Value const& value : values)
    samples.push_back(
        {to_key(value), [=](Session& s, Oid oid) { (s.*put)(oid, kColumn, value, 0); }});
  return samples;
}

std::vector<std::int64_t> SignedValues() {
  using Limits = std::numeric_limits<std::int64_t>;
  return {Limits::min(), -1000000, -256, -1, 0, 1, 255, 256, 1000000, Limits::max()};
}

std::vector<std::uint64_t> UnsignedValues() {
  return {0, 1, 255, 256, 65536, std::uint64_t{1} << 63, ~std::uint64_t{0}};
}

Key UnsignedKey(std::uint64_t value) { return Key().Unsigned(value); }
Key SignedKey(std::int64_t value) { return Key().Long(value); }

TEST_F(IndexOrderTest, Longs_AreInNumericOrder) {
  ExpectOrder(LORV_TYPE_LONG, SamplesOf(SignedValues(), SignedKey, &Session::PutLong));
}

TEST_F(IndexOrderTest, Decimals_AreInNumericOrder) {
  ExpectOrder(LORV_TYPE_DECIMAL, SamplesOf(SignedValues(), SignedKey, &Session::PutDecimal));
}

TEST_F(IndexOrderTest, UnsignedNumbers_AreInNumericOrder) {
  ExpectOrder(LORV_TYPE_ULONG, SamplesOf(UnsignedValues(), UnsignedKey, &Session::PutULong));
}

TEST_F(IndexOrderTest, Keys_AreInNumericOrder) {
  ExpectOrder(LORV_TYPE_KEY, SamplesOf(UnsignedValues(), UnsignedKey, &Session::PutULong));
}

TEST_F(IndexOrderTest, Doubles_AreInNumericOrder) {
  double const infinity = std::numeric_limits<double>::infinity();
  ExpectOrder(LORV_TYPE_DOUBLE,
              SamplesOf(
                  std::vector<double>{-infinity, -1e300, -2.5, -5e-324, 0, 5e-324, 0.1, 2.5, 1e300,
                                      infinity, std::nan("")},
                  [](double value) { return Key().Double(value); }, &Session::PutDouble));
}

TEST_F(IndexOrderTest, Floats_AreInNumericOrder) {
  ExpectOrder(LORV_TYPE_FLOAT,
              SamplesOf(
                  std::vector<float>{-1e30F, -2.5F, 0, 0.1F, 2.5F, 1e30F},
                  [](float value) { return Key().Double(value); }, &Session::PutFloat));
}

TEST_F(IndexOrderTest, NegativeZero_IsFoundAsZero) {
  LayoutId const layout = session_.CreateLayout(50, {{LORV_TYPE_DOUBLE, kToken}});
  IndexId const index = session_.CreateIndex(60, kSet, {{LORV_TYPE_DOUBLE, kToken}});
  Oid const row = session_.Insert(layout);
  session_.PutDouble(row, kColumn, -0.0);
  EXPECT_EQ(session_.At(index, Key().Double(0.0)), Oids{row});
}

TEST_F(IndexOrderTest, References_AreInTheOrderOfTheirIds) {
  ExpectOrder(LORV_TYPE_REFERENCE,
              SamplesOf(std::vector<std::uint64_t>{1, 2, 300, ~std::uint64_t{0}}, UnsignedKey,
                        &Session::PutReference));
}

TEST_F(IndexOrderTest, Texts_AreInTheOrderOfTheirUnits) {
  std::vector<Text> texts{u"",         u"\x01",      u"A",    u"AA",    u"B",     u"a",
                          u"abcdefgh", u"abcdefghi", u"\xFF", u"\x100", u"\xFFFF"};
  texts.insert(texts.end() - 1, Text(1, char16_t{0xD800}));
  texts.insert(texts.end() - 1, Text{0xD800, 0xDC00});
  texts.insert(texts.end() - 1, Text(1, char16_t{0xDC00}));
  ExpectOrder(LORV_TYPE_STRING,
              SamplesOf(
                  texts, [](Text const& text) { return Key().Text(text); }, &Session::PutString));
}

TEST_F(IndexOrderTest, Binaries_AreInTheOrderOfTheirBytes) {
  std::vector<Bytes> const binaries{{},     {0}, {0, 0},       {0, 1}, {0, 255}, {1},       {1, 0},
                                    {1, 1}, {2}, Bytes(40, 3), {254},  {255},    {255, 255}};
  ExpectOrder(LORV_TYPE_BINARY,
              SamplesOf(
                  binaries, [](Bytes const& b) { return Key().Chunks(b); }, &Session::PutBinary));
}

// Rows of (number, text), the text descending.
class TwoColumnIndexTest : public KernelTest {
 protected:
  void SetUp() override {
    session_.Begin();
    layout_ = session_.CreateLayout(50, {{LORV_TYPE_LONG, 100}, {LORV_TYPE_STRING, 101}});
    index_ = session_.CreateIndex(60, kSet, {{LORV_TYPE_LONG, 100}, {LORV_TYPE_STRING, 101}},
                                  {.unique = false, .descending = 2});
  }

  Oid Row(std::int64_t number, Text const& text) {
    Oid const oid = session_.Insert(layout_);
    session_.PutLong(oid, 2, number);
    session_.PutString(oid, 3, text);
    return oid;
  }

  LayoutId layout_ = 0;
  IndexId index_ = 0;
};

TEST_F(TwoColumnIndexTest, FirstColumn_OrdersBeforeTheSecond) {
  Oid const b = Row(2, u"b");
  Oid const a = Row(2, u"a");
  Oid const first = Row(1, u"a");
  Oid const last = Row(3, u"z");
  EXPECT_EQ(session_.Scan(index_), (Oids{first, b, a, last}));
}

TEST_F(TwoColumnIndexTest, Bound_MayNameOnlyTheFirstColumn) {
  Oid const b = Row(2, u"b");
  Oid const a = Row(2, u"a");
  Row(1, u"x");
  Row(3, u"x");
  Oid const null = session_.Insert(layout_);
  session_.PutLong(null, 2, 2);
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(session_.At(index_, Key().Long(2)), (Oids{b, a, null}));
    EXPECT_EQ(session_.ScanBack(index_, Key().Long(2), Key().Long(2)), (Oids{null, a, b}));
    EXPECT_EQ(session_.Scan(index_, Key().Long(2).Text(u"a"), Key().Long(2)), (Oids{a, null}));
    EXPECT_EQ(session_.Scan(index_, Key().Long(2), Key().Long(2).Text(u"b")), Oids{b});
    Restart();
  }
}

TEST_F(TwoColumnIndexTest, Null_IsABoundLikeValues) {
  Oid const null = session_.Insert(layout_);
  Oid const one = Row(1, u"x");
  EXPECT_EQ(session_.At(index_, Key().Null()), Oids{null});
  EXPECT_EQ(session_.Scan(index_, Key().Null(), Key().Long(1)), (Oids{null, one}));
  EXPECT_EQ(session_.Scan(index_, Key().Long(-100), Key().Long(1)), Oids{one});
}

TEST_F(TwoColumnIndexTest, EmptyRangeAndReversedBounds_HoldNothing) {
  Row(1, u"x");
  Row(3, u"x");
  EXPECT_EQ(session_.At(index_, Key().Long(2)), Oids{});
  EXPECT_EQ(session_.Scan(index_, Key().Long(3), Key().Long(1)), Oids{});
  EXPECT_EQ(session_.ScanBack(index_, Key().Long(1), Key().Long(3)), Oids{});
}

TEST_F(TwoColumnIndexTest, TextsWithAPrefix_LieBetweenItsBounds) {
  Row(1, u"aa");
  Oid const ab = Row(1, u"ab");
  Oid const abc = Row(1, u"abc");
  Oid const top = Row(1, u"ab\xFFFF");
  Row(1, u"ac");
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(session_.Scan(index_, Key().Long(1).AboveTexts(u"ab"), Key().Long(1).Text(u"ab")),
              (Oids{top, abc, ab}));
    Restart();
  }
}

TEST_F(TwoColumnIndexTest, EqualKeys_ComeInTheOrderOfTheirIds) {
  Oids rows;
  for (int i = 0; i < 50; ++i) rows.push_back(Row(1, u"same"));
  Restart();
  for (int i = 0; i < 50; ++i) rows.push_back(Row(1, u"same"));
  std::sort(rows.begin(), rows.end());
  EXPECT_EQ(session_.At(index_, Key().Long(1).Text(u"same")), rows);
  EXPECT_EQ(session_.ScanBack(index_), Reversed(rows));
}

TEST_F(TwoColumnIndexTest, LastElementUnderAPrefix_IsFoundBackwards) {
  for (int i = 0; i < 300; ++i) Row(i, u"x");
  Restart();
  Oid const pending = Row(100, u"a");
  Scanner scanner(session_, index_, Key().Long(100), Key().Long(0), LORV_ITERATOR_REVERSE);
  EXPECT_EQ(scanner.Next(), pending);
}

}  // namespace
}  // namespace lscoredb_test
