#include <lscoredb/refused_key.h>

#include <cstddef>

#include "named_numbers.h"

namespace lscoredb_test {
namespace {

class UniqueTest : public KernelTest {
 protected:
  void SetUp() override {
    session_.Begin();
    layout_ = CreateNamedNumbers(session_);
    unique_ = session_.CreateIndex(60, kSet, {{LORV_TYPE_LONG, kNumberToken}}, kUnique);
    Restart();
  }

  Oid Row(std::int64_t number, char16_t const* setspec = kSet) {
    Oid const oid = session_.Insert(layout_, setspec);
    session_.PutLong(oid, kNumber, number);
    return oid;
  }

  std::uint32_t TryPut(Oid oid, std::int64_t number) {
    return lorv_context_put_long(session_.context(), oid, 0, kNumber, number);
  }

  static lscoredb_refused_key RefusedOf(Session const& session) {
    lscoredb_refused_key refused{};
    refused.size = sizeof refused;
    EXPECT_STATUS(0, lscoredb_refused(session.context(), &refused));
    return refused;
  }
  void ExpectRefused(lscoredb_refused_key const& refused, Oid object, Oid holder,
                     std::int64_t number) {
    EXPECT_EQ(refused.index, unique_);
    EXPECT_EQ(refused.object, object);
    EXPECT_EQ(refused.holder, holder);
    auto const* const key = static_cast<std::uint8_t const*>(refused.key);
    EXPECT_EQ(std::vector<std::uint8_t>(key, key + refused.key_size), Key().Long(number).Bytes());
  }

  Oids At(std::int64_t number) { return session_.At(unique_, Key().Long(number)); }

  // The commit fails, and the index holds what it held before.
  void ExpectCommitRefused(Oids const& kept) {
    EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, session_.TryCommit());
    EXPECT_STATUS(LSCOREDB_NO_TRANSACTION, lscoredb_rollback(session_.context()));
    session_.Begin();
    EXPECT_EQ(session_.Scan(unique_), kept);
  }

  LayoutId layout_ = 0;
  IndexId unique_ = 0;
};

TEST_F(UniqueTest, DuplicateOfACommittedRow_IsRefusedByTheWrite) {
  Oid const first = Row(1);
  Restart();
  Oid const second = Row(2);
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, TryPut(second, 1));
  EXPECT_EQ(session_.Long(second, kNumber), 2);
  EXPECT_EQ(session_.Scan(unique_), (Oids{first, second}));
  session_.Commit();
}

TEST_F(UniqueTest, DuplicateOfAPendingRow_IsRefusedByTheWrite) {
  Oid const first = Row(1);
  Oid const second = session_.Insert(layout_);
  session_.PutString(second, kName, u"kept");
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, TryPut(second, 1));
  EXPECT_FALSE(session_.Long(second, kNumber));
  EXPECT_EQ(session_.String(second, kName), u"kept");
  EXPECT_EQ(At(1), Oids{first});
  session_.Commit();
}

TEST_F(UniqueTest, RefusedWrite_DoesNotMoveTheRowToItsNewLayout) {
  Row(1);
  Oid const second = Row(2);
  Restart();
  LayoutId const newer = session_.CreateLayout(50, {{LORV_TYPE_LONG, kNumberToken}});
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY,
                lorv_context_put_long(session_.context(), second, newer, 2, 1));
  EXPECT_EQ(session_.LayoutOf(second), layout_);
  EXPECT_EQ(session_.Long(second, kNumber), 2);
}

TEST_F(UniqueTest, Row_MayBeWrittenItsOwnValueAgain) {
  Oid const row = Row(1);
  EXPECT_STATUS(0, TryPut(row, 1));
  Restart();
  EXPECT_STATUS(0, TryPut(row, 1));
  Restart();
  EXPECT_EQ(At(1), Oids{row});
}

TEST_F(UniqueTest, Null_CollidesWithNothing) {
  Oids rows;
  for (int i = 0; i < 3; ++i) rows.push_back(session_.Insert(layout_));
  session_.PutDefault(rows[0], kNumber);
  Restart();
  EXPECT_EQ(session_.At(unique_, Key().Null()), rows);
}

TEST_F(UniqueTest, OneNullColumnOfSeveral_CollidesWithNothing) {
  session_.CreateIndex(61, kSet, {{LORV_TYPE_STRING, kNameToken}, {LORV_TYPE_LONG, 999}}, kUnique);
  session_.PutString(Row(1), kName, u"same");
  session_.PutString(Row(2), kName, u"same");
  session_.Commit();
}

