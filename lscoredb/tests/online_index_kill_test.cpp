// Indexes that are built beside writers of other processes, which are killed at every step.

#include <lscoredb/index_build.h>
#include <lscoredb/move.h>

#include "kernel_test.h"
#include "other_process.h"
#include "step_kills.h"

namespace lscoredb_test {
namespace {

constexpr std::uint32_t kNumber = 2;
constexpr std::uint64_t kNumberToken = 100;
constexpr int kRows = 60;
constexpr char16_t kMoved[] = u"moved/";

class OnlineIndexKillTest : public testing::Test {
 protected:
  static IndexId Prepare(Session& session) {
    auto const columns = Definitions({{LORV_TYPE_LONG, kNumberToken}});
    IndexId index = 0;
    Check("prepare_index", lscoredb_prepare_index(session.context(), u"by number", kSet,
                                                  columns.data(), 0, LORV_INDEX_UNIQUE, &index));
    return index;
  }
  static std::uint32_t Step(Session& session, IndexId index) {
    lscoredb_index_build build{};
    build.size = sizeof build;
    Check("build_index", lscoredb_build_index(session.context(), index, 7, &build));
    return build.state;
  }
  static IndexId Create(Session& session) {
    return session.CreateIndex(60, kSet, {{LORV_TYPE_LONG, kNumberToken}}, kUnique);
  }

  // A new object and a changed one.
  static void Write(Session& session, std::int64_t number) {
    session.Begin();
    LayoutId const layout = session.LayoutsByToken(50).at(0);
    session.PutLong(session.Insert(layout), kNumber, 1000 + number);
    Oid const row = session.Insert(layout);
    session.PutLong(row, kNumber, 2000 + number);
    session.PutLong(row, kNumber, 3000 + number);
    session.Commit();
  }

  void MakeRows() const {
    Database database(place_);
    Session session(database);
    session.Begin();
    LayoutId const layout = session.CreateLayout(50, {{LORV_TYPE_LONG, kNumberToken}});
    for (int i = 0; i < kRows; ++i) session.PutLong(session.Insert(layout), kNumber, i);
    session.Commit();
  }

  // All of it, with a writer in the same process between the steps.
  void BuildAndAdopt() const {
    Database const database(place_);
    Session session(database);
    IndexId const index = Prepare(session);
    for (std::int64_t i = 0; Step(session, index) != LSCOREDB_INDEX_READY; ++i) {
      Write(session, i);
    }
    session.Begin();
    Create(session);
    session.Commit();
  }

  // All objects go to another set, and the build with them.
  static void Move(Session& session) {
    session.Begin();
    LayoutId const layout = session.LayoutsByToken(50).at(0);
    IndexId const all = session.CreateIndex(62, kSet, {{LORV_TYPE_LONG, kNumberToken}});
    for (Oid const row : session.Scan(all)) {
      Check("move", lscoredb_move_to_set(session.context(), row, layout, kMoved, nullptr, 0));
    }
    session.DropIndex(all);
    Check("move", lscoredb_move_prepared(session.context(), kSet, kMoved, nullptr, 0));
    session.Commit();
  }
  // Some steps, the move, and the rest.
  void BuildAndMove() const {
    Database const database(place_);
    Session session(database);
    IndexId const index = Prepare(session);
    for (int i = 0; i < 4; ++i) Step(session, index);
    Move(session);
    while (Step(session, index) != LSCOREDB_INDEX_READY) {
    }
  }
  // Goes on where the other process was, which may have prepared nothing yet. Returns whether the
  // objects had moved.
  bool FinishMoved() const {
    Database const database(place_);
    Session session(database);
    lscoredb_index_build build{};
    build.size = sizeof build;
    std::uint32_t count = 1;
    Check("index_builds", lscoredb_index_builds(session.context(), &count, &build));
    bool const moved = count == 1 && Text(build.setspec) == kMoved;
    if (!moved) Prepare(session);
    if (!moved) Move(session);
    count = 1;
    Check("index_builds", lscoredb_index_builds(session.context(), &count, &build));
    while (Step(session, build.index) != LSCOREDB_INDEX_READY) {
    }
    session.Begin();
    EXPECT_EQ(build.index,
              session.CreateIndex(60, kMoved, {{LORV_TYPE_LONG, kNumberToken}}, kUnique));
    EXPECT_EQ(static_cast<std::size_t>(kRows), session.Scan(build.index).size());
    session.Commit();
    return moved;
  }

  // Removes the build batch by batch, if it is there, with a writer in between. Returns whether it
  // had been abandoned before.
  bool Abandon(std::uint64_t batch) const {
    Database const database(place_);
    Session session(database);
    lscoredb_index_build build{};
    build.size = sizeof build;
    std::uint32_t count = 1;
    Check("index_builds", lscoredb_index_builds(session.context(), &count, &build));
    bool const before = count == 1 && build.state == LSCOREDB_INDEX_ABANDONED;
    while (count == 1 && build.state != LSCOREDB_INDEX_REMOVED) {
      Check("abandon", lscoredb_abandon_index_step(session.context(), build.index, batch, &build));
      Write(session, 4000 + static_cast<std::int64_t>(build.done));
      EXPECT_TRUE(Findings(database.get()).empty());
    }
    return before;
  }

