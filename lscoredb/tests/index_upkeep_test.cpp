// Which objects an index holds, and under which value, through all that may happen to them.

#include "kernel_test.h"

namespace lscoredb_test {
namespace {

constexpr std::uint32_t kNumber = 2;
constexpr std::uint64_t kNumberToken = 100;
constexpr std::uint64_t kExtraToken = 101;

class IndexUpkeepTest : public KernelTest {
 protected:
  void SetUp() override {
    session_.Begin();
    layout_ = session_.CreateLayout(50, {{LORV_TYPE_LONG, kNumberToken}});
  }

  std::uint64_t context() const { return session_.context(); }

  Oid Row(std::int64_t number, char16_t const* setspec = kSet) {
    Oid const oid = session_.Insert(layout_, setspec);
    session_.PutLong(oid, kNumber, number);
    return oid;
  }

  IndexId Index(Text const& setspec = kSet, IndexTraits traits = {}) {
    return session_.CreateIndex(60, setspec, {{LORV_TYPE_LONG, kNumberToken}}, traits);
  }

  void ExpectNowAndCommitted(IndexId index, Oids const& rows) {
    EXPECT_EQ(session_.Scan(index), rows) << "pending";
    Restart();
    EXPECT_EQ(session_.Scan(index), rows) << "committed";
  }

  LayoutId layout_ = 0;
};

TEST_F(IndexUpkeepTest, IndexCreatedBeforeTheRows_HoldsThem) {
  IndexId const index = Index();
  Restart();
  Oid const two = Row(2);
  Oid const one = Row(1);
  ExpectNowAndCommitted(index, {one, two});
}

TEST_F(IndexUpkeepTest, IndexCreatedAfterTheRows_HoldsThem) {
  Oid const three = Row(3);
  Oid const two = Row(2);
  Restart();
  Oid const one = Row(1);
  session_.PutLong(three, kNumber, 0);
  IndexId const index = Index();
  ExpectNowAndCommitted(index, {three, one, two});
}

TEST_F(IndexUpkeepTest, IndexCreatedAfterADelete_LacksTheRow) {
  Oid const gone = Row(3);
  Oid const kept = Row(2);
  Restart();
  session_.Delete(gone);
  IndexId const index = Index();
  ExpectNowAndCommitted(index, {kept});
}

TEST_F(IndexUpkeepTest, ChangedValue_MovesTheRow) {
  IndexId const index = Index();
  Oid const a = Row(1);
  Oid const b = Row(2);
  Restart();
  session_.PutLong(a, kNumber, 3);
  EXPECT_EQ(session_.At(index, Key().Long(1)), Oids{});
  EXPECT_EQ(session_.At(index, Key().Long(3)), Oids{a});
  ExpectNowAndCommitted(index, {b, a});
  session_.PutDefault(b, kNumber);
  ExpectNowAndCommitted(index, {b, a});
  EXPECT_EQ(session_.At(index, Key().Null()), Oids{b});
}

TEST_F(IndexUpkeepTest, ValueChangedThereAndBack_LeavesTheRow) {
  IndexId const index = Index();
  Oid const a = Row(1);
  Restart();
  session_.PutLong(a, kNumber, 9);
  session_.PutLong(a, kNumber, 1);
  EXPECT_EQ(session_.At(index, Key().Long(9)), Oids{});
  ExpectNowAndCommitted(index, {a});
  EXPECT_EQ(session_.At(index, Key().Long(1)), Oids{a});
}

TEST_F(IndexUpkeepTest, UnwrittenColumn_IsNullOrZero) {
  LayoutId const required = session_.CreateLayout(51, {{LORV_TYPE_LONG, kNumberToken, false}});
  IndexId const nulls = Index(u"nulls/");
  IndexId const zeros =
      session_.CreateIndex(61, u"zeros/", {{LORV_TYPE_LONG, kNumberToken, false}});
  Oid const null = session_.Insert(layout_, u"nulls/");
  Oid const zero = session_.Insert(required, u"zeros/");
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(session_.At(nulls, Key().Null()), Oids{null});
    EXPECT_EQ(session_.At(zeros, Key().Long(0)), Oids{zero});
    Restart();
  }
}

TEST_F(IndexUpkeepTest, UnwrittenRequiredText_IsIndexedAsEmpty) {
  LayoutId const required = session_.CreateLayout(51, {{LORV_TYPE_STRING, 200, false}});
  IndexId const index = session_.CreateIndex(61, u"texts/", {{LORV_TYPE_STRING, 200, false}});
  Oid const unwritten = session_.Insert(required, u"texts/");
  Oid const empty = session_.Insert(required, u"texts/");
  session_.PutString(empty, 2, u"");
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(session_.At(index, Key().Text(u"")), (Oids{unwritten, empty}));
    EXPECT_EQ(session_.At(index, Key().Null()), Oids{});
    Restart();
  }
}

