#include <fstream>
#include <memory>

#include "kernel_test.h"
#include "other_process.h"

namespace lscoredb_test {
namespace {

constexpr std::uint32_t kNumber = 2;
constexpr std::uint32_t kName = 3;
constexpr std::uint64_t kTableToken = 50;
constexpr std::uint64_t kNumberToken = 100;
constexpr std::uint64_t kNameToken = 101;
constexpr std::uint64_t kIndexToken = 60;

// A table with a unique index over its number.
struct World {
  LayoutId layout = 0;
  IndexId index = 0;

  explicit World(Session& session) {
    session.Begin();
    layout = session.CreateLayout(kTableToken,
                                  {{LORV_TYPE_LONG, kNumberToken}, {LORV_TYPE_STRING, kNameToken}});
    index = session.CreateIndex(kIndexToken, kSet, {{LORV_TYPE_LONG, kNumberToken}}, kUnique);
    session.Commit();
  }

  Oid Row(Session& session, std::int64_t number) const {
    Oid const oid = session.Insert(layout);
    session.PutLong(oid, kNumber, number);
    return oid;
  }

  Oid CommittedRow(Session& session, std::int64_t number) const {
    session.Begin();
    Oid const oid = Row(session, number);
    session.Commit();
    return oid;
  }
};

std::uint32_t TryOpen(std::string const& directory, lscoredb_options const* options = nullptr) {
  lscoredb* database = nullptr;
  std::uint32_t const status = lscoredb_open(directory.c_str(), options, &database);
  EXPECT_EQ(status == LORV_STATUS_OK, database != nullptr);
  if (database != nullptr) Check("close", lscoredb_close(database));
  return status;
}

TEST(OpenTest, ADatabaseInMemoryIsNewEachTime) {
  for (int i = 0; i < 3; ++i) {
    Database database;
    Session session(database);
    session.Begin();
    EXPECT_TRUE(session.LayoutsByToken(kTableToken).empty());
    session.CreateLayout(kTableToken, {});
    session.Commit();
  }
}

TEST(OpenTest, AMissingDirectoryIsCreated) {
  TemporaryDirectory directory;
  EXPECT_STATUS(0, TryOpen(directory / "new"));
  EXPECT_TRUE(std::filesystem::is_directory(directory / "new"));
}

TEST(OpenTest, ADirectoryThatCannotBeCreatedIsRefused) {
  TemporaryDirectory directory;
  std::ofstream(directory / "file") << "not a directory";
  EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, TryOpen(directory / "file/below"));
  EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, TryOpen(directory / "file"));
  EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, TryOpen("/proc/nowhere"));
  EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, TryOpen(""));
}

// As a user who is not above the rights of files, whoever runs the test.
void ExpectRefusal(std::string const& directory, std::string const& text) {
  InAnotherProcess([&] {
    constexpr uid_t kNobody = 65534;
    EXPECT_TRUE(geteuid() != 0 || seteuid(kNobody) == 0);
    EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, TryOpen(directory));
    EXPECT_EQ(text, lscoredb_open_error());
  });
}

TEST(OpenTest, ARefusalNamesTheFileAndTheReason) {
  TemporaryDirectory directory;
  std::filesystem::permissions(directory.path(), std::filesystem::perms{0755});
  std::ofstream(directory / "file") << "not a directory";
  TryOpen(directory / "file/below");
  EXPECT_EQ(directory / "file/below" + ": Not a directory", lscoredb_open_error());
  TryOpen("");
  EXPECT_STREQ(": No such file or directory", lscoredb_open_error());
  EXPECT_STATUS(0, TryOpen(directory / "new"));
  EXPECT_STREQ("", lscoredb_open_error());
}

TEST(OpenTest, EachFileThatIsRefusedIsNamed) {
  using std::filesystem::perms;
  TemporaryDirectory directory;
  std::string const place = directory / "db";
  std::filesystem::permissions(directory.path(), perms{0555});
  ExpectRefusal(place, place + ": Permission denied");
  std::filesystem::permissions(directory.path(), perms{0755});
  EXPECT_STATUS(0, TryOpen(place));
  std::filesystem::permissions(place, perms{0755});
  for (char const* const name : {"data.mdb", "lock.mdb", "layouts.lock"}) {
    for (auto const& file : std::filesystem::directory_iterator(place)) {
      std::filesystem::permissions(file, perms{file.path().filename() == name ? 0u : 0666u});
    }
    ExpectRefusal(place, place + "/" + name + ": Permission denied");
  }
}

