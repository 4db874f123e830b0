// Pages that go wrong under a database that is open. Each page of the file and each field of its
// head in turn: what a commit makes of it is a status, in a process that lives on, and it holds up
// nobody.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>

#include "kernel_test.h"
#include "other_process.h"
#include "stored_records.h"

namespace lscoredb_test {
namespace {

constexpr std::size_t kPage = 4096;
constexpr unsigned kPatience = 20;  // seconds, of a process that may have been left a lock
constexpr std::uint64_t kToken = 50;

// What is put over a field in the head of a page.
struct Damage {
  char const* name;
  std::size_t at;
  std::size_t size;
  std::uint64_t value;
};
constexpr Damage kDamages[] = {
    {"OfNoKind", 10, 2, 0x55},           {"OfAnotherKind", 10, 2, 0x04},
    {"WithoutEntries", 12, 2, 16},       {"WithTooManyEntries", 12, 2, 0xFFF0},
    {"WithAnOddEnd", 12, 2, 0x0101},     {"OfAnotherNumber", 0, 8, 0x7FFFF},
    {"FullBeyondItsEnd", 14, 2, 0xFFFF}, {"WithAWildEntry", 16, 2, 0xFFF8},
};

std::string FileOf(std::string const& directory) { return directory + "/data.mdb"; }

std::string BytesAt(std::string const& path, std::size_t at, std::size_t size) {
  return ReadFile(path).substr(at, size);
}

void PutBytes(std::string const& path, std::size_t at, std::string const& bytes) {
  int const file = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  EXPECT_EQ(pwrite(file, bytes.data(), bytes.size(), static_cast<off_t>(at)),
            static_cast<ssize_t>(bytes.size()));
  close(file);
}

// Damages one page for as long as it lives, unless the page was written anew meanwhile.
class BrokenPage {
 public:
  BrokenPage(std::string const& path, std::size_t page, Damage const& damage)
      : path_(path), at_(page * kPage), before_(BytesAt(path, at_, kPage)), after_(before_) {
    for (std::size_t i = 0; i < damage.size; ++i) {
      after_[damage.at + i] = static_cast<char>(i < 8 ? damage.value >> (8 * i) : i * 37);
    }
    PutBytes(path_, at_, after_);
  }
  ~BrokenPage() {
    if (BytesAt(path_, at_, kPage) == after_) PutBytes(path_, at_, before_);
  }
  BrokenPage(BrokenPage const&) = delete;
  BrokenPage& operator=(BrokenPage const&) = delete;

 private:
  std::string path_;
  std::size_t at_;
  std::string before_;
  std::string after_;
};

// A database whose trees have branches and whose list of free pages is not empty.
Oids Fill(std::string const& directory) {
  Database database(directory);
  Session session(database);
  session.Begin();
  LayoutId const layout = session.CreateLayout(kToken, {{LORV_TYPE_LONG, 100}});
  session.CreateIndex(60, kSet, {{LORV_TYPE_LONG, 100}});
  session.Commit();
  Oids rows;
  for (int batch = 0; batch < 30; ++batch) {
    session.Begin();
    for (int i = 0; i < 40; ++i) {
      rows.push_back(session.Insert(layout));
      session.PutLong(rows.back(), 2, batch * 40 + i);
    }
    for (int i = 0; i < 10; ++i) {
      session.Delete(rows[rows.size() / 2]);
      rows.erase(rows.begin() + static_cast<std::ptrdiff_t>(rows.size() / 2));
    }
    session.Commit();
  }
  return rows;
}

// Touches every leaf of the trees of rows and entries, and calls `before_commit`. Returns what the
// commit says.
std::uint32_t ChangeAll(
    Session& session, Oids const& rows, std::int64_t value,
    std::function<void()> const& before_commit = [] {}) {
  session.Begin();
  for (std::size_t i = 0; i < rows.size(); i += 5) session.PutLong(rows[i], 2, value);
  for (std::size_t i = 1; i < rows.size(); i += 9) session.Delete(rows[i]);
  LayoutId const layout = session.LayoutOf(rows[0]);
  for (std::size_t i = 1; i < 60; ++i) session.Insert(layout);
  before_commit();
  return session.TryCommit();
}

class BrokenPageTest : public testing::TestWithParam<Damage> {
 protected:
  // A process that loses the page right before it commits and lives until the test ends it, and
  // another that must be able to open and commit meanwhile.
  void TryPage(std::string const& directory, Oids const& rows, std::size_t page) {
    OtherProcess meets([&](OtherProcess& test) {
      alarm(kPatience);
      Database database(directory);
      database.ExpectDamage();
      Session session(database);
      std::unique_ptr<BrokenPage> broken;
      std::uint32_t const status = ChangeAll(session, rows, -1, [&] {
        broken = std::make_unique<BrokenPage>(FileOf(directory), page, GetParam());
      });
      broken.reset();
      test.Say(status);
      test.Hear();
    });
    std::uint64_t status = 0;
    ASSERT_NO_THROW(status = meets.Hear()) << "it died";
    // A list of free pages that was looked at is trusted after that, and may lead out of the disk.
    EXPECT_TRUE(status == 0 || status == LSCOREDB_DAMAGED || status == LSCOREDB_DISK_FULL)
        << status;
    if (status == 0) return meets.Say(), meets.ExpectGoodEnd();
    ++refused_;
    InAnotherProcess([&] {
      alarm(kPatience);
      Database database(directory);
      Session session(database);
      EXPECT_STATUS(0, ChangeAll(session, rows, -3));
    });
    meets.Say();
    meets.ExpectGoodEnd();
  }

