// Databases of every version of the format, as they were written when it was new: opened, checked,
// read and written.

#include <lscoredb/changes.h>
#include <lscoredb/index_build.h>

#include "format_corpus.h"
#include "stored_records.h"

namespace lscoredb_test {
namespace {

using namespace corpus;

class FormatsTest : public testing::TestWithParam<std::uint32_t> {
 protected:
  FormatsTest() {
    std::filesystem::copy(std::string(FORMAT_CORPUS) + "/v" + std::to_string(GetParam()),
                          directory_.path());
  }

  std::string Version() const {
    StoredTree meta(directory_.path(), "meta");
    return meta.Get("format").substr(std::string("lscoredb").size(), 4);
  }
  static bool HasLog(std::uint32_t version) {
    return version == kLogVersion || version == kChangesVersion;
  }
  // A directory without a log stays without.
  static lscoredb_options WithoutLog() {
    lscoredb_options options = NoSync();
    options.log = LSCOREDB_NO_LOG;
    return options;
  }

  TemporaryDirectory directory_;
  std::uint32_t newest_ = GetParam();
};

TEST_P(FormatsTest, OlderFormat_OpensUnchanged) {
  EXPECT_EQ(Little(GetParam(), 4), Version());
  {
    lscoredb_options options = WithoutLog();
    options.verify = 1;
    Database const database(directory_.path(), options);
    EXPECT_TRUE(Findings(database.get()).empty());
  }
  EXPECT_EQ(Little(GetParam(), 4), Version());
}

// What the content needs stands behind the version of the log.
TEST_P(FormatsTest, OlderFormat_GetsALogAndKeepsTheVersionOfItsContent) {
  { Database const database(directory_.path()); }
  if (HasLog(GetParam())) {
    EXPECT_EQ(Little(GetParam(), 4), Version());
    return;
  }
  EXPECT_EQ(Little(kLogVersion, 4), Version());
  StoredTree meta(directory_.path(), "meta");
  EXPECT_EQ("lscoredb" + Little(kLogVersion, 4) + Little(GetParam(), 4), meta.Get("format"));
}

TEST_P(FormatsTest, OlderFormat_HoldsWhatWasWritten) {
  Database const database(directory_.path());
  Session session(database);
  session.BeginReadOnly();
  Oids const rows = session.Scan(session.IndexesByToken(kByNumber).at(0));
  ASSERT_EQ(static_cast<std::size_t>(kRows), rows.size());
  for (int i = 0; i < kRows; ++i) {
    Oid const row = rows[static_cast<std::size_t>(i)];
    EXPECT_EQ(i, session.Long(row, kNumber));
    EXPECT_EQ(TextOf(i), session.String(row, kText));
    double fraction = -1;
    Check("get_double", lorv_context_get_double(session.context(), row, 0, kFraction, &fraction));
    EXPECT_EQ(i / 4.0, fraction);
    LORV_REFERENCE target{};
    std::uint32_t const status =
        lorv_context_get_reference(session.context(), row, 0, kTarget, &target);
    EXPECT_EQ(i == 0 ? LORV_STATUS_NULL : LORV_STATUS_OK, status);
    EXPECT_EQ(i == 0 ? Oid{0} : rows[static_cast<std::size_t>(i) - 1], target.oid);
  }
  EXPECT_EQ(rows.size(), session.Scan(session.IndexesByToken(kByText).at(0)).size());
  EXPECT_EQ(GetParam() >= 2 ? 1u : 0u, session.IndexesByToken(kWideIndex).size());
}

TEST_P(FormatsTest, OlderFormat_KnowsClosedSets) {
  Database const database(directory_.path());
  Session session(database);
  session.Begin();
  Oid const row = session.InsertBare(session.LayoutsByToken(kTable).at(0));
  EXPECT_STATUS(GetParam() >= 3 ? LSCOREDB_SET_CLOSED : LORV_STATUS_OK,
                lorv_context_put_setspec(session.context(), row, 0, kClosedSet));
}

TEST_P(FormatsTest, OlderFormat_GoesOnWithPreparedIndexes) {
  Database const database(directory_.path());
  Session session(database);
  lscoredb_index_build build{};
  build.size = sizeof build;
  std::uint32_t count = 1;
  EXPECT_STATUS(0, lscoredb_index_builds(session.context(), &count, &build));
  ASSERT_EQ((GetParam() >= 5 ? 1u : 0u) + (GetParam() >= 7 ? 1u : 0u), count);
  if (count == 0) return;
  EXPECT_EQ(Text(u"prepared"), build.name);
  EXPECT_EQ(static_cast<std::uint64_t>(kPreparedRows), build.done);
  while (build.state != LSCOREDB_INDEX_READY) {
    Check("build_index", lscoredb_build_index(session.context(), build.index, 10, &build));
  }
  session.Begin();
  Columns const columns{{LORV_TYPE_STRING, kTextToken}, {LORV_TYPE_DOUBLE, 102}};
  EXPECT_EQ(build.index, session.CreateIndex(72, kSet, columns));
  EXPECT_EQ(static_cast<std::size_t>(kRows), session.Scan(build.index).size());
  session.Commit();
}

TEST_P(FormatsTest, OlderFormat_RemovesWhatIsLeftOfAnAbandonedIndex) {
  if (GetParam() < 7) return;
  Database const database(directory_.path());
  Session session(database);
  std::vector<lscoredb_index_build> builds(2);
  builds[0].size = sizeof builds[0];
  std::uint32_t count = 2;
  EXPECT_STATUS(0, lscoredb_index_builds(session.context(), &count, builds.data()));
  EXPECT_EQ(Text(u"abandoned"), builds[1].name);
  EXPECT_EQ(LSCOREDB_INDEX_ABANDONED, builds[1].state);
  EXPECT_EQ(static_cast<std::uint64_t>(kRemovedRows), builds[1].done);
  EXPECT_STATUS(0, lscoredb_abandon_index(session.context(), builds[1].index));
  EXPECT_STATUS(0, lscoredb_index_builds(session.context(), &count, builds.data()));
  EXPECT_EQ(1u, count);
  EXPECT_TRUE(Findings(database.get()).empty());
}

TEST_P(FormatsTest, OlderFormat_TellsKeptChanges) {
  Database const database(directory_.path());
  lscoredb_kept_changes kept{};
  kept.size = sizeof kept;
  if (GetParam() != kChangesVersion) {
    EXPECT_NE(0u, lscoredb_kept(database.get(), &kept));
    return;
  }
  Check("kept", lscoredb_kept(database.get(), &kept));
  lscoredb_changes* reader = nullptr;
  Check("changes_open", lscoredb_changes_open(database.get(), kept.first - 1, UINT32_MAX, &reader));
  int created = 0;
  int schema = 0;
  lscoredb_change const* change = nullptr;
  while (lscoredb_changes_next(reader, &change) == 0 && change != nullptr) {
    created += change->kind == LSCOREDB_CHANGE_CREATED ? 1 : 0;
    schema += change->kind == LSCOREDB_CHANGE_SCHEMA ? 1 : 0;
  }
  EXPECT_EQ(kRows, created);
  EXPECT_EQ(1, schema);
  Check("changes_close", lscoredb_changes_close(reader));
}

// What needs an older version leaves a later one as it is.
TEST_P(FormatsTest, OlderFormat_IsUpgradedOnRequestAndNeverDowngraded) {
  for (std::uint32_t const needed : {2u, 3u, 2u}) {
    {
      Database const database(directory_.path(), WithoutLog());
      Session session(database);
      session.Begin();
      if (needed == 2) session.CreateIndex(71, kSet, WideColumns());
      if (needed == 3) {
        Check("close_set", lscoredb_close_set(session.context(), u"more/", 0));
      }
      session.Commit();
    }
    newest_ = std::max(newest_, needed);
    EXPECT_EQ(Little(newest_, 4), Version());
  }
}

TEST_P(FormatsTest, OlderFormat_TakesWritesAndANewIndex) {
  {
    Database const database(directory_.path());
    Session session(database);
    session.Begin();
    LayoutId const layout = session.LayoutsByToken(kTable).at(0);
    Oid const row = session.Insert(layout);
    session.PutLong(row, kNumber, kRows);
    session.CreateIndex(70, kSet, {{LORV_TYPE_LONG, kNumberToken}});
    session.Commit();
  }
  Database const database(directory_.path());
  Session session(database);
  session.BeginReadOnly();
  EXPECT_EQ(kRows + 1u, session.Scan(session.IndexesByToken(70).at(0)).size());
}

INSTANTIATE_TEST_SUITE_P(Versions, FormatsTest, testing::Range(1u, kNewestVersion + 1));

}  // namespace
}  // namespace lscoredb_test
