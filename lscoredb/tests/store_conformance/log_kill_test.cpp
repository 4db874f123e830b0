// Death of a process between the two steps that make a state of the image the newest: the header is
// in the file, and the memory that processes share still names the state before it.
//
// A checkpoint of many entries makes several such states.

#include <dlfcn.h>
#include <signal.h>

#include <array>
#include <filesystem>
#include <functional>
#include <map>

#include "log_of_tests.h"
#include "other_process.h"
#include "stores.h"

namespace lscore {
namespace {

using lscoredb_test::OtherProcess;

constexpr Tree kTree = Tree::kIndex;
constexpr off_t kEndOfHeaders = 8192;  // of two pages
constexpr char kImageFile[] = "/data.mdb";

int headers_to_death = 0;  // this process dies behind so many; 0: it does not

bool IsOfImage(int file) {
  std::array<char, 4096> path{};
  std::string const link = "/proc/self/fd/" + std::to_string(file);
  ssize_t const size = readlink(link.c_str(), path.data(), path.size());
  return size > 0 && std::string(path.data(), static_cast<std::size_t>(size)).ends_with(kImageFile);
}

class LogKillTest : public testing::Test {
 protected:
  LogKillTest() {
    std::string path = testing::TempDir() + "/log-kill-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("no directory for the test");
    directory_ = path;
    options_.sync = false;
    options_.log_limit = 4096;
  }
  ~LogKillTest() override { std::filesystem::remove_all(directory_); }

  std::unique_ptr<Store> Open() const { return OpenLogStore(directory_, options_); }

  static void Commit(Store& store, std::string const& key, std::size_t size = 10) {
    Fill(store, kTree, {{key, std::string(size, 'v')}});
  }
  // One that the log has no room for goes into the image.
  void CommitToImage(Store& store, std::string const& key) const {
    Commit(store, key, 2 * options_.log_limit);
  }
  static std::string KeysIn(Store& store) {
    Reading const now(store);
    std::string keys;
    for (auto const& [key, value] : AllOf(*now, kTree)) keys += key;
    return keys;
  }

  // A process that opens the store on request, works, and dies as described above.
  std::unique_ptr<OtherProcess> Dying(std::function<void(std::unique_ptr<Store>)> const& work) {
    return std::make_unique<OtherProcess>([this, work](OtherProcess& test) {
      test.Hear();
      std::unique_ptr<Store> store = Open();
      Commit(*store, "b");
      headers_to_death = 1;
      work(std::move(store));
    });
  }
  static void Die(OtherProcess& other) {
    other.Say();
    ASSERT_TRUE(other.EndsKilled());
  }