TEST_F(IndexUpkeepTest, RowWithoutSetSpecifier_IsInNoIndex) {
  IndexId const all = Index(u"");
  Oid const bare = session_.InsertBare(layout_);
  session_.PutLong(bare, kNumber, 1);
  ExpectNowAndCommitted(all, {});
  session_.PutSetspec(bare, kSet);
  ExpectNowAndCommitted(all, {bare});
}

TEST_F(IndexUpkeepTest, Index_CoversSetSpecifiersThatBeginWithItsOwn) {
  Oid const child_before = Row(1, u"set/child/");
  Restart();
  IndexId const index = Index();
  IndexId const child_index =
      session_.CreateIndex(61, u"set/child/", {{LORV_TYPE_LONG, kNumberToken}});
  Oid const own = Row(2);
  Oid const grandchild = Row(3, u"set/child/grandchild/");
  Row(4, u"other/");
  Row(5, u"set");
  Row(6, u"");
  EXPECT_EQ(session_.Scan(child_index), (Oids{child_before, grandchild}));
  ExpectNowAndCommitted(index, {child_before, own, grandchild});
  EXPECT_EQ(session_.Scan(child_index), (Oids{child_before, grandchild}));
}

TEST_F(IndexUpkeepTest, IndexOverTheEmptyPrefix_CoversEverything) {
  Oid const a = Row(1, u"");
  Oid const b = Row(2, u"x");
  IndexId const index = Index(u"");
  Oid const c = Row(3, u"y/z");
  ExpectNowAndCommitted(index, {a, b, c});
}

TEST_F(IndexUpkeepTest, ChangedSetSpecifier_MovesARowBetweenIndexes) {
  IndexId const here = Index();
  IndexId const there = session_.CreateIndex(61, u"there/", {{LORV_TYPE_LONG, kNumberToken}});
  Oid const row = Row(1);
  Restart();
  session_.PutSetspec(row, u"there/");
  EXPECT_EQ(session_.Scan(here), Oids{});
  ExpectNowAndCommitted(there, {row});
  EXPECT_EQ(session_.Scan(here), Oids{});
  session_.PutSetspec(row, u"nowhere/");
  ExpectNowAndCommitted(there, {});
}

TEST_F(IndexUpkeepTest, ChangedSetSpecifier_MovesARowBetweenRanges) {
  IndexId const by_set = session_.CreateIndex(60, u"", {{LORV_TYPE_STRING, LORV_TOKEN_SETSPEC}});
  Oid const row = Row(1, u"a/");
  Oid const child = Row(2, u"a/b/");
  Row(3, u"c/");
  Restart();
  auto const under = [&](Text const& prefix) {
    return session_.Scan(by_set, Key().Setspec(prefix), Key().AboveSetspecs(prefix));
  };
  EXPECT_EQ(under(u"a/"), (Oids{row, child}));
  session_.PutSetspec(row, u"c/d/");
  EXPECT_EQ(under(u"a/"), Oids{child});
  Restart();
  EXPECT_EQ(under(u"a/"), Oids{child});
  EXPECT_EQ(under(u"c/d/"), Oids{row});
}

