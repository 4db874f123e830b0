// Texts of any length in indexes, also far beyond the longest key that the store itself takes.

#include <algorithm>
#include <random>

#include "kernel_test.h"

namespace lscoredb_test {
namespace {

constexpr std::uint32_t kText = 2;

class LongKeyTest : public KernelTest {
 protected:
  void SetUp() override {
    session_.Begin();
    layout_ = session_.CreateLayout(50, {{LORV_TYPE_STRING, 100}});
    up_ = session_.CreateIndex(60, kSet, {{LORV_TYPE_STRING, 100}});
    down_ = session_.CreateIndex(61, kSet, {{LORV_TYPE_STRING, 100}},
                                 {.unique = false, .descending = 1});
  }

  Oid Row(Text const& text) {
    Oid const oid = session_.Insert(layout_);
    session_.PutString(oid, kText, text);
    return oid;
  }

  // `rising` texts, written in a shuffled order, half of them in a transaction of their own.
  void ExpectOrder(std::vector<Text> const& rising) {
    std::vector<std::size_t> order(rising.size());
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::shuffle(order.begin(), order.end(), std::mt19937(7));
    Oids rows(rising.size());
    for (std::size_t i = 0; i < order.size(); ++i) {
      rows[order[i]] = Row(rising[order[i]]);
      if (i == order.size() / 2) Restart();
    }
    for (int round = 0; round < 2; ++round) {
      Oids reversed(rows.rbegin(), rows.rend());
      EXPECT_EQ(session_.Scan(up_), rows);
      EXPECT_EQ(session_.ScanBack(up_), reversed);
      EXPECT_EQ(session_.Scan(down_), reversed);
      EXPECT_EQ(session_.ScanBack(down_), rows);
      ExpectEachFound(rising, rows);
      Restart();
    }
  }

  void ExpectEachFound(std::vector<Text> const& rising, Oids const& rows) {
    for (std::size_t i = 0; i < rows.size(); ++i) {
      EXPECT_EQ(session_.At(up_, Key().Text(rising[i])), Oids{rows[i]}) << i;
      EXPECT_EQ(session_.At(down_, Key().Text(rising[i])), Oids{rows[i]}) << i;
    }
  }

  LayoutId layout_ = 0;
  IndexId up_ = 0;
  IndexId down_ = 0;
};

TEST_F(LongKeyTest, TextsOfAllLengths_StandInOrder) {
  std::vector<Text> texts;
  for (std::size_t const length :
       Sizes{0,   1,   31,  32,  62,  63,  100, 126, 127, 128, 168, 169,   170,
             171, 400, 480, 500, 505, 509, 510, 511, 512, 513, 600, 100000})
    texts.push_back(Text(length, u'x'));
  ExpectOrder(texts);
}

TEST_F(LongKeyTest, WideUnits_StandInOrder) {
  std::vector<Text> texts;
  for (std::size_t const length :
       Sizes{0, 1, 31, 32, 62, 63, 160, 165, 168, 169, 170, 171, 600, 100000})
    texts.push_back(Text(length, u'\xFFFF'));
  ExpectOrder(texts);
}

TEST_F(LongKeyTest, TextsThatDifferFarBehindTheStoresLimit_StandInOrder) {
  std::vector<Text> texts;
  for (char16_t const stem : {u'a', u'b'})
    for (std::size_t const length : Sizes{499, 500, 2000})
      for (char16_t last = u'a'; last < u'h'; ++last) texts.push_back(Text(length, stem) + last);
  std::sort(texts.begin(), texts.end());
  ExpectOrder(texts);
}

TEST_F(LongKeyTest, ManyTextsOfOneLongStem_StandInOrder) {
  std::vector<Text> texts;
  for (char16_t unit = 1; unit <= 500; ++unit) texts.push_back(Text(600, u's') + unit);
  ExpectOrder(texts);
}

TEST_F(LongKeyTest, EqualLongTexts_ComeInTheOrderOfTheirIds) {
  Oids rows;
  for (int i = 0; i < 40; ++i) {
    rows.push_back(Row(Text(900, u'q')));
    if (i == 20) Restart();
  }
  EXPECT_EQ(session_.At(up_, Key().Text(Text(900, u'q'))), rows);
  Restart();
  EXPECT_EQ(session_.At(up_, Key().Text(Text(900, u'q'))), rows);
}

TEST_F(LongKeyTest, Ranges_StartAndEndInsideALongStem) {
  std::vector<Text> texts;
  Oids rows;
  for (char16_t unit = u'a'; unit <= u'z'; ++unit) {
    texts.push_back(Text(700, u's') + unit);
    rows.push_back(Row(texts.back()));
  }
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(session_.Scan(up_, Key().Text(texts[5]), Key().Text(texts[9])),
              Oids(rows.begin() + 5, rows.begin() + 10));
    EXPECT_EQ(session_.Scan(up_, Key().Text(Text(700, u's')), Key().AboveTexts(Text(700, u's'))),
              rows);
    EXPECT_EQ(session_.Scan(up_, Key().Text(texts[20] + u"!"), Key()),
              Oids(rows.begin() + 21, rows.end()));
    EXPECT_EQ(session_.ScanBack(up_, Key().Text(texts[2]), Key()),
              (Oids{rows[2], rows[1], rows[0]}));
    Restart();
  }
}

TEST_F(LongKeyTest, LongText_LeavesTheIndexWithItsRow) {
  Oid const changed = Row(Text(5000, u'a'));
  Oid const deleted = Row(Text(5000, u'a') + u'b');
  Restart();
  session_.PutString(changed, kText, u"short");
  session_.Delete(deleted);
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(session_.Scan(up_), Oids{changed});
    EXPECT_EQ(session_.At(up_, Key().Text(Text(5000, u'a'))), Oids{});
    EXPECT_EQ(session_.At(up_, Key().Text(u"short")), Oids{changed});
    Restart();
  }
}