TEST_F(UniqueTest, SeveralColumns_CollideOnlyTogether) {
  IndexId const pair = session_.CreateIndex(
      61, u"pairs/", {{LORV_TYPE_STRING, kNameToken}, {LORV_TYPE_LONG, kNumberToken}}, kUnique);
  Oid const a = Row(1, u"pairs/");
  Oid const b = Row(2, u"pairs/");
  session_.PutString(a, kName, u"x");
  session_.PutString(b, kName, u"x");
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, TryPut(b, 1));
  session_.PutString(b, kName, u"y");
  EXPECT_STATUS(0, TryPut(b, 1));
  Restart();
  EXPECT_EQ(session_.Scan(pair), (Oids{a, b}));
}

TEST_F(UniqueTest, UnwrittenRequiredColumnOfANewRow_CollidesWithNothingYet) {
  LayoutId const required = session_.CreateLayout(51, {{LORV_TYPE_LONG, kNumberToken, false}});
  Oid const zero = Row(0);
  Restart();
  Oid const fresh = session_.Insert(required);
  Oid const fresh_too = session_.Insert(required);
  EXPECT_STATUS(0, TryPut(fresh, 5));
  EXPECT_STATUS(0, TryPut(fresh_too, 6));
  Restart();
  EXPECT_EQ(session_.Scan(unique_), (Oids{zero, fresh, fresh_too}));
}

TEST_F(UniqueTest, UnwrittenRequiredColumn_IsZeroAtTheCommit) {
  LayoutId const required = session_.CreateLayout(51, {{LORV_TYPE_LONG, kNumberToken, false}});
  IndexId const strict =
      session_.CreateIndex(61, u"strict/", {{LORV_TYPE_LONG, kNumberToken, false}}, kUnique);
  Oid const zero = session_.Insert(required, u"strict/");
  Restart();
  EXPECT_EQ(session_.At(strict, Key().Long(0)), Oids{zero});
  session_.Insert(required, u"strict/");
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, session_.TryCommit());
  session_.Begin();
  EXPECT_EQ(session_.Scan(strict), Oids{zero});
}

TEST_F(UniqueTest, Key_IsFreeAgainWhenItsRowIsChangedDeletedOrMoved) {
  Oid const a = Row(1);
  Oid const b = Row(2);
  Oid const c = Row(3);
  Restart();
  session_.PutLong(a, kNumber, 10);
  session_.Delete(b);
  session_.PutSetspec(c, u"elsewhere/");
  Oids rows;
  for (int i = 1; i <= 3; ++i) rows.push_back(Row(i));
  rows.push_back(a);
  Restart();
  EXPECT_EQ(session_.Scan(unique_), rows);
}

TEST_F(UniqueTest, WholeCoverageOfTheIndex_IsUnique) {
  Row(1);
  Oid const child = Row(2, u"set/child/");
  Row(1, u"elsewhere/");
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, TryPut(child, 1));
  session_.Commit();
}

TEST_F(UniqueTest, SetSpecifierThatBringsADuplicate_IsRefused) {
  Row(1);
  Oid const other = Row(1, u"elsewhere/");
  Restart();
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY,
                lorv_context_put_setspec(session_.context(), other, 0, kSet));
  EXPECT_EQ(session_.Setspec(other), u"elsewhere/");
  session_.Commit();
}

TEST_F(UniqueTest, Duplicates_MayPassWhileAScanIsOpen) {
  Oids rows;
  for (int i = 0; i < 20; ++i) rows.push_back(Row(i));
  Restart();
  {
    Scanner scanner(session_, unique_);
    Oids seen;
    for (Oid oid = scanner.Next(); oid != 0; oid = scanner.Next()) {
      EXPECT_STATUS(0, TryPut(oid, *session_.Long(oid, kNumber) + 1));
      seen.push_back(oid);
    }
    EXPECT_EQ(seen, rows);
  }
  Restart();
  EXPECT_EQ(session_.Scan(unique_), rows);
  EXPECT_EQ(At(20), Oids{rows[19]});
}

TEST_F(UniqueTest, DuplicateLeftByAScan_IsRefusedByTheCommit) {
  Oid const a = Row(1);
  Oid const b = Row(2);
  Restart();
  {
    Scanner scanner(session_, unique_);
    EXPECT_STATUS(0, TryPut(a, 2));
  }
  ExpectCommitRefused({a, b});
  EXPECT_EQ(session_.Long(a, kNumber), 1);
}

TEST_F(UniqueTest, DuplicateAmongNewRowsLeftByAScan_IsRefusedByTheCommit) {
  {
    Scanner scanner(session_, unique_);
    Row(1);
    Row(1);
  }
  ExpectCommitRefused({});
}

