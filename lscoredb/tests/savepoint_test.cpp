// Savepoints: what a rollback to one takes back, what it leaves, and what becomes of all that was
// open.

#include <algorithm>

#include "named_numbers.h"

namespace lscoredb_test {
namespace {

using Savepoint = std::uint64_t;

// A table with two committed rows, numbers 10 and 20, an index over the number and a unique one
// over the name; a transaction is open.
class SavepointTest : public NamedNumbersTest {
 protected:
  void SetUp() override {
    first_ = Add(10, u"ten");
    second_ = Add(20, u"twenty");
    Restart();
  }

  Oid Add(std::int64_t number, Text const& name) {
    Oid const oid = session_.Insert(layout_);
    session_.PutLong(oid, kNumber, number);
    session_.PutString(oid, kName, name);
    return oid;
  }

  std::uint64_t context() const { return session_.context(); }
  Savepoint Set() {
    Savepoint savepoint = 0;
    Check("savepoint", lscoredb_savepoint(context(), &savepoint));
    return savepoint;
  }
  void RollbackTo(Savepoint savepoint) {
    Check("rollback_to", lscoredb_rollback_to(context(), savepoint));
  }
  void Release(Savepoint savepoint) { Check("release", lscoredb_release(context(), savepoint)); }
  void Require(Oid oid) { Check("require", lscoredb_require(context(), oid)); }

  void ExpectAsAtFirst() {
    EXPECT_EQ(session_.Long(first_, kNumber), 10);
    EXPECT_EQ(session_.String(first_, kName), u"ten");
    EXPECT_EQ(session_.Long(second_, kNumber), 20);
    EXPECT_EQ(session_.Scan(by_number_), (Oids{first_, second_}));
    EXPECT_EQ(session_.Scan(by_name_), (Oids{first_, second_}));
  }

