// Thousands of small damages, each by itself: a byte of the file changed, the file truncated. With
// every page verified at opening, the result is a status with a text, or the data as it was. Groups
// of them run in a process of their own, which has to end normally.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <random>
#include <sstream>

#include "kernel_test.h"
#include "stored_records.h"

namespace lscoredb_test {
namespace {

constexpr std::uint64_t kFirstToken = 50;
constexpr std::uint64_t kSecondToken = 51;
constexpr std::uint64_t kIndexToken = 60;
constexpr std::size_t kPage = 4096;
constexpr int kFlips = 250;

lscoredb_options Verified() {
  lscoredb_options options = NoSync();
  options.verify = 1;
  return options;
}

// What was put into the database, to ask for it again.
struct Content {
  Oids rows;
  std::vector<LayoutId> layouts;
  std::vector<IndexId> indexes;
};

Content Fill(std::string const& directory) {
  Content content;
  Database database(directory, NoSync());
  Session session(database);
  session.Begin();
  content.layouts = {
      session.CreateLayout(kFirstToken, {{LORV_TYPE_LONG, 100}, {LORV_TYPE_STRING, 101}}),
      session.CreateLayout(kSecondToken, {{LORV_TYPE_LONG, 102}, {LORV_TYPE_STRING, 101}})};
  content.indexes = {
      session.CreateIndex(kIndexToken, kSet, {{LORV_TYPE_STRING, 101}}, kUnique),
      session.CreateIndex(kIndexToken, kSet, {{LORV_TYPE_LONG, 100}, {LORV_TYPE_STRING, 101}})};
  session.Commit();
  for (int i = 0; i < 150; ++i) {
    session.Begin();
    Oid const row = session.Insert(content.layouts[static_cast<std::size_t>(i % 2)]);
    session.PutLong(row, 2, i % 7);
    std::size_t const size = i % 40 == 0 ? 6000 : i % 10 == 0 ? 600 : 20;
    session.PutString(row, 3, Text(size, u'n') + Text(1, static_cast<char16_t>(0x100 + i)));
    content.rows.push_back(row);
    if (i % 3 == 2) session.Delete(content.rows.at(static_cast<std::size_t>(i / 3)));
    session.Commit();
  }
  return content;
}

void Append(std::ostream& out, Oid row, Session& session) {
  out << row << ' ' << session.Exists(row);
  if (!session.Exists(row)) return;
  out << ' ' << session.LayoutOf(row) << ' ' << session.Long(row, 2).value_or(-1) << ' ';
  for (char16_t const unit : session.String(row, 3).value_or(u""))
    out << std::uint32_t{unit} << '.';
  for (char16_t const unit : session.Setspec(row).value_or(u"")) out << std::uint32_t{unit} << '.';
}

// All that can be read, as text. Throws Unexpected when a call fails.
std::string ReadAll(Database const& database, Content const& content) {
  std::ostringstream out;
  Session session(database);
  session.BeginReadOnly();
  for (Oid const row : content.rows) Append(out, row, session);
  for (LayoutId const layout : content.layouts) {
    for (std::uint16_t column = 0; column < 4; ++column) {
      LORVI_COLUMN_INFO const info = session.ColumnInfo(layout, column);
      out << ' ' << int{info.type} << ' ' << info.token;
    }
  }
  for (std::uint64_t const token : {kFirstToken, kSecondToken}) {
    out << testing::PrintToString(session.LayoutsByToken(token));
  }
  out << testing::PrintToString(session.IndexesByToken(kIndexToken));
  for (IndexId const index : content.indexes) {
    out << testing::PrintToString(session.Scan(index));
    out << testing::PrintToString(session.ScanBack(index));
  }
  return out.str();
}

enum class Outcome { kRefused, kSame, kWrong };

// Also runs the check, which has to come back like everything else.
Outcome Try(std::string const& directory, Content const& content, std::string const& original) {
  try {
    Database database(directory, Verified());
    database.ExpectDamage();
    std::uint32_t const check = lscoredb_check(database.get(), 0, nullptr, nullptr);
    if (check != 0 && check != LSCOREDB_DAMAGED) return Outcome::kWrong;
    return ReadAll(database, content) == original ? Outcome::kSame : Outcome::kWrong;
  } catch (Unexpected const& refused) {
    std::string const text = lscoredb_status_text(refused.status());
    return text == lscoredb_status_text(1) ? Outcome::kWrong : Outcome::kRefused;
  }
}

// Runs `work` in a child and returns what it returns, -1 when it did not come back by itself.
template <typename Work>
int InChild(Work&& work) {
  pid_t const child = fork();
  if (child == 0) {
    int result = 100;
    try {
      result = work();
    } catch (std::exception const& failure) {
      write(STDERR_FILENO, failure.what(), std::string(failure.what()).size());
    }
    _exit(result);
  }
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class FlipTest : public testing::TestWithParam<int> {
 protected:
  void SetUp() override {
    TemporaryDirectory sound;
    content_ = Fill(sound.path());
    Database database(sound.path(), Verified());
    original_ = ReadAll(database, content_);
    file_ = ReadFile(sound / "data.mdb");
  }

  std::string File() const { return directory_ / "data.mdb"; }

  // Half of the offsets are in page headers, where they do most harm.
  std::size_t Offset(std::mt19937& random) const {
    std::size_t const at = random() % file_.size();
    return random() % 2 == 0 ? at : at / kPage * kPage + random() % 160;
  }

  void PutByte(std::size_t at, char byte) const {
    int const file = open(File().c_str(), O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(pwrite(file, &byte, 1, static_cast<off_t>(at)), 1);
    close(file);
  }

  TemporaryDirectory directory_;
  Content content_;
  std::string original_;
  std::string file_;
};

TEST_P(FlipTest, ChangedByte_GivesAStatusOrTheOriginalData) {
  int const result = InChild([&] {
    std::mt19937 random(static_cast<std::mt19937::result_type>(GetParam()));
    std::map<Outcome, int> outcomes;
    WriteFile(File(), file_);
    for (int i = 0; i < kFlips; ++i) {
      std::size_t const at = Offset(random);
      char const before = file_[at];
      char const after = static_cast<char>(random() % 2 == 0 ? before ^ (1 << random() % 8)
                                                             : static_cast<int>(random() % 256));
      PutByte(at, after);
      Outcome const outcome = Try(directory_.path(), content_, original_);
      if (outcome == Outcome::kWrong) {
        std::cerr << "byte " << at << " from " << int{before} << " to " << int{after} << '\n';
      }
      ++outcomes[outcome];
      if (ReadFile(File()).size() != file_.size()) WriteFile(File(), file_);
      PutByte(at, before);
    }
    bool const varied = outcomes[Outcome::kRefused] > 10 && outcomes[Outcome::kSame] > 10;
    return outcomes[Outcome::kWrong] != 0 ? 1 : varied ? 0 : 2;
  });
  EXPECT_EQ(result, 0) << "1: wrong data, 2: not what was meant to be tried, -1: killed";
}

INSTANTIATE_TEST_SUITE_P(Seeds, FlipTest, testing::Range(1, 13));

class CutTest : public FlipTest {};

TEST_P(CutTest, TruncatedFile_GivesAStatusOrTheOriginalData) {
  int const result = InChild([&] {
    int wrong = 0;
    for (std::size_t size = 1; size < file_.size(); size += kPage) {
      for (std::size_t const cut : {size - 1, size + 100}) {
        WriteFile(File(), file_.substr(0, cut));
        // Of nothing a new database is made.
        if (cut > 0 && Try(directory_.path(), content_, original_) == Outcome::kWrong) ++wrong;
      }
    }
    return wrong == 0 ? 0 : 1;
  });
  EXPECT_EQ(result, 0) << "1: wrong data, -1: killed";
}

INSTANTIATE_TEST_SUITE_P(Once, CutTest, testing::Values(0));

}  // namespace
}  // namespace lscoredb_test