  int refused_ = 0;
};

TEST_P(BrokenPageTest, CommitOnABrokenPage_FailsAndOthersGoOn) {
  TemporaryDirectory sound;
  Oids const rows = Fill(sound.path());
  std::size_t const pages = std::filesystem::file_size(FileOf(sound.path())) / kPage;
  for (std::size_t page = 2; page < pages; ++page) {
    SCOPED_TRACE(page);
    TemporaryDirectory directory;
    std::filesystem::copy_file(FileOf(sound.path()), FileOf(directory.path()));
    TryPage(directory.path(), rows, page);
    if (HasFailure()) return;
  }
  EXPECT_GT(refused_, 0);
}

INSTANTIATE_TEST_SUITE_P(Heads, BrokenPageTest, testing::ValuesIn(kDamages),
                         [](testing::TestParamInfo<Damage> const& damage) {
                           return std::string(damage.param.name);
                         });

// Where the newest state's list of free pages begins.
std::size_t FreeRoot(std::string const& file) {
  std::uint64_t commits[2];
  std::uint64_t roots[2];
  for (std::size_t page = 0; page < 2; ++page) {
    std::memcpy(&commits[page], file.data() + page * kPage + 16 + 128, 8);
    std::memcpy(&roots[page], file.data() + page * kPage + 16 + 24 + 40, 8);
  }
  return commits[0] > commits[1] ? roots[0] : roots[1];
}

// Puts a number over each number of the list of free pages in turn, its counts and keys among them.
TEST(FreeListTest, WrongNumber_IsFoundBeforeTheFirstCommit) {
  TemporaryDirectory sound;
  Oids const rows = Fill(sound.path());
  std::string const file = ReadFile(FileOf(sound.path()));
  std::size_t const root = FreeRoot(file) * kPage;
  std::size_t refused = 0;
  for (std::size_t at = root + 16; at < root + kPage; at += 24) {
    for (std::uint64_t const number : {0xFFFFFFFFFFFFull, 0x7FFFull, 0ull}) {
      SCOPED_TRACE(at - root);
      TemporaryDirectory directory;
      std::string damaged = file;
      std::memcpy(damaged.data() + at, &number, 8);
      WriteFile(FileOf(directory.path()), damaged);
      OtherProcess meets([&](OtherProcess& test) {
        alarm(kPatience);
        std::uint32_t status = 0;
        try {
          Database database(directory.path());
          database.ExpectDamage();
          Session session(database);
          status = ChangeAll(session, rows, -1);
        } catch (Unexpected const& failure) {
          status = failure.status();
        }
        test.Say(status);
      });
      std::uint64_t status = 0;
      ASSERT_NO_THROW(status = meets.Hear()) << "it died";
      meets.ExpectGoodEnd();
      EXPECT_TRUE(status == 0 || status == LSCOREDB_DAMAGED) << status;
      if (status != 0) ++refused;
    }
  }
  EXPECT_GT(refused, 20U);
}

// The lists of free pages from page `number` on, as offsets in the file, oldest first.
void FindLists(std::string const& file, std::uint64_t number, std::vector<std::size_t>* lists) {
  auto const short_at = [&](std::size_t at) {
    std::uint16_t value;
    std::memcpy(&value, file.data() + at, sizeof value);
    return value;
  };
  std::size_t const page = number * kPage;
  for (std::size_t slot = page + 16; slot < page + short_at(page + 12); slot += 2) {
    std::size_t const node = page + short_at(slot);
    if (short_at(page + 10) == 2) {
      lists->push_back(node + 8 + 8);
    } else {
      FindLists(file, short_at(node) | std::uint64_t{short_at(node + 2)} << 16, lists);
    }
  }
}

// A reader keeps many lists from being used. One goes wrong when the process has committed already.
class LateListTest : public testing::TestWithParam<std::uint64_t> {};

TEST_P(LateListTest, WrongNumber_IsFoundInAnyListOfAnyCommit) {
  std::string number(8, '\0');
  std::uint64_t const wrong = GetParam();
  std::memcpy(number.data(), &wrong, number.size());
  TemporaryDirectory directory;
  Oids const rows = Fill(directory.path());
  OtherProcess meets([&](OtherProcess& test) {
    alarm(kPatience);
    Database database(directory.path());
    database.ExpectDamage();
    Session session(database);
    Session reader(database);
    reader.BeginReadOnly();
    for (int i = 0; i < 40; ++i) {
      session.Begin();
      session.PutLong(rows[0], 2, i);
      session.Commit();
    }
    reader.Rollback();
    std::string const file = ReadFile(FileOf(directory.path()));
    std::vector<std::size_t> lists;
    FindLists(file, FreeRoot(file), &lists);
    EXPECT_GT(lists.size(), 30U);
    PutBytes(FileOf(directory.path()), lists[lists.size() / 2] + 8, number);
    session.Begin();
    session.PutLong(rows[0], 2, -1);
    LayoutId const layout = session.LayoutOf(rows[0]);
    for (int i = 0; i < 20000; ++i) session.PutLong(session.Insert(layout), 2, i);
    test.Say(session.TryCommit());
  });
  std::uint64_t status = 0;
  ASSERT_NO_THROW(status = meets.Hear()) << "it died";
  meets.ExpectGoodEnd();
  EXPECT_EQ(LSCOREDB_DAMAGED, status);
}

INSTANTIATE_TEST_SUITE_P(Numbers, LateListTest,
                         testing::Values(0, 1, 2, 0x7FFF, 0xFFFFFFFFFFFF, ~std::uint64_t{0}));

}  // namespace
}  // namespace lscoredb_test
