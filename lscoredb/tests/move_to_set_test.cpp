// Objects that move to another set: their values, their index entries, and what refuses them.

#include <lscoredb/move.h>
#include <lscoredb/watch.h>

#include "kernel_test.h"

namespace lscoredb_test {
namespace {

constexpr char16_t kFrom[] = u"set/from/";
constexpr char16_t kTo[] = u"set/to/";
constexpr std::uint64_t kShared = 100;
constexpr std::uint64_t kOld = 101;
constexpr std::uint64_t kNew = 102;
constexpr std::uint64_t kText = 103;
// Columns of the two layouts.
constexpr std::uint32_t kSharedColumn = 2;
constexpr std::uint32_t kOldColumn = 3;
constexpr std::uint32_t kNewColumn = 3;

using Copies = std::vector<lscoredb_column_copy>;

class MoveToSetTest : public KernelTest {
 protected:
  void SetUp() override { Prepare(session_); }

  void Prepare(Session& session) {
    session.Begin();
    from_ = session.CreateLayout(50, {{LORV_TYPE_LONG, kShared}, {LORV_TYPE_LONG, kOld}});
    to_ = session.CreateLayout(
        51, {{LORV_TYPE_LONG, kShared}, {LORV_TYPE_LONG, kNew, false}, {LORV_TYPE_STRING, kText}});
    by_old_ = session.CreateIndex(60, kFrom, {{LORV_TYPE_LONG, kShared}});
    by_new_ = session.CreateIndex(61, kTo, {{LORV_TYPE_LONG, kNew}}, kUnique);
    everywhere_ = session.CreateIndex(62, kSet, {{LORV_TYPE_LONG, kShared}});
    object_ = session.Insert(from_, kFrom);
    session.PutLong(object_, kSharedColumn, 7);
    session.PutLong(object_, kOldColumn, 8);
    session.Commit();
    session.Begin();
  }

  std::uint32_t Move(Oid oid, Copies const& copies = {}, char16_t const* set = kTo) {
    return lscoredb_move_to_set(session_.context(), oid, to_, set, copies.data(),
                                static_cast<std::uint32_t>(copies.size()));
  }

  void ExpectOld() {
    EXPECT_EQ(from_, session_.LayoutOf(object_));
    EXPECT_EQ(Text(kFrom), session_.Setspec(object_));
    EXPECT_EQ(8, session_.Long(object_, kOldColumn));
    EXPECT_EQ(Oids{object_}, session_.Scan(by_old_));
    EXPECT_EQ(Oids{}, session_.Scan(by_new_));
    EXPECT_EQ(Oids{object_}, session_.Scan(everywhere_));
  }
  void ExpectNew(std::int64_t copied) {
    EXPECT_EQ(to_, session_.LayoutOf(object_));
    EXPECT_EQ(Text(kTo), session_.Setspec(object_));
    EXPECT_EQ(7, session_.Long(object_, kSharedColumn));
    EXPECT_EQ(copied, session_.Long(object_, kNewColumn));
    EXPECT_EQ(Oids{}, session_.Scan(by_old_));
    EXPECT_EQ(Oids{object_}, session_.Scan(by_new_));
    EXPECT_EQ(Oids{object_}, session_.Scan(everywhere_));
  }

