#ifndef LSCOREDB_SRC_POSTGRES_BATCH_H
#define LSCOREDB_SRC_POSTGRES_BATCH_H

// A batch of writes, which stay in memory until Commit sends them in one round trip.

#include <array>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "noted_bytes.h"
#include "postgres_store.h"

namespace lscore {

struct KeyOrder {
  using is_transparent = void;
  Tree tree = Tree::kMeta;
  bool operator()(std::string_view a, std::string_view b) const { return KeyLess(tree, a, b); }
};
// The writes by key; no value: the key is deleted.
using Written = std::map<std::string, std::optional<std::string>, KeyOrder>;

// Ranges of keys of one tree that are deleted before anything is written there.
class RemovedRanges {
 public:
  struct Range {
    std::string low;
    std::string high;  // not deleted
  };

  void Add(std::string_view low, std::string_view high) {
    ranges_.push_back({std::string(low), std::string(high)});
  }
  // The one that has the key, or null.
  Range const* Find(std::string_view key) const;
  std::vector<Range> const& all() const { return ranges_; }

 private:
  std::vector<Range> ranges_;
};

class PostgresBatch final : public Batch {
 public:
  PostgresBatch(PostgresStore& store, std::vector<TreeKey> const& hints);
  ~PostgresBatch() override;

  bool Get(Tree tree, std::string_view key, std::string_view* value) const override;
  void GetMany(Tree tree, std::span<std::string_view const> keys,
               std::span<std::optional<std::string_view>> values) const override;
  bool far() const override { return true; }
  void PrefetchSeeks(Tree tree, std::vector<std::string> const& keys) const override;
  void OpenCursor(Tree tree, std::unique_ptr<TreeCursor>& cursor) const override;
  void Put(Tree tree, std::string_view key, std::string_view value) override;
  bool PutNew(Tree tree, std::string_view key, std::string_view value) override;
  void Append(Tree tree, std::string_view key, std::string_view value) override;
  bool Delete(Tree tree, std::string_view key) override;
  void Remove(Tree tree, std::string_view key) override;
  void RemoveRange(Tree tree, std::string_view low, std::string_view high) override;
  void Commit() override;
  CommitInDoubt in_doubt() const override { return in_doubt_; }
  bool takes_notes() const override { return KeepsChanges(state_.version); }
  void Note(std::string_view note) override { notes_.Add(note); }
  // Changes with the commit for how long changes are kept. REQUIRES: the tables of the feed exist.
  void SetRetention(Retention const& retention) { retention_ = retention; }

  // The state that it began from.
  StateRead const& state() const { return state_; }
  Result ReadChanges(CommitId after) const;

 private:
  Written& WrittenTo(Tree tree) { return written_[static_cast<std::size_t>(tree)]; }
  Written const& WrittenTo(Tree tree) const { return written_[static_cast<std::size_t>(tree)]; }
  RemovedRanges const& RemovedFrom(Tree tree) const {
    return removed_[static_cast<std::size_t>(tree)];
  }
  TreeStatements const& StatementsOf(Tree tree) const {
    return store_.statements().Of(tree, HasNumbers(state_.version));
  }
  bool changed() const;
  void SendChanges(std::uint64_t state);
  void SendFeed(std::uint64_t state);
  void SendRetention();
  void SendNotes(std::uint64_t state);
  std::uint64_t TakeStatesBefore();
  void Begin(std::vector<TreeKey> const& hints);
  void Send(Tree tree);
  void SendPuts(Tree tree, std::vector<std::string> const& keys,
                std::vector<std::string_view> const& values);
  // Returns whether it was committed; throws when the server refused it.
  bool SendAll();
  void Leave() noexcept;

  PostgresStore& store_;
  std::unique_lock<std::mutex> lock_;
  UsedConnection connection_;
  StateRead state_;
  std::unique_ptr<ServerView> mutable view_;
  std::array<Written, kTreeCount> written_;
  std::array<RemovedRanges, kTreeCount> removed_;
  NotedBytes notes_;
  bool tidies_ = false;  // deletes old lists and tickets
  bool trims_ = false;   // the feed
  std::optional<Retention> retention_;
  CommitInDoubt in_doubt_;  // set when the commit is sent
};

}  // namespace lscore

#endif