TEST_F(IndexUpkeepTest, IdentityAndSetSpecifier_CanBeIndexed) {
  IndexId const index = session_.CreateIndex(
      60, kSet, {{LORV_TYPE_STRING, LORV_TOKEN_SETSPEC}, {LORV_TYPE_ULONG, LORV_TOKEN_ID}});
  Oid const a = Row(1);
  Oid const b = Row(1);
  EXPECT_EQ(session_.At(index, Key().Setspec(kSet).Unsigned(b)), Oids{b});
  ExpectNowAndCommitted(index, {a, b});
}

TEST_F(IndexUpkeepTest, ObjectsUnderSupersededLayouts_AreIndexedByToken) {
  Oid const old = Row(5);
  Restart();
  LayoutId const newer =
      session_.CreateLayout(50, {{LORV_TYPE_LONG, kExtraToken}, {LORV_TYPE_LONG, kNumberToken}});
  IndexId const by_number = Index();
  IndexId const by_extra = session_.CreateIndex(61, kSet, {{LORV_TYPE_LONG, kExtraToken}});
  Oid const recent = session_.Insert(newer);
  session_.PutLong(recent, 2, 7);
  session_.PutLong(recent, 3, 1);
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(session_.Scan(by_number), (Oids{recent, old}));
    EXPECT_EQ(session_.At(by_number, Key().Long(5)), Oids{old});
    EXPECT_EQ(session_.At(by_extra, Key().Null()), Oids{old});
    EXPECT_EQ(session_.At(by_extra, Key().Long(7)), Oids{recent});
    Restart();
  }
  session_.PutLong(old, 2, 8, newer);
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(session_.At(by_extra, Key().Null()), Oids{});
    EXPECT_EQ(session_.At(by_extra, Key().Long(8)), Oids{old});
    EXPECT_EQ(session_.At(by_number, Key().Long(5)), Oids{old});
    Restart();
  }
}

TEST_F(IndexUpkeepTest, MissingColumnOfARequiredIndexColumn_CountsAsZero) {
  Oid const old = Row(5);
  IndexId const by_extra = session_.CreateIndex(61, kSet, {{LORV_TYPE_LONG, kExtraToken, false}});
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(session_.At(by_extra, Key().Long(0)), Oids{old});
    Restart();
  }
}

TEST_F(IndexUpkeepTest, DescendantsObject_IsIndexedByTheTokenOfItsBase) {
  LayoutId const derived = session_.CreateLayout(51, {{LORV_TYPE_STRING, 200}}, layout_);
  IndexId const index = Index();
  Oid const base = Row(2);
  Oid const child = session_.Insert(derived, u"set/derived/");
  session_.PutLong(child, kNumber, 1, layout_);
  ExpectNowAndCommitted(index, {child, base});
}

TEST_F(IndexUpkeepTest, Scan_NamesTheLayoutOfEachObject) {
  LayoutId const derived = session_.CreateLayout(51, {}, layout_);
  IndexId const index = Index();
  Row(1);
  session_.PutLong(session_.Insert(derived), kNumber, 2);
  Oid const moved = Row(3);
  Restart();
  Check("move_object", lscoredb_move_object(context(), moved, derived));
  for (int round = 0; round < 2; ++round) {
    {
      Scanner scanner(session_, index);
      EXPECT_EQ(scanner.NextReference().layout, layout_);
      EXPECT_EQ(scanner.NextReference().layout, derived);
      EXPECT_EQ(scanner.NextReference().layout, derived);
      EXPECT_EQ(scanner.Next(), 0U);
    }
    Restart();
  }
}

TEST_F(IndexUpkeepTest, DroppedIndex_IsUnknownAndItsRowsStay) {
  IndexId const index = Index();
  Oid const row = Row(1);
  Restart();
  session_.DropIndex(index);
  for (int round = 0; round < 2; ++round) {
    std::uint64_t iterator = 1234;
    auto const key = Key().Bytes();
    EXPECT_STATUS(LORV_STATUS_NO_INDEX,
                  lorv_context_create_iterator(context(), index, LORV_ITERATOR_FORWARD, key.data(),
                                               key.data(), &iterator));
    EXPECT_EQ(iterator, 1234U);
    EXPECT_STATUS(LORV_STATUS_NO_INDEX, lorvi_context_drop_index(context(), index));
    EXPECT_TRUE(session_.IndexesByToken(60).empty());
    session_.PutLong(row, kNumber, 2);
    Restart();
  }
  EXPECT_EQ(session_.Scan(Index()), Oids{row});
}

