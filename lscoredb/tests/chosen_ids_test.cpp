// Identities that callers choose, beside those that the kernel gives, through deletions, reopening,
// and in several processes.

#include <limits>
#include <memory>
#include <set>

#include "kernel_test.h"
#include "other_process.h"

namespace lscoredb_test {
namespace {

constexpr Oid kFar = Oid{1} << 40;
constexpr Oid kLast = std::numeric_limits<std::int64_t>::max();

// An open database with a layout and a transaction.
class World {
 public:
  explicit World(std::string const& directory) : database_(directory), session_(database_) {
    session_.Begin();
    auto const layouts = session_.LayoutsByToken(50);
    layout_ = layouts.empty() ? session_.CreateLayout(50, {}) : layouts[0];
    Restart();
  }

  Session& session() { return session_; }
  Database& database() { return database_; }
  LayoutId layout() const { return layout_; }
  std::uint32_t Choose(Oid id) {
    return lorvi_context_insert_with_id(session_.context(), layout_, id);
  }
  Oid Give() { return session_.InsertBare(layout_); }
  void Restart() {
    session_.Commit();
    session_.Begin();
  }
  std::uint32_t Raise(Oid first) { return lscoredb_raise_ids(database_.get(), first); }

 private:
  Database database_;
  Session session_;
  LayoutId layout_ = 0;
};

class ChosenIdsTest : public testing::Test {
 protected:
  World& world() { return *world_; }
  void Reopen() {
    world_->session().Commit();
    world_.reset();
    world_ = std::make_unique<World>(directory_.path());
  }

  // As many as it takes for new blocks to be reserved.
  void ExpectGivenKeepClear(std::set<Oid> const& chosen, int count = 200000) {
    for (int i = 0; i < count; ++i) {
      if (chosen.contains(world().Give())) FAIL() << "an identity was given twice";
      if (i % 20000 == 0) world().Restart();
    }
    EXPECT_STATUS(0, world().session().TryCommit());
    world().session().Begin();
  }

  TemporaryDirectory directory_;
  std::unique_ptr<World> world_ = std::make_unique<World>(directory_.path());
};

TEST_F(ChosenIdsTest, UnusedIdBeyondTheReserved_IsTaken) {
  for (Oid const id : {kFar, kFar + 1, kFar - 1, Oid{1} << 62, (Oid{1} << 62) - 1, kLast}) {
    EXPECT_STATUS(0, world().Choose(id));
    EXPECT_STATUS(LSCOREDB_ID_IN_USE, world().Choose(id));
  }
  Reopen();
  EXPECT_TRUE(world().session().Exists(kLast));
  EXPECT_STATUS(LSCOREDB_ID_IN_USE, world().Choose(kFar));
  EXPECT_STATUS(0, world().Choose(kFar + 2)) << "right behind the last one";
}

TEST_F(ChosenIdsTest, IdAboveTheLast_IsRefused) {
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, world().Choose(kLast + 1));
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, world().Choose(~Oid{0}));
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, world().Choose(0));
}

TEST_F(ChosenIdsTest, ReservedId_IsRefusedWithItsOwnStatus) {
  Oid const given = world().Give();
  EXPECT_STATUS(LSCOREDB_ID_IN_USE, world().Choose(given));
  EXPECT_STATUS(LSCOREDB_ID_GIVEN_OUT, world().Choose(given + 1));
  EXPECT_STATUS(LSCOREDB_ID_GIVEN_OUT, world().Choose(given + 30000));
  Reopen();
  EXPECT_STATUS(LSCOREDB_ID_GIVEN_OUT, world().Choose(given + 1));
}

TEST_F(ChosenIdsTest, DeletedId_IsNeverTakenAgain) {
  Oid const given = world().Give();
  EXPECT_STATUS(0, world().Choose(kFar));
  EXPECT_STATUS(0, world().Choose(kLast));
  world().Restart();
  for (Oid const id : {given, kFar, kLast}) world().session().Delete(id);
  EXPECT_STATUS(LSCOREDB_ID_IN_USE, world().Choose(kFar)) << "in the same transaction";
  for (int i = 0; i < 2; ++i) {
    Reopen();
    for (Oid const id : {given, kFar, kLast}) {
      EXPECT_STATUS(LSCOREDB_ID_GIVEN_OUT, world().Choose(id));
    }
    EXPECT_STATUS(0, world().Choose(kFar + 10 + static_cast<Oid>(i)));
  }
}

