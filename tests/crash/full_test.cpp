// No more room: on the disk, under the process's limit, in the map.

#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include <fstream>

#include "crash/bank.h"
#include "crash/child.h"
#include "crash/directory.h"
#include "crash/rounds.h"

namespace crash_test {
namespace {

constexpr std::uint64_t kSeed = 11;
constexpr int kEnough = 3000;

// Everyone works in turn until one is refused: its status. Nothing of the refused step is there.
std::uint32_t WorkUntilRefused(Bank& bank) {
  sagleme::Context const context(bank.database());
  Progress before = bank.Done();
  for (int i = 0; i < kEnough; ++i) {
    auto const teller = static_cast<std::size_t>(i) % before.size();
    try {
      before[teller] = bank.Step(context, static_cast<int>(teller));
    } catch (sagleme::Error const& refusal) {
      EXPECT_EQ(before, bank.Done());
      EXPECT_STREQ(lscoredb_status_text(refusal.status()), refusal.what());
      bank.ExpectWhole();
      return refusal.status();
    }
  }
  return 0;
}

// The work goes on in the same process, and in the next one.
void ExpectWorkGoesOn(Bank& bank) {
  sagleme::Context const context(bank.database());
  for (int i = 0; i < 12; ++i) bank.Step(context, i % (kTellers + 1));
  bank.ExpectWhole();
}

void ExpectWholeIn(std::string const& directory) {
  InChild([&] { Bank(directory, kSeed).ExpectWhole(); });
}

struct Setting {
  char const* name;
  std::uint32_t log;
};

// With and without a log, which turns often.
class FullTest : public testing::TestWithParam<Setting> {
 protected:
  static sagleme::Options OptionsOf(bool no_sync) {
    constexpr std::uint64_t kSmallestLog = 64 * 1024;
    return {.no_sync = no_sync, .log = GetParam().log, .log_limit = kSmallestLog};
  }
  static bool has_log() { return GetParam().log == LSCOREDB_LOG; }

  // Makes the database, so that its beginnings have room.
  void Found() {
    InChild([&] { Bank(directory_.path(), kSeed, OptionsOf(false)).ExpectWhole(); });
  }

  Directory directory_;
};

class FileSizeLimit {
 public:
  explicit FileSizeLimit(std::uintmax_t bytes) {
    signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &before_);
    rlimit limit = before_;
    limit.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &before_); }
  FileSizeLimit(FileSizeLimit const&) = delete;
  FileSizeLimit& operator=(FileSizeLimit const&) = delete;

 private:
  rlimit before_{};
};

// The limit cuts pages and runs of pages in all places.
TEST_P(FullTest, FileSizeLimit_IsReportedAndWorkContinuesWhenItIsRaised) {
  Found();
  InChild([&] {
    Bank bank(directory_.path(), kSeed, OptionsOf(true));
    int const rounds = Rounds(8, 8);
    for (int round = 0; round < rounds; ++round) {
      auto const more = static_cast<std::uintmax_t>(round) % 24 * 3;
      SCOPED_TRACE("round " + std::to_string(round));
      {
        FileSizeLimit const limit((directory_.FileSize() / 512 + more) * 512);
        EXPECT_EQ(LSCOREDB_DISK_FULL, WorkUntilRefused(bank));
      }
      ExpectWorkGoesOn(bank);
    }
  });
  ExpectWholeIn(directory_.path());
}

// A file system of a few megabytes, seen by this process alone.
bool MountSmallDisk(std::string const& where) {
  return unshare(CLONE_NEWNS) == 0 &&
         mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("tmpfs", where.c_str(), "tmpfs", 0, "size=3m") == 0;
}

void Occupy(std::string const& file, int kilobytes) {
  std::ofstream out(file, std::ios::binary);
  for (int i = 0; i < kilobytes && out.good(); ++i) out << std::string(1024, 'x') << std::flush;
}

// Where mounting is not allowed, the limit of the file stands for the disk.
void FillDiskAgainAndAgain(Directory const& directory, std::uint64_t seed,
                           sagleme::Options const& options) {
  bool const mounted = MountSmallDisk(directory.path());
  Bank bank(directory.path(), seed, options);
  for (int i = 0; i < 6; ++i) {
    std::string const other = directory.path() + "/other";
    std::unique_ptr<FileSizeLimit> limit;
    if (mounted) {
      Occupy(other, 3 * 1024);
    } else {
      limit = std::make_unique<FileSizeLimit>(directory.FileSize());
    }
    EXPECT_EQ(LSCOREDB_DISK_FULL, WorkUntilRefused(bank));
    std::filesystem::remove(other);
    limit.reset();
    ExpectWorkGoesOn(bank);
  }
}

