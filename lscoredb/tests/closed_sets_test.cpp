// Closed sets: no object comes into one, by whatever write, transaction or process; what is in it
// stays.

#include "kernel_test.h"
#include "other_process.h"

namespace lscoredb_test {
namespace {

constexpr char16_t kClosed[] = u"set/closed/";
constexpr std::uint32_t kNumber = 2;
constexpr std::uint64_t kNumberToken = 100;

std::uint32_t Close(Session& session, char16_t const* setspec = kClosed, std::uint32_t flags = 0) {
  return lscoredb_close_set(session.context(), setspec, flags);
}

std::uint32_t PutInto(Session& session, Oid oid, char16_t const* setspec) {
  return lorv_context_put_setspec(session.context(), oid, 0, setspec);
}

class ClosedSetsTest : public KernelTest {
 protected:
  void SetUp() override {
    session_.Begin();
    layout_ = session_.CreateLayout(50, {{LORV_TYPE_LONG, kNumberToken}});
    newer_ = session_.CreateLayout(50, {{LORV_TYPE_LONG, kNumberToken}, {LORV_TYPE_LONG, 101}});
    by_number_ = session_.CreateIndex(60, kSet, {{LORV_TYPE_LONG, kNumberToken}});
    inside_ = session_.Insert(layout_, kClosed);
    outside_ = session_.Insert(layout_);
    session_.Commit();
  }

  void CloseAndCommit() {
    session_.Begin();
    ExpectOk(Close(session_));
    session_.Commit();
  }
  static void ExpectOk(std::uint32_t status) { EXPECT_STATUS(0u, status); }

  // All ways into the set, in a transaction that knows that it is closed.
  void ExpectClosed(Session& session) {
    for (LayoutId const layout : {layout_, newer_}) {
      Oid const fresh = session.InsertBare(layout);
      EXPECT_STATUS(LSCOREDB_SET_CLOSED, PutInto(session, fresh, kClosed));
      EXPECT_FALSE(session.Exists(fresh)) << "an insert that was refused left an object";
    }
    EXPECT_STATUS(LSCOREDB_SET_CLOSED, PutInto(session, outside_, kClosed));
    EXPECT_EQ(Text(kSet), session.Setspec(outside_));
    Oid const moved = session.Insert(layout_);
    EXPECT_STATUS(LSCOREDB_SET_CLOSED, PutInto(session, moved, kClosed));
    EXPECT_EQ(Text(kSet), session.Setspec(moved));
    session.Delete(moved);
  }

  // A transaction that begins before the set is closed does `work` and commits afterwards.
  std::uint32_t CommitAfterClosing(std::function<void(Session&)> const& work) {
    Session late(database_);
    late.Begin();
    work(late);
    CloseAndCommit();
    return late.TryCommit();
  }