TEST_F(ChosenIdsTest, UncommittedId_IsUnused) {
  EXPECT_STATUS(0, world().Choose(kFar));
  world().session().Rollback();
  world().session().Begin();
  EXPECT_STATUS(0, world().Choose(kFar));
  world().session().Delete(kFar);
  world().Restart();
  EXPECT_STATUS(0, world().Choose(kFar));
}

TEST_F(ChosenIdsTest, HighestIds_LeaveTheKernelIdsToAllocate) {
  for (Oid const id : {(Oid{1} << 62) - 1, Oid{1} << 62, kLast}) {
    EXPECT_STATUS(0, world().Choose(id));
  }
  Reopen();
  ExpectGivenKeepClear({});
  Reopen();
  EXPECT_LT(world().Give(), kFar);
}

// Few and many of them, in the way of blocks that are reserved later.
TEST_F(ChosenIdsTest, AllocatedIds_AvoidChosenOnes) {
  Oid const mark = world().Give() + 65536;
  std::set<Oid> chosen;
  for (Oid id = mark; id < mark + 10000; ++id) chosen.insert(id);
  for (Oid id = mark + 10000; id < mark + 200000; id += 37) chosen.insert(id);
  for (Oid const id : chosen) ASSERT_EQ(0U, world().Choose(id)) << id;
  ExpectGivenKeepClear(chosen, 20000);
  Reopen();
  ExpectGivenKeepClear(chosen);
  for (Oid const id : chosen) world().session().Delete(id);
  Reopen();
  ExpectGivenKeepClear(chosen);
  for (Oid const id : chosen) ASSERT_EQ(LSCOREDB_ID_GIVEN_OUT, world().Choose(id)) << id;
}

// A block that is reserved while a choice is open leaves it out.
TEST_F(ChosenIdsTest, UncommittedChoice_IsNotReservedByItsProcess) {
  Oid const chosen = world().Give() + 65536;
  Session other(world().database());
  other.Begin();
  EXPECT_STATUS(0, lorvi_context_insert_with_id(other.context(), world().layout(), chosen));
  EXPECT_STATUS(0, lorvi_context_insert_with_id(other.context(), world().layout(), chosen + 100));
  ExpectGivenKeepClear({chosen, chosen + 100});
  other.PutSetspec(chosen, kSet);
  other.Commit();
  other.Close();
  Reopen();
  EXPECT_TRUE(world().session().Exists(chosen));
  EXPECT_TRUE(world().session().Exists(chosen + 100));
}

// ---- free ranges -------------------------------------------------------------------------------

TEST_F(ChosenIdsTest, Raise_LeavesUnreservedIdsToBeChosen) {
  Oid const given = world().Give();
  Oid const free = given + 100000;
  EXPECT_STATUS(0, world().Raise(kFar));
  world().Restart();
  EXPECT_STATUS(0, world().Choose(free));
  EXPECT_STATUS(0, world().Choose(kFar - 1));
  EXPECT_STATUS(LSCOREDB_ID_GIVEN_OUT, world().Choose(given + 70));
  Reopen();
  EXPECT_GE(world().Give(), kFar);
  EXPECT_STATUS(LSCOREDB_ID_IN_USE, world().Choose(free));
  EXPECT_STATUS(LSCOREDB_ID_GIVEN_OUT, world().Choose(kFar + 10));
  world().session().Delete(free);
  Reopen();
  EXPECT_STATUS(LSCOREDB_ID_GIVEN_OUT, world().Choose(free));
  EXPECT_STATUS(0, world().Choose(free - 1));
  EXPECT_STATUS(0, world().Choose(free + 1));
}

TEST_F(ChosenIdsTest, Raise_NewDatabase_LeavesAllIds) {
  TemporaryDirectory directory;
  Database database(directory.path());
  ASSERT_EQ(0U, lscoredb_raise_ids(database.get(), 1000));
  Session session(database);
  session.Begin();
  LayoutId const layout = session.CreateLayout(50, {});
  for (Oid id = 1; id < 1000; ++id) session.InsertWithId(layout, id);
  EXPECT_GE(session.Insert(layout), Oid{1000});
  session.Commit();
  session.Begin();
  for (Oid id = 1; id < 1000; id += 3) session.Delete(id);
  session.Commit();
  session.Begin();
  for (Oid id = 1; id < 1000; ++id) {
    bool const deleted = id % 3 == 1;
    EXPECT_STATUS(deleted ? LSCOREDB_ID_GIVEN_OUT : LSCOREDB_ID_IN_USE,
                  lorvi_context_insert_with_id(session.context(), layout, id));
  }
}

