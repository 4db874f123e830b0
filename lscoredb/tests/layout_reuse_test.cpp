// When a layout's number is given out again, and when not. What a process has seen of a database it
// knows until its last close, so most steps run in a process of their own.

#include <fcntl.h>
#include <sys/file.h>

#include <algorithm>
#include <fstream>
#include <set>

#include "kernel_test.h"
#include "other_process.h"
#include "step_kills.h"

namespace lscoredb_test {
namespace {

using LayoutIds = std::vector<LayoutId>;

constexpr std::uint64_t kOldToken = 50;
constexpr std::uint64_t kNewToken = 51;
constexpr std::uint64_t kOldColumn = 100;
constexpr std::uint64_t kNewColumn = 101;
constexpr std::uint32_t kValue = 2;
constexpr Oid kRow = 1000000;
constexpr LayoutId kHighest = 0xFFFF;

std::uint32_t Release(Session& session, LayoutId layout) {
  return lscoredb_release_layout(session.context(), layout);
}

bool Knows(Session& session, LayoutId layout) {
  LORVI_LAYOUT_INFO info{};
  std::uint32_t const status = lorvi_context_get_layout_info(session.context(), layout, &info);
  if (status == LORV_STATUS_OK) return true;
  EXPECT_STATUS(LSCOREDB_UNKNOWN_LAYOUT, status);
  return false;
}

std::set<LayoutId> LayoutsInUse(Session& session) {
  std::uint32_t count = 0;
  Check("layout_stats", lscoredb_layout_stats(session.context(), &count, nullptr));
  std::vector<lscoredb_layout_statistics> statistics(count + 1);
  Check("layout_stats", lscoredb_layout_stats(session.context(), &count, statistics.data()));
  std::set<LayoutId> layouts;
  for (std::uint32_t i = 0; i < count; ++i) layouts.insert(statistics[i].layout);
  return layouts;
}

void InsertRow(Session& session, LayoutId layout) {
  session.InsertWithId(layout, kRow);
  session.PutSetspec(kRow, kSet);
}

std::uint32_t TryCreate(Session& session, LayoutId* layout) {
  return lorvi_context_create_layout(session.context(), kNewToken, 0, Definitions({}).data(), 0,
                                     layout);
}

class LayoutReuseTest : public testing::Test {
 protected:
  // Runs `work` in a process and a transaction of its own, which is committed.
  void Elsewhere(std::function<void(Session&)> const& work) {
    InAnotherProcess([&] { Here(work); });
  }
  // The same in the present process, which is not that of the test.
  void Here(std::function<void(Session&)> const& work) {
    Database database(place_);
    Session session(database);
    session.Begin();
    work(session);
    session.Commit();
  }
  // Layouts 1 to `count`, with one column each.
  void MakeLayouts(LayoutId count) {
    Elsewhere([&](Session& session) {
      for (LayoutId i = 1; i <= count; ++i)
        EXPECT_EQ(session.CreateLayout(kOldToken, {{LORV_TYPE_LONG, kOldColumn}}), i);
    });
  }
  void ReleaseElsewhere(LayoutId layout) {
    Elsewhere([&](Session& session) { EXPECT_STATUS(0, Release(session, layout)); });
  }
  void ExpectSound() {
    InAnotherProcess([&] {
      Database const database(place_);
      EXPECT_STATUS(0, lscoredb_check(database.get(), 0, nullptr, nullptr));
    });
  }
  void ExpectKnownLater(std::set<LayoutId> const& layouts) {
    Elsewhere([&](Session& session) {
      for (LayoutId layout = 1; layout <= 5; ++layout)
        EXPECT_EQ(Knows(session, layout), layouts.contains(layout)) << layout;
    });
  }