  LayoutId from_ = 0;
  LayoutId to_ = 0;
  IndexId by_old_ = 0;
  IndexId by_new_ = 0;
  IndexId everywhere_ = 0;
  Oid object_ = 0;
};

TEST_F(MoveToSetTest, SharedColumns_StayAndOthersAreZero) {
  EXPECT_STATUS(0u, Move(object_));
  ExpectNew(0);
  Restart();
  ExpectNew(0);
}

TEST_F(MoveToSetTest, CopiedColumns_GetTheValue) {
  EXPECT_STATUS(0u, Move(object_, {{kOld, kNew}}));
  ExpectNew(8);
  Restart();
  ExpectNew(8);
}

TEST_F(MoveToSetTest, CopyOfWhatTheObjectLacks_GivesZero) {
  EXPECT_STATUS(0u, Move(object_, {{999, kNew}}));
  ExpectNew(0);
}

TEST_F(MoveToSetTest, MovedBack_IsAsBeforeApartFromLostValues) {
  EXPECT_STATUS(0u, Move(object_, {{kOld, kNew}}));
  Copies const back{{kNew, kOld}};
  EXPECT_STATUS(0u,
                lscoredb_move_to_set(session_.context(), object_, from_, kFrom, back.data(), 1));
  ExpectOld();
  Restart();
  ExpectOld();
}

TEST_F(MoveToSetTest, NewObject_MovesBeforeItIsCommitted) {
  session_.Delete(object_);
  object_ = session_.Insert(from_, kFrom);
  session_.PutLong(object_, kSharedColumn, 7);
  EXPECT_STATUS(0u, Move(object_));
  ExpectNew(0);
  Restart();
  ExpectNew(0);
}

TEST_F(MoveToSetTest, RollbackToASavepoint_UndoesTheMove) {
  std::uint64_t savepoint = 0;
  EXPECT_STATUS(0u, lscoredb_savepoint(session_.context(), &savepoint));
  EXPECT_STATUS(0u, Move(object_, {{kOld, kNew}}));
  EXPECT_STATUS(0u, lscoredb_rollback_to(session_.context(), savepoint));
  ExpectOld();
  Restart();
  ExpectOld();
}

TEST_F(MoveToSetTest, UniqueKey_IsRefusedAndTheObjectStays) {
  Oid const holder = session_.Insert(to_, kTo);
  session_.PutLong(holder, kNewColumn, 8);
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, Move(object_, {{kOld, kNew}}));
  session_.Delete(holder);
  ExpectOld();
  EXPECT_STATUS(0u, Move(object_, {{kOld, kNew}}));
  ExpectNew(8);
}

TEST_F(MoveToSetTest, ClosedSet_RefusesTheObject) {
  EXPECT_STATUS(0u, lscoredb_close_set(session_.context(), kTo, 0));
  EXPECT_STATUS(LSCOREDB_SET_CLOSED, Move(object_));
  ExpectOld();
  Restart();
  EXPECT_STATUS(LSCOREDB_SET_CLOSED, Move(object_));
  ExpectOld();
}

TEST_F(MoveToSetTest, SetClosedMeanwhile_IsFoundByTheCommit) {
  EXPECT_STATUS(0u, Move(object_));
  Session other(database_);
  other.Begin();
  EXPECT_STATUS(0u, lscoredb_close_set(other.context(), kTo, 0));
  other.Commit();
  EXPECT_STATUS(LSCOREDB_SET_CLOSED, session_.TryCommit());
  session_.Begin();
  ExpectOld();
}

TEST_F(MoveToSetTest, SetLeftAndClosedEmpty_CommitsUnlessSomethingEntered) {
  Session late(database_);
  late.Begin();
  late.Insert(from_, kFrom);
  EXPECT_STATUS(0u, Move(object_));
  EXPECT_STATUS(0u, lscoredb_close_set(session_.context(), kFrom, LSCOREDB_CLOSE_EMPTY));
  session_.Commit();
  EXPECT_STATUS(LSCOREDB_SET_CLOSED, late.TryCommit());
  session_.Begin();
  ExpectNew(0);
}

TEST_F(MoveToSetTest, WriteOfAnotherTransaction_Conflicts) {
  Session other(database_);
  other.Begin();
  other.PutLong(object_, kOldColumn, 9);
  EXPECT_STATUS(0u, Move(object_));
  session_.Commit();
  EXPECT_STATUS(LSCOREDB_CONFLICT, other.TryCommit());
}

TEST_F(MoveToSetTest, BadArguments_AreRefusedAndChangeNothing) {
  std::uint64_t const context = session_.context();
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, Move(object_, {}, nullptr));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT,
                lscoredb_move_to_set(context, object_, to_, kTo, nullptr, 1));
  EXPECT_STATUS(LSCOREDB_UNKNOWN_LAYOUT,
                lscoredb_move_to_set(context, object_, 9999, kTo, nullptr, 0));
  EXPECT_STATUS(LORV_STATUS_NO_OBJECT, Move(Oid{1} << 50));
  EXPECT_STATUS(LSCOREDB_UNKNOWN_COLUMN, Move(object_, {{kOld, 999}}));
  EXPECT_STATUS(LSCOREDB_UNKNOWN_COLUMN, Move(object_, {{kOld, LORV_TOKEN_SETSPEC}}));
  EXPECT_STATUS(LSCOREDB_WRONG_TYPE, Move(object_, {{kOld, kText}}));
  EXPECT_STATUS(LSCOREDB_WRONG_TYPE, Move(object_, {{LORV_TOKEN_SETSPEC, kText}}));
  ExpectOld();
  session_.Commit();
  session_.BeginReadOnly();
  EXPECT_STATUS(LSCOREDB_WRITE_REFUSED, Move(object_));
  session_.Rollback();
  EXPECT_STATUS(LSCOREDB_NO_TRANSACTION, Move(object_));
  EXPECT_STATUS(LSCOREDB_UNKNOWN_CONTEXT, lscoredb_move_to_set(0, object_, to_, kTo, nullptr, 0));
}

TEST_F(MoveToSetTest, Watch_StopsTheMoveAndTheObjectStays) {
  int calls = 0;
  lscoredb_watch([](void* user, std::uint64_t,
                    std::uint64_t) { return ++*static_cast<int*>(user) == 1 ? 1U : 0U; },
                 &calls);
  EXPECT_STATUS(LSCOREDB_STOPPED, Move(object_));
  ExpectOld();
  EXPECT_STATUS(0u, Move(object_));
  lscoredb_watch(nullptr, nullptr);
  EXPECT_EQ(2, calls);
  ExpectNew(0);
}

TEST_F(MoveToSetTest, LargeValue_MovesWithTheObject) {
  LayoutId const wide = session_.CreateLayout(52, {{LORV_TYPE_STRING, kText}});
  Text const large(100000, u'x');
  Oid const oid = session_.Insert(wide, kFrom);
  session_.PutString(oid, 2, large);
  Restart();
  EXPECT_STATUS(0u, Move(oid));
  EXPECT_EQ(large, session_.String(oid, 4));
  Restart();
  EXPECT_EQ(large, session_.String(oid, 4));
}

TEST_F(MoveToSetTest, LoggedDatabase_KeepsTheMoveWhenReopened) {
  TemporaryDirectory const directory;
  lscoredb_options options = NoSync();
  options.log = LSCOREDB_LOG;
  {
    Database database(directory.path(), options);
    Session session(database);
    Prepare(session);
    EXPECT_STATUS(0u, lscoredb_move_to_set(session.context(), object_, to_, kTo, nullptr, 0));
    session.Commit();
  }
  Database database(directory.path(), options);
  Session session(database);
  session.Begin();
  EXPECT_EQ(Text(kTo), session.Setspec(object_));
  EXPECT_EQ(Oids{object_}, session.Scan(by_new_));
  EXPECT_EQ(Oids{}, session.Scan(by_old_));
}

}  // namespace
}  // namespace lscoredb_test