TEST_F(UniqueTest, DuplicateMadeByTwoTransactions_IsRefusedByTheSecondCommit) {
  Session other(database_);
  other.Begin();
  other.PutLong(other.Insert(layout_), kNumber, 1);
  Oid const first = Row(1);
  session_.Commit();
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, other.TryCommit());
  session_.Begin();
  EXPECT_EQ(session_.Scan(unique_), Oids{first});
}

TEST_F(UniqueTest, RefusedCommit_ReportsItsKeyUntilTheNextTransaction) {
  Session other(database_);
  other.Begin();
  Oid const second = other.Insert(layout_);
  other.PutLong(second, kNumber, 7);
  Oid const first = Row(7);
  session_.Commit();
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, other.TryCommit());
  ExpectRefused(RefusedOf(other), second, first, 7);
  ExpectRefused(RefusedOf(other), second, first, 7);
  lscoredb_refused_key none{};
  none.size = sizeof none;
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, lscoredb_refused(session_.context(), &none));
  other.Begin();
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, lscoredb_refused(other.context(), &none));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_refused(other.context(), nullptr));
  EXPECT_STATUS(LSCOREDB_UNKNOWN_CONTEXT, lscoredb_refused(0, &none));
  EXPECT_EQ(none.index, 0U);
  session_.Begin();
}

TEST_F(UniqueTest, RefusedKey_FillsAnOlderStructAsFarAsItGoes) {
  {
    Scanner scanner(session_, unique_);
    Row(3);
    Row(3);
  }
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, session_.TryCommit());
  lscoredb_refused_key refused{};
  refused.size = offsetof(lscoredb_refused_key, holder);
  EXPECT_STATUS(0, lscoredb_refused(session_.context(), &refused));
  EXPECT_EQ(refused.index, unique_);
  EXPECT_NE(refused.object, 0U);
  EXPECT_EQ(refused.holder, 0U);
  EXPECT_EQ(refused.key, nullptr);
  refused.size = 0;
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, lscoredb_refused(session_.context(), &refused));
  lscoredb_refused_key const whole = RefusedOf(session_);
  EXPECT_NE(whole.object, whole.holder);
  ExpectRefused(whole, whole.object, whole.holder, 3);
}

TEST_F(UniqueTest, KeyTakenOverFromAMovedRow_MayCommit) {
  Oid const row = Row(1);
  Restart();
  session_.PutLong(row, kNumber, 2);
  session_.Commit();
  Session other(database_);
  other.Begin();
  other.PutLong(other.Insert(layout_), kNumber, 1);
  other.Commit();
  session_.Begin();
  EXPECT_EQ(session_.Scan(unique_).size(), 2U);
}

TEST_F(UniqueTest, IndexOverDuplicates_IsNotCreated) {
  Row(1, u"other/");
  Row(1, u"other/");
  IndexId index = 1234;
  for (int round = 0; round < 2; ++round) {
    EXPECT_STATUS(
        LSCOREDB_DUPLICATE_KEY,
        session_.TryCreateIndex(61, u"other/", {{LORV_TYPE_LONG, kNumberToken}}, kUnique, &index));
    EXPECT_EQ(index, 1234U);
    EXPECT_TRUE(session_.IndexesByToken(61).empty());
    Restart();
  }
}

TEST_F(UniqueTest, IndexOverDistinctRows_IsCreatedAndKeepsThemDistinct) {
  Oid const a = Row(1, u"other/");
  Oid const b = Row(2, u"other/");
  session_.InsertBare(layout_);
  IndexId const index =
      session_.CreateIndex(61, u"other/", {{LORV_TYPE_LONG, kNumberToken}}, kUnique);
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, TryPut(b, 1));
  Restart();
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, TryPut(b, 1));
  EXPECT_EQ(session_.Scan(index), (Oids{a, b}));
}

TEST_F(UniqueTest, Texts_CollideByEveryUnit) {
  session_.CreateIndex(61, kSet, {{LORV_TYPE_STRING, kNameToken}}, kUnique);
  Oid const a = Row(1);
  Oid const b = Row(2);
  session_.PutString(a, kName, u"Name");
  session_.PutString(b, kName, u"name");
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY,
                lorv_context_put_string(session_.context(), b, 0, kName, u"Name"));
  session_.PutString(b, kName, u"Nam");
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY,
                lorv_context_put_string(session_.context(), b, 0, kName, u"Name"));
  session_.PutString(b, kName, u"");
  session_.Commit();
}

TEST_F(UniqueTest, DroppedUniqueIndex_RefusesNothing) {
  Row(1);
  Oid const second = Row(2);
  session_.DropIndex(unique_);
  EXPECT_STATUS(0, TryPut(second, 1));
  session_.Commit();
}

}  // namespace
}  // namespace lscoredb_test
