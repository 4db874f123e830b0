#include <fstream>
#include <functional>
#include <memory>
#include <optional>

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

TEST(OpenTest, DatabaseInMemory_IsNewEachTime) {
  for (int i = 0; i < 3; ++i) {
    Database database;
    Session session(database);
    session.Begin();
    EXPECT_TRUE(session.LayoutsByToken(kTableToken).empty());
    session.CreateLayout(kTableToken, {});
    session.Commit();
  }
}

TEST(OpenTest, MissingDirectory_IsCreated) {
  TemporaryDirectory directory;
  EXPECT_STATUS(0, TryOpen(directory / "new"));
  EXPECT_TRUE(std::filesystem::is_directory(directory / "new"));
}

TEST(OpenTest, DirectoryThatCannotBeCreated_IsRefused) {
  TemporaryDirectory directory;
  std::ofstream(directory / "file") << "not a directory";
  EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, TryOpen(directory / "file/below"));
  EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, TryOpen(directory / "file"));
  EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, TryOpen("/proc/nowhere"));
  EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, TryOpen(""));
}

// Becomes a user to whom the permissions of files apply, even when root runs the test.
void BecomeNobody() {
  constexpr uid_t kNobody = 65534;
  EXPECT_TRUE(geteuid() != 0 || seteuid(kNobody) == 0);
}

void ExpectRefusal(std::string const& directory, std::string const& text,
                   lscoredb_options const* options = nullptr) {
  InAnotherProcess([&] {
    BecomeNobody();
    EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, TryOpen(directory, options));
    EXPECT_EQ(text, lscoredb_open_error());
  });
}

