// A sweep of damage over every kind of page: of the header, the list of free pages, branches,
// leaves and long values, before the database is opened and in the midst of its use, without any
// verification. Whatever the bytes are, each call comes back with a status, in a process that lives
// on. Which damage a case does follows from its number alone.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <sstream>

#include "kernel_test.h"
#include "numbered_cases.h"
#include "stored_records.h"

namespace lscoredb_test {
namespace {

constexpr std::size_t kPage = 4096;
constexpr unsigned kPatience = 60;  // seconds for one case
constexpr std::uint64_t kToken = 50;
constexpr int kTransactions = 60;

// Numbers far out of bounds find a limit soon. Without memory for rows they are all read where they
// lie in the file.
lscoredb_options Options(bool row_memory = true) {
  lscoredb_options options = NoSync();
  options.max_file_size = std::uint64_t{64} << 20;
  if (!row_memory) options.row_memory = LSCOREDB_NO_ROW_MEMORY;
  return options;
}

// What the test database holds, to ask for it again.
struct Content {
  Oids rows;
  LayoutId layout = 0;
  IndexId unique = 0;
  IndexId plain = 0;
};

std::u16string TextOf(int number) {
  std::size_t const size = number % 50 == 0 ? 9000 : number % 10 == 0 ? 900 : 30;
  return Text(size, u'n') + Text(1, static_cast<char16_t>(0x100 + number));
}

// Trees of several levels, long values, and many lists of free pages, which a reader kept from
// being used.
Content Fill(std::string const& directory) {
  Content content;
  Database database(directory, Options());
  Session session(database);
  Session reader(database);
  session.Begin();
  content.layout = session.CreateLayout(kToken, {{LORV_TYPE_LONG, 100}, {LORV_TYPE_STRING, 101}});
  content.unique = session.CreateIndex(60, kSet, {{LORV_TYPE_STRING, 101}}, kUnique);
  content.plain = session.CreateIndex(61, kSet, {{LORV_TYPE_LONG, 100}, {LORV_TYPE_STRING, 101}});
  session.Commit();
  reader.BeginReadOnly();
  for (int i = 0; i < kTransactions; ++i) {
    session.Begin();
    for (int k = 0; k < 10; ++k) {
      content.rows.push_back(session.Insert(content.layout));
      session.PutLong(content.rows.back(), 2, k);
      session.PutString(content.rows.back(), 3, TextOf(10 * i + k));
    }
    session.Delete(content.rows[content.rows.size() / 2]);
    content.rows.erase(content.rows.begin() + static_cast<std::ptrdiff_t>(content.rows.size() / 2));
    session.Commit();
  }
  reader.Rollback();
  return content;
}

// ---- damage ------------------------------------------------------------------------------------

enum class Kind { kHeader, kBranch, kLeaf, kLongValue, kFree };

// The pages that the newest state of a file uses, by their kinds. Numbers are read as they come:
// the file is sound.
class PagesInUse {
 public:
  explicit PagesInUse(std::string const& file) : file_(file) {
    std::size_t const newest =
        At<std::uint64_t>(16 + 128) > At<std::uint64_t>(kPage + 16 + 128) ? 0 : kPage;
    pages_[Kind::kHeader] = {0, 1};
    Scan(At<std::uint64_t>(newest + 16 + 24 + 40), true);
    Scan(At<std::uint64_t>(newest + 16 + 72 + 40), false);
  }
  std::map<Kind, std::vector<std::size_t>> const& pages() const { return pages_; }

 private:
  template <typename T>
  T At(std::size_t offset) const {
    T value;
    std::memcpy(&value, file_.data() + offset, sizeof value);
    return value;
  }

  void Scan(std::uint64_t number, bool free) {
    if (number >= file_.size() / kPage) return;  // no page
    std::size_t const page = number * kPage;
    bool const leaf = At<std::uint16_t>(page + 10) == 2;
    pages_[free ? Kind::kFree : leaf ? Kind::kLeaf : Kind::kBranch].push_back(number);
    for (std::size_t slot = 16; slot < At<std::uint16_t>(page + 12); slot += 2) {
      std::size_t const node = page + At<std::uint16_t>(page + slot);
      std::size_t const value = node + 8 + At<std::uint16_t>(node + 6);
      std::uint16_t const kind = At<std::uint16_t>(node + 4);
      if (!leaf) Scan(At<std::uint32_t>(node), free);
      if (leaf && kind == 1) pages_[Kind::kLongValue].push_back(At<std::uint64_t>(value));
      if (leaf && kind == 2) Scan(At<std::uint64_t>(value + 40), free);
    }
  }

