// Files that are no database, or one of another time, or a broken one. The store's own library
// makes them here, since the kernel does not.

#include <fcntl.h>
#include <lmdb.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <set>

#include "kernel_test.h"
#include "other_process.h"
#include "stored_records.h"

namespace lscoredb_test {
namespace {

constexpr std::uint32_t kName = 2;
constexpr std::uint64_t kIndexToken = 60;

// Frozen: where a data file says what it is, and the newest version that this kernel reads.
constexpr char kFormatKey[] = "format";
constexpr char kMagic[] = "lscoredb";
constexpr std::uint32_t kVersion = 3;
constexpr std::uint32_t kNewestVersion = 7;

std::uint32_t TryOpen(std::string const& directory) {
  lscoredb* database = nullptr;
  std::uint32_t const status = lscoredb_open(directory.c_str(), nullptr, &database);
  EXPECT_EQ(status == LORV_STATUS_OK, database != nullptr);
  if (database != nullptr) Check("close", lscoredb_close(database));
  return status;
}

// Puts one record into a named tree of a store, which is made when it is missing.
void PutRecord(std::string const& directory, char const* tree, std::string key, std::string value) {
  MDB_env* env = nullptr;
  MDB_txn* txn = nullptr;
  MDB_dbi dbi = 0;
  ASSERT_EQ(mdb_env_create(&env), 0);
  ASSERT_EQ(mdb_env_set_maxdbs(env, 8), 0);
  ASSERT_EQ(mdb_env_open(env, directory.c_str(), 0, 0600), 0);
  ASSERT_EQ(mdb_txn_begin(env, nullptr, 0, &txn), 0);
  ASSERT_EQ(mdb_dbi_open(txn, tree, MDB_CREATE, &dbi), 0);
  MDB_val k{key.size(), key.data()};
  MDB_val v{value.size(), value.data()};
  ASSERT_EQ(mdb_put(txn, dbi, &k, &v, 0), 0);
  ASSERT_EQ(mdb_txn_commit(txn), 0);
  mdb_env_close(env);
}

std::string FormatRecord(std::uint32_t version) {
  std::string record = kMagic;
  for (int shift = 0; shift < 32; shift += 8) record += static_cast<char>(version >> shift & 0xFF);
  return record;
}

class DamageTest : public testing::Test {
 protected:
  std::string File() const { return directory_ / "data.mdb"; }

  // A database of some size, with texts that can be found in its file.
  void Fill() {
    Database database(directory_.path());
    Session session(database);
    session.Begin();
    LayoutId const layout = session.CreateLayout(50, {{LORV_TYPE_STRING, 100}});
    index_ = session.CreateIndex(kIndexToken, kSet, {{LORV_TYPE_STRING, 100}});
    for (int i = 0; i < 300; ++i) {
      rows_.push_back(session.Insert(layout));
      session.PutString(rows_.back(), kName, Text(200, static_cast<char16_t>(u'A' + i % 26)));
    }
    session.Commit();
  }