  Oid first_ = 0;
  Oid second_ = 0;
};

// ---- what is taken back ------------------------------------------------------------------------

TEST_F(SavepointTest, RollbackTo_UndoesObjectsValuesAndEntries) {
  Savepoint const savepoint = Set();
  Oid const added = Add(5, u"five");
  session_.PutLong(first_, kNumber, 30);
  session_.PutDefault(first_, kName);
  session_.Delete(second_);
  EXPECT_EQ(session_.Scan(by_number_), (Oids{added, first_}));
  RollbackTo(savepoint);
  EXPECT_FALSE(session_.Exists(added));
  ExpectAsAtFirst();
  Restart();
  EXPECT_FALSE(session_.Exists(added));
  ExpectAsAtFirst();
}

TEST_F(SavepointTest, RollbackTo_KeepsWhatWasWrittenBefore) {
  Oid const before = Add(5, u"five");
  session_.PutLong(first_, kNumber, 30);
  Savepoint const savepoint = Set();
  session_.PutLong(before, kNumber, 50);
  session_.PutLong(first_, kNumber, 1);
  session_.PutString(second_, kName, u"two");
  RollbackTo(savepoint);
  Restart();
  EXPECT_EQ(session_.Long(before, kNumber), 5);
  EXPECT_EQ(session_.Long(first_, kNumber), 30);
  EXPECT_EQ(session_.String(second_, kName), u"twenty");
  EXPECT_EQ(session_.Scan(by_number_), (Oids{before, second_, first_}));
}

TEST_F(SavepointTest, RollbackTo_RevivesWhatWasDeletedSince) {
  Oid const added = Add(5, u"five");
  Savepoint const savepoint = Set();
  session_.Delete(added);
  session_.Delete(first_);
  EXPECT_EQ(session_.Scan(by_number_), Oids{second_});
  RollbackTo(savepoint);
  EXPECT_EQ(session_.Scan(by_number_), (Oids{added, first_, second_}));
  EXPECT_EQ(session_.String(added, kName), u"five");
  Restart();
  EXPECT_EQ(session_.Scan(by_name_), (Oids{added, first_, second_}));
}

TEST_F(SavepointTest, RollbackTo_UndoesAChangeOfSet) {
  IndexId const elsewhere = session_.CreateIndex(62, u"else/", {{LORV_TYPE_LONG, kNumberToken}});
  Savepoint const savepoint = Set();
  session_.PutSetspec(first_, u"else/where/");
  EXPECT_EQ(session_.Scan(elsewhere), Oids{first_});
  EXPECT_EQ(session_.Scan(by_number_), Oids{second_});
  RollbackTo(savepoint);
  EXPECT_EQ(session_.Setspec(first_), kSet);
  EXPECT_EQ(session_.Scan(elsewhere), Oids{});
  ExpectAsAtFirst();
}

TEST_F(SavepointTest, RollbackTo_UndoesLayoutsAndTheirObjectsAndMoves) {
  Savepoint const savepoint = Set();
  LayoutId const made = session_.CreateLayout(
      50, {{LORV_TYPE_LONG, kNumberToken}, {LORV_TYPE_STRING, kNameToken}, {LORV_TYPE_LONG, 103}});
  Check("move", lscoredb_move_object(context(), first_, made));
  session_.PutLong(first_, 4, 7);
  Oid const added = session_.Insert(made);
  RollbackTo(savepoint);
  EXPECT_EQ(session_.LayoutOf(first_), layout_);
  EXPECT_FALSE(session_.Exists(added));
  EXPECT_EQ(session_.LayoutsByToken(50), std::vector<LayoutId>{layout_});
  Oid oid = 0;
  EXPECT_STATUS(LSCOREDB_UNKNOWN_LAYOUT, lorv_context_insert(context(), made, &oid));
  ExpectAsAtFirst();
  Restart();
  EXPECT_EQ(session_.LayoutsByToken(50), std::vector<LayoutId>{layout_});
}

TEST_F(SavepointTest, RollbackTo_UndoesIndexesAndTheirDrops) {
  IndexId const before = session_.CreateIndex(62, kSet, {{LORV_TYPE_LONG, kNumberToken}});
  Savepoint const savepoint = Set();
  IndexId const since = session_.CreateIndex(63, kSet, {{LORV_TYPE_STRING, kNameToken}});
  session_.DropIndex(before);
  session_.DropIndex(by_number_);
  session_.PutLong(first_, kNumber, 30);
  session_.DropIndex(since);
  session_.CreateIndex(64, kSet, {});
  RollbackTo(savepoint);
  EXPECT_TRUE(session_.IndexesByToken(63).empty());
  EXPECT_TRUE(session_.IndexesByToken(64).empty());
  EXPECT_EQ(session_.Scan(before), (Oids{first_, second_}));
  ExpectAsAtFirst();
  session_.PutLong(first_, kNumber, 40);
  EXPECT_EQ(session_.Scan(before), (Oids{second_, first_}));
  Restart();
  EXPECT_EQ(session_.Scan(before), (Oids{second_, first_}));
  EXPECT_EQ(session_.Scan(by_number_), (Oids{second_, first_}));
}

TEST_F(SavepointTest, RollbackTo_UndoesTheReleaseOfALayout) {
  TemporaryDirectory directory;
  LayoutId kept = 0;
  LayoutId gone = 0;
  {
    Database database(directory.path());
    Session session(database);
    session.Begin();
    kept = session.CreateLayout(70, {});
    gone = session.CreateLayout(71, {});
    Check("release", lscoredb_release_layout(session.context(), gone));
    Savepoint savepoint = 0;
    Check("savepoint", lscoredb_savepoint(session.context(), &savepoint));
    Check("release", lscoredb_release_layout(session.context(), kept));
    Check("release", lscoredb_release_layout(session.context(), gone));
    Check("rollback_to", lscoredb_rollback_to(session.context(), savepoint));
    session.Commit();
  }
  Database database(directory.path());
  Session session(database);
  session.Begin();
  EXPECT_EQ(session.LayoutsByToken(70), std::vector<LayoutId>{kept});
  EXPECT_TRUE(session.LayoutsByToken(71).empty());
}

TEST_F(SavepointTest, RollbackTo_LeavesNothingToCommit) {
  lscoredb_statistics before{};
  before.size = sizeof before;
  Check("stats", lscoredb_stats(database_.get(), &before));
  Savepoint const savepoint = Set();
  Add(1, u"one");
  session_.Delete(first_);
  RollbackTo(savepoint);
  session_.Commit();
  lscoredb_statistics after{};
  after.size = sizeof after;
  Check("stats", lscoredb_stats(database_.get(), &after));
  EXPECT_EQ(before.last_commit, after.last_commit);
}

TEST_F(SavepointTest, RollbackTo_KeepsWhatIsWrittenAfterwards) {
  Savepoint const savepoint = Set();
  for (int i = 0; i < 100; ++i) {
    Oid const added = Add(i, u"again");
    EXPECT_EQ(session_.String(added, kName), u"again");
    RollbackTo(savepoint);
    EXPECT_FALSE(session_.Exists(added));
  }
  Oid const last = Add(5, u"five");
  Restart();
  EXPECT_EQ(session_.Scan(by_number_), (Oids{last, first_, second_}));
  EXPECT_EQ(session_.String(last, kName), u"five");
}

// ---- nesting -----------------------------------------------------------------------------------

TEST_F(SavepointTest, NestedSavepoints_UndoMoreTheOlderTheyAre) {
  Savepoint const outer = Set();
  session_.PutLong(first_, kNumber, 11);
  Savepoint const inner = Set();
  session_.PutLong(first_, kNumber, 12);
  RollbackTo(inner);
  EXPECT_EQ(session_.Long(first_, kNumber), 11);
  session_.PutLong(first_, kNumber, 13);
  RollbackTo(inner);
  EXPECT_EQ(session_.Long(first_, kNumber), 11) << "it may be rolled back to again";
  RollbackTo(outer);
  ExpectAsAtFirst();
}

TEST_F(SavepointTest, RollbackTo_EndsLaterSavepointsAndKeepsItsOwn) {
  Savepoint const outer = Set();
  Savepoint const inner = Set();
  RollbackTo(outer);
  EXPECT_STATUS(LSCOREDB_UNKNOWN_SAVEPOINT, lscoredb_rollback_to(context(), inner));
  EXPECT_STATUS(LSCOREDB_UNKNOWN_SAVEPOINT, lscoredb_release(context(), inner));
  EXPECT_STATUS(0, lscoredb_release(context(), outer));
}

TEST_F(SavepointTest, Release_EndsLaterSavepointsAndKeepsTheWrites) {
  Savepoint const outer = Set();
  Savepoint const middle = Set();
  session_.PutLong(first_, kNumber, 30);
  Savepoint const inner = Set();
  Release(middle);
  EXPECT_STATUS(LSCOREDB_UNKNOWN_SAVEPOINT, lscoredb_release(context(), middle));
  EXPECT_STATUS(LSCOREDB_UNKNOWN_SAVEPOINT, lscoredb_rollback_to(context(), inner));
  EXPECT_EQ(session_.Long(first_, kNumber), 30);
  RollbackTo(outer);
  ExpectAsAtFirst();
}

TEST_F(SavepointTest, Release_LastSavepoint_KeepsTheWritesForGood) {
  Savepoint const savepoint = Set();
  session_.PutLong(first_, kNumber, 30);
  Release(savepoint);
  Savepoint const next = Set();
  session_.PutLong(first_, kNumber, 40);
  RollbackTo(next);
  Restart();
  EXPECT_EQ(session_.Long(first_, kNumber), 30);
  EXPECT_EQ(session_.Scan(by_number_), (Oids{second_, first_}));
}

TEST_F(SavepointTest, Savepoints_EndWithTheirTransactionAndBelongToTheirContext) {
  Savepoint const committed = Set();
  Restart();
  Savepoint const present = Set();
  EXPECT_NE(committed, present);
  EXPECT_STATUS(LSCOREDB_UNKNOWN_SAVEPOINT, lscoredb_rollback_to(context(), committed));
  Session other(database_);
  other.Begin();
  EXPECT_STATUS(LSCOREDB_UNKNOWN_SAVEPOINT, lscoredb_rollback_to(other.context(), present));
  EXPECT_STATUS(LSCOREDB_UNKNOWN_SAVEPOINT, lscoredb_release(other.context(), present));
  EXPECT_STATUS(0, lscoredb_release(context(), present));
}

TEST_F(SavepointTest, ReadOnlyTransaction_MayHaveSavepoints) {
  session_.Commit();
  session_.BeginReadOnly();
  Savepoint const savepoint = Set();
  Oid oid = 0;
  EXPECT_STATUS(LSCOREDB_WRITE_REFUSED, lorv_context_insert(context(), layout_, &oid));
  RollbackTo(savepoint);
  Release(savepoint);
  ExpectAsAtFirst();
}

// ---- failures behind a savepoint ---------------------------------------------------------------

TEST_F(SavepointTest, FailedWriteSinceSavepoint_IsForgottenWithTheOthers) {
  Savepoint const savepoint = Set();
  Oid const added = Add(5, u"five");
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY,
                lorv_context_put_string(context(), added, 0, kName, u"ten"));
  IndexId index = 0;
  session_.PutLong(second_, kNumber, 10);
  EXPECT_STATUS(
      LSCOREDB_DUPLICATE_KEY,
      session_.TryCreateIndex(65, kSet, {{LORV_TYPE_LONG, kNumberToken}}, kUnique, &index));
  RollbackTo(savepoint);
  ExpectAsAtFirst();
  Oid const named = Add(6, u"five");
  Restart();
  EXPECT_EQ(session_.Scan(by_name_), (Oids{named, first_, second_}));
}

TEST_F(SavepointTest, KeyFreedSinceSavepoint_IsTakenAgain) {
  Savepoint const savepoint = Set();
  session_.Delete(first_);
  Add(11, u"ten");
  RollbackTo(savepoint);
  Oid const added = Add(12, u"twelve");
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY,
                lorv_context_put_string(context(), added, 0, kName, u"ten"));
  session_.Commit();
}

