// The feed of changes, through the exported functions.

#include <lscoredb/changes.h>
#include <lscoredb/move.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "kernel_test.h"
#include "other_process.h"
#include "postgres_url.h"

namespace lscoredb_test {
namespace {

constexpr std::uint64_t kLots = std::uint64_t{1} << 40;
constexpr std::uint64_t kLayoutToken = 9000;

lscoredb_options WithLog() {
  lscoredb_options options = NoSync();
  options.log = LSCOREDB_LOG;
  return options;
}

// A change as the tests compare it.
struct Seen {
  std::uint32_t kind = 0;
  Oid object = 0;
  Text setspec;
  std::vector<std::uint64_t> columns;
  Text former_setspec;
  friend bool operator==(Seen const&, Seen const&) = default;
};
std::ostream& operator<<(std::ostream& out, Seen const& seen) {
  out << "kind " << seen.kind << ", object " << seen.object << ", columns";
  for (std::uint64_t const column : seen.columns) out << " " << column;
  return out;
}

class Reader {
 public:
  Reader(Database const& database, std::uint64_t commit, std::uint32_t place = UINT32_MAX) {
    Check("lscoredb_changes_open", lscoredb_changes_open(database.get(), commit, place, &changes_));
  }
  ~Reader() { lscoredb_changes_close(changes_); }
  Reader(Reader const&) = delete;
  Reader& operator=(Reader const&) = delete;

  lscoredb_changes* get() const { return changes_; }
  lscoredb_change const* Next() {
    lscoredb_change const* change = nullptr;
    Check("lscoredb_changes_next", lscoredb_changes_next(changes_, &change));
    return change;
  }
  std::vector<Seen> Rest() {
    std::vector<Seen> all;
    while (lscoredb_change const* const change = Next()) {
      Seen seen{change->kind, change->object, {}, {}, {}};
      if (change->setspec != nullptr) seen.setspec = change->setspec;
      if (change->former_setspec != nullptr) seen.former_setspec = change->former_setspec;
      seen.columns.assign(change->columns, change->columns + change->column_count);
      all.push_back(seen);
    }
    return all;
  }

 private:
  lscoredb_changes* changes_ = nullptr;
};

class ChangesTest : public testing::Test {
 protected:
  ChangesTest() : database_(place_, WithLog()), session_(database_) {
    Check("lscoredb_keep_changes", lscoredb_keep_changes(database_.get(), kLots, 0));
    session_.Begin();
    layout_ = session_.CreateLayout(
        kLayoutToken, {{LORV_TYPE_LONG, 11}, {LORV_TYPE_STRING, 12}, {LORV_TYPE_LONG, 13, false}});
    session_.Commit();
  }
  static std::uint64_t Last(Database const& database) {
    lscoredb_kept_changes kept{};
    kept.size = sizeof kept;
    Check("lscoredb_kept", lscoredb_kept(database.get(), &kept));
    return kept.last;
  }
  std::uint64_t Last() const { return Last(database_); }
  Oid InsertCommitted() {
    session_.Begin();
    Oid const oid = session_.Insert(layout_);
    session_.Commit();
    return oid;
  }