  TemporaryDirectory directory_;
  IndexId index_ = 0;
  Oids rows_;
};

// Pages before the one that is said to be the last are never written, so the file would come to be
// as long as that says.
TEST_F(DamageTest, WrongLastPage_IsNotTrusted) {
  constexpr std::size_t kPage = 4096;
  constexpr std::size_t kLastPage = 16 + 120;
  constexpr std::size_t kCommit = 16 + 128;
  Fill();
  std::string const sound = ReadFile(File());
  bool const first = std::memcmp(&sound[kCommit], &sound[kPage + kCommit], 8) > 0;
  ASSERT_LT(sound[kCommit + 1] | sound[kPage + kCommit + 1], 1) << "a byte tells the newer one";
  std::size_t const at = (first ? 0 : kPage) + kLastPage;
  int refused = 0;
  for (std::size_t bit = 0; bit < 64; ++bit) {
    std::string broken = sound;
    broken[at + bit / 8] = static_cast<char>(broken[at + bit / 8] ^ (1 << bit % 8));
    WriteFile(File(), broken);
    std::uint32_t const status = TryOpen(directory_.path());
    EXPECT_TRUE(status == 0 || status == LSCOREDB_DAMAGED) << status << " of bit " << bit;
    refused += status != 0 ? 1 : 0;
    EXPECT_EQ(sound.size(), std::filesystem::file_size(File())) << "bit " << bit;
  }
  EXPECT_LT(56, refused) << "one that is too high";
}

TEST_F(DamageTest, ForeignFile_IsNoDatabase) {
  WriteFile(File(), std::string(100000, 'x'));
  std::string const before = ReadFile(File());
  EXPECT_STATUS(LSCOREDB_NOT_A_DATABASE, TryOpen(directory_.path()));
  EXPECT_TRUE(ReadFile(File()) == before) << "it is left as it was";
}

TEST_F(DamageTest, TextFile_IsNoDatabase) {
  WriteFile(File(), "Dear diary,\n");
  EXPECT_STATUS(LSCOREDB_NOT_A_DATABASE, TryOpen(directory_.path()));
}

TEST_F(DamageTest, StoreOfAnotherProgram_IsNoDatabase) {
  PutRecord(directory_.path(), "somebody", "key", "value");
  EXPECT_STATUS(LSCOREDB_NOT_A_DATABASE, TryOpen(directory_.path()));
}

TEST_F(DamageTest, StoreWithOurTreeNamesWithoutOurMark_IsNoDatabase) {
  PutRecord(directory_.path(), "meta", "format", "somebody else's");
  EXPECT_STATUS(LSCOREDB_NOT_A_DATABASE, TryOpen(directory_.path()));
}

TEST_F(DamageTest, NewerFormat_IsRefusedAndLeftAlone) {
  Fill();
  PutRecord(directory_.path(), "meta", kFormatKey, FormatRecord(kNewestVersion + 1));
  std::string const before = ReadFile(File());
  EXPECT_STATUS(LSCOREDB_NEWER_FORMAT, TryOpen(directory_.path()));
  EXPECT_TRUE(ReadFile(File()) == before);
  PutRecord(directory_.path(), "meta", kFormatKey, FormatRecord(kVersion));
  EXPECT_STATUS(0, TryOpen(directory_.path()));
}

TEST_F(DamageTest, Verify_FindsABrokenPage) {
  Fill();
  std::string content = ReadFile(File());
  std::string const text(200, 'C');
  for (std::size_t at = content.find(text); at != std::string::npos;
       at = content.find(text, at + 1)) {
    content[at / 4096 * 4096 + 10] = 0x55;
  }
  WriteFile(File(), content);
  lscoredb_options options = NoSync();
  options.verify = 1;
  lscoredb* database = nullptr;
  EXPECT_STATUS(LSCOREDB_DAMAGED, lscoredb_open(directory_.path().c_str(), &options, &database));
  options.verify = 2;
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT,
                lscoredb_open(directory_.path().c_str(), &options, &database));
  EXPECT_EQ(database, nullptr);
}

// The head of an older copy was put into a file that another process works on.
TEST_F(DamageTest, FileThatLostTheStateOthersRead_IsDamaged) {
  constexpr std::size_t kHead = std::size_t{2} * 4096;
  Fill();
  std::string const older = ReadFile(File()).substr(0, kHead);
  OtherProcess holder([&](OtherProcess& test) {
    Database database(directory_.path());
    Session session(database);
    for (int i = 0; i < 4; ++i) {
      session.Begin();
      session.PutString(rows_[0], kName, Text(static_cast<std::size_t>(i), u'X'));
      session.Commit();
    }
    test.Say();
    test.Hear();
  });
  holder.Hear();
  std::fstream(File(), std::ios::in | std::ios::out | std::ios::binary) << older;
  for (std::uint32_t const verify : {0U, 1U}) {
    lscoredb_options options = NoSync();
    options.verify = verify;
    lscoredb* database = nullptr;
    EXPECT_STATUS(LSCOREDB_DAMAGED, lscoredb_open(directory_.path().c_str(), &options, &database));
    EXPECT_EQ(database, nullptr);
  }
}

TEST_F(DamageTest, RowWithChangedBytes_IsDamagedAndOthersAreRead) {
  Fill();
  std::string content = ReadFile(File());
  // The row's text stands in its image and in the index; the image is what is found by reading.
  std::size_t changed = 0;
  std::string const text(200, 'C');
  for (std::size_t at = content.find(text); at != std::string::npos;
       at = content.find(text, at + 1)) {
    content[at + 100] = '!';
    ++changed;
  }
  ASSERT_GT(changed, 0U);
  WriteFile(File(), content);
  Database database(directory_.path());
  database.ExpectDamage();
  Session session(database);
  session.BeginReadOnly();
  LORV_STRING* read = nullptr;
  EXPECT_STATUS(LSCOREDB_DAMAGED,
                lorv_context_get_string(session.context(), rows_[2], 0, kName, &read));
  EXPECT_EQ(read, nullptr);
  EXPECT_EQ(session.String(rows_[3], kName), Text(200, u'D'));
}

// Each read stands for itself.
TEST_F(DamageTest, DamagedPage_LeavesTheOthersReadableInItsTransaction) {
  Fill();
  std::string content = ReadFile(File());
  std::string const text(200, 'C');
  for (std::size_t at = content.find(text); at != std::string::npos;
       at = content.find(text, at + 1)) {
    char& kind = content[at / 4096 * 4096 + 10];
    if (kind == 2) kind = 0x55;  // leaves alone, since opening looks at the first pages
  }
  WriteFile(File(), content);
  Database database(directory_.path());
  database.ExpectDamage();
  Session session(database);
  session.BeginReadOnly();
  std::map<std::uint32_t, int> statuses;
  for (int round = 0; round < 2; ++round) {
    for (Oid const row : rows_) {
      LORV_STRING* read = nullptr;
      ++statuses[lorv_context_get_string(session.context(), row, 0, kName, &read)];
    }
  }
  EXPECT_GT(statuses[LORV_STATUS_OK], 10);
  EXPECT_GT(statuses[LSCOREDB_DAMAGED], 10);
  EXPECT_EQ(2U, statuses.size()) << "no other status";
}

// A page written over another one, with the number of that one: only the bounds of the pages above
// show it.
TEST_F(DamageTest, PageStoredTwice_GivesNoObjectTwice) {
  Fill();
  std::string const sound = ReadFile(File());
  std::vector<std::size_t> leaves;
  for (std::size_t page = 2 * 4096; page < sound.size(); page += 4096) {
    if (sound[page + 10] == 2) leaves.push_back(page);
  }
  int refused = 0;
  for (std::size_t i = 0; i < leaves.size(); ++i) {
    std::string content = sound;
    content.replace(leaves[i] + 8, 4088, sound, leaves[(i + 1) % leaves.size()] + 8, 4088);
    WriteFile(File(), content);
    try {
      Database database(directory_.path());
      database.ExpectDamage();
      Session session(database);
      session.BeginReadOnly();
      for (Oids const& scanned : {session.Scan(index_), session.ScanBack(index_)}) {
        EXPECT_EQ(scanned.size(), std::set<Oid>(scanned.begin(), scanned.end()).size());
      }
    } catch (Unexpected const&) {
      ++refused;
    }
  }
  EXPECT_GT(refused, 10);
}

// Numbers inside of a row are its lengths and offsets; they go wrong when it was read and
// found sound, and lies in no memory.
TEST_F(DamageTest, RowDamagedAfterItWasRead_EndsNoProcess) {
  constexpr std::uint32_t kWild = 0x7FFFFFF1;
  Fill();
  std::string const sound = ReadFile(File());
  std::size_t const text = sound.find(std::string(200, 'C'));
  lscoredb_options options = NoSync();
  options.row_memory = LSCOREDB_NO_ROW_MEMORY;
  std::map<std::uint64_t, int> statuses;
  for (std::size_t before = 4; before <= 64; before += 4) {
    WriteFile(File(), sound);
    OtherProcess meets([&](OtherProcess& test) {
      Database database(directory_.path(), options);
      database.ExpectDamage();
      Session session(database);
      session.Begin();
      for (Oid const row : rows_) session.String(row, kName);
      for (Oid const row : rows_) session.PutSetspec(row, kSet);
      int const file = open(File().c_str(), O_WRONLY | O_CLOEXEC);
      for (std::size_t at = text; at != std::string::npos;
           at = sound.find(std::string(200, 'C'), at + 1)) {
        EXPECT_EQ(sizeof kWild,
                  pwrite(file, &kWild, sizeof kWild, static_cast<off_t>(at - before)));
      }
      close(file);
      for (Oid const row : rows_) {
        LORV_STRING* read = nullptr;
        lorv_context_get_string(session.context(), row, 0, kName, &read);
      }
      test.Say(session.TryCommit());
    });
    std::uint64_t status = 0;
    ASSERT_NO_THROW(status = meets.Hear()) << "it died, " << before << " bytes before the text";
    meets.ExpectGoodEnd();
    ++statuses[status];
  }
  EXPECT_GT(statuses[LSCOREDB_DAMAGED], 0);
  EXPECT_EQ(16, statuses[LSCOREDB_DAMAGED] + statuses[0]);
}

TEST_F(DamageTest, TruncatedFile_IsRefused) {
  Fill();
  std::string const content = ReadFile(File());
  for (std::size_t const size : {std::size_t{1}, std::size_t{100}, std::size_t{5000},
                                 content.size() / 2, content.size() - 4096}) {
    WriteFile(File(), content.substr(0, size));
    std::uint32_t const status = TryOpen(directory_.path());
    EXPECT_TRUE(status == LSCOREDB_DAMAGED || status == LSCOREDB_NOT_A_DATABASE)
        << size << " bytes: " << status;
  }
}

TEST_F(DamageTest, EmptyFile_IsANewDatabase) {
  WriteFile(File(), "");
  EXPECT_STATUS(0, TryOpen(directory_.path()));
}

// Reads everything and writes a little. Any status will do; a crash will not.
void UseEverything(std::string const& directory, IndexId index, Oids const& rows) {
  Database database(directory);
  database.ExpectDamage();
  Session session(database);
  session.Begin();
  for (Oid const row : rows) session.String(row, kName);
  session.Scan(index);
  session.ScanBack(index);
  session.LayoutsByToken(50);
  session.IndexesByToken(kIndexToken);
  session.PutString(rows.at(5), kName, u"written");
  session.Delete(rows.at(6));
  session.Commit();
}

// One record of a tree, opened for damage.
class Vandal {
 public:
  Vandal(std::string const& directory, char const* tree, std::mt19937& random) : random_(random) {
    EXPECT_EQ(mdb_env_create(&env_), 0);
    EXPECT_EQ(mdb_env_set_maxdbs(env_, 8), 0);
    EXPECT_EQ(mdb_env_open(env_, directory.c_str(), MDB_NOSYNC, 0600), 0);
    EXPECT_EQ(mdb_txn_begin(env_, nullptr, 0, &txn_), 0);
    EXPECT_EQ(mdb_dbi_open(txn_, tree, 0, &tree_), 0);
  }
  ~Vandal() {
    EXPECT_EQ(mdb_txn_commit(txn_), 0);
    mdb_env_close(env_);
  }
  Vandal(Vandal const&) = delete;
  Vandal& operator=(Vandal const&) = delete;

