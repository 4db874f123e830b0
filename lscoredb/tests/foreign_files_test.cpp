// Files of any origin where the data file should be: those of other programs, stores of others,
// newer databases, parts of a database. Each case is drawn by its number.

#include <lmdb.h>

#include <array>
#include <filesystem>
#include <random>
#include <set>

#include "kernel_test.h"
#include "numbered_cases.h"
#include "stored_records.h"

namespace lscoredb_test {
namespace {

constexpr std::size_t kPage = 4096;
constexpr std::uint32_t kNewestVersion = 7;
constexpr std::uint32_t kNumber = 2;
constexpr std::uint32_t kText = 3;

// How files of other programs begin.
constexpr std::array<std::string_view, 9> kBeginnings = {
    "\x7f"
    "ELF\x02\x01\x01",
    "SQLite format 3",
    "PK\x03\x04",
    "\x1f\x8b\x08",
    "\x89PNG\r\n\x1a\n",
    "%PDF-1.7",
    "<?xml ",
    "{\"",
    "\xde\xc0\xef\xbe"};

Text TextOf(int number) { return Text(static_cast<std::size_t>(20 + number % 400), u'a'); }

struct Content {
  Oids rows;
  IndexId index = 0;
};

Content Fill(std::string const& directory) {
  Content content;
  Database database(directory);
  Session session(database);
  session.Begin();
  LayoutId const layout =
      session.CreateLayout(50, {{LORV_TYPE_LONG, 100}, {LORV_TYPE_STRING, 101}});
  content.index = session.CreateIndex(60, kSet, {{LORV_TYPE_LONG, 100}});
  session.Commit();
  for (int i = 0; i < 400; ++i) {
    if (i % 40 == 0) session.Begin();
    content.rows.push_back(session.Insert(layout));
    session.PutLong(content.rows.back(), kNumber, i);
    session.PutString(content.rows.back(), kText, TextOf(i));
    if (i % 40 == 39) session.Commit();
  }
  return content;
}

enum class Origin {
  kNoise,
  kOtherFormat,
  kZeros,
  kOtherStore,
  kNewer,
  kBeginning,       // of a database
  kForeignBehind,   // a database's beginning, then something else
  kForeignAtBegin,  // the reverse
  kCount,
};

class Forger {
 public:
  Forger(std::string const& sound, std::string const& directory, std::uint64_t number)
      : sound_(sound), directory_(directory), random_(number) {}

  void Make(Origin origin) {
    std::string const file = directory_ + "/data.mdb";
    switch (origin) {
      case Origin::kNoise:
        return WriteFile(file, Noise(Size()));
      case Origin::kOtherFormat:
        return WriteFile(file, std::string(kBeginnings[Below(kBeginnings.size())]) + Noise(Size()));
      case Origin::kZeros:
        return WriteFile(file, std::string(Size(), '\0'));
      case Origin::kOtherStore:
        return MakeOtherStore();
      case Origin::kNewer:
        return MakeNewer();
      case Origin::kBeginning:
        return WriteFile(file, sound_.substr(0, 1 + Below(sound_.size() - 1)));
      case Origin::kForeignBehind: {
        std::size_t const kept = 1 + Below(sound_.size() - 1);
        return WriteFile(file, sound_.substr(0, kept) + Noise(sound_.size() - kept));
      }
      case Origin::kForeignAtBegin: {
        std::size_t const lost = 1 + Below(sound_.size() - 1);
        return WriteFile(file, Noise(lost) + sound_.substr(lost));
      }
      case Origin::kCount:
        break;
    }
  }

 private:
  std::size_t Below(std::size_t end) { return std::size_t{random_()} % end; }
  // Often that of whole pages, as of a database.
  std::size_t Size() { return Below(2) == 0 ? 1 + Below(40000) : kPage * (1 + Below(20)); }

  std::string Noise(std::size_t size) {
    std::string noise(size, '\0');
    for (char& byte : noise) byte = static_cast<char>(random_());
    return noise;
  }

  // The library's own, with any trees.
  void MakeOtherStore() {
    MDB_env* env = nullptr;
    MDB_txn* txn = nullptr;
    ASSERT_EQ(0, mdb_env_create(&env));
    ASSERT_EQ(0, mdb_env_set_maxdbs(env, 8));
    ASSERT_EQ(0, mdb_env_open(env, directory_.c_str(), 0, 0600));
    ASSERT_EQ(0, mdb_txn_begin(env, nullptr, 0, &txn));
    char const* const names[] = {"rows", "index", "meta", "definitions", "parts", "users", nullptr};
    for (std::size_t i = Below(6) + 1; i > 0; --i) {
      MDB_dbi tree = 0;
      char const* const name = names[Below(std::size(names))];
      ASSERT_EQ(0, mdb_dbi_open(txn, name, MDB_CREATE, &tree));
      std::string key = Below(2) == 0 ? "format" : Noise(8);
      std::string value = Noise(1 + Below(3000));
      MDB_val k{key.size(), key.data()};
      MDB_val v{value.size(), value.data()};
      ASSERT_EQ(0, mdb_put(txn, tree, &k, &v, 0));
    }
    ASSERT_EQ(0, mdb_txn_commit(txn));
    mdb_env_close(env);
    std::filesystem::remove(directory_ + "/lock.mdb");
  }

