// A host that breaks rules in its own process, over and over and in any order, while others work in
// the same directory: each call is refused with a status that has a text, or does nothing wrong.

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>

#include "crash/directory.h"
#include "crash/rounds.h"
#include "crash/tellers.h"

namespace crash_test {
namespace {

using namespace sagleme;

constexpr std::uint64_t kSeed = 43;

void ExpectRefused(std::uint32_t status) {
  EXPECT_NE(0U, status);
  EXPECT_STRNE("", lscoredb_status_text(status));
}

// What a careless host does with one database that it has open.
class Host {
 public:
  Host(std::string const& directory, Options const& options, std::uint64_t seed)
      : directory_(directory), options_(options), bank_(directory, kSeed, options), random_(seed) {}

  void MisuseOnce() {
    using Misuse = void (Host::*)();
    constexpr std::array<Misuse, 10> kMisuses = {
        &Host::ReadFiles, &Host::LockFiles,       &Host::OpenByOtherPaths, &Host::EndTwice,
        &Host::UseClosed, &Host::UseWildHandles,  &Host::WriteReadOnly,    &Host::CloseInUse,
        &Host::LeaveOpen, &Host::OpenWithNonsense};
    (this->*kMisuses[random_() % kMisuses.size()])();
  }

  void Work() {
    Context const context(bank_.database());
    bank_.Step(context, 0);
  }

  void ExpectWhole() { bank_.ExpectWhole(); }

 private:
  std::uint64_t OpenContext() {
    std::uint64_t context = 0;
    EXPECT_EQ(0U, lscoredb_context_open(bank_.database().handle(), &context));
    return context;
  }

  // As a backup does. Closing a file drops the locks that a process has on it in the old way.
  void ReadFiles() {
    for (auto const& file : std::filesystem::directory_iterator(directory_)) {
      std::ifstream in(file.path(), std::ios::binary);
      std::string const all(std::istreambuf_iterator<char>(in), {});
    }
  }

  void LockFiles() {
    for (auto const& file : std::filesystem::directory_iterator(directory_)) {
      int const opened = open(file.path().c_str(), O_RDWR | O_CLOEXEC);
      if (opened < 0) continue;  // a log may have gone meanwhile
      struct flock region {};
      region.l_type = F_RDLCK;
      region.l_start = std::int64_t{1} << 40;  // where nobody locks
      region.l_len = 1;
      fcntl(opened, F_SETLK, &region);
      close(opened);
    }
  }

  void OpenByOtherPaths() {
    std::string const link = directory_ + "-link" + std::to_string(getpid());
    std::filesystem::create_directory_symlink(directory_, link);
    for (std::string const& path : {directory_ + "/", directory_ + "/.", link}) {
      lscoredb* again = nullptr;
      EXPECT_EQ(0U, lscoredb_open(path.c_str(), nullptr, &again));
      EXPECT_EQ(0U, lscoredb_close(again));
    }
    std::filesystem::remove(link);
  }

  void EndTwice() {
    std::uint64_t const context = OpenContext();
    ExpectRefused(lscoredb_commit(context));
    EXPECT_EQ(0U, lscoredb_begin(context, LSCOREDB_READ_WRITE));
    ExpectRefused(lscoredb_begin(context, LSCOREDB_READ_WRITE));
    EXPECT_EQ(0U, lscoredb_commit(context));
    ExpectRefused(lscoredb_commit(context));
    ExpectRefused(lscoredb_rollback(context));
    EXPECT_EQ(0U, lscoredb_context_close(context));
    ExpectRefused(lscoredb_context_close(context));
  }

  void UseClosed() {
    std::uint64_t const context = OpenContext();
    EXPECT_EQ(0U, lscoredb_begin(context, LSCOREDB_READ_WRITE));
    EXPECT_EQ(0U, lscoredb_context_close(context));
    std::int64_t value = 0;
    ExpectRefused(lscoredb_begin(context, LSCOREDB_READ_WRITE));
    ExpectRefused(lscoredb_commit(context));
    ExpectRefused(lorv_context_get_long(context, 1, 0, 2, &value));
  }