// A duplicate that arose under an open scan is found by the commit; one that was taken back is not.
TEST_F(SavepointTest, DuplicateUnderAScan_IsGoneWithTheRollback) {
  Savepoint const savepoint = Set();
  {
    Scanner scan(session_, by_name_);
    session_.PutString(first_, kName, u"twenty");
  }
  RollbackTo(savepoint);
  EXPECT_STATUS(0, session_.TryCommit());
}

// ---- numbers -----------------------------------------------------------------------------------

TEST_F(SavepointTest, NumbersAllocatedSinceSavepoint_AreNotReused) {
  Savepoint const savepoint = Set();
  Oid const oid = Add(1, u"one");
  LayoutId const layout = session_.CreateLayout(51, {});
  IndexId const index = session_.CreateIndex(62, kSet, {});
  RollbackTo(savepoint);
  for (int i = 0; i < 300; ++i) EXPECT_NE(session_.Insert(layout_), oid);
  for (int i = 0; i < 20; ++i) {
    EXPECT_NE(session_.CreateLayout(51, {}), layout);
    EXPECT_NE(session_.CreateIndex(62, kSet, {}), index);
  }
}

TEST_F(SavepointTest, ChosenIdThatWasRolledBack_MayBeChosenAgain) {
  Oid const given = Oid{1} << 62;
  Savepoint const savepoint = Set();
  session_.InsertWithId(layout_, given);
  RollbackTo(savepoint);
  EXPECT_FALSE(session_.Exists(given));
  session_.InsertWithId(layout_, given);
  session_.PutSetspec(given, kSet);
  Restart();
  EXPECT_TRUE(session_.Exists(given));
}