  // Breaks the value of a random record, or takes the record away.
  void BreakOne() {
    std::string key;
    std::string value;
    FindOne(&key, &value);
    MDB_val k{key.size(), key.data()};
    if (random_() % 8 == 0) {
      EXPECT_EQ(mdb_del(txn_, tree_, &k, nullptr), 0);
      return;
    }
    Break(&value);
    MDB_val v{value.size(), value.data()};
    EXPECT_EQ(mdb_put(txn_, tree_, &k, &v, 0), 0);
  }

 private:
  void FindOne(std::string* key, std::string* value) {
    MDB_cursor* cursor = nullptr;
    MDB_val k;
    MDB_val v;
    MDB_stat stat{};
    EXPECT_EQ(mdb_stat(txn_, tree_, &stat), 0);
    EXPECT_EQ(mdb_cursor_open(txn_, tree_, &cursor), 0);
    for (std::size_t steps = random_() % stat.ms_entries + 1; steps > 0; --steps)
      EXPECT_EQ(mdb_cursor_get(cursor, &k, &v, MDB_NEXT), 0);
    key->assign(static_cast<char const*>(k.mv_data), k.mv_size);
    value->assign(static_cast<char const*>(v.mv_data), v.mv_size);
    mdb_cursor_close(cursor);
  }