  std::string const& file_;
  std::map<Kind, std::vector<std::size_t>> pages_;
};

class Damager {
 public:
  Damager(std::string const& path, std::uint64_t number) : path_(path), random_(number) {}

  // Changes a page in one of several ways and returns a description.
  std::string Do() {
    std::string file = ReadFile(path_);
    PagesInUse const in_use(file);
    auto const& pages = in_use.pages();
    auto at = pages.begin();
    std::advance(at, Below(pages.size()));
    std::size_t const page = at->second[Below(at->second.size())];
    told_ << "page " << page << " of kind " << static_cast<int>(at->first) << ": ";
    char* const bytes = file.data() + page * kPage;
    switch (Below(8)) {
      case 0:
        return Swap(file, page, at->second[Below(at->second.size())]);
      case 1:
        std::memset(bytes + 16 * Below(2), 0, kPage - 16);
        told_ << "zeros";
        break;
      case 2:
        for (std::size_t i = 16; i < kPage; ++i) bytes[i] = static_cast<char>(random_());
        told_ << "noise";
        break;
      case 3:
        FlipBit(bytes);
        break;
      default:
        PutNumber(bytes, file.size() / kPage);
    }
    return Write(file, page);
  }

 private:
  std::size_t Below(std::size_t end) { return std::size_t{random_()} % end; }

  // Most often in the head of the page or in the table of its nodes.
  std::size_t Offset() { return Below(3) == 0 ? Below(kPage - 8) : Below(200); }

  void FlipBit(char* bytes) {
    std::size_t const at = Offset();
    bytes[at] = static_cast<char>(bytes[at] ^ (1 << Below(8)));
    told_ << "a bit of byte " << at;
  }

  void PutNumber(char* bytes, std::size_t pages) {
    std::uint64_t const numbers[] = {0,
                                     1,
                                     16,
                                     0x0FFE,
                                     0x1000,
                                     0x7FF8,
                                     0xFFF0,
                                     0xFFFF,
                                     pages,
                                     pages - 1,
                                     Below(pages),
                                     ~std::uint64_t{0},
                                     std::uint64_t{1} << 63,
                                     random_()};
    std::uint64_t const number = numbers[Below(std::size(numbers))];
    std::size_t const sizes[] = {1, 2, 4, 8};
    std::size_t const size = sizes[Below(4)];
    std::size_t const at = Offset() / size * size;
    std::memcpy(bytes + at, &number, size);
    told_ << size << " bytes at " << at << " are " << number;
  }

  // Both keep their own numbers, so that nothing on them shows it.
  std::string Swap(std::string& file, std::size_t page, std::size_t other) {
    for (std::size_t i = 8; i < kPage; ++i) {
      std::swap(file[page * kPage + i], file[other * kPage + i]);
    }
    told_ << "swapped with " << other;
    Write(file, other);
    return Write(file, page);
  }

  std::string Write(std::string const& file, std::size_t page) {
    int const out = open(path_.c_str(), O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(pwrite(out, file.data() + page * kPage, kPage, static_cast<off_t>(page * kPage)),
              static_cast<ssize_t>(kPage));
    close(out);
    return told_.str();
  }

  std::string path_;
  std::mt19937_64 random_;
  std::ostringstream told_;
};

// ---- what a process does with it ---------------------------------------------------------------

// When the damage is done.
enum class Moment { kBeforeOpening, kWhileReading, kBeforeCommit, kBetweenCommits, kCount };

class Victim {
 public:
  Victim(std::string const& directory, Content const& content, std::uint64_t number)
      : directory_(directory),
        content_(content),
        number_(number),
        moment_(static_cast<Moment>(number % static_cast<std::uint64_t>(Moment::kCount))) {}

  // Returns the statuses that calls gave.
  std::set<std::uint32_t> Run() {
    Pass(Moment::kBeforeOpening);
    Try([&] { Use(); });
    Try([&] { Use(); });
    return statuses_;
  }

 private:
  template <typename Work>
  void Try(Work const& work) {
    try {
      work();
    } catch (Unexpected const& refused) {
      Note(refused.status());
    }
  }

  // An object that this process has deleted is not there.
  void Note(std::uint32_t status) {
    if (status != 0 && status != LORV_STATUS_NO_OBJECT) statuses_.insert(status);
  }