TEST_P(FullTest, FullDisk_IsReportedAndWorkContinuesWhenThereIsRoomAgain) {
  int const rounds = Rounds(1, 1);
  for (int round = 0; round < rounds && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    Directory const directory;
    InChild([&] {
      FillDiskAgainAndAgain(directory, kSeed + static_cast<std::uint64_t>(round),
                            OptionsOf(round % 2 != 0));
    });
  }
}

// A log cannot be written into the data file then: it stays, and is read by the next process.
TEST_P(FullTest, FullDiskAtClose_LosesNothing) {
  InChild([&] {
    bool const mounted = MountSmallDisk(directory_.path());
    Progress done{};
    std::string const other = directory_.path() + "/other";
    std::unique_ptr<FileSizeLimit> limit;
    {
      Bank bank(directory_.path(), kSeed, OptionsOf(false));
      sagleme::Context const context(bank.database());
      for (int i = 0; i < 40; ++i) bank.Step(context, i % (kTellers + 1));
      if (mounted) {
        Occupy(other, 3 * 1024);
      } else {
        limit = std::make_unique<FileSizeLimit>(directory_.FileSize());
      }
      EXPECT_EQ(LSCOREDB_DISK_FULL, WorkUntilRefused(bank));
      done = bank.Done();
    }
    EXPECT_EQ(has_log(), std::filesystem::exists(directory_.path() + "/log-0"));
    {
      Bank bank(directory_.path(), kSeed, OptionsOf(false));
      EXPECT_EQ(done, bank.Done());
      bank.ExpectWhole();
    }
    std::filesystem::remove(other);
    limit.reset();
    Bank bank(directory_.path(), kSeed, OptionsOf(false));
    EXPECT_EQ(done, bank.Done());
    ExpectWorkGoesOn(bank);
  });
}

// From a disk with nothing left to one that holds a database.
TEST_P(FullTest, DatabaseThatDoesNotFit_IsRefusedWhereverTheRoomEnds) {
  InChild([&] {
    bool const mounted = MountSmallDisk(directory_.path());
    lscoredb* original = nullptr;
    EXPECT_EQ(0U, lscoredb_open(nullptr, nullptr, &original));
    std::string const other = directory_.path() + "/other";
    int refused = 0;
    for (int room = 0; room <= 160; room += 4) {
      SCOPED_TRACE(std::to_string(room) + " KiB are free");
      std::unique_ptr<FileSizeLimit> limit;
      if (mounted) {
        Occupy(other, 3 * 1024);
        std::filesystem::resize_file(other, std::filesystem::file_size(other) - room * 1024u);
      } else {
        limit = std::make_unique<FileSizeLimit>(room * 1024u);
      }
      std::string const made = directory_.path() + "/made";
      std::string const copy = directory_.path() + "/copy";
      lscoredb* database = nullptr;
      lscoredb_options options{};
      options.size = sizeof options;
      options.log = GetParam().log;
      std::uint32_t const opened = lscoredb_open(made.c_str(), &options, &database);
      if (opened == 0) {
        EXPECT_EQ(0U, lscoredb_close(database));
      }
      std::filesystem::remove_all(made);
      std::uint32_t const copied = lscoredb_copy(original, copy.c_str());
      std::filesystem::remove_all(copy);
      for (std::uint32_t const status : {opened, copied}) {
        EXPECT_TRUE(status == 0 || status == LSCOREDB_DISK_FULL) << status;
        refused += status != 0 ? 1 : 0;
      }
      limit.reset();
      std::filesystem::remove(other);
    }
    EXPECT_EQ(0U, lscoredb_close(original));
    EXPECT_LT(0, refused);
    EXPECT_GT(82, refused);
  });
}

TEST_P(FullTest, FullMap_IsReportedAndWorkContinuesWithALargerOne) {
  Found();
  std::uintmax_t const size = directory_.FileSize();
  InChild([&] {
    {
      sagleme::Options options = OptionsOf(true);
      options.max_file_size = size + 300000;
      Bank bank(directory_.path(), kSeed, options);
      EXPECT_EQ(LSCOREDB_MAP_FULL, WorkUntilRefused(bank));
      EXPECT_EQ(LSCOREDB_MAP_FULL, WorkUntilRefused(bank));
    }
    sagleme::Options options = OptionsOf(true);
    options.max_file_size = size + 30000000;
    Bank bank(directory_.path(), kSeed, options);
    ExpectWorkGoesOn(bank);
  });
  ExpectWholeIn(directory_.path());
}

INSTANTIATE_TEST_SUITE_P(Stores, FullTest,
                         testing::Values(Setting{"NoLog", LSCOREDB_NO_LOG},
                                         Setting{"Log", LSCOREDB_LOG}),
                         [](auto const& setting) { return setting.param.name; });

}  // namespace
}  // namespace crash_test