  void Break(std::string* value) {
    switch (random_() % 4) {
      case 0:
        value->resize(random_() % (value->size() + 1));
        break;
      case 1:
        value->append(1 + random_() % 40, static_cast<char>(random_()));
        break;
      default:
        for (char& byte : *value)
          if (random_() % 8 == 0) byte = static_cast<char>(random_());
    }
  }

  std::mt19937& random_;
  MDB_env* env_ = nullptr;
  MDB_txn* txn_ = nullptr;
  MDB_dbi tree_ = 0;
};

TEST_F(DamageTest, BrokenRecordsAnywhere_GiveAStatusAndNoCrash) {
  Fill();
  std::string const content = ReadFile(File());
  std::mt19937 random(4242);
  int refused = 0;
  for (int round = 0; round < 40; ++round) {
    for (char const* const tree : {"rows", "index", "definitions", "meta"}) {
      SCOPED_TRACE(tree);
      WriteFile(File(), content);
      Vandal(directory_.path(), tree, random).BreakOne();
      try {
        UseEverything(directory_.path(), index_, rows_);
      } catch (Unexpected const& failure) {
        EXPECT_NE(failure.status(), 0U);
        ++refused;
      }
    }
  }
  EXPECT_GT(refused, 40);
}

}  // namespace
}  // namespace lscoredb_test