TEST_F(ChosenIdsTest, Raise_OnlyGoesUp_AndNotTooFar) {
  EXPECT_STATUS(0, world().Raise(kFar));
  EXPECT_STATUS(0, world().Raise(5));
  EXPECT_STATUS(0, world().Raise(0));
  world().Restart();
  EXPECT_GE(world().Give(), kFar);
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, world().Raise((Oid{1} << 61) + 1));
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, world().Raise(~Oid{0}));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_raise_ids(nullptr, 5));
  EXPECT_STATUS(0, world().Raise(Oid{1} << 61));
  Reopen();
  EXPECT_STATUS(0, world().Choose(kFar + 200000));
  world().Give();
}

TEST_F(ChosenIdsTest, Raise_PassesChosenAndDeletedIds) {
  EXPECT_STATUS(0, world().Choose(kFar));
  EXPECT_STATUS(0, world().Choose(kFar + 1));
  world().Restart();
  world().session().Delete(kFar);
  world().Restart();
  EXPECT_STATUS(0, world().Raise(kFar * 2));
  world().Restart();
  EXPECT_STATUS(LSCOREDB_ID_GIVEN_OUT, world().Choose(kFar));
  EXPECT_STATUS(LSCOREDB_ID_IN_USE, world().Choose(kFar + 1));
  EXPECT_STATUS(0, world().Choose(kFar + 2));
  EXPECT_STATUS(0, world().Choose(kFar - 1));
  Reopen();
}

// ---- several processes -------------------------------------------------------------------------

// Forked before this process opens anything.
class ChosenIdsProcessTest : public testing::Test {
 protected:
  TemporaryDirectory directory_;
};

TEST_F(ChosenIdsProcessTest, AnotherProcessesReserve_IsRefusedAndNeverDisturbed) {
  OtherProcess other([&](OtherProcess& test) {
    World world(directory_.path());
    test.Say(world.Give());
    world.Restart();
    test.Hear();
    for (int i = 0; i < 60000; ++i) world.Give();
    EXPECT_STATUS(0, world.session().TryCommit());
    world.session().Begin();
  });
  Oid const given = other.Hear();
  {
    World world(directory_.path());
    for (Oid const id : {given + 1, given + 1000, given + 50000}) {
      EXPECT_STATUS(LSCOREDB_ID_GIVEN_OUT, world.Choose(id));
    }
    other.Say();
    other.ExpectGoodEnd();
  }
}

// The other process cannot know of it: its own inserts go through, and the choice is refused.
TEST_F(ChosenIdsProcessTest, ReserveAroundAnOpenChoice_RefusesTheChoice) {
  OtherProcess other([&](OtherProcess& test) {
    Oid const chosen = test.Hear();
    World world(directory_.path());
    Oid given = 0;
    do given = world.Give();
    while (given < chosen);
    EXPECT_STATUS(0, world.session().TryCommit());
    world.session().Begin();
  });
  World world(directory_.path());
  Oid const chosen = world.Give() + 2 * 65536 + 50000;
  world.Restart();
  EXPECT_STATUS(0, world.Choose(chosen));
  other.Say(chosen);
  other.ExpectGoodEnd();
  EXPECT_STATUS(LSCOREDB_ID_GIVEN_OUT, world.session().TryCommit());
  world.session().Begin();
}

TEST_F(ChosenIdsProcessTest, ProcessesThatChooseAndGive_NeverMeet) {
  auto const work = [&](Oid first, int seed) {
    World world(directory_.path());
    for (int i = 0; i < 400; ++i) {
      Oid const id = first + static_cast<Oid>(i * 613 + seed);
      std::uint32_t const status = world.Choose(id);
      EXPECT_TRUE(status == 0 || status == LSCOREDB_ID_GIVEN_OUT || status == LSCOREDB_ID_IN_USE);
      for (int k = 0; k < 200; ++k) world.Give();
      std::uint32_t const committed = world.session().TryCommit();
      EXPECT_TRUE(committed == 0 || committed == LSCOREDB_ID_GIVEN_OUT ||
                  (status == 0 && committed == LSCOREDB_CONFLICT))
          << committed;
      world.session().Begin();
    }
  };
  OtherProcess other([&](OtherProcess&) { work(70000, 0); });
  OtherProcess third([&](OtherProcess&) { work(70000, 300); });
  other.ExpectGoodEnd();
  third.ExpectGoodEnd();
  work(70000, 450);
}

}  // namespace
}  // namespace lscoredb_test
