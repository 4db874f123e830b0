#include "kernel_test.h"

namespace lscoredb_test {
namespace {

constexpr std::uint32_t kBalance = 2;
constexpr std::uint64_t kBalanceToken = 100;
constexpr std::uint64_t kAccountToken = 50;
constexpr std::uint64_t kByBalanceToken = 60;

// Two contexts on one table of accounts, an index over its balance, and one committed account.
class TransactionTest : public KernelTest {
 protected:
  void SetUp() override {
    session_.Begin();
    layout_ = session_.CreateLayout(kAccountToken, {{LORV_TYPE_LONG, kBalanceToken}});
    by_balance_ = session_.CreateIndex(kByBalanceToken, kSet, {{LORV_TYPE_LONG, kBalanceToken}});
    account_ = NewAccount(session_, 100);
    session_.Commit();
  }

  Oid NewAccount(Session& session, std::int64_t balance) const {
    Oid const oid = session.Insert(layout_);
    session.PutLong(oid, kBalance, balance);
    return oid;
  }

  void BeginBoth() {
    session_.Begin();
    other_.Begin();
  }

  Session other_{database_};
  LayoutId layout_ = 0;
  IndexId by_balance_ = 0;
  Oid account_ = 0;
};

TEST_F(TransactionTest, Context_CarriesOneTransactionAtATime) {
  EXPECT_STATUS(LSCOREDB_NO_TRANSACTION, lscoredb_commit(session_.context()));
  EXPECT_STATUS(LSCOREDB_NO_TRANSACTION, lscoredb_rollback(session_.context()));
  session_.Begin();
  EXPECT_STATUS(LSCOREDB_TRANSACTION_OPEN, lscoredb_begin(session_.context(), 0));
  EXPECT_EQ(session_.Long(account_, kBalance), 100) << "the open transaction goes on";
  session_.Commit();
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, lscoredb_begin(session_.context(), 2));
  EXPECT_STATUS(LSCOREDB_NO_TRANSACTION, lscoredb_commit(session_.context()));
}

TEST_F(TransactionTest, OwnWrites_AreSeenAtOnceAndOthersOnlyAfterCommit) {
  BeginBoth();
  session_.PutLong(account_, kBalance, 7);
  Oid const added = NewAccount(session_, 8);
  EXPECT_EQ(session_.Long(account_, kBalance), 7);
  EXPECT_EQ(session_.Scan(by_balance_), (Oids{account_, added}));
  EXPECT_EQ(other_.Long(account_, kBalance), 100);
  EXPECT_FALSE(other_.Exists(added));
  EXPECT_EQ(other_.Scan(by_balance_), Oids{account_});
}

TEST_F(TransactionTest, Transaction_ReadsTheDatabaseAsItWasAtItsBegin) {
  BeginBoth();
  session_.PutLong(account_, kBalance, 7);
  Oid const added = NewAccount(session_, 8);
  session_.Commit();
  EXPECT_EQ(other_.Long(account_, kBalance), 100);
  EXPECT_FALSE(other_.Exists(added));
  EXPECT_EQ(other_.Scan(by_balance_, Key().Long(100), Key().Long(100)), Oids{account_});
  EXPECT_EQ(other_.Scan(by_balance_, Key().Long(0), Key().Long(50)), Oids{});
  other_.Commit();
  other_.Begin();
  EXPECT_EQ(other_.Long(account_, kBalance), 7);
  EXPECT_EQ(other_.Scan(by_balance_), (Oids{account_, added}));
}

TEST_F(TransactionTest, DeletedRow_StaysInOlderSnapshots) {
  BeginBoth();
  session_.Delete(account_);
  session_.Commit();
  EXPECT_EQ(other_.Long(account_, kBalance), 100);
  EXPECT_EQ(other_.Scan(by_balance_), Oids{account_});
  other_.Rollback();
  other_.Begin();
  EXPECT_FALSE(other_.Exists(account_));
  EXPECT_EQ(other_.Scan(by_balance_), Oids{});
}

TEST_F(TransactionTest, Snapshot_OutlivesManyLaterCommits) {
  other_.BeginReadOnly();
  for (int i = 0; i < 100; ++i) {
    session_.Begin();
    session_.PutLong(account_, kBalance, i);
    NewAccount(session_, i);
    session_.Commit();
  }
  EXPECT_EQ(other_.Long(account_, kBalance), 100);
  EXPECT_EQ(other_.Scan(by_balance_), Oids{account_});
}

TEST_F(TransactionTest, LayoutsAndIndexes_AreInvisibleUntilCommitAndToOlderSnapshots) {
  BeginBoth();
  LayoutId const layout = session_.CreateLayout(51, {{LORV_TYPE_LONG, 101}});
  IndexId const index = session_.CreateIndex(61, kSet, {{LORV_TYPE_LONG, kBalanceToken}});
  auto const expect_invisible = [&] {
    LORVI_LAYOUT_INFO info{};
    Oid oid = 0;
    EXPECT_STATUS(LSCOREDB_UNKNOWN_LAYOUT,
                  lorvi_context_get_layout_info(other_.context(), layout, &info));
    EXPECT_STATUS(LSCOREDB_UNKNOWN_LAYOUT, lorv_context_insert(other_.context(), layout, &oid));
    EXPECT_TRUE(other_.LayoutsByToken(51).empty());
    EXPECT_TRUE(other_.IndexesByToken(61).empty());
    EXPECT_STATUS(LORV_STATUS_NO_INDEX, lorvi_context_drop_index(other_.context(), index));
  };
  expect_invisible();
  session_.Commit();
  expect_invisible();
  other_.Rollback();
  other_.Begin();
  EXPECT_EQ(other_.LayoutsByToken(51), std::vector<LayoutId>{layout});
  EXPECT_EQ(other_.IndexesByToken(61), std::vector<IndexId>{index});
}

TEST_F(TransactionTest, TwoWritersOfOneRow_SecondCommitFailsAndLeavesNothing) {
  BeginBoth();
  session_.PutLong(account_, kBalance, 1);
  other_.PutLong(account_, kBalance, 2);
  Oid const added = NewAccount(other_, 3);
  LayoutId const layout = other_.CreateLayout(51, {});
  session_.Commit();
  EXPECT_STATUS(LSCOREDB_CONFLICT, other_.TryCommit());
  EXPECT_STATUS(LSCOREDB_NO_TRANSACTION, lscoredb_rollback(other_.context()));
  other_.Begin();
  EXPECT_EQ(other_.Long(account_, kBalance), 1);
  EXPECT_FALSE(other_.Exists(added));
  EXPECT_TRUE(other_.LayoutsByToken(51).empty());
  EXPECT_EQ(other_.Scan(by_balance_), Oids{account_});
  LORVI_LAYOUT_INFO info{};
  EXPECT_STATUS(LSCOREDB_UNKNOWN_LAYOUT,
                lorvi_context_get_layout_info(other_.context(), layout, &info));
}

TEST_F(TransactionTest, OrderOfCommits_DecidesAndNotThatOfTheWrites) {
  BeginBoth();
  session_.PutLong(account_, kBalance, 1);
  other_.PutLong(account_, kBalance, 2);
  other_.Commit();
  EXPECT_STATUS(LSCOREDB_CONFLICT, session_.TryCommit());
  session_.Begin();
  EXPECT_EQ(session_.Long(account_, kBalance), 2);
}

TEST_F(TransactionTest, Deletes_ConflictWithWritesAndWithDeletes) {
  using Change = std::function<void(Session&, Oid)>;
  Change const write = [](Session& s, Oid oid) { s.PutLong(oid, kBalance, 5); };
  Change const erase = [](Session& s, Oid oid) { s.Delete(oid); };
  Change const move = [](Session& s, Oid oid) { s.PutSetspec(oid, u"set/elsewhere/"); };
  for (auto const& [first, second] : std::vector<std::pair<Change, Change>>{
           {write, erase}, {erase, write}, {erase, erase}, {move, write}, {write, move}}) {
    session_.Begin();
    Oid const row = NewAccount(session_, 1);
    session_.Commit();
    BeginBoth();
    first(session_, row);
    second(other_, row);
    session_.Commit();
    EXPECT_STATUS(LSCOREDB_CONFLICT, other_.TryCommit());
  }
}

TEST_F(TransactionTest, WritersOfDifferentRows_BothCommit) {
  session_.Begin();
  Oid const second = NewAccount(session_, 200);
  session_.Commit();
  BeginBoth();
  session_.PutLong(account_, kBalance, 1);
  other_.PutLong(second, kBalance, 2);
  NewAccount(session_, 3);
  NewAccount(other_, 4);
  session_.Commit();
  other_.Commit();
  session_.Begin();
  EXPECT_EQ(session_.Long(account_, kBalance), 1);
  EXPECT_EQ(session_.Long(second, kBalance), 2);
  EXPECT_EQ(session_.Scan(by_balance_).size(), 4U);
}

TEST_F(TransactionTest, ReadingARowThatAnotherChanges_IsNoConflict) {
  BeginBoth();
  session_.PutLong(account_, kBalance, 1);
  EXPECT_EQ(other_.Long(account_, kBalance), 100);
  NewAccount(other_, 5);
  session_.Commit();
  other_.Commit();
}

TEST_F(TransactionTest, Rollback_UndoesRowsLayoutsAndIndexes) {
  session_.Begin();
  session_.PutLong(account_, kBalance, 1);
  Oid const added = NewAccount(session_, 2);
  session_.CreateLayout(51, {});
  session_.CreateIndex(61, kSet, {{LORV_TYPE_LONG, kBalanceToken}});
  session_.DropIndex(by_balance_);
  EXPECT_TRUE(session_.IndexesByToken(kByBalanceToken).empty());
  session_.Rollback();
  session_.Begin();
  EXPECT_EQ(session_.Long(account_, kBalance), 100);
  EXPECT_FALSE(session_.Exists(added));
  EXPECT_TRUE(session_.LayoutsByToken(51).empty());
  EXPECT_TRUE(session_.IndexesByToken(61).empty());
  EXPECT_EQ(session_.Scan(by_balance_), Oids{account_});
}

TEST_F(TransactionTest, Rollback_UndoesADelete) {
  session_.Begin();
  session_.Delete(account_);
  session_.Rollback();
  session_.Begin();
  EXPECT_EQ(session_.Long(account_, kBalance), 100);
  EXPECT_EQ(session_.Scan(by_balance_), Oids{account_});
}

TEST_F(TransactionTest, NumbersOfARolledBackTransaction_AreNotReused) {
  session_.Begin();
  Oid const oid = NewAccount(session_, 1);
  LayoutId const layout = session_.CreateLayout(51, {});
  IndexId const index = session_.CreateIndex(61, kSet, {});
  session_.Rollback();
  session_.Begin();
  for (int i = 0; i < 300; ++i) EXPECT_NE(NewAccount(session_, 1), oid);
  for (int i = 0; i < 20; ++i) {
    EXPECT_NE(session_.CreateLayout(51, {}), layout);
    EXPECT_NE(session_.CreateIndex(61, kSet, {}), index);
  }
}

TEST_F(TransactionTest, NumbersOfAFailedCommit_AreNotReused) {
  BeginBoth();
  session_.PutLong(account_, kBalance, 1);
  other_.PutLong(account_, kBalance, 2);
  Oid const oid = NewAccount(other_, 1);
  LayoutId const layout = other_.CreateLayout(51, {});
  session_.Commit();
  EXPECT_STATUS(LSCOREDB_CONFLICT, other_.TryCommit());
  BeginBoth();
  for (int i = 0; i < 300; ++i) {
    EXPECT_NE(NewAccount(session_, 1), oid);
    EXPECT_NE(NewAccount(other_, 1), oid);
  }
  EXPECT_NE(session_.CreateLayout(51, {}), layout);
  EXPECT_NE(other_.CreateLayout(51, {}), layout);
}

TEST_F(TransactionTest, TwoTransactions_NeverGetOneNumber) {
  BeginBoth();
  EXPECT_NE(session_.CreateLayout(51, {}), other_.CreateLayout(51, {}));
  EXPECT_NE(NewAccount(session_, 1), NewAccount(other_, 1));
  EXPECT_NE(session_.CreateIndex(61, kSet, {}), other_.CreateIndex(62, u"elsewhere/", {}));
}

TEST_F(TransactionTest, IdChosenByTwoTransactions_IsCommittedOnce) {
  Oid const given = account_ + 100000;
  BeginBoth();
  session_.InsertWithId(layout_, given);
  session_.PutSetspec(given, kSet);
  std::uint32_t const second = lorvi_context_insert_with_id(other_.context(), layout_, given);
  session_.Commit();
  if (second == LORV_STATUS_OK) {
    EXPECT_STATUS(LSCOREDB_CONFLICT, other_.TryCommit());
  } else {
    EXPECT_STATUS(LSCOREDB_ID_IN_USE, second);
  }
}

TEST_F(TransactionTest, ClosedContext_RollsBack) {
  other_.Begin();
  other_.PutLong(account_, kBalance, 1);
  other_.Close();
  session_.Begin();
  EXPECT_EQ(session_.Long(account_, kBalance), 100);
}

TEST_F(TransactionTest, ReadOnlyTransaction_ReadsAndCommits) {
  session_.BeginReadOnly();
  EXPECT_EQ(session_.Long(account_, kBalance), 100);
  EXPECT_EQ(session_.Scan(by_balance_), Oids{account_});
  EXPECT_STATUS(LSCOREDB_WRITE_REFUSED,
                lorv_context_put_long(session_.context(), account_, 0, kBalance, 1));
  EXPECT_EQ(session_.Long(account_, kBalance), 100);
  session_.Commit();
}

TEST_F(TransactionTest, RowInsertedAndDeletedInOneTransaction_LeavesNoTrace) {
  session_.Begin();
  Oid const oid = NewAccount(session_, 1);
  session_.Delete(oid);
  EXPECT_EQ(session_.Scan(by_balance_), Oids{account_});
  Restart();
  EXPECT_FALSE(session_.Exists(oid));
  EXPECT_EQ(session_.Scan(by_balance_), Oids{account_});
}

TEST_F(TransactionTest, IndexDroppedMeanwhile_StillServesOlderSnapshots) {
  BeginBoth();
  session_.DropIndex(by_balance_);
  session_.Commit();
  EXPECT_EQ(other_.Scan(by_balance_), Oids{account_});
  other_.PutLong(account_, kBalance, 1);
  other_.Commit();
  other_.Begin();
  EXPECT_EQ(other_.Long(account_, kBalance), 1);
  EXPECT_TRUE(other_.IndexesByToken(kByBalanceToken).empty());
}

TEST_F(TransactionTest, TwoDatabasesInMemory_ShareNothing) {
  Database second;
  Session elsewhere(second);
  elsewhere.Begin();
  EXPECT_FALSE(elsewhere.Exists(account_));
  EXPECT_TRUE(elsewhere.LayoutsByToken(kAccountToken).empty());
}

TEST(CheckedDatabaseTest, Check_TakesNoPlaceOfTransactions) {
  lscoredb_options options = NoSync();
  options.max_readers = 4;
  Database const database(options);
  for (int i = 0; i < 10; ++i) {
    EXPECT_STATUS(0, lscoredb_check(database.get(), 0, nullptr, nullptr)) << i;
  }
  std::vector<std::unique_ptr<Session>> sessions;
  for (int i = 0; i < 3; ++i) {
    sessions.push_back(std::make_unique<Session>(database));
    sessions.back()->BeginReadOnly();
  }
}

}  // namespace
}  // namespace lscoredb_test