TEST_F(LongKeyTest, LongTextsAsSecondColumn_StandInOrder) {
  LayoutId const layout =
      session_.CreateLayout(51, {{LORV_TYPE_STRING, 200}, {LORV_TYPE_LONG, 201}});
  IndexId const index =
      session_.CreateIndex(62, u"pairs/", {{LORV_TYPE_STRING, 200}, {LORV_TYPE_LONG, 201}});
  Oids rows;
  for (int i = 0; i < 20; ++i) {
    rows.push_back(session_.Insert(layout, u"pairs/"));
    session_.PutString(rows.back(), 2, Text(800, i < 10 ? u'a' : u'b'));
    session_.PutLong(rows.back(), 3, i);
  }
  Restart();
  EXPECT_EQ(session_.Scan(index), rows);
  EXPECT_EQ(session_.At(index, Key().Text(Text(800, u'b'))), Oids(rows.begin() + 10, rows.end()));
  EXPECT_EQ(session_.At(index, Key().Text(Text(800, u'a')).Long(3)), Oids{rows[3]});
}

TEST_F(LongKeyTest, LongBinaries_AreIndexed) {
  LayoutId const layout = session_.CreateLayout(51, {{LORV_TYPE_BINARY, 200}});
  IndexId const index = session_.CreateIndex(62, u"blobs/", {{LORV_TYPE_BINARY, 200}});
  Oids rows;
  for (std::uint8_t const last : Bytes{0, 1, 2, 254, 255}) {
    Bytes bytes(2000, 0);
    bytes.push_back(last);
    rows.push_back(session_.Insert(layout, u"blobs/"));
    session_.PutBinary(rows.back(), 2, bytes);
  }
  Restart();
  EXPECT_EQ(session_.Scan(index), rows);
}

TEST_F(LongKeyTest, LongText_IsUniqueByItsLastUnit) {
  IndexId const unique = session_.CreateIndex(63, kSet, {{LORV_TYPE_STRING, 100}}, kUnique);
  Oid const first = Row(Text(3000, u'u') + u'a');
  Oid const second = Row(Text(3000, u'u') + u'b');
  Restart();
  Oid const third = session_.Insert(layout_);
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, lorv_context_put_string(session_.context(), third, 0, kText,
                                                                (Text(3000, u'u') + u'b').c_str()));
  session_.PutString(third, kText, Text(3000, u'u') + u'c');
  Restart();
  EXPECT_EQ(session_.Scan(unique), (Oids{first, second, third}));
}

TEST_F(LongKeyTest, SetSpecifiersOfAnyLength_CoverTheirObjects) {
  Text const prefix = Text(2000, u'p') + u'/';
  Oid const before = session_.Insert(layout_, (prefix + u"x/").c_str());
  session_.PutString(before, kText, u"1");
  Restart();
  IndexId const index = session_.CreateIndex(64, prefix, {{LORV_TYPE_STRING, 100}});
  IndexId const by_set = session_.CreateIndex(65, prefix, {{LORV_TYPE_STRING, LORV_TOKEN_SETSPEC}});
  Oid const after = session_.Insert(layout_, prefix.c_str());
  session_.PutString(after, kText, u"2");
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(session_.Scan(index), (Oids{before, after}));
    EXPECT_EQ(session_.Scan(by_set, Key().Setspec(prefix), Key().AboveSetspecs(prefix)),
              (Oids{after, before}));
    Restart();
  }
}

}  // namespace
}  // namespace lscoredb_test