TEST(OpenTest, OptionsAreCheckedAndMayBeShort) {
  TemporaryDirectory directory;
  lscoredb_options options = DefaultOptions();
  EXPECT_STATUS(0, TryOpen(directory / "a", &options));
  options.durability = 7;
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, TryOpen(directory / "b", &options));
  options.size = sizeof options.size;
  EXPECT_STATUS(0, TryOpen(directory / "c", &options)) << "fields beyond the size are not read";
  options.size = 0;
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, TryOpen(directory / "d", &options));
}

TEST(OpenTest, ALockFileThatNoDiskHoldsIsRefused) {
  TemporaryDirectory directory;
  lscoredb_options options = NoSync();
  for (std::uint32_t const readers : {65537u, 0xFFFFFFFFu}) {
    options.max_readers = readers;
    EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, TryOpen(directory / "a", &options));
  }
  options.max_readers = 65536;
  EXPECT_STATUS(0, TryOpen(directory / "a", &options));
}

// There is nothing yet that could be broken.
TEST(OpenTest, WhatIsNewIsSoundWhenVerified) {
  TemporaryDirectory directory;
  lscoredb_options options = NoSync();
  options.verify = 1;
  EXPECT_NO_THROW(Database{options}) << "in memory";
  for (int time = 0; time < 3; ++time) {
    Database database(directory / "a", options);
    Session session(database);
    World const world(session);
    world.CommittedRow(session, time);
  }
}

TEST(OpenTest, NullPointersAreRefused) {
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_open(nullptr, nullptr, nullptr));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_close(nullptr));
  Database database;
  std::uint64_t context = 0;
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_context_open(nullptr, &context));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_context_open(database.get(), nullptr));
}

TEST(OpenTest, CloseIsRefusedWhileContextsAreOpen) {
  Database database;
  Session session(database);
  EXPECT_STATUS(LSCOREDB_IN_USE, lscoredb_close(database.get()));
  session.Begin();
  EXPECT_STATUS(LSCOREDB_IN_USE, lscoredb_close(database.get()));
  session.CreateLayout(kTableToken, {});
  session.Commit();
}

TEST(OpenTest, EverythingIsThereAfterReopening) {
  TemporaryDirectory directory;
  auto database = std::make_unique<Database>(directory.path(), DefaultOptions());
  auto session = std::make_unique<Session>(*database);
  World const world(*session);
  Oid const first = world.CommittedRow(*session, 1);
  session->Begin();
  session->PutString(first, kName, Text(5000, u'\x4E00'));
  LayoutId const newer = session->CreateLayout(kTableToken, {{LORV_TYPE_STRING, kNameToken}});
  session->Commit();

  session.reset();
  database = std::make_unique<Database>(directory.path(), DefaultOptions());
  session = std::make_unique<Session>(*database);
  session->Begin();
  EXPECT_EQ(session->LayoutsByToken(kTableToken), (std::vector<LayoutId>{newer, world.layout}));
  EXPECT_EQ(session->IndexesByToken(kIndexToken), std::vector<IndexId>{world.index});
  EXPECT_EQ(session->Long(first, kNumber), 1);
  EXPECT_EQ(session->String(first, kName), Text(5000, u'\x4E00'));
  EXPECT_EQ(session->Walk(world.index), Oids{first});
  Oid const second = session->Insert(world.layout);
  EXPECT_NE(second, first);
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY,
                lorv_context_put_long(session->context(), second, 0, kNumber, 1));
}

TEST(OpenTest, WhatWasNotCommittedIsGoneAfterReopening) {
  TemporaryDirectory directory;
  Oid lost = 0;
  {
    Database database(directory.path());
    Session session(database);
    World const world(session);
    session.Begin();
    lost = world.Row(session, 1);
  }
  Database database(directory.path());
  Session session(database);
  session.Begin();
  EXPECT_FALSE(session.Exists(lost));
}