  void Pass(Moment moment) {
    if (moment != moment_ || done_) return;
    done_ = true;
    std::string const damage = Damager(directory_ + "/data.mdb", number_).Do();
    std::fprintf(stderr, "case %llu, moment %d, %s\n", static_cast<unsigned long long>(number_),
                 static_cast<int>(moment), damage.c_str());
  }

  void Use() {
    Database database(directory_, Options(number_ % 8 < 4));
    database.ExpectDamage();
    Session session(database);
    ReadAll(session);
    Try([&] { Change(session, -1); });
    Pass(Moment::kBetweenCommits);
    Try([&] { Change(session, -2); });
    ReadAll(session);
    Note(lscoredb_check(database.get(), 0, nullptr, nullptr));
  }

  // Each object by itself: one that is damaged keeps nobody from the others.
  void ReadAll(Session& session) {
    Try([&] { session.BeginReadOnly(); });
    for (Oid const row : content_.rows) {
      Try([&] { session.Long(row, 2); });
      if (row == content_.rows[content_.rows.size() / 2]) Pass(Moment::kWhileReading);
      Try([&] { session.String(row, 3); });
    }
    for (IndexId const index : {content_.unique, content_.plain}) {
      Try([&] { session.Scan(index); });
      Try([&] { session.ScanBack(index); });
    }
    Try([&] { session.Rollback(); });
  }

  void Change(Session& session, std::int64_t value) {
    session.Begin();
    for (std::size_t i = 0; i < content_.rows.size(); i += 7) {
      Try([&] { session.PutLong(content_.rows[i], 2, value); });
      Try([&] { session.Delete(content_.rows[(i + 3) % content_.rows.size()]); });
      Try([&] {
        Oid const row = session.Insert(content_.layout);
        session.PutString(row, 3, TextOf(next_text_++));
      });
    }
    Pass(Moment::kBeforeCommit);
    Note(session.TryCommit());
  }

  std::string directory_;
  Content const& content_;
  std::uint64_t number_;
  Moment moment_;
  bool done_ = false;
  int next_text_ = 10 * kTransactions;
  std::set<std::uint32_t> statuses_;
};

class DamageSweepTest : public testing::Test {
 protected:
  DamageSweepTest() {
    content_ = Fill(sound_.path());
    std::filesystem::copy_file(sound_ / "data.mdb", copy_ / "data.mdb");
  }

  // In a process of its own. Returns the statuses that its calls gave.
  void TryCase(std::uint64_t number) {
    TemporaryDirectory directory;
    std::filesystem::copy_file(copy_ / "data.mdb", directory / "data.mdb");
    int pipe_ends[2];
    ASSERT_EQ(0, pipe(pipe_ends));
    pid_t const child = fork();
    if (child == 0) {
      bool const failed_before = HasFailure();
      alarm(kPatience);
      for (std::uint32_t const status : Victim(directory.path(), content_, number).Run()) {
        if (write(pipe_ends[1], &status, sizeof status) < 0) _exit(2);
      }
      _exit(HasFailure() && !failed_before ? 1 : 0);
    }
    close(pipe_ends[1]);
    std::uint32_t status = 0;
    bool refused = false;
    while (read(pipe_ends[0], &status, sizeof status) == sizeof status) {
      refused = true;
      ++statuses_[status];
    }
    close(pipe_ends[0]);
    int end = 0;
    EXPECT_EQ(waitpid(child, &end, 0), child);
    EXPECT_TRUE(WIFEXITED(end) && WEXITSTATUS(end) == 0) << "of case " << number;
    ++(refused ? refused_ : unharmed_);
  }

  TemporaryDirectory sound_;
  TemporaryDirectory copy_;
  Content content_;
  std::map<std::uint32_t, int> statuses_;
  int refused_ = 0;
  int unharmed_ = 0;
};

TEST_F(DamageSweepTest, AnyDamage_NeverEndsTheProcess) {
  ForEachCase(160, [&](std::uint64_t number) { TryCase(number); });
  for (auto const& [status, count] : statuses_) {
    std::printf("status %u: %d cases\n", status, count);
    EXPECT_STRNE(lscoredb_status_text(1), lscoredb_status_text(status)) << status;
  }
  EXPECT_EQ(0, statuses_[LSCOREDB_IO_ERROR]) << "damage is called by its name";
  std::printf("%d refused something, %d did not notice\n", refused_, unharmed_);
  EXPECT_TRUE(refused_ > unharmed_ / 8 || refused_ + unharmed_ < 20) << "most of it was not met";
}

}  // namespace
}  // namespace lscoredb_test