// ---- scans, scopes and texts -------------------------------------------------------------------

TEST_F(SavepointTest, ScanFromBefore_ContinuesOverTheRangeAsItStood) {
  Oid const between = Add(15, u"fifteen");
  for (std::uint32_t const flags : {LORV_ITERATOR_FORWARD, LORV_ITERATOR_REVERSE}) {
    Scanner scan(session_, by_number_, Key(), Key(), flags);
    Savepoint const savepoint = Set();
    Oids expected{first_, between, second_};
    if (flags == LORV_ITERATOR_REVERSE) std::reverse(expected.begin(), expected.end());
    EXPECT_EQ(scan.Next(), expected[0]);
    for (int i = 0; i < 30; ++i) Add(i, Text(u"name") + static_cast<char16_t>(u'A' + i));
    session_.PutLong(between, kNumber, 99);
    session_.Delete(expected[2]);
    EXPECT_EQ(scan.Next(), between);
    RollbackTo(savepoint);
    EXPECT_EQ(scan.Rest(), Oids{expected[2]}) << "what was deleted is there again";
  }
}

TEST_F(SavepointTest, ScanOpenedSinceSavepoint_Ends) {
  Savepoint const savepoint = Set();
  Add(1, u"one");
  Scanner scan(session_, by_number_);
  EXPECT_NE(scan.Next(), Oid{0});
  RollbackTo(savepoint);
  LORV_REFERENCE reference{};
  EXPECT_STATUS(LSCOREDB_ROLLED_BACK, lorv_iterator_next(scan.handle(), &reference));
  EXPECT_STATUS(LSCOREDB_ROLLED_BACK, lorv_iterator_next(scan.handle(), &reference));
  EXPECT_STATUS(0, scan.Free());
  Scanner again(session_, by_number_);
  EXPECT_EQ(again.Rest(), (Oids{first_, second_}));
}