TEST(OpenTest, OneDirectoryMayBeOpenTwiceInAProcess) {
  TemporaryDirectory directory;
  Database one(directory.path());
  auto two = std::make_unique<Database>(directory.path() + "/./");
  auto session = std::make_unique<Session>(*two);
  Session elsewhere(one);
  World const world(*session);
  Oid const row = world.CommittedRow(*session, 1);
  elsewhere.Begin();
  EXPECT_EQ(elsewhere.Long(row, kNumber), 1);
  EXPECT_NE(elsewhere.Insert(world.layout), world.CommittedRow(*session, 2));
  elsewhere.PutLong(row, kNumber, 10);
  session->Begin();
  session->PutLong(row, kNumber, 20);
  elsewhere.Commit();
  EXPECT_STATUS(LSCOREDB_CONFLICT, session->TryCommit());
  session.reset();
  two.reset();
  elsewhere.Begin();
  EXPECT_EQ(elsewhere.Long(row, kNumber), 10) << "the other opening goes on";
}

TEST(OpenTest, ADirectoryReachedByAnotherNameIsTheSameDatabase) {
  TemporaryDirectory directory;
  Database one(directory / "data");
  std::filesystem::create_directory_symlink(directory / "data", directory / "link");
  Database two(directory / "link");
  Session session(one);
  Session elsewhere(two);
  World const world(session);
  Oid const row = world.CommittedRow(session, 1);
  elsewhere.Begin();
  EXPECT_EQ(elsewhere.Long(row, kNumber), 1);
}

TEST(OpenTest, ManyDatabasesMayBeOpen) {
  std::vector<std::unique_ptr<Database>> databases;
  for (int i = 0; i < 10; ++i) databases.push_back(std::make_unique<Database>());
  std::vector<World> worlds;
  for (std::size_t i = 0; i < databases.size(); ++i) {
    Session session(*databases[i]);
    worlds.emplace_back(session);
    worlds.back().CommittedRow(session, static_cast<std::int64_t>(i));
  }
  for (std::size_t i = 0; i < databases.size(); ++i) {
    Session session(*databases[i]);
    session.BeginReadOnly();
    Oids const rows = session.Walk(worlds[i].index);
    ASSERT_EQ(1u, rows.size()) << "database " << i;
    EXPECT_EQ(static_cast<std::int64_t>(i), session.Long(rows[0], kNumber));
  }
}

TEST(OpenTest, AFullDatabaseRefusesTheCommitAndGoesOn) {
  TemporaryDirectory directory;
  lscoredb_options options = NoSync();
  options.max_file_size = 4 << 20;
  Oids kept;
  World const world = [&] {
    Database database(directory.path(), options);
    Session session(database);
    World made(session);
    std::uint32_t status = LORV_STATUS_OK;
    for (int i = 0; i < 1000 && status == LORV_STATUS_OK; ++i) {
      session.Begin();
      Oid const row = made.Row(session, i);
      session.PutString(row, kName, Text(50000, u'x'));
      status = session.TryCommit();
      if (status == LORV_STATUS_OK) kept.push_back(row);
    }
    EXPECT_STATUS(LSCOREDB_MAP_FULL, status);
    EXPECT_GT(kept.size(), 10U);
    session.Begin();
    EXPECT_EQ(session.Walk(made.index), kept);
    EXPECT_EQ(session.String(kept.back(), kName)->size(), 50000U);
    session.Commit();
    return made;
  }();
  Database database(directory.path(), NoSync());
  Session session(database);
  kept.push_back(world.CommittedRow(session, 100000));
  session.Begin();
  EXPECT_EQ(session.Walk(world.index), kept) << "with a larger limit it takes writes again";
}

TEST(OpenTest, TooManyTransactionsAtOnceAreRefusedAndOthersGoOn) {
  TemporaryDirectory directory;
  lscoredb_options options = NoSync();
  options.max_readers = 4;
  Database database(directory.path(), options);
  std::vector<std::unique_ptr<Session>> sessions;
  std::uint32_t status = LORV_STATUS_OK;
  while (status == LORV_STATUS_OK && sessions.size() < 100) {
    sessions.push_back(std::make_unique<Session>(database));
    status = lscoredb_begin(sessions.back()->context(), LSCOREDB_READ_WRITE);
  }
  EXPECT_STATUS(LSCOREDB_TOO_MANY_READERS, status);
  EXPECT_GT(sessions.size(), 4U);
  sessions.front()->Rollback();
  sessions.front()->Close();
  sessions.back()->Begin();
  sessions.back()->CreateLayout(kTableToken, {});
  sessions.back()->Commit();
}

}  // namespace
}  // namespace lscoredb_test
