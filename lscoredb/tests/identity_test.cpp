// The number by which a database is known again.

#include <set>

#include "kernel_test.h"
#include "stored_records.h"

namespace lscoredb_test {
namespace {

std::uint64_t IdentityOf(Session const& session) {
  std::uint64_t identity = 0;
  Check("identity", lscoredb_identity(session.context(), &identity));
  return identity;
}

std::uint64_t IdentityIn(std::string const& directory) {
  Database const database(directory);
  return IdentityOf(Session(database));
}

void CommitLayout(Session& session) {
  session.Begin();
  session.CreateLayout(50, {{LORV_TYPE_LONG, 100}});
  session.Commit();
}

void MakeDatabase(std::string const& directory) {
  Database const database(directory);
  Session session(database);
  CommitLayout(session);
}

TEST(IdentityTest, Value_ComesWithTheFirstCommitAndStays) {
  TemporaryDirectory const directory;
  std::uint64_t first = 0;
  {
    Database const database(directory.path());
    Session session(database);
    EXPECT_EQ(0u, IdentityOf(session));
    session.Begin();
    session.CreateLayout(50, {{LORV_TYPE_LONG, 100}});
    session.Rollback();
    EXPECT_EQ(0u, IdentityOf(session));
    CommitLayout(session);
    first = IdentityOf(session);
    EXPECT_NE(0u, first);
    EXPECT_LT(first, std::uint64_t{1} << 53);
    CommitLayout(session);
    EXPECT_EQ(first, IdentityOf(session));
  }
  EXPECT_EQ(first, IdentityIn(directory.path()));
}

TEST(IdentityTest, Value_IsSeenByAllContextsAtOnce) {
  Database const database;
  Session reader(database);
  reader.BeginReadOnly();
  Session writer(database);
  CommitLayout(writer);
  EXPECT_EQ(IdentityOf(writer), IdentityOf(reader));
}

TEST(IdentityTest, DatabasesCreatedSeparately_Differ) {
  std::set<std::uint64_t> seen;
  for (int i = 0; i < 5; ++i) {
    Database const database;
    Session session(database);
    CommitLayout(session);
    EXPECT_TRUE(seen.insert(IdentityOf(session)).second);
  }
}

TEST(IdentityTest, Copy_HasTheSame) {
  TemporaryDirectory const directory;
  std::string const copy = directory / "copy";
  MakeDatabase(directory / "db");
  {
    Database const database(directory / "db");
    ASSERT_EQ(0u, lscoredb_copy(database.get(), copy.c_str()));
  }
  EXPECT_EQ(IdentityIn(directory / "db"), IdentityIn(copy));
  EXPECT_NE(0u, IdentityIn(copy));
}

// As one has none that an earlier kernel wrote.
TEST(IdentityTest, OlderDatabase_GetsItWithTheNextCommit) {
  TemporaryDirectory const directory;
  MakeDatabase(directory.path());
  std::string format;
  {
    StoredTree meta(directory.path(), "meta");
    meta.Delete("identity");
    format = meta.Get("format");
  }
  EXPECT_EQ(0u, IdentityIn(directory.path()));
  {
    Database const database(directory.path());
    Session session(database);
    CommitLayout(session);
    EXPECT_NE(0u, IdentityOf(session));
  }
  EXPECT_NE(0u, IdentityIn(directory.path()));
  EXPECT_EQ(format, StoredTree(directory.path(), "meta").Get("format"));
}

TEST(IdentityTest, DamagedValue_IsReportedAndNotReplaced) {
  TemporaryDirectory const directory;
  MakeDatabase(directory.path());
  {
    StoredTree meta(directory.path(), "meta");
    std::string record = meta.Get("identity");
    record[0] = static_cast<char>(record[0] ^ 1);
    meta.Put("identity", record);
  }
  Database database(directory.path());
  database.ExpectDamage();
  EXPECT_EQ(std::vector<Finding>{{.kind = LSCOREDB_FINDING_DEFINITION}}, Findings(database.get()));
  Session session(database);
  std::uint64_t identity = 7;
  EXPECT_STATUS(LSCOREDB_DAMAGED, lscoredb_identity(session.context(), &identity));
  EXPECT_EQ(7u, identity);
  session.Begin();
  session.CreateLayout(50, {{LORV_TYPE_LONG, 100}});
  EXPECT_STATUS(LSCOREDB_DAMAGED, session.TryCommit());
}

TEST(IdentityTest, BadArguments_AreRefused) {
  Database const database;
  Session const session(database);
  std::uint64_t identity = 0;
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_identity(session.context(), nullptr));
  EXPECT_STATUS(LSCOREDB_UNKNOWN_CONTEXT, lscoredb_identity(0, &identity));
}

}  // namespace
}  // namespace lscoredb_test