TEST_F(SavepointTest, ScanOfAnIndexCreatedSinceSavepoint_EndsWithTheIndex) {
  Savepoint const savepoint = Set();
  IndexId const index = session_.CreateIndex(62, kSet, {{LORV_TYPE_LONG, kNumberToken}});
  Scanner scan(session_, index);
  session_.DropIndex(index);
  RollbackTo(savepoint);
  LORV_REFERENCE reference{};
  EXPECT_STATUS(LSCOREDB_ROLLED_BACK, lorv_iterator_next(scan.handle(), &reference));
}

TEST_F(SavepointTest, Texts_StayValidAndNewOnesAreReadAgain) {
  LORV_STRING* const before = session_.StringRecord(first_, kName);
  Savepoint const savepoint = Set();
  session_.PutString(first_, kName, u"abc");
  LORV_STRING* const since = session_.StringRecord(first_, kName);
  RollbackTo(savepoint);
  session_.PutString(first_, kName, u"xyz");
  EXPECT_EQ(session_.String(first_, kName), u"xyz");
  EXPECT_EQ(Text(since->units, since->length), u"abc");
  EXPECT_EQ(Text(before->units, before->length), u"ten");
}

// Values are known by where they lie, and memory of what is gone is used again: in every order of
// scopes and savepoints a value is read as it is.
TEST_F(SavepointTest, ReadScopes_StayAndCrossSavepointsInAnyOrder) {
  auto const begin = [&] { Check("begin", lscoredb_read_scope_begin(context())); };
  auto const end = [&] { Check("end", lscoredb_read_scope_end(context())); };
  auto const write_and_read = [&](Text const& text) {
    session_.PutString(first_, kName, text);
    EXPECT_EQ(session_.String(first_, kName), text);
  };
  begin();
  session_.String(first_, kName);
  session_.String(second_, kName);
  Savepoint const savepoint = Set();
  end();
  for (int i = 0; i < 3; ++i) {
    Text const text(1, static_cast<char16_t>(u'A' + i));
    write_and_read(text + u"1");
    begin();
    write_and_read(text + u"2");
    RollbackTo(savepoint);
    write_and_read(text + u"3");
    end();
    write_and_read(text + u"4");
    RollbackTo(savepoint);
    EXPECT_EQ(session_.String(first_, kName), u"ten");
  }
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, lscoredb_read_scope_end(context()));
}