TEST(OpenTest, Refusal_NamesTheFileAndTheReason) {
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

TEST(OpenTest, EachRefusedFile_IsNamed) {
  using std::filesystem::perms;
  TemporaryDirectory directory;
  std::string const place = directory / "db";
  std::filesystem::permissions(directory.path(), perms{0555});
  ExpectRefusal(place, place + ": Permission denied");
  std::filesystem::permissions(directory.path(), perms{0755});
  EXPECT_STATUS(0, TryOpen(place));
  std::filesystem::permissions(place, perms{0755});
  lscoredb_options options = NoSync();
  options.access = LSCOREDB_ACCESS_WRITE;
  for (char const* const name : {"data.mdb", "lock.mdb", "layouts.lock"}) {
    for (auto const& file : std::filesystem::directory_iterator(place)) {
      std::filesystem::permissions(file, perms{file.path().filename() == name ? 0u : 0666u});
    }
    ExpectRefusal(place, place + "/" + name + ": Permission denied", &options);
  }
}

// What another user, who may not write anything there, does with a database.
void AsReader(std::string const& place, std::function<void()> const& body) {
  using std::filesystem::perms;
  std::filesystem::permissions(place, perms{0555});
  for (auto const& file : std::filesystem::directory_iterator(place)) {
    std::filesystem::permissions(file, perms{0444});
  }
  InAnotherProcess([&] {
    BecomeNobody();
    body();
  });
  std::filesystem::permissions(place, perms{0755});
  for (auto const& file : std::filesystem::directory_iterator(place)) {
    std::filesystem::permissions(file, perms{0644});
  }
}

class ReadOnlyTest : public testing::Test {
 protected:
  ReadOnlyTest() {
    std::filesystem::permissions(directory_.path(), std::filesystem::perms{0755});
    Database database(place_);
    Session session(database);
    world_.emplace(session);
    row_ = world_->CommittedRow(session, 7);
  }

  static bool IsReadOnly(Database const& database) {
    lscoredb_statistics statistics{};
    statistics.size = sizeof statistics;
    Check("stats", lscoredb_stats(database.get(), &statistics));
    return statistics.read_only == 1;
  }

  // Everything can be read, and each call that writes is refused, also in a transaction to write.
  void ExpectReadOnly(Database const& database) {
    EXPECT_TRUE(IsReadOnly(database));
    Session session(database);
    std::uint64_t const context = session.context();
    session.Begin();
    EXPECT_EQ(7, session.Long(row_, kNumber));
    EXPECT_EQ(Oids{row_}, session.Scan(world_->index));
    Oid made = 0;
    LayoutId layout = 0;
    LORVI_COLUMN_DEFINITION const end{};
    std::uint32_t const refused = LSCOREDB_READ_ONLY_DATABASE;
    EXPECT_STATUS(refused, lorv_context_put_long(context, row_, 0, kNumber, 8));
    EXPECT_STATUS(refused, lorv_context_put_default(context, row_, 0, kNumber));
    EXPECT_STATUS(refused, lorv_context_insert(context, world_->layout, &made));
    EXPECT_STATUS(refused, lorv_context_delete(context, row_, 0));
    EXPECT_STATUS(refused, lorvi_context_create_layout(context, 9, 0, &end, 0, &layout));
    EXPECT_STATUS(refused, lscoredb_require(context, row_));
    EXPECT_STATUS(refused, lscoredb_release_layout(context, world_->layout));
    EXPECT_STATUS(refused, lscoredb_move_object(context, row_, world_->layout));
    EXPECT_EQ(7, session.Long(row_, kNumber));
    session.Commit();
    session.BeginReadOnly();
    EXPECT_STATUS(LSCOREDB_WRITE_REFUSED, lorv_context_delete(context, row_, 0));
    session.Rollback();
    EXPECT_STATUS(refused, lscoredb_raise_ids(database.get(), 1000000));
    EXPECT_STATUS(0, lscoredb_check(database.get(), 0, nullptr, nullptr));
  }

  TemporaryDirectory directory_;
  std::string place_ = directory_ / "db";
  std::optional<World> world_;
  Oid row_ = 0;
};

TEST_F(ReadOnlyTest, UnwritableDatabase_OpensReadOnly) {
  AsReader(place_, [&] { ExpectReadOnly(Database(place_)); });
  std::filesystem::remove(place_ + "/lock.mdb");
  std::filesystem::remove(place_ + "/layouts.lock");
  AsReader(place_, [&] { ExpectReadOnly(Database(place_)); });
  lscoredb_options options = NoSync();
  options.verify = 1;
  AsReader(place_, [&] { ExpectReadOnly(Database(place_, options)); });
  EXPECT_FALSE(IsReadOnly(Database(place_)));
}

TEST_F(ReadOnlyTest, ReadOnlyRequest_OpensReadOnly) {
  lscoredb_options options = NoSync();
  options.access = LSCOREDB_ACCESS_READ;
  {
    Database const reader(place_, options);
    ExpectReadOnly(reader);
    options.access = LSCOREDB_ACCESS_WRITE;
    EXPECT_STATUS(LSCOREDB_READ_ONLY_DATABASE, TryOpen(place_, &options));
  }
  options.access = LSCOREDB_ACCESS_READ;
  EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, TryOpen(directory_ / "none", &options));
  EXPECT_FALSE(std::filesystem::exists(directory_ / "none"));
  options.access = 3;
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, TryOpen(place_, &options));
}

TEST_F(ReadOnlyTest, ReadOnlyDatabase_MakesNoLog) {
  lscoredb_options options = NoSync();
  options.log = LSCOREDB_LOG;
  AsReader(place_, [&] { ExpectReadOnly(Database(place_, options)); });
  options.access = LSCOREDB_ACCESS_READ;
  ExpectReadOnly(Database(place_, options));
}

// A reader with a slot sees the commits of another process, one by one.
TEST_F(ReadOnlyTest, ReaderWithASlot_ReadsBesideAWriter) {
  OtherProcess writer([&](OtherProcess& test) {
    Database database(place_);
    Session session(database);
    for (std::int64_t value = 8; value < 20; ++value) {
      test.Hear();
      session.Begin();
      session.PutLong(row_, kNumber, value);
      session.Commit();
      test.Say();
    }
  });
  lscoredb_options options = NoSync();
  options.access = LSCOREDB_ACCESS_READ;
  Database const database(place_, options);
  Session session(database);
  for (std::int64_t value = 8; value < 20; ++value) {
    session.BeginReadOnly();
    writer.Say();
    writer.Hear();
    EXPECT_EQ(value - 1, session.Long(row_, kNumber));
    session.Rollback();
    session.BeginReadOnly();
    EXPECT_EQ(value, session.Long(row_, kNumber));
    session.Rollback();
  }
  writer.ExpectGoodEnd();
}

