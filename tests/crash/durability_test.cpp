// Processes of different durability in one directory: the stricter one holds for all.

#include "crash/child.h"
#include "crash/directory.h"
#include "crash/store_faults.h"

namespace crash_test {
namespace {

constexpr int kCommits = 5;

class Opened {
 public:
  Opened(std::string const& directory, std::uint32_t durability) {
    lscoredb_options options{};
    options.size = sizeof options;
    options.durability = durability;
    options.log = LSCOREDB_NO_LOG;  // with one, commits that are not synced endanger no others
    EXPECT_EQ(0U, lscoredb_open(directory.c_str(), &options, &database_));
  }
  ~Opened() { EXPECT_EQ(0U, lscoredb_close(database_)); }
  Opened(Opened const&) = delete;
  Opened& operator=(Opened const&) = delete;

  // The syncs of some commits.
  int Commit() {
    int const before = store_faults::Syncs();
    std::uint64_t context = 0;
    EXPECT_EQ(0U, lscoredb_context_open(database_, &context));
    for (int i = 0; i < kCommits; ++i) {
      std::uint16_t layout = 0;
      LORVI_COLUMN_DEFINITION const end{};
      EXPECT_EQ(0U, lscoredb_begin(context, LSCOREDB_READ_WRITE));
      EXPECT_EQ(0U, lorvi_context_create_layout(context, ++token_, 0, &end, 0, &layout));
      EXPECT_EQ(0U, lscoredb_commit(context));
    }
    EXPECT_EQ(0U, lscoredb_context_close(context));
    return store_faults::Syncs() - before;
  }

 private:
  lscoredb* database_ = nullptr;
  std::uint64_t token_ = 50;
};

TEST(DurabilityTest, ProcessWithoutSync_SyncsAsLongAsADurableOneHasTheDatabaseOpen) {
  Directory const directory;
  Child durable([&](Channel& channel) {
    channel.Hear();
    auto database = std::make_unique<Opened>(directory.path(), LSCOREDB_DURABLE);
    channel.Say("open");
    channel.Hear();
    database.reset();
    channel.Say("closed");
    return 0;
  });
  Child fast([&](Channel& channel) {
    Opened database(directory.path(), LSCOREDB_NO_SYNC);
    EXPECT_EQ(0, database.Commit());
    channel.Say("alone");
    channel.Hear();
    EXPECT_EQ(kCommits, database.Commit());
    channel.Say("beside");
    channel.Hear();
    EXPECT_EQ(0, database.Commit());
    return 0;
  });
  fast.Next();
  durable.Send("open");
  durable.Next();
  fast.Send("commit");
  fast.Next();
  durable.Send("close");
  durable.Next();
  fast.Send("commit");
  EXPECT_EQ(0, fast.Wait());
  EXPECT_EQ(0, durable.Wait());
}

// What others left unsynced is on the disk before a durable commit follows it.
TEST(DurabilityTest, DurableOpener_SyncsFirst) {
  Directory const directory;
  InChild([&] { Opened(directory.path(), LSCOREDB_NO_SYNC).Commit(); });
  InChild([&] {
    Opened const database(directory.path(), LSCOREDB_DURABLE);
    EXPECT_LE(1, store_faults::Syncs());
  });
  InChild([&] {
    Opened fast(directory.path(), LSCOREDB_NO_SYNC);
    EXPECT_EQ(0, fast.Commit());
    int const before = store_faults::Syncs();
    Opened const strict(directory.path(), LSCOREDB_DURABLE);
    EXPECT_LE(before + 1, store_faults::Syncs());
    EXPECT_EQ(kCommits, fast.Commit());
  });
}

}  // namespace
}  // namespace crash_test