TEST_F(SavepointTest, LargeValues_AreRestored) {
  Text const large(200000, u'x');
  session_.PutString(first_, kName, large);
  Restart();
  Savepoint const savepoint = Set();
  Check("begin", lscoredb_read_scope_begin(context()));
  session_.PutLong(first_, kNumber, 7);
  session_.PutString(first_, kName, Text(300000, u'y'));
  RollbackTo(savepoint);
  Check("end", lscoredb_read_scope_end(context()));
  EXPECT_EQ(session_.String(first_, kName), large);
  session_.PutLong(first_, kNumber, 8);
  Restart();
  EXPECT_EQ(session_.String(first_, kName), large);
  EXPECT_EQ(session_.Long(first_, kNumber), 8);
}

// ---- conflicts ---------------------------------------------------------------------------------

TEST_F(SavepointTest, RolledBackWrites_ConflictWithNothing) {
  Session other(database_);
  other.Begin();
  other.PutLong(first_, kNumber, 1);
  other.Commit();
  session_.Commit();
  session_.Begin();
  Session late(database_);
  late.Begin();
  late.PutLong(first_, kNumber, 2);
  Savepoint const savepoint = Set();
  session_.PutLong(first_, kNumber, 3);
  session_.CreateIndex(62, kSet, {});
  RollbackTo(savepoint);
  session_.PutLong(second_, kNumber, 4);
  late.Commit();
  EXPECT_STATUS(0, session_.TryCommit());
}

TEST_F(SavepointTest, Require_ObjectChangedOrDeletedByAnother_IsAConflict) {
  for (bool const deletes : {true, false}) {
    Oid const target = Add(1, u"target");
    Restart();
    Session other(database_);
    other.Begin();
    deletes ? other.Delete(target) : other.PutLong(target, kNumber, 2);
    Oid const referrer = Add(3, u"referrer");
    Require(target);
    other.Commit();
    EXPECT_STATUS(LSCOREDB_CONFLICT, session_.TryCommit());
    session_.Begin();
    EXPECT_FALSE(session_.Exists(referrer));
    if (!deletes) session_.Delete(target);
  }
}

TEST_F(SavepointTest, Require_HoldsWithoutAnyWrite) {
  Session other(database_);
  other.Begin();
  other.PutLong(first_, kNumber, 2);
  Require(first_);
  other.Commit();
  EXPECT_STATUS(LSCOREDB_CONFLICT, session_.TryCommit());
}

TEST_F(SavepointTest, Require_UnchangedObject_IsNoConflict) {
  Session other(database_);
  other.Begin();
  Check("require", lscoredb_require(other.context(), first_));
  other.PutLong(second_, kNumber, 2);
  Require(first_);
  Require(first_);
  Add(3, u"three");
  other.Commit();
  EXPECT_STATUS(0, session_.TryCommit());
}

TEST_F(SavepointTest, Require_OwnObjects_Succeeds) {
  Oid const added = Add(1, u"one");
  Require(added);
  session_.PutLong(first_, kNumber, 5);
  Require(first_);
  session_.Delete(second_);
  EXPECT_STATUS(LORV_STATUS_UNREACHABLE, lscoredb_require(context(), second_));
  EXPECT_STATUS(LORV_STATUS_NO_OBJECT, lscoredb_require(context(), second_ + 100000));
  EXPECT_STATUS(0, session_.TryCommit());
}

TEST_F(SavepointTest, Require_IsUndoneByARollback) {
  Session other(database_);
  other.Begin();
  other.PutLong(first_, kNumber, 2);
  Savepoint const savepoint = Set();
  Require(first_);
  RollbackTo(savepoint);
  Add(3, u"three");
  other.Commit();
  EXPECT_STATUS(0, session_.TryCommit());
}

TEST_F(SavepointTest, Require_IsForgottenWithTheTransaction) {
  Require(first_);
  Restart();
  Session other(database_);
  other.Begin();
  other.PutLong(first_, kNumber, 2);
  Add(3, u"three");
  other.Commit();
  EXPECT_STATUS(0, session_.TryCommit());
}

}  // namespace
}  // namespace lscoredb_test