  TemporaryDirectory directory_;
  std::string const place_ = lscore::NewPlace(directory_.path());
  Database database_;
  Session session_;
  LayoutId layout_ = 0;
};

TEST_F(ChangesTest, Insert_Update_Delete_AreTold) {
  Reader reader(database_, Last());
  Oid const oid = InsertCommitted();
  session_.Begin();
  session_.PutLong(oid, 2, 5);
  session_.PutString(oid, 3, u"text");
  session_.Commit();
  session_.Begin();
  session_.PutLong(oid, 2, 5);
  session_.PutString(oid, 3, u"tex\u0416t");
  session_.Commit();
  session_.Begin();
  session_.Delete(oid);
  session_.Commit();
  std::vector<Seen> const expected = {{LSCOREDB_CHANGE_CREATED, oid, kSet, {}, {}},
                                      {LSCOREDB_CHANGE_CHANGED, oid, kSet, {11, 12}, {}},
                                      {LSCOREDB_CHANGE_CHANGED, oid, kSet, {12}, {}},
                                      {LSCOREDB_CHANGE_DELETED, oid, kSet, {}, {}}};
  EXPECT_EQ(expected, reader.Rest());
}

TEST_F(ChangesTest, WriteOfTheSameValue_ChangesNoColumn) {
  Oid const oid = InsertCommitted();
  Reader reader(database_, Last());
  session_.Begin();
  session_.PutLong(oid, 4, 0);  // what a column that is not nullable is without a value
  session_.Commit();
  EXPECT_EQ((std::vector<Seen>{{LSCOREDB_CHANGE_CHANGED, oid, kSet, {}, {}}}), reader.Rest());
}

TEST_F(ChangesTest, NullAgain_IsAChange) {
  Oid const oid = InsertCommitted();
  session_.Begin();
  session_.PutLong(oid, 2, 0);
  session_.Commit();
  Reader reader(database_, Last());
  session_.Begin();
  session_.PutDefault(oid, 2);
  session_.Commit();
  EXPECT_EQ((std::vector<Seen>{{LSCOREDB_CHANGE_CHANGED, oid, kSet, {11}, {}}}), reader.Rest());
}

TEST_F(ChangesTest, Moves_NameBothSetsAndLayouts) {
  Oid const oid = InsertCommitted();
  Reader reader(database_, Last());
  session_.Begin();
  LayoutId const newer = session_.CreateLayout(
      kLayoutToken, {{LORV_TYPE_LONG, 11}, {LORV_TYPE_STRING, 12}, {LORV_TYPE_LONG, 13, false}});
  session_.Commit();
  session_.Begin();
  Check("move", lscoredb_move_object(session_.context(), oid, newer));
  session_.Commit();
  session_.Begin();
  session_.PutSetspec(oid, u"set/\u0416other/");
  session_.Commit();
  lscoredb_change const* change = reader.Next();
  ASSERT_NE(nullptr, change);
  EXPECT_EQ(LSCOREDB_CHANGE_SCHEMA, change->kind);
  change = reader.Next();
  ASSERT_NE(nullptr, change);
  EXPECT_EQ(LSCOREDB_CHANGE_MOVED, change->kind);
  EXPECT_EQ(newer, change->layout);
  EXPECT_EQ(layout_, change->former_layout);
  EXPECT_EQ(nullptr, change->former_setspec);
  EXPECT_EQ((std::vector<Seen>{{LSCOREDB_CHANGE_MOVED, oid, u"set/\u0416other/", {}, kSet}}),
            reader.Rest());
}

TEST_F(ChangesTest, RollbacksAndSavepoints_LeaveNothing) {
  Reader reader(database_, Last());
  session_.Begin();
  session_.Insert(layout_);
  session_.Rollback();
  session_.Begin();
  Oid const kept = session_.Insert(layout_);
  std::uint64_t savepoint = 0;
  Check("savepoint", lscoredb_savepoint(session_.context(), &savepoint));
  session_.Insert(layout_);
  session_.CreateLayout(kLayoutToken + 1, {{LORV_TYPE_LONG, 11}});
  Check("rollback_to", lscoredb_rollback_to(session_.context(), savepoint));
  Oid const gone = session_.Insert(layout_);
  session_.Delete(gone);
  session_.Commit();
  EXPECT_EQ((std::vector<Seen>{{LSCOREDB_CHANGE_CREATED, kept, kSet, {}, {}}}), reader.Rest());
}

TEST_F(ChangesTest, RefusedCommit_LeavesNothing) {
  Oid const oid = InsertCommitted();
  Session other(database_);
  other.Begin();
  other.PutLong(oid, 2, 1);
  session_.Begin();
  session_.PutLong(oid, 2, 2);
  session_.Commit();
  Reader reader(database_, Last());
  EXPECT_STATUS(LSCOREDB_CONFLICT, other.TryCommit());
  EXPECT_EQ(std::vector<Seen>{}, reader.Rest());
}

TEST_F(ChangesTest, Position_GoesOnInTheMiddleOfACommit) {
  std::uint64_t const before = Last();
  session_.Begin();
  Oids const oids = {session_.Insert(layout_), session_.Insert(layout_), session_.Insert(layout_)};
  session_.Commit();
  Reader all(database_, before);
  lscoredb_change const* const first = all.Next();
  ASSERT_NE(nullptr, first);
  EXPECT_EQ(1u, first->place);
  EXPECT_EQ(0u, first->last);
  EXPECT_NE(0u, first->time);
  for (std::uint32_t place = 0; place <= 3; ++place) {
    Reader rest(database_, first->commit, place);
    std::vector<Seen> const seen = rest.Rest();
    ASSERT_EQ(3 - place, seen.size());
    for (std::uint32_t i = 0; i < seen.size(); ++i) EXPECT_EQ(oids[place + i], seen[i].object);
  }
  EXPECT_EQ(std::vector<Seen>{}, Reader(database_, first->commit).Rest());
  lscoredb_change const* const second = all.Next();
  ASSERT_NE(nullptr, second);
  EXPECT_EQ(0u, second->last);
  lscoredb_change const* const third = all.Next();
  ASSERT_NE(nullptr, third);
  EXPECT_EQ(1u, third->last);
  EXPECT_EQ(nullptr, all.Next());
}

// Groups of commits share a number; each transaction's changes stay together.
TEST_F(ChangesTest, ManyThreads_EveryObjectOnceAndTransactionsWhole) {
  Reader reader(database_, Last());
  constexpr int kThreads = 4;
  constexpr int kCommits = 50;
  InParallel(kThreads, [&](int) {
    Session session(database_);
    for (int i = 0; i < kCommits; ++i) {
      session.Begin();
      session.Insert(layout_);
      session.Insert(layout_);
      session.Commit();
    }
  });
  std::vector<Oid> seen;
  std::uint32_t in_transaction = 0;
  std::pair<std::uint64_t, std::uint32_t> at{0, 0};
  while (lscoredb_change const* const change = reader.Next()) {
    std::pair const position(change->commit, change->place);
    EXPECT_LT(at, position);
    at = position;
    seen.push_back(change->object);
    ++in_transaction;
    EXPECT_EQ(in_transaction == 2 ? 1u : 0u, change->last);
    if (change->last != 0) in_transaction = 0;
  }
  EXPECT_EQ(2u * kThreads * kCommits, seen.size());
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(seen.end(), std::unique(seen.begin(), seen.end()));
}

TEST_F(ChangesTest, Copy_KeepsNothingAndCanBeOpened) {
  InsertCommitted();
  std::string const copy = directory_ / "copy";
  Check("copy", lscoredb_copy(database_.get(), copy.c_str()));
  Database other(copy, WithLog());
  lscoredb_kept_changes kept{};
  kept.size = sizeof kept;
  EXPECT_STATUS(LSCOREDB_NO_CHANGES, lscoredb_kept(other.get(), &kept));
}

TEST_F(ChangesTest, OpenReader_KeepsItsDatabaseOpen) {
  lscoredb* database = nullptr;
  lscoredb_options const options = WithLog();
  Check("open", lscoredb_open(place_.c_str(), &options, &database));
  lscoredb_changes* reader = nullptr;
  Check("changes_open", lscoredb_changes_open(database, 0, UINT32_MAX, &reader));
  EXPECT_STATUS(LSCOREDB_IN_USE, lscoredb_close(database));
  EXPECT_STATUS(0, lscoredb_changes_close(reader));
  EXPECT_STATUS(0, lscoredb_close(database));
}

TEST_F(ChangesTest, Wait_EndsWithoutAChange) {
  Reader reader(database_, Last());
  std::uint32_t some = 7;
  EXPECT_STATUS(0, lscoredb_changes_wait(reader.get(), 1, &some));
  EXPECT_EQ(0u, some);
  InsertCommitted();
  EXPECT_STATUS(0, lscoredb_changes_wait(reader.get(), -1, &some));
  EXPECT_EQ(1u, some);
  EXPECT_EQ(1u, reader.Rest().size());
}

TEST_F(ChangesTest, ForkedChild_CannotUseTheReader) {
  Reader reader(database_, Last());
  int file = -1;
  Check("file", lscoredb_changes_file(reader.get(), &file));
  pid_t const child = fork();
  if (child == 0) {
    lscoredb_change const* change = nullptr;
    bool const refused = lscoredb_changes_next(reader.get(), &change) == LSCOREDB_OF_PARENT &&
                         lscoredb_changes_close(reader.get()) == 0;
    _exit(refused ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  EXPECT_EQ(0, status);
  Oid const oid = InsertCommitted();
  EXPECT_EQ((std::vector<Seen>{{LSCOREDB_CHANGE_CREATED, oid, kSet, {}, {}}}), reader.Rest());
}

TEST_F(ChangesTest, BadArguments_AreRefused) {
  lscoredb_kept_changes kept{};
  lscoredb_changes* reader = nullptr;
  lscoredb_change const* change = nullptr;
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, lscoredb_kept(database_.get(), &kept));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_kept(database_.get(), nullptr));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_keep_changes(nullptr, 1, 1));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_changes_open(database_.get(), 0, 0, nullptr));
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT,
                lscoredb_changes_open(database_.get(), Last() + 1, UINT32_MAX, &reader));
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT,
                lscoredb_changes_open(database_.get(), Last() + 1, 0, &reader));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_changes_next(nullptr, &change));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_changes_close(nullptr));
}

TEST(ChangesElsewhereTest, DatabasesWithoutALog_SayWhatToDo) {
  TemporaryDirectory directory;
  lscoredb_options options = NoSync();
  options.log = LSCOREDB_NO_LOG;
  Database const plain(directory.path(), options);
  Database const in_memory;
  for (lscoredb* const database : {plain.get(), in_memory.get()}) {
    EXPECT_STATUS(LSCOREDB_CHANGES_UNSUPPORTED, lscoredb_keep_changes(database, 1, 1));
    lscoredb_changes* reader = nullptr;
    EXPECT_STATUS(LSCOREDB_CHANGES_UNSUPPORTED, lscoredb_changes_open(database, 0, 0, &reader));
  }
}

}  // namespace
}  // namespace lscoredb_test