TEST_F(IndexUpkeepTest, IndexCreatedAndDroppedInOneTransaction_LeavesNoTrace) {
  Oid const row = Row(1);
  IndexId const first = Index();
  session_.DropIndex(first);
  IndexId const second = Index();
  EXPECT_EQ(session_.IndexesByToken(60), std::vector<IndexId>{second});
  ExpectNowAndCommitted(second, {row});
  EXPECT_EQ(session_.IndexesByToken(60), std::vector<IndexId>{second});
}

TEST_F(IndexUpkeepTest, Index_DescribesItself) {
  IndexId const index = session_.CreateIndex(
      60, u"set/\xD800", {{LORV_TYPE_LONG, kNumberToken}, {LORV_TYPE_STRING, 101}}, kUnique);
  IndexId const other = session_.CreateIndex(61, u"", {{LORV_TYPE_LONG, kNumberToken}});
  for (int round = 0; round < 2; ++round) {
    LORVI_INDEX_INFO info{};
    std::uint32_t count = 1;
    EXPECT_STATUS(0, lorvi_context_get_index_infos_by_token(context(), 60, &count, &info));
    EXPECT_EQ(count, 1U);
    EXPECT_EQ(info.index_id, index);
    EXPECT_EQ(info.token, 60U);
    EXPECT_EQ(info.attribute_count, 2);
    EXPECT_EQ(info.reserved, 0);
    EXPECT_EQ(info.flags, 1);
    char16_t const* setspec = nullptr;
    EXPECT_STATUS(0, lorvi_context_get_index_setspec(context(), index, &setspec));
    EXPECT_EQ(Text(setspec), Text(u"set/\xD800"));
    EXPECT_STATUS(0, lorvi_context_get_index_setspec(context(), other, &setspec));
    EXPECT_EQ(Text(setspec), u"");
    Restart();
  }
}

TEST_F(IndexUpkeepTest, UnusedFlags_AreKeptForTheirOwner) {
  IndexId index = 0;
  EXPECT_STATUS(0, lorvi_context_create_index(context(), 60, kSet, Definitions({}).data(), 0,
                                              0xA0B1, &index));
  for (int round = 0; round < 2; ++round) {
    LORVI_INDEX_INFO info{};
    std::uint32_t count = 1;
    EXPECT_STATUS(0, lorvi_context_get_index_infos_by_token(context(), 60, &count, &info));
    EXPECT_EQ(info.flags, 0xA0B1);
    Restart();
  }
}

TEST_F(IndexUpkeepTest, SeveralIndexes_MayShareAToken) {
  IndexId const first = Index();
  Restart();
  IndexId const second = Index(u"elsewhere/");
  for (int round = 0; round < 2; ++round) {
    std::vector<IndexId> const found = session_.IndexesByToken(60);
    EXPECT_EQ(found, (std::vector<IndexId>{second, first})) << "newest first";
    LORVI_INDEX_INFO info{};
    std::uint32_t count = 1;
    EXPECT_STATUS(0, lorvi_context_get_index_infos_by_token(context(), 60, &count, &info));
    EXPECT_EQ(count, 2U);
    EXPECT_EQ(info.index_id, second);
    Restart();
  }
}

TEST_F(IndexUpkeepTest, IndexWithoutColumns_HoldsItsSetInTheOrderOfIds) {
  Oid const before = Row(9);
  IndexId const index = session_.CreateIndex(60, kSet, {});
  Oid const after = Row(1);
  ExpectNowAndCommitted(index, {before, after});
}

TEST_F(IndexUpkeepTest, LargeSet_IsIndexedAtOnce) {
  for (int i = 0; i < 3000; ++i) Row(i % 100);
  Restart();
  for (int i = 0; i < 100; ++i) Row(i);
  IndexId const index = Index();
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(session_.Scan(index).size(), 3100U);
    EXPECT_EQ(session_.At(index, Key().Long(42)).size(), 31U);
    Restart();
  }
}

}  // namespace
}  // namespace lscoredb_test
