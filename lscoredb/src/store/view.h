#ifndef LSCOREDB_SRC_VIEW_H
#define LSCOREDB_SRC_VIEW_H

// How a store is read and written: snapshots of committed states, and batches of writes. See
// store.h.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "entry_page.h"
#include "ids.h"

namespace lscore {

// Keys of kRows are numbers of eight bytes, little endian, in the order of the numbers. All others
// are in the order of their bytes and are 1 to kMaxKeySize long.
enum class Tree : std::uint8_t { kRows, kOverflow, kIndex, kDefinitions, kMeta };
inline constexpr std::size_t kTreeCount = 5;
inline constexpr std::size_t kMaxKeySize = 511;

struct TreeKey {
  Tree tree;
  std::string key;
  bool seek = false;  // for a cursor; otherwise for Get
};

// Rows that lie side by side: those with the next ids above one, or below it.
struct RowRun {
  ObjectId beside{};
  bool rising = true;
};

class Store;

// A store's part of a Cursor, which keeps the current entry; each call moves it.
class TreeCursor {
 public:
  TreeCursor(TreeCursor const&) = delete;
  TreeCursor& operator=(TreeCursor const&) = delete;
  virtual ~TreeCursor() = default;

  // Each returns whether there is such an entry; `*entry` is set iff there is.
  virtual bool Seek(std::string_view key, KeyValue* entry) = 0;  // the first not below `key`
  virtual bool First(KeyValue* entry) = 0;
  virtual bool Last(KeyValue* entry) = 0;
  // REQUIRES: `*entry` came from this cursor or from a page that it gave.
  virtual bool Next(KeyValue* entry) = 0;
  virtual bool Previous(KeyValue* entry) = 0;
  // Enters the page around `entry`, valid as long as the snapshot. Returns false if there is none;
  // each step is then a call of Next or Previous.
  virtual bool EnterPage(KeyValue const& entry, EntryPage* page) = 0;

  // Steps ahead and only counts: over `*skipped` entries behind `*entry`, at most `most`, none
  // beyond a key that is `within`; `*entry` is then the one behind them, if `*on`. Of the entries
  // between only their number counts: their bytes are not checked. Returns false, with nothing
  // changed, where single steps are no slower.
  using WithinRange = std::function<bool(std::string_view)>;
  virtual bool SkipAhead(bool /* forward */, std::size_t /* most */,
                         WithinRange const& /* within */, KeyValue* /* entry */,
                         std::size_t* /* skipped */, bool* /* on */) {
    return false;
  }

  // Appends entries from `entry` on, in that direction, that are at hand without a round trip; only
  // a remote store has any. A hint: there may be more.
  virtual void Upcoming(KeyValue const& /* entry */, bool /* forward */, std::size_t /* most */,
                        std::vector<KeyValue>* /* out */) const {}
  // Announces a scan: entries below `low`, or from `high` on, are not wanted until the next Seek,
  // First or Last. A remote store may end there, and may ask for the next entries before they are
  // wanted.
  virtual void Expect(std::string_view /* low */, std::string_view /* high */) {}
  // Announces that rows will be read with the entries behind those at hand, and a guess at which. A
  // remote store fetches as many in the round trip of its next entries; the snapshot keeps them.
  virtual void FetchWithNextPage(RowRun const& /* run */) {}

  bool IsOf(Store const& store) const { return store_ == &store; }

 protected:
  TreeCursor() = default;
  explicit TreeCursor(Store const& store) : store_(&store) {}

 private:
  Store const* store_ = nullptr;
};

// What a snapshot and a batch have in common: reading.
class View {
 public:
  View(View const&) = delete;
  View& operator=(View const&) = delete;
  virtual ~View() = default;

  // Returns whether the key is there; `*value` is set iff it is.
  virtual bool Get(Tree tree, std::string_view key, std::string_view* value) const = 0;
  // Get for each key; a remote store takes one round trip. REQUIRES: as many values as keys.
  virtual void GetMany(Tree tree, std::span<std::string_view const> keys,
                       std::span<std::optional<std::string_view>> values) const;
  // Whether a read may take a round trip to a server. The view then keeps what it has read.
  virtual bool far() const { return false; }
  // Announces that cursors will seek these keys and look at an entry or two there. A remote store
  // then takes one round trip for all.
  virtual void PrefetchSeeks(Tree /* tree */, std::vector<std::string> const& /* keys */) const {}
  // Creates a cursor over the tree, or reuses the one in `cursor` if the store can.
  virtual void OpenCursor(Tree tree, std::unique_ptr<TreeCursor>& cursor) const = 0;

  // The number of the state that is read; for a batch, of the state that its commit makes. Later
  // states have higher numbers.
  CommitId id() const { return id_; }

 protected:
  View() = default;
  void set_id(CommitId id) { id_ = id; }

 private:
  CommitId id_{0};
};

// A committed state of the store, which lives from Store::Begin to Store::End. Until End the state
// does not change, and all bytes that it returned stay valid and where they are. A long snapshot
// keeps the store from reusing space that it needs.
class Snapshot : public View {};

// Identifies a commit whose outcome is unknown, for Store::AskOutcome.
struct CommitInDoubt {
  std::string ticket;  // empty: none
  CommitId state{0};
};

// The one open batch of writes of the store. It reads its own writes. The store is unchanged unless
// Commit returned. Bytes that it returned are valid until its next write.
class Batch : public View {
 public:
  virtual void Put(Tree tree, std::string_view key, std::string_view value) = 0;
  // Returns false, with nothing changed, when the key exists.
  virtual bool PutNew(Tree tree, std::string_view key, std::string_view value) = 0;
  // As Put, and packs pages. REQUIRES: `key` is above all keys of the tree.
  virtual void Append(Tree tree, std::string_view key, std::string_view value) = 0;
  // Returns whether the key existed.
  virtual bool Delete(Tree tree, std::string_view key) = 0;
  // As Delete without the answer, which saves a remote store a round trip.
  virtual void Remove(Tree tree, std::string_view key) { Delete(tree, key); }
  // Whether the store keeps notes of its commits now; one of what a transaction of this batch
  // changed. Other stores ignore it.
  virtual bool takes_notes() const { return false; }
  virtual void Note(std::string_view /* note */) {}
  // Deletes the keys from `low` on and below `high`. A remote store sends one statement, with the
  // commit. REQUIRES: the tree is not kRows, `high` is not empty.
  virtual void RemoveRange(Tree tree, std::string_view low, std::string_view high);
  // All or nothing; ends the batch in either case. REQUIRES: no cursor over it is open.
  virtual void Commit() = 0;
  // After a commit that threw LSCOREDB_COMMIT_UNKNOWN.
  virtual CommitInDoubt in_doubt() const { return {}; }

  // Commit syncs the batch, and all before it, even in a store that need not.
  void AskForSync() { asks_for_sync_ = true; }

 protected:
  bool asks_for_sync() const { return asks_for_sync_; }

 private:
  bool asks_for_sync_ = false;
};

}  // namespace lscore

#endif
