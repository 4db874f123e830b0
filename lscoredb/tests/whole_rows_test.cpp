// Rows that get their values first and their set last, as imports write them: they enter each index
// once, and the kernel keeps those entries apart until somebody needs their order.

#include <map>
#include <random>

#include "named_numbers.h"

namespace lscoredb_test {
namespace {

class WholeRowsTest : public NamedNumbersTest {
 protected:
  WholeRowsTest() { Restart(); }

  static Text NameOf(std::int64_t number) {
    Text name = u"a name that is the same for long ";
    for (int i = 0; i < 8; ++i, number /= 10) name += static_cast<char16_t>(u'0' + number % 10);
    return name;
  }
  static Oid Bare(Session& session, LayoutId layout, std::int64_t number, Text const& name) {
    Oid const oid = session.InsertBare(layout);
    session.PutLong(oid, kNumber, number);
    session.PutString(oid, kName, name);
    return oid;
  }
  Oid Add(std::int64_t number) {
    Oid const oid = Bare(session_, layout_, number, NameOf(number));
    session_.PutSetspec(oid, kSet);
    return oid;
  }
  // By another transaction.
  Oid TakeMeanwhile(std::int64_t number) {
    Session other(database_);
    other.Begin();
    Oid const holder = Bare(other, layout_, 5, NameOf(number));
    other.PutSetspec(holder, kSet);
    other.Commit();
    return holder;
  }
  std::uint32_t TrySetspec(Oid oid) {
    return lorv_context_put_setspec(session_.context(), oid, 0, kSet);
  }
  Oids Named(std::int64_t number) { return session_.At(by_name_, Key().Text(NameOf(number))); }
  void ExpectNowAndCommitted(Oids const& rows) {
    EXPECT_EQ(rows, session_.Scan(by_number_)) << "pending";
    Restart();
    EXPECT_EQ(rows, session_.Scan(by_number_)) << "committed";
    EXPECT_EQ(rows.size(), session_.Scan(by_name_).size());
  }
};

TEST_F(WholeRowsTest, Rows_AreCommittedInOrderWithoutAnyScan) {
  Oids rows(500);
  for (std::size_t i = 0; i < rows.size(); ++i) {
    std::size_t const number = i * 211 % rows.size();
    rows[number] = Add(static_cast<std::int64_t>(number));
    if (i == 250) Restart();
  }
  Restart();
  EXPECT_EQ(rows, session_.Scan(by_number_));
  for (int number : {0, 17, 499}) {
    EXPECT_EQ(Oids{rows[static_cast<std::size_t>(number)]}, Named(number));
  }
}

TEST_F(WholeRowsTest, TakenKey_IsRefusedAtOnce) {
  Oid const committed = Add(1);
  Restart();
  Oid const written = Add(2);
  for (std::int64_t const number : {1, 2}) {
    Oid const twice = Bare(session_, layout_, 3, NameOf(number));
    EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, TrySetspec(twice));
    session_.Delete(twice);
  }
  ExpectNowAndCommitted({committed, written});
}

TEST_F(WholeRowsTest, Nulls_DoNotCollide) {
  for (int i = 0; i < 3; ++i) {
    Oid const oid = session_.InsertBare(layout_);
    session_.PutDefault(oid, kName);
    EXPECT_STATUS(0, TrySetspec(oid));
  }
  Restart();
  EXPECT_EQ(3u, session_.Scan(by_name_).size());
}

TEST_F(WholeRowsTest, Rows_MayChangeAndGoBeforeTheCommit) {
  Oid const one = Add(1);
  Oid const two = Add(2);
  Oid const three = Add(3);
  session_.PutLong(one, kNumber, 9);
  session_.Delete(two);
  Oid const again = Add(2);
  session_.PutSetspec(three, u"/other/");
  ExpectNowAndCommitted({again, one});
}

TEST_F(WholeRowsTest, Scan_SeesRowsBeforeItOnly) {
  Oid const two = Add(2);
  Scanner before(session_, by_number_);
  Oid const one = Add(1);
  EXPECT_EQ(Oids{two}, before.Rest());
  EXPECT_STATUS(0, before.Free());
  Oid const three = Add(3);
  ExpectNowAndCommitted({one, two, three});
}

TEST_F(WholeRowsTest, Rollback_TakesBackRowsBehindTheSavepoint) {
  Oid const two = Add(2);
  std::uint64_t savepoint = 0;
  Check("savepoint", lscoredb_savepoint(session_.context(), &savepoint));
  for (int round = 0; round < 2; ++round) {
    Add(1);
    Add(3);
    Check("rollback_to", lscoredb_rollback_to(session_.context(), savepoint));
    EXPECT_EQ(Oids{}, Named(1));
  }
  Oid const three = Add(3);
  Check("release", lscoredb_release(session_.context(), savepoint));
  Oid const one = Add(1);
  ExpectNowAndCommitted({one, two, three});
}

TEST_F(WholeRowsTest, KeyTakenMeanwhile_IsRefusedByTheCommit) {
  Add(1);
  Add(2);
  Oid const holder = TakeMeanwhile(2);
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, session_.TryCommit());
  session_.Begin();
  EXPECT_EQ(Oids{holder}, session_.Scan(by_number_));
}

// Such a transaction has more identities reserved while it writes, which is a commit of its own.
TEST_F(WholeRowsTest, KeyTakenMeanwhile_WithMoreRowsThanABlockOfIds_IsRefusedByTheCommit) {
  Add(1);
  Oid const holder = TakeMeanwhile(1);
  for (int i = 0; i < 70000; ++i) session_.InsertBare(layout_);
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, session_.TryCommit());
  session_.Begin();
  EXPECT_EQ(Oids{holder}, session_.Scan(by_number_));
}

// Against a model: numbers are keys of both indexes, so that each is there once.
TEST_F(WholeRowsTest, Rows_WithOtherChangesBetween_MatchAModel) {
  std::mt19937 random(11);
  std::map<std::int64_t, Oid> model;
  auto const some = [&] {
    auto at = model.lower_bound(static_cast<std::int64_t>(random() % 400));
    return at == model.end() ? model.begin() : at;
  };
  for (int step = 0; step < 6000; ++step) {
    auto const number = static_cast<std::int64_t>(random() % 400);
    auto const what = random() % 100;
    if (what < 70) {
      Oid const oid = Bare(session_, layout_, number, NameOf(number));
      bool const free = !model.contains(number);
      ASSERT_EQ(free ? 0u : LSCOREDB_DUPLICATE_KEY, TrySetspec(oid)) << step;
      if (free) model[number] = oid;
      if (!free) session_.Delete(oid);
    } else if (what < 85 && !model.empty()) {
      auto const gone = some();
      session_.Delete(gone->second);
      model.erase(gone);
    } else if (what < 95 && !model.empty() && !model.contains(number)) {
      auto const moved = model.extract(some());
      session_.PutLong(moved.mapped(), kNumber, number);
      session_.PutString(moved.mapped(), kName, NameOf(number));
      model[number] = moved.mapped();
    } else if (what < 98) {
      Oids rows;
      for (auto const& [key, oid] : model) rows.push_back(oid);
      ASSERT_EQ(rows, session_.Scan(by_number_));
    } else {
      Restart();
    }
  }
}

}  // namespace
}  // namespace lscoredb_test