  TemporaryDirectory directory_;
  std::string place_ = directory_.path();
};

TEST_F(LayoutReuseTest, ReleasedNumber_GetsANewMeaningInALaterProcess) {
  MakeLayouts(3);
  ReleaseElsewhere(2);
  Elsewhere([](Session& session) {
    EXPECT_FALSE(Knows(session, 2));
    EXPECT_EQ(session.LayoutsByToken(kOldToken), (LayoutIds{3, 1}));
    EXPECT_EQ(session.CreateLayout(kNewToken, {{LORV_TYPE_STRING, kNewColumn}}), 2);
    InsertRow(session, 2);
    session.PutString(kRow, kValue, u"new");
  });
  Elsewhere([&](Session& session) {
    EXPECT_EQ(session.LayoutsByToken(kNewToken), LayoutIds{2});
    EXPECT_EQ(session.ColumnInfo(2, kValue).token, kNewColumn);
    EXPECT_EQ(session.LayoutOf(kRow), 2);
    EXPECT_EQ(session.String(kRow, kValue), u"new");
    EXPECT_EQ(session.CreateLayout(kNewToken, {}), 4);
  });
}

TEST_F(LayoutReuseTest, KnownNumber_KeepsItsMeaningAsLongAsTheDatabaseIsOpen) {
  InAnotherProcess([&] {
    Database const stays(place_);
    Here([](Session& session) { EXPECT_EQ(session.CreateLayout(kOldToken, {}), 1); });
    Here([](Session& session) { EXPECT_STATUS(0, Release(session, 1)); });
    for (LayoutId next = 2; next < 5; ++next) {
      Here([next](Session& session) {
        EXPECT_EQ(session.LayoutInfo(1).token, kOldToken);
        EXPECT_EQ(session.CreateLayout(kNewToken, {}), next);
      });
    }
  });
  ExpectKnownLater({2, 3, 4});
}

TEST_F(LayoutReuseTest, LastClose_ForgetsTheMeaningOfNumbers) {
  InAnotherProcess([&] {
    Here([](Session& session) { EXPECT_EQ(session.CreateLayout(kOldToken, {}), 1); });
    Here([](Session& session) { EXPECT_STATUS(0, Release(session, 1)); });
    Here([](Session& session) {
      EXPECT_FALSE(Knows(session, 1));
      EXPECT_EQ(session.CreateLayout(kNewToken, {}), 1);
    });
  });
  ExpectKnownLater({1});
}

TEST_F(LayoutReuseTest, ForeignReader_KeepsNumbersFromBeingTaken) {
  MakeLayouts(2);
  OtherProcess reader([&](OtherProcess& test) {
    Database database(place_);
    Session session(database);
    session.BeginReadOnly();
    test.Say();
    test.Hear();
    EXPECT_EQ(session.LayoutInfo(1).token, kOldToken);
    session.Rollback();
    session.Begin();
    EXPECT_EQ(session.LayoutInfo(1).token, kOldToken);
    EXPECT_EQ(session.CreateLayout(kNewToken, {}), 4);
  });
  reader.Hear();
  ReleaseElsewhere(1);
  Elsewhere([](Session& session) {
    EXPECT_TRUE(Knows(session, 1));
    EXPECT_EQ(session.CreateLayout(kNewToken, {}), 3);
  });
  reader.Say();
  reader.ExpectGoodEnd();
  ExpectKnownLater({2, 3});
}

TEST_F(LayoutReuseTest, ProcessThatClosedTheDatabase_HoldsNoNumber) {
  MakeLayouts(2);
  OtherProcess knowing([&](OtherProcess& test) {
    Here([](Session& session) { EXPECT_TRUE(Knows(session, 1)); });
    test.Say();
    test.Hear();
    Here([](Session& session) { EXPECT_EQ(session.LayoutInfo(1).token, kNewToken); });
  });
  knowing.Hear();
  ReleaseElsewhere(1);
  Elsewhere([](Session& session) { EXPECT_EQ(session.CreateLayout(kNewToken, {}), 1); });
  knowing.Say();
  knowing.ExpectGoodEnd();
  ExpectKnownLater({1, 2});
}

TEST_F(LayoutReuseTest, LayoutWithObjects_IsNotReleased) {
  MakeLayouts(2);
  InAnotherProcess([&] {
    Here([](Session& session) {
      Oid const row = session.Insert(1);
      EXPECT_STATUS(LSCOREDB_LAYOUT_IN_USE, Release(session, 1)) << "in this transaction";
      Oid const other = session.Insert(2);
      session.Delete(other);
      EXPECT_STATUS(0, Release(session, 2));
      session.PutLong(row, kValue, 1);
    });
    Here([](Session& session) { EXPECT_STATUS(LSCOREDB_LAYOUT_IN_USE, Release(session, 1)); });
  });
  ExpectKnownLater({1});
}

TEST_F(LayoutReuseTest, Base_StaysAsLongAsALayoutBuiltOnIt) {
  Elsewhere([](Session& session) {
    EXPECT_EQ(session.CreateLayout(kOldToken, {}), 1);
    EXPECT_EQ(session.CreateLayout(kOldToken, {}, 1), 2);
    EXPECT_EQ(session.CreateLayout(kOldToken, {}, 2), 3);
    EXPECT_EQ(session.CreateLayout(kOldToken, {}, 2), 4);
    EXPECT_EQ(session.CreateLayout(kOldToken, {}, 1), 5);
    for (LayoutId const layout : LayoutIds{1, 2, 4}) EXPECT_STATUS(0, Release(session, layout));
  });
  ExpectKnownLater({1, 2, 3, 5});
  ReleaseElsewhere(3);
  ExpectKnownLater({1, 5});
  ReleaseElsewhere(5);
  ExpectKnownLater({});
}

TEST_F(LayoutReuseTest, Release_IsUndoneWithItsTransaction) {
  MakeLayouts(2);
  InAnotherProcess([&] {
    Database database(place_);
    Session session(database);
    session.Begin();
    EXPECT_STATUS(0, Release(session, 1));
    EXPECT_EQ(LayoutsInUse(session), std::set<LayoutId>{2});
    session.Rollback();
    session.Begin();
    EXPECT_EQ(LayoutsInUse(session), (std::set<LayoutId>{1, 2}));
    session.Commit();
  });
  ExpectKnownLater({1, 2});
}

TEST_F(LayoutReuseTest, ReleasedLayout_ServesUntilItIsTaken) {
  MakeLayouts(2);
  InAnotherProcess([&] {
    Database const stays(place_);
    Here([](Session& session) { EXPECT_STATUS(0, Release(session, 1)); });
    Here([](Session& session) {
      EXPECT_EQ(LayoutsInUse(session), std::set<LayoutId>{2});
      EXPECT_STATUS(0, Release(session, 1)) << "twice";
      InsertRow(session, 1);
      session.PutLong(kRow, kValue, 7);
      EXPECT_EQ(LayoutsInUse(session), (std::set<LayoutId>{1, 2})) << "it has an object";
    });
  });
  Elsewhere([](Session& session) {
    EXPECT_TRUE(Knows(session, 1)) << "its object keeps it";
    EXPECT_EQ(session.Long(kRow, kValue), 7);
    session.Delete(kRow);
  });
  ExpectKnownLater({2});
}

TEST_F(LayoutReuseTest, UnreleasableLayouts_AreRefused) {
  MakeLayouts(1);
  InAnotherProcess([&] {
    Database database(place_);
    Session session(database);
    session.Begin();
    for (LayoutId const unknown : {LayoutId{0}, LayoutId{2}, kHighest})
      EXPECT_STATUS(LSCOREDB_UNKNOWN_LAYOUT, Release(session, unknown));
    session.Rollback();
    EXPECT_STATUS(LSCOREDB_NO_TRANSACTION, Release(session, 1));
    session.BeginReadOnly();
    EXPECT_STATUS(LSCOREDB_WRITE_REFUSED, Release(session, 1));
    session.Rollback();
  });
  ExpectKnownLater({1});
}

TEST_F(LayoutReuseTest, NumbersOfARolledBackTransaction_AreFreeForALaterProcess) {
  MakeLayouts(1);
  OtherProcess first([&](OtherProcess& test) {
    Database database(place_);
    Session session(database);
    session.Begin();
    EXPECT_EQ(session.CreateLayout(kOldToken, {}), 2);
    session.Rollback();
    test.Say();
    test.Hear();
  });
  first.Hear();
  Elsewhere([](Session& session) {
    EXPECT_EQ(session.CreateLayout(kNewToken, {}), 3) << "the other process may know 2";
  });
  first.Say();
  first.ExpectGoodEnd();
  Elsewhere([](Session& session) { EXPECT_EQ(session.CreateLayout(kNewToken, {}), 2); });
}

TEST_F(LayoutReuseTest, ProcessesCreatingLayoutsAtOnce_TakeDifferentNumbers) {
  constexpr int kTransactions = 100;
  constexpr int kEach = 10;
  MakeLayouts(1);
  auto const create = [&](OtherProcess& test) {
    Database database(place_);
    Session session(database);
    session.Begin();
    test.Say(session.CreateLayout(kNewToken, {}));
    test.Hear();
    session.Commit();
    for (int i = 0; i < kTransactions; ++i) {
      session.Begin();
      for (int n = 0; n < kEach; ++n) test.Say(session.CreateLayout(kNewToken, {}));
      session.Commit();
    }
  };
  OtherProcess first(create);
  OtherProcess second(create);
  std::set<std::uint64_t> numbers{first.Hear(), second.Hear()};
  EXPECT_EQ(numbers, (std::set<std::uint64_t>{2, 3})) << "neither is committed";
  for (OtherProcess* const process : {&first, &second}) process->Say();
  for (int i = 0; i < kTransactions * kEach; ++i) {
    EXPECT_TRUE(numbers.insert(first.Hear()).second);
    EXPECT_TRUE(numbers.insert(second.Hear()).second);
  }
  first.ExpectGoodEnd();
  second.ExpectGoodEnd();
  EXPECT_EQ(*numbers.begin(), 2U);
  EXPECT_EQ(*numbers.rbegin(), 3U + 2 * kTransactions * kEach) << "none is left out";
  Elsewhere([&](Session& session) { EXPECT_EQ(LayoutsInUse(session).size(), numbers.size() + 1); });
}

TEST_F(LayoutReuseTest, ExhaustedNumbers_LeaveTheTransactionGoingAndReturnInALaterProcess) {
  constexpr LayoutId kFreed = 300;
  InAnotherProcess([&] {
    Here([](Session& session) {
      LayoutId layout = 0;
      for (LayoutId i = 0; i < kHighest; ++i) Check("create", TryCreate(session, &layout));
      EXPECT_EQ(layout, kHighest);
      EXPECT_STATUS(LSCOREDB_LAYOUTS_EXHAUSTED, TryCreate(session, &layout));
      InsertRow(session, kHighest);
    });
    Here([](Session& session) {
      LayoutId layout = 0;
      EXPECT_STATUS(LSCOREDB_LAYOUTS_EXHAUSTED, TryCreate(session, &layout));
      EXPECT_EQ(session.LayoutOf(kRow), kHighest) << "what was done besides stands";
      EXPECT_EQ(layout, 0);
      for (LayoutId i = 1; i <= kFreed; ++i) EXPECT_STATUS(0, Release(session, i));
      EXPECT_STATUS(LSCOREDB_LAYOUTS_EXHAUSTED, TryCreate(session, &layout));
    });
  });
  Elsewhere([](Session& session) {
    LayoutId layout = 0;
    for (LayoutId i = 1; i <= kFreed; ++i) {
      Check("create", TryCreate(session, &layout));
      EXPECT_EQ(layout, i);
    }
    EXPECT_STATUS(LSCOREDB_LAYOUTS_EXHAUSTED, TryCreate(session, &layout));
  });
}

TEST_F(LayoutReuseTest, NumbersLeftAmongManyLayouts_AreUsedWhenTheOthersRunOut) {
  constexpr LayoutId kMany = 300;
  MakeLayouts(kMany);
  Elsewhere([](Session& session) {
    for (LayoutId const layout : LayoutIds{7, 9}) EXPECT_STATUS(0, Release(session, layout));
  });
  Elsewhere([](Session& session) {
    EXPECT_EQ(session.CreateLayout(kNewToken, {}), 7) << "it took the layout away";
  });
  Elsewhere([](Session& session) { EXPECT_EQ(session.CreateLayout(kNewToken, {}), kMany + 1); });
  InAnotherProcess([&] {
    Database database(place_);
    Session session(database);
    session.Begin();
    LayoutId layout = 0;
    for (LayoutId i = kMany + 1; i < kHighest; ++i) Check("create", TryCreate(session, &layout));
    EXPECT_EQ(layout, kHighest);
    Check("create", TryCreate(session, &layout));
    EXPECT_EQ(layout, 9);
    EXPECT_STATUS(LSCOREDB_LAYOUTS_EXHAUSTED, TryCreate(session, &layout));
  });
}

TEST_F(LayoutReuseTest, SeventyThousandChangesOfOneTable_SucceedOverSeveralProcesses) {
  constexpr int kProcesses = 7;
  constexpr int kTransactions = 1000;
  constexpr int kEach = 10;
  constexpr std::int64_t kSum = std::int64_t{kProcesses} * kTransactions * kEach;
  Elsewhere([](Session& session) {
    LayoutId const first = session.CreateLayout(kOldToken, {{LORV_TYPE_LONG, kOldColumn}});
    InsertRow(session, first);
    session.PutLong(kRow, kValue, 0);
  });
  auto const change = [](Session& session) {
    LayoutId const old = session.LayoutOf(kRow);
    LayoutId const next = session.CreateLayout(kOldToken, {{LORV_TYPE_LONG, kOldColumn}});
    Check("move", lscoredb_move_object(session.context(), kRow, next));
    session.PutLong(kRow, kValue, *session.Long(kRow, kValue) + 1);
    EXPECT_STATUS(0, Release(session, old));
    return next;
  };
  for (int process = 0; process < kProcesses; ++process) {
    InAnotherProcess([&] {
      Database database(place_);
      Session session(database);
      LayoutId highest = 0;
      for (int i = 0; i < kTransactions; ++i) {
        session.Begin();
        for (int n = 0; n < kEach; ++n) highest = std::max(highest, change(session));
        session.Commit();
      }
      EXPECT_LE(highest, kTransactions * kEach + 2) << "numbers of earlier processes are free";
    });
  }
  Elsewhere([&](Session& session) {
    EXPECT_EQ(session.Long(kRow, kValue), std::int64_t{kSum});
    EXPECT_EQ(LayoutsInUse(session), std::set<LayoutId>{session.LayoutOf(kRow)});
    EXPECT_EQ(session.LayoutsByToken(kOldToken).size(), 1U);
  });
  ExpectSound();
}

TEST_F(LayoutReuseTest, RemovalKilledAtAnyStep_IsCompletedByTheNextProcess) {
  constexpr LayoutId kCount = 5;
  int killed = 0;
  for (bool more = true; more;) {
    place_ = directory_ / std::to_string(killed).c_str();
    MakeLayouts(kCount);
    Elsewhere([](Session& session) {
      InsertRow(session, 4);
      session.PutLong(kRow, kValue, 44);
      for (LayoutId const layout : LayoutIds{1, 3, 5}) EXPECT_STATUS(0, Release(session, layout));
    });
    OtherProcess opener([&](OtherProcess&) {
      KillAtStep(killed + 1);
      Database const database(place_);
    });
    more = opener.EndsKilled();
    killed += more ? 1 : 0;
    Elsewhere([&](Session& session) {
      EXPECT_EQ(LayoutsInUse(session), (std::set<LayoutId>{2, 4})) << killed;
      EXPECT_EQ(session.LayoutsByToken(kOldToken), (LayoutIds{4, 2}));
      EXPECT_EQ(session.Long(kRow, kValue), 44);
      for (LayoutId const next : LayoutIds{1, 3, 5, 6})
        EXPECT_EQ(session.CreateLayout(kNewToken, {}), next);
    });
    ExpectSound();
  }
  EXPECT_GT(killed, 12) << "each record of each layout is a step";
}

TEST_F(LayoutReuseTest, ForeignLockFile_IsReplacedWhenNoOneHoldsIt) {
  MakeLayouts(2);
  for (std::size_t const size : {0, 3, 100000}) {
    std::ofstream(place_ + "/layouts.lock", std::ios::trunc) << std::string(size, '\xFF');
    Elsewhere([](Session& session) {
      LayoutId layout = 0;
      EXPECT_STATUS(0, TryCreate(session, &layout));
      EXPECT_EQ(layout, LayoutsInUse(session).size());
    });
  }
}

TEST_F(LayoutReuseTest, ForeignLockFileThatSomeoneHolds_IsRefused) {
  int const file = open((place_ + "/layouts.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(flock(file, LOCK_SH), 0);
  InAnotherProcess([&] {
    lscoredb* database = nullptr;
    EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, lscoredb_open(place_.c_str(), nullptr, &database));
  });
  close(file);
  MakeLayouts(1);
}

TEST_F(LayoutReuseTest, RemovedDatabase_IsForgotten) {
  InAnotherProcess([&] {
    for (int round = 0; round < 3; ++round) {
      for (auto const& file : std::filesystem::directory_iterator(place_)) {
        std::filesystem::remove(file);
      }
      Here([](Session& session) { EXPECT_EQ(session.CreateLayout(kOldToken, {}), 1); });
    }
  });
}

}  // namespace
}  // namespace lscoredb_test
