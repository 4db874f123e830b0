#ifndef LSCOREDB_SRC_POSTGRES_BLIND_BATCH_H
#define LSCOREDB_SRC_POSTGRES_BLIND_BATCH_H

// A commit in one round trip. What it writes and takes for granted stays in memory until Commit
// sends it in one pipeline, at READ COMMITTED:
//
//   BEGIN; advance the state and so lock it; check; write; COMMIT
//
// A check that fails ends the transaction on the server, and the commit with it.

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "blind_batch.h"
#include "noted_bytes.h"
#include "postgres_store.h"

namespace lscore {

class PostgresBlindBatch final : public BlindBatch {
 public:
  PostgresBlindBatch(PostgresStore& store, CommitId known, std::uint64_t version)
      : store_(store), known_(known), version_(version) {}

  CommitId guess() const override { return CommitId{Raw(known_) + 1}; }
  void InsertRow(ObjectId id, std::string_view image) override;
  void UpdateRow(ObjectId id, CommitId since, std::string_view image) override;
  void DeleteRow(ObjectId id, CommitId since) override;
  void RequireRow(ObjectId id, CommitId since) override;
  void RequireNoLater(std::string_view key, CommitId since) override;
  void PutStamped(std::string_view key, std::string_view value) override;
  void AddToCount(std::string_view key, std::int64_t objects, bool named) override;
  void RequireGivenIds(std::string_view mark, ObjectId highest, std::string_view low,
                       std::string_view high) override;
  void PutEntry(std::string_view key, std::string_view value) override;
  void RemoveEntry(std::string_view key) override;
  void RequireFree(std::string_view low, std::string_view high, std::string_view own) override;
  bool takes_notes() const override { return KeepsChanges(version_); }
  void Note(std::string_view note) override { notes_.Add(note); }
  void AskForSync() override { asks_for_sync_ = true; }
  CommitInDoubt in_doubt() const override { return in_doubt_; }
  bool Commit(Made const& made) override;

 private:
  // Parameters of a statement, column by column.
  struct Columns {
    std::vector<std::string> keys;
    std::vector<std::uint64_t> numbers;
    std::vector<std::string> values;
    std::vector<std::string> others;

    bool empty() const { return keys.empty(); }
  };
  struct GivenIds {
    std::string mark;
    ObjectId highest{};
    std::string low;
    std::string high;
  };
  enum class Outcome : std::uint8_t { kRefused, kMade, kMadeUnseen };

  bool IsTooLarge();
  void Send(Connection& connection);
  void SendRows(Connection& connection) const;
  void SendMeta(Connection& connection) const;
  void SendEntries(Connection& connection) const;
  Outcome Exchange(Connection& connection, std::vector<Result>* results);
  Outcome AskWhetherMade(std::chrono::steady_clock::time_point begun) const;
  void NoteMade(std::vector<Result> const& results, Made const& made) const;

  PostgresStore& store_;
  CommitId const known_;         // the newest state whose changes this process knows
  std::uint64_t const version_;  // of the tables
  std::vector<std::string> changed_;
  Columns inserted_;
  Columns updated_;
  Columns checked_;
  std::vector<std::string> deleted_;
  Columns unchanged_;  // of kMeta
  Columns stamped_;
  Columns counts_;  // `others`: nothing, or one byte where a set must follow
  std::optional<GivenIds> given_;
  std::map<std::string, std::optional<std::string>, std::less<>> entries_;
  Columns free_;  // keys: low, values: high, others: own
  NotedBytes notes_;
  bool asks_for_sync_ = false;
  CommitInDoubt in_doubt_;
  std::size_t advance_at_ = 0;  // positions of statements
  std::size_t commit_at_ = 0;
};

}  // namespace lscore

#endif