// Without a slot among the readers, no one would leave the pages alone that it reads.
TEST_F(ReadOnlyTest, ReaderWithoutASlotAndAWriter_ExcludeEachOther) {
  {
    Database const writer(place_);
    AsReader(place_, [&] {
      EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, TryOpen(place_));
      EXPECT_EQ(place_ +
                    "/layouts.lock: Permission denied: another process has the database open"
                    " for writing",
                lscoredb_open_error());
    });
  }
  for (auto const& file : std::filesystem::directory_iterator(place_)) {
    std::filesystem::permissions(file, std::filesystem::perms{0444});
  }
  OtherProcess other([&](OtherProcess& test) {
    BecomeNobody();
    Database const database(place_);
    test.Say();
    test.Hear();
  });
  other.Hear();
  InAnotherProcess([&] {
    EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, TryOpen(place_));
    EXPECT_EQ(place_ + "/data.mdb: a process that may not write here is reading it",
              lscoredb_open_error());
  });
  other.Say();
  other.ExpectGoodEnd();
  EXPECT_STATUS(0, TryOpen(place_));
}

TEST(OpenTest, Options_AreCheckedAndMayBeShort) {
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

TEST(OpenTest, LockFileThatNoDiskHolds_IsRefused) {
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
TEST(OpenTest, NewDatabase_VerifiesAsSound) {
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

TEST(OpenTest, NullPointers_AreRefused) {
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_open(nullptr, nullptr, nullptr));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_close(nullptr));
  Database database;
  std::uint64_t context = 0;
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_context_open(nullptr, &context));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_context_open(database.get(), nullptr));
}

TEST(OpenTest, Close_IsRefusedWhileContextsAreOpen) {
  Database database;
  Session session(database);
  EXPECT_STATUS(LSCOREDB_IN_USE, lscoredb_close(database.get()));
  session.Begin();
  EXPECT_STATUS(LSCOREDB_IN_USE, lscoredb_close(database.get()));
  session.CreateLayout(kTableToken, {});
  session.Commit();
}

TEST(OpenTest, CommittedData_IsThereAfterReopening) {
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
  EXPECT_EQ(session->Scan(world.index), Oids{first});
  Oid const second = session->Insert(world.layout);
  EXPECT_NE(second, first);
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY,
                lorv_context_put_long(session->context(), second, 0, kNumber, 1));
}

TEST(OpenTest, UncommittedData_IsGoneAfterReopening) {
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

TEST(OpenTest, OneDirectory_MayBeOpenTwiceInAProcess) {
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

TEST(OpenTest, DirectoryByAnotherName_IsTheSameDatabase) {
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

TEST(OpenTest, ManyDatabases_MayBeOpen) {
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
    Oids const rows = session.Scan(worlds[i].index);
    ASSERT_EQ(1u, rows.size()) << "database " << i;
    EXPECT_EQ(static_cast<std::int64_t>(i), session.Long(rows[0], kNumber));
  }
}

TEST(OpenTest, FullDatabase_RefusesTheCommitAndGoesOn) {
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
    EXPECT_EQ(session.Scan(made.index), kept);
    EXPECT_EQ(session.String(kept.back(), kName)->size(), 50000U);
    session.Commit();
    return made;
  }();
  Database database(directory.path(), NoSync());
  Session session(database);
  kept.push_back(world.CommittedRow(session, 100000));
  session.Begin();
  EXPECT_EQ(session.Scan(world.index), kept) << "with a larger limit it takes writes again";
}

TEST(OpenTest, TooManyTransactionsAtOnce_AreRefusedAndOthersGoOn) {
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