  // Goes on where the other process was, and holds the index against the objects.
  void FinishAndCompare() const {
    Database const database(place_);
    Session session(database);
    session.BeginReadOnly();
    std::vector<IndexId> made = session.IndexesByToken(60);
    session.Rollback();
    if (made.empty()) {
      IndexId const index = Prepare(session);
      while (Step(session, index) != LSCOREDB_INDEX_READY) {
      }
      session.Begin();
      EXPECT_EQ(index, Create(session));
      session.Commit();
      made = {index};
    }
    session.Begin();
    IndexId const other = session.CreateIndex(61, kSet, {{LORV_TYPE_LONG, kNumberToken}});
    EXPECT_EQ(session.Scan(other), session.Scan(made.at(0)));
    EXPECT_LE(static_cast<std::size_t>(kRows), session.Scan(made.at(0)).size());
  }

  TemporaryDirectory directory_;
  std::string place_;
};

TEST_F(OnlineIndexKillTest, BuildKilledAtAnyStep_IsCompletedByTheNextProcess) {
  int killed = 0;
  for (bool more = true; more;) {
    place_ = directory_ / std::to_string(killed).c_str();
    OtherProcess maker([&](OtherProcess&) { MakeRows(); });
    EXPECT_FALSE(maker.EndsKilled());
    OtherProcess builder([&](OtherProcess&) {
      KillAtStep(killed + 1);
      BuildAndAdopt();
      KillAtStep(0);
    });
    more = builder.EndsKilled();
    killed += more ? 1 : 0;
    OtherProcess next([&](OtherProcess&) { FinishAndCompare(); });
    EXPECT_FALSE(next.EndsKilled()) << "killed at step " << killed;
  }
  EXPECT_GT(killed, 50) << "each commit is two steps";
}

TEST_F(OnlineIndexKillTest, MovedBuildKilledAtAnyStep_IsCompletedByTheNextProcess) {
  int killed = 0;
  int moved = 0;
  for (bool more = true; more;) {
    place_ = directory_ / std::to_string(killed).c_str();
    OtherProcess maker([&](OtherProcess&) { MakeRows(); });
    EXPECT_FALSE(maker.EndsKilled());
    OtherProcess builder([&](OtherProcess&) {
      KillAtStep(killed + 1);
      BuildAndMove();
      KillAtStep(0);
    });
    more = builder.EndsKilled();
    killed += more ? 1 : 0;
    OtherProcess next([&](OtherProcess& test) { test.Say(FinishMoved() ? 1 : 0); });
    moved += static_cast<int>(next.Hear());
    EXPECT_FALSE(next.EndsKilled()) << "killed at step " << killed;
  }
  EXPECT_GT(moved, 10);
  EXPECT_GT(killed, moved + 10) << "before the move too";
}

TEST_F(OnlineIndexKillTest, AbandonmentKilledAtAnyStep_IsFinishedByTheNextProcess) {
  int killed = 0;
  int in_between = 0;
  for (bool more = true; more;) {
    place_ = directory_ / std::to_string(killed).c_str();
    OtherProcess maker([&](OtherProcess&) {
      MakeRows();
      Database const database(place_);
      Session session(database);
      IndexId const index = Prepare(session);
      while (Step(session, index) != LSCOREDB_INDEX_READY) {
      }
    });
    EXPECT_FALSE(maker.EndsKilled());
    OtherProcess abandoner([&](OtherProcess&) {
      KillAtStep(killed + 1);
      Abandon(20);
      KillAtStep(0);
    });
    more = abandoner.EndsKilled();
    killed += more ? 1 : 0;
    OtherProcess next([&](OtherProcess& test) {
      test.Say(Abandon(20) ? 1 : 0);
      FinishAndCompare();
    });
    in_between += static_cast<int>(next.Hear());
    EXPECT_FALSE(next.EndsKilled()) << "killed at step " << killed;
  }
  EXPECT_GT(killed, 30) << "each commit is a few steps";
  EXPECT_GT(in_between, 5) << "when the build was abandoned already";
}

// The other process began its transaction before the index was prepared, and commits at each stage.
TEST_F(OnlineIndexKillTest, TransactionOfAnotherProcess_EntersTheIndexAnyway) {
  for (int stage = 0; stage < 12; ++stage) {
    place_ = directory_ / std::to_string(stage).c_str();
    OtherProcess maker([&](OtherProcess&) { MakeRows(); });
    EXPECT_FALSE(maker.EndsKilled());
    OtherProcess writer([&](OtherProcess& test) {
      Database const database(place_);
      Session session(database);
      session.Begin();
      LayoutId const layout = session.LayoutsByToken(50).at(0);
      for (int i = 0; i < 5; ++i) session.PutLong(session.Insert(layout), kNumber, 500 + i);
      test.Say();
      test.Hear();
      session.Commit();
      test.Say();
    });
    writer.Hear();
    OtherProcess builder([&](OtherProcess& test) {
      Database const database(place_);
      Session session(database);
      IndexId const index = Prepare(session);
      int step = 0;
      for (std::uint32_t state = 0; state != LSCOREDB_INDEX_READY; ++step) {
        if (step == stage) {
          test.Say();
          test.Hear();
        }
        state = Step(session, index);
      }
      if (step <= stage) {
        test.Say();
        test.Hear();
      }
      session.Begin();
      EXPECT_EQ(index, Create(session));
      EXPECT_EQ(kRows + 5u, session.Scan(index).size());
      session.Commit();
    });
    builder.Hear();
    writer.Say();
    writer.Hear();
    builder.Say();
    EXPECT_FALSE(builder.EndsKilled());
    EXPECT_FALSE(writer.EndsKilled());
    OtherProcess reader([&](OtherProcess&) { FinishAndCompare(); });
    EXPECT_FALSE(reader.EndsKilled());
  }
}

}  // namespace
}  // namespace lscoredb_test