  std::string directory_;
  StoreOptions options_;
};

TEST_F(LogKillTest, Commit_GoesOnBehindOneThatADeadProcessWroteToTheImage) {
  auto const other = Dying([this](std::unique_ptr<Store> store) { CommitToImage(*store, "c"); });
  {
    std::unique_ptr<Store> const store = Open();
    Commit(*store, "a");
    Die(*other);
    Commit(*store, "d");
    EXPECT_EQ("abcd", KeysIn(*store));
    CommitToImage(*store, "e");
    EXPECT_EQ("abcde", KeysIn(*store));
  }
  EXPECT_EQ("abcde", KeysIn(*Open()));
}

// One that has the image open already, and waits for its turn to open the log.
TEST_F(LogKillTest, Recovery_FindsWhatADeadProcessWroteToTheImage) {
  auto const other = Dying([this](std::unique_ptr<Store> store) { CommitToImage(*store, "c"); });
  Commit(*Open(), "a");
  StoreOptions image_options = options_;
  image_options.max_readers += LogStore::kOwnReaders;
  std::unique_ptr<Store> image = LmdbStore::Open(directory_.c_str(), image_options);
  Die(*other);
  {
    std::unique_ptr<Store> const store = LogStore::Open(image, directory_, options_);
    EXPECT_EQ("abc", KeysIn(*store));
    Commit(*store, "d");
    CommitToImage(*store, "e");
    EXPECT_EQ("abcde", KeysIn(*store));
  }
  EXPECT_EQ("abcde", KeysIn(*Open()));
}

// A process that only reads recovers the log, and cannot settle the image.
TEST_F(LogKillTest, Writer_SettlesTheImageThatAReaderFoundUnsettled) {
  auto const other = Dying([this](std::unique_ptr<Store> store) { CommitToImage(*store, "c"); });
  OtherProcess writer([this](OtherProcess& test) {
    test.Hear();
    std::unique_ptr<Store> const store = Open();
    Commit(*store, "d");
    EXPECT_EQ("abcd", KeysIn(*store));
    CommitToImage(*store, "e");
    test.Say();
    test.Hear();
  });
  Commit(*Open(), "a");
  StoreOptions image_options = options_;
  image_options.max_readers += LogStore::kOwnReaders;
  image_options.access = Access::kRead;
  std::unique_ptr<Store> image = LmdbStore::Open(directory_.c_str(), image_options);
  Die(*other);
  {
    std::unique_ptr<Store> const store = LogStore::Open(image, directory_, options_);
    std::string const before = KeysIn(*store);
    EXPECT_TRUE(before == "ab" || before == "abc") << before;
    writer.Say();
    writer.Hear();
    EXPECT_EQ("abcde", KeysIn(*store));
    writer.Say();
    writer.ExpectGoodEnd();
    EXPECT_EQ("abcde", KeysIn(*store));
  }
  EXPECT_EQ("abcde", KeysIn(*Open()));
}

TEST_F(LogKillTest, Recovery_FindsTheImageThatADeadProcessLeftClean) {
  auto const closing = Dying([](std::unique_ptr<Store> store) { store.reset(); });
  auto const killed = std::make_unique<OtherProcess>([this](OtherProcess& test) {
    StoreOptions image_options = options_;
    image_options.max_readers += LogStore::kOwnReaders;
    test.Hear();
    std::unique_ptr<Store> image = LmdbStore::Open(directory_.c_str(), image_options);
    test.Say();
    test.Hear();
    std::unique_ptr<Store> const store = LogStore::Open(image, directory_, options_);
    Commit(*store, "c");
    raise(SIGKILL);
  });
  Commit(*Open(), "a");
  killed->Say();
  killed->Hear();
  Die(*closing);
  Die(*killed);
  EXPECT_EQ("abc", KeysIn(*Open()));
}

// Ends with the first process that lives: it wrote all batches.
TEST_F(LogKillTest, LargeCheckpoint_IsFinishedByTheNextProcess) {
  constexpr int kKeys = 40000;
  options_.log_limit = std::uint64_t{8} << 20;
  for (bool const closes : {false, true}) {
    int killed = 0;
    for (bool lives = false; !lives; ++killed) {
      std::map<std::string, std::string> entries;
      std::string const value = std::string(closes ? "closed " : "asked ") + std::to_string(killed);
      for (int i = 0; i < kKeys; ++i) entries[std::to_string(i)] = value;
      OtherProcess other([&](OtherProcess& test) {
        test.Hear();
        std::unique_ptr<Store> store = Open();
        Fill(*store, kTree, entries);
        headers_to_death = killed + 1;
        if (!closes) store->Checkpoint();
        if (closes) store.reset();
        headers_to_death = 0;
      });
      other.Say();
      lives = !other.EndsKilled();
      std::unique_ptr<Store> const store = Open();
      EXPECT_TRUE(Entries(entries.begin(), entries.end()) == AllOf(*Reading(*store), kTree))
          << killed;
    }
    EXPECT_LT(3, killed);  // three batches, and the process that lived
  }
}

}  // namespace
}  // namespace lscore

// Stands before the function of the C library, for this executable and for what it uses.
extern "C" [[gnu::visibility("default")]] ssize_t pwrite(int file, void const* bytes,
                                                         std::size_t size, off_t offset) {
  using Function = ssize_t(int, void const*, std::size_t, off_t);
  static auto* const original = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "pwrite"));
  ssize_t const written = original(file, bytes, size, offset);
  if (lscore::headers_to_death > 0 && offset < lscore::kEndOfHeaders && lscore::IsOfImage(file)) {
    if (--lscore::headers_to_death == 0) raise(SIGKILL);
  }
  return written;
}