  // Numbers that a host never got, or that are of something else.
  void UseWildHandles() {
    std::uint64_t const context = OpenContext();
    EXPECT_EQ(0U, lscoredb_begin(context, LSCOREDB_READ_WRITE));
    std::int64_t value = 0;
    std::uint64_t const wild = random_() | std::uint64_t{1} << 63;
    auto const column = static_cast<std::uint32_t>(random_() % 2000 + 1100);
    ExpectRefused(lorv_context_get_long(wild, 1, 0, 2, &value));
    ExpectRefused(lorv_context_get_long(context, wild, 0, 2, &value));
    ExpectRefused(lorv_context_get_long(context, 1, 0, column, &value));
    ExpectRefused(lorv_context_get_long(context, 1, 0, 2, nullptr));
    ExpectRefused(lorv_iterator_free(wild));
    ExpectRefused(lscoredb_commit(wild));
    ExpectRefused(lscoredb_context_open(nullptr, nullptr));
    EXPECT_EQ(0U, lscoredb_rollback(context));
    EXPECT_EQ(0U, lscoredb_context_close(context));
  }

  void WriteReadOnly() {
    Context const context(bank_.database());
    Transaction transaction(context, Access::kReadOnly);
    EXPECT_THROW(bank_.Work(transaction, 1), Error);
  }

  void CloseInUse() {
    std::uint64_t const context = OpenContext();
    ExpectRefused(lscoredb_close(bank_.database().handle()));
    EXPECT_EQ(0U, lscoredb_context_close(context));
  }

  // A change that is never ended; the context is closed over it.
  void LeaveOpen() {
    auto const context = std::make_unique<Context>(bank_.database());
    auto const transaction = std::make_unique<Transaction>(*context);
    bank_.Work(*transaction, 1);
    static_cast<void>(lscoredb_context_close(context->id()));
  }

  void OpenWithNonsense() {
    lscoredb* out = nullptr;
    lscoredb_options options{};
    ExpectRefused(lscoredb_open((directory_ + "/data.mdb").c_str(), nullptr, &out));
    ExpectRefused(lscoredb_open("", nullptr, &out));
    options.size = static_cast<std::uint32_t>(random_() % 4);
    ExpectRefused(lscoredb_open(directory_.c_str(), &options, &out));
    options.size = sizeof options;
    options.durability = 77;
    ExpectRefused(lscoredb_open(directory_.c_str(), &options, &out));
    ExpectRefused(lscoredb_open(directory_.c_str(), nullptr, nullptr));
  }

  std::string const directory_;
  Options const options_;
  Bank bank_;
  std::mt19937_64 random_;
};

class MisuseTest : public testing::TestWithParam<bool> {
 protected:
  Directory directory_;
  Options const options_ = UnsyncedOptions(GetParam());
};

TEST_P(MisuseTest, HostThatBreaksRules_HarmsNeitherItselfNorOthers) {
  InChild([&] { Bank const bank(directory_.path(), kSeed, options_); });
  Child worker([&](Channel& channel) {
    Bank bank(directory_.path(), kSeed, options_);
    WorkUntilTheEnd([&](std::string const& line) { channel.Say(line); }, bank, {2, 3});
    return 0;
  });
  InChild([&] {
    Host host(directory_.path(), options_, kSeed);
    int const rounds = Rounds(100, 30);
    for (int round = 0; round < rounds && !HasFailure(); ++round) {
      SCOPED_TRACE("round " + std::to_string(round));
      host.MisuseOnce();
      if (round % 4 == 0) host.Work();
      if (round % 10 == 0) host.ExpectWhole();
    }
    host.ExpectWhole();
  });
  EXPECT_TRUE(worker.Next().has_value());
  worker.Kill();
  InChild([&] { Bank(directory_.path(), kSeed).ExpectWhole(); });
}

INSTANTIATE_TEST_SUITE_P(Log, MisuseTest, testing::Bool(),
                         [](auto const& with) { return with.param ? "With" : "Without"; });

}  // namespace
}  // namespace crash_test
