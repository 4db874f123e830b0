#ifndef SAGLEME_TESTS_CRASH_BANK_H
#define SAGLEME_TESTS_CRASH_BANK_H

// The world of the crash tests: a bank with tellers that transfer between accounts, each in a
// thread of its own, and one more that changes the schema meanwhile. Everything is derived from a
// seed, so the progress of each determines the whole content of the database.
//
// Teller t's transfer n moves an amount between two accounts, writes a transfer with lines, and
// removes the transfer that the teller made kKept steps ago. The row of the teller counts. The
// schema's steps are counted in the same way, by teller kArchitect.

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <sagleme/host.hpp>
#include <string>

namespace crash_test {

inline constexpr int kTellers = 3;
inline constexpr int kArchitect = kTellers;
inline constexpr int kAccounts = 8;
inline constexpr std::int64_t kOpening = 1000;
inline constexpr std::int64_t kKept = 4;
inline constexpr int kSchemaSteps = 6;  // before they begin again with another table

// How many steps each teller, and the architect at the end, has done.
using Progress = std::array<std::int64_t, kTellers + 1>;

// Without sync; with or without a log, which turns often.
sagleme::Options UnsyncedOptions(bool log);

// A database of the bank; a creation that was cut off is completed. One per process.
class Bank {
 public:
  Bank(std::string const& directory, std::uint64_t seed, sagleme::Options const& options = {});
  // On a database that the process has open.
  Bank(sagleme::Database& database, std::uint64_t seed);

  sagleme::Database& database() { return *database_; }

  // How far everyone is, in the newest committed state or as a transaction sees it.
  Progress Done();
  static Progress Done(sagleme::Transaction& transaction);

  // One more step of a teller, or of the architect: its number once it is committed. Runs again
  // when others were faster. Throws sagleme::Error for what else is refused.
  std::int64_t Step(sagleme::Context const& context, int teller);
  // Steps with numbers that it divides are synced when they return, whatever the options say.
  void SyncEvery(std::int64_t steps) { sync_every_ = steps; }
  bool Syncs(std::int64_t step) const { return sync_every_ != 0 && step % sync_every_ == 0; }
  // The same within a transaction, not committed. Returns the step's number.
  std::int64_t Work(sagleme::Transaction& transaction, int teller);

  // From now on the feed of changes tells every step. REQUIRES: there were none, and a log.
  void KeepChanges();

  // Expects, in one snapshot, all that follows from how far everyone is, and that the database is
  // sound. The feed of changes, if there is one, tells every step once. REQUIRES: nobody
  // works meanwhile if there is a feed.
  void ExpectWhole();

 private:
  void Found();
  void Transfer(sagleme::Transaction& transaction, int teller, std::int64_t step);
  void ChangeSchema(sagleme::Transaction& transaction, std::int64_t step);
  void ExpectAccounts(sagleme::Transaction& transaction, Progress const& done);
  void ExpectTransfers(sagleme::Transaction& transaction, Progress const& done);
  void ExpectSchema(sagleme::Transaction& transaction, std::int64_t done);
  void ExpectFeed(sagleme::Transaction& transaction, Progress const& done);

  std::unique_ptr<sagleme::Database> owned_;
  sagleme::Database* database_;
  std::uint64_t seed_;
  std::int64_t sync_every_ = 0;
};

}  // namespace crash_test

#endif