  void MakeNewer() {
    WriteFile(directory_ + "/data.mdb", sound_);
    std::uint64_t const version = kNewestVersion + 1 + Below(0xFFFFFF00);
    StoredTree(directory_, "meta").Put("format", "lscoredb" + Little(version, 4));
    std::filesystem::remove(directory_ + "/lock.mdb");
  }

  std::string const& sound_;
  std::string directory_;
  std::mt19937_64 random_;
};

class ForeignFilesTest : public testing::Test {
 protected:
  ForeignFilesTest() {
    content_ = Fill(original_.path());
    sound_ = ReadFile(original_ / "data.mdb");
  }

  void TryCase(std::uint64_t number) {
    SCOPED_TRACE("case " + std::to_string(number));
    auto const origin = static_cast<Origin>(number % static_cast<std::uint64_t>(Origin::kCount));
    TemporaryDirectory directory;
    Forger(sound_, directory.path(), number).Make(origin);
    std::string const before = ReadFile(directory / "data.mdb");
    lscoredb_options options = NoSync();
    options.verify = number / 8 % 2;
    lscoredb* database = nullptr;
    std::uint32_t const status = lscoredb_open(directory.path().c_str(), &options, &database);
    ASSERT_EQ(status == 0, database != nullptr);
    ++statuses_[status];
    ExpectExpected(origin, status);
    if (database == nullptr) {
      EXPECT_TRUE(before == ReadFile(directory / "data.mdb")) << "it is left as it was";
      EXPECT_STRNE(lscoredb_status_text(1), lscoredb_status_text(status));
      return;
    }
    ReadAll(database, options.verify != 0);
    Check("close", lscoredb_close(database));
  }

  std::map<std::uint32_t, int> statuses_;

 private:
  static void ExpectExpected(Origin origin, std::uint32_t status) {
    switch (origin) {
      case Origin::kNoise:
      case Origin::kOtherFormat:
      case Origin::kZeros:
        EXPECT_EQ(LSCOREDB_NOT_A_DATABASE, status);
        break;
      case Origin::kNewer:
        EXPECT_EQ(LSCOREDB_NEWER_FORMAT, status);
        break;
      case Origin::kOtherStore:  // it may have trees of our names
        EXPECT_TRUE(status == LSCOREDB_DAMAGED || status == LSCOREDB_NOT_A_DATABASE) << status;
        break;
      default:
        EXPECT_TRUE(status == 0 || status == LSCOREDB_DAMAGED || status == LSCOREDB_NOT_A_DATABASE)
            << status;
    }
  }

  // What is given is what was written; with `whole` everything is.
  void ReadAll(lscoredb* database, bool whole) {
    std::uint64_t context = 0;
    Check("context", lscoredb_context_open(database, &context));
    std::uint32_t status = lscoredb_begin(context, LSCOREDB_READ_ONLY_TRANSACTION);
    for (std::size_t i = 0; i < content_.rows.size() && status == 0; ++i) {
      std::int64_t number = 0;
      std::uint32_t const read =
          lorv_context_get_long(context, content_.rows[i], 0, kNumber, &number);
      if (read == 0) {
        EXPECT_EQ(static_cast<std::int64_t>(i), number);
      }
      EXPECT_TRUE(read == 0 ||
                  (!whole && (read == LSCOREDB_DAMAGED || read == LORV_STATUS_NO_OBJECT)))
          << read;
    }
    EXPECT_TRUE(status == 0 || (!whole && status == LSCOREDB_DAMAGED)) << status;
    Check("close", lscoredb_context_close(context));
  }

  TemporaryDirectory original_;
  Content content_;
  std::string sound_;
};

TEST_F(ForeignFilesTest, FileOfAnyOrigin_IsRefusedAndLeftAlone) {
  ForEachCase(400, [&](std::uint64_t number) { TryCase(number); });
  for (auto const& [status, count] : statuses_) {
    std::printf("status %u: %d cases\n", status, count);
  }
}

}  // namespace
}  // namespace lscoredb_test