  LayoutId layout_ = 0;
  LayoutId newer_ = 0;
  IndexId by_number_ = 0;
  Oid inside_ = 0;
  Oid outside_ = 0;
};

TEST_F(ClosedSetsTest, NothingEnters_InTheSameTransaction) {
  session_.Begin();
  ExpectOk(Close(session_));
  ExpectClosed(session_);
  session_.Commit();
}

TEST_F(ClosedSetsTest, NothingEnters_InLaterTransactions) {
  CloseAndCommit();
  session_.Begin();
  ExpectClosed(session_);
  session_.Commit();
  Session other(database_);
  other.Begin();
  ExpectClosed(other);
}

TEST_F(ClosedSetsTest, ChosenIds_AreRefusedToo) {
  CloseAndCommit();
  session_.Begin();
  constexpr Oid kChosen = Oid{1} << 40;
  session_.InsertWithId(layout_, kChosen);
  EXPECT_STATUS(LSCOREDB_SET_CLOSED, PutInto(session_, kChosen, kClosed));
  session_.Commit();
  session_.Begin();
  EXPECT_FALSE(session_.Exists(kChosen));
}

TEST_F(ClosedSetsTest, RefusedInsert_LeavesNoEntryAndNoCount) {
  CloseAndCommit();
  session_.Begin();
  std::size_t const before = session_.Scan(by_number_).size();
  Oid const fresh = session_.InsertBare(layout_);
  session_.PutLong(fresh, kNumber, 7);
  EXPECT_STATUS(LSCOREDB_SET_CLOSED, PutInto(session_, fresh, kClosed));
  session_.Commit();
  session_.Begin();
  EXPECT_EQ(before, session_.Scan(by_number_).size());
}

TEST_F(ClosedSetsTest, ObjectsInside_MayBeChangedMovedAndDeleted) {
  CloseAndCommit();
  session_.Begin();
  session_.PutLong(inside_, kNumber, 5);
  EXPECT_STATUS(0u, PutInto(session_, inside_, kClosed));
  EXPECT_STATUS(0u, lscoredb_move_object(session_.context(), inside_, newer_));
  session_.Commit();
  session_.Begin();
  EXPECT_EQ(5, session_.Long(inside_, kNumber));
  session_.Delete(inside_);
  session_.Commit();
}

TEST_F(ClosedSetsTest, SetsAround_StayOpen) {
  CloseAndCommit();
  session_.Begin();
  for (char16_t const* const open : {u"set/", u"set/closed", u"set/closed/child/", u"set/other/"}) {
    session_.Insert(layout_, open);
  }
  session_.Commit();
}

TEST_F(ClosedSetsTest, LongSetsThatBeginAlike_AreDistinguished) {
  Text const common(1000, u'x');
  session_.Begin();
  ExpectOk(Close(session_, (common + u"a").c_str()));
  session_.Commit();
  session_.Begin();
  session_.Insert(layout_, (common + u"b").c_str());
  Oid const fresh = session_.InsertBare(layout_);
  EXPECT_STATUS(LSCOREDB_SET_CLOSED, PutInto(session_, fresh, (common + u"a").c_str()));
}

TEST_F(ClosedSetsTest, OlderTransaction_BringingAnObjectInAnyWay_IsRefusedAtCommit) {
  EXPECT_STATUS(LSCOREDB_SET_CLOSED,
                CommitAfterClosing([&](Session& late) { late.Insert(layout_, kClosed); }));
  session_.Begin();
  EXPECT_EQ(Oids({inside_, outside_}), session_.Scan(by_number_));
}

TEST_F(ClosedSetsTest, OlderTransaction_MovingAnObjectIn_IsRefusedAtCommit) {
  EXPECT_STATUS(LSCOREDB_SET_CLOSED,
                CommitAfterClosing([&](Session& late) { late.PutSetspec(outside_, kClosed); }));
}

TEST_F(ClosedSetsTest, OlderTransaction_BringingNothingIn_Commits) {
  EXPECT_STATUS(0u, CommitAfterClosing([&](Session& late) {
                  late.PutLong(inside_, kNumber, 9);
                  late.Delete(late.Insert(layout_, kClosed));
                  late.Insert(layout_);
                }));
  session_.Begin();
  EXPECT_EQ(9, session_.Long(inside_, kNumber));
}

TEST_F(ClosedSetsTest, ObjectsOfTheClosingTransactionItself_Stay) {
  session_.Begin();
  Oid const mine = session_.Insert(layout_, kClosed);
  ExpectOk(Close(session_));
  session_.Commit();
  session_.Begin();
  EXPECT_TRUE(session_.Exists(mine));
}

TEST_F(ClosedSetsTest, RolledBack_ClosesNothing) {
  session_.Begin();
  ExpectOk(Close(session_));
  session_.Rollback();
  session_.Begin();
  session_.Insert(layout_, kClosed);
  std::uint64_t savepoint = 0;
  Check("savepoint", lscoredb_savepoint(session_.context(), &savepoint));
  ExpectOk(Close(session_));
  ExpectClosed(session_);
  Check("rollback_to", lscoredb_rollback_to(session_.context(), savepoint));
  session_.Insert(layout_, kClosed);
  session_.Commit();
  session_.Begin();
  session_.Insert(layout_, kClosed);
}

TEST_F(ClosedSetsTest, ClosedTwice_ChangesNothing) {
  CloseAndCommit();
  CloseAndCommit();
  session_.Begin();
  ExpectClosed(session_);
}

TEST_F(ClosedSetsTest, ClosedEmpty_ConflictsWithObjectsAddedMeanwhile) {
  Session writer(database_);
  for (bool const inserts : {true, false}) {
    session_.Begin();
    ExpectOk(Close(session_, kClosed, LSCOREDB_CLOSE_EMPTY));
    writer.Begin();
    if (inserts) {
      writer.Insert(layout_, u"set/closed/child/");
    } else {
      writer.Insert(layout_);
    }
    writer.Commit();
    EXPECT_STATUS(inserts ? LSCOREDB_CONFLICT : LORV_STATUS_OK, session_.TryCommit());
  }
}

TEST_F(ClosedSetsTest, BadCalls_AreRefused) {
  session_.Begin();
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, Close(session_, nullptr));
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, Close(session_, kClosed, 2));
  session_.Rollback();
  EXPECT_STATUS(LSCOREDB_NO_TRANSACTION, Close(session_));
  session_.BeginReadOnly();
  EXPECT_STATUS(LSCOREDB_WRITE_REFUSED, Close(session_));
}

// What another process closes holds here: for a transaction that is open already, and for later
// ones; and again once the database was opened anew, and in a copy.
TEST(ClosedSetsProcessTest, ClosedSet_HoldsInEveryProcess) {
  TemporaryDirectory directory;
  OtherProcess other([&](OtherProcess& test) {
    test.Hear();
    Database const database(directory.path());
    Session session(database);
    session.Begin();
    Check("close_set", Close(session));
    session.Commit();
    test.Say();
  });
  LayoutId layout = 0;
  {
    Database const database(directory.path());
    Session session(database);
    session.Begin();
    layout = session.CreateLayout(50, {{LORV_TYPE_LONG, kNumberToken}});
    session.Insert(layout, kClosed);
    session.Commit();
    session.Begin();
    session.Insert(layout, kClosed);
    other.Say();
    other.Hear();
    EXPECT_STATUS(LSCOREDB_SET_CLOSED, session.TryCommit());
    session.Begin();
    EXPECT_STATUS(LSCOREDB_SET_CLOSED, PutInto(session, session.InsertBare(layout), kClosed));
    session.Rollback();
    Check("copy", lscoredb_copy(database.get(), (directory / "copy").c_str()));
  }
  other.ExpectGoodEnd();
  for (std::string const& path : {directory.path(), directory / "copy"}) {
    Database const database(path);
    Session session(database);
    session.Begin();
    EXPECT_STATUS(LSCOREDB_SET_CLOSED, PutInto(session, session.InsertBare(layout), kClosed))
        << path;
  }
}

}  // namespace
}  // namespace lscoredb_test
