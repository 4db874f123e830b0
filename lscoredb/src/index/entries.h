#ifndef LSCOREDB_SRC_ENTRIES_H
#define LSCOREDB_SRC_ENTRIES_H

// The committed entries of an index: how an encoded key becomes a key of the store, and a cursor
// over them in the order of the whole encodings, however long they are.
//
// A cursor belongs to one thread at a time and reads one view. The bytes of its entry stay valid
// until it moves; over a snapshot, until that ends.

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "definitions.h"
#include "ids.h"
#include "store.h"

namespace lscore {

// An encoded key in two pieces: the head, which the store's key holds, and the tail, if any.
struct EncodedKey {
  std::string_view head;
  std::string_view tail;
};

// Below zero, zero or above, in memcmp order of the whole encodings.
int Compare(EncodedKey const& a, EncodedKey const& b);
// The same for `a` cut to the length of `prefix`; zero: `a` begins with `prefix`.
int ComparePrefix(EncodedKey const& a, std::string_view prefix);

struct Entry {
  EncodedKey key;
  ObjectId object{};
  LayoutNumber layout{};
};

// What an entry leads to.
struct EntryObject {
  ObjectId object{};
  LayoutNumber layout{};
};

// Orders entries by encoding and then by object.
int Compare(Entry const& a, Entry const& b);

// An entry as the store keeps it.
struct EntryRecord {
  std::string key;
  std::string value;  // with its checksum
};
EntryRecord RecordOf(IndexDefinition const& index, std::string_view encoded, ObjectId object,
                     LayoutNumber layout);
// The same, reusing the memory of `record`.
void BuildRecord(IndexDefinition const& index, std::string_view encoded, ObjectId object,
                 LayoutNumber layout, EntryRecord& record);
// Parses a record. Throws LSCOREDB_DAMAGED. Fills `entry` in place, since a scan does this at each
// step.
void ParseEntry(IndexDefinition const& index, std::string_view key, std::string_view value,
                Entry* entry);

// Puts and deletes entries in a batch, reusing its memory.
class EntryWriter {
 public:
  explicit EntryWriter(Batch& batch) : batch_(batch) {}

  void Put(IndexDefinition const& index, std::string_view encoded, ObjectId object,
           LayoutNumber layout);
  void Delete(IndexDefinition const& index, std::string_view encoded, ObjectId object);

 private:
  Batch& batch_;
  EntryRecord record_;
};
// Puts entries in ascending order of their keys in the store. From the first one that is above all
// entries of all indexes they are appended, which fills pages and searches no tree. A server does
// neither, and is not asked.
class AscendingEntries {
 public:
  explicit AscendingEntries(Batch& batch);

  void Put(std::string_view key, std::string_view value);

 private:
  Batch& batch_;
  std::string highest_;  // that was there
  bool above_ = false;
};
// Deletes all entries of an index, or those whose keys in the store are below `end`.
void DeleteEntries(Batch& batch, IndexDefinition const& index, std::string_view end = {});
// The key behind the first `most` entries, and how many those are. Empty: there are not more.
std::string KeyBehind(View const& view, IndexDefinition const& index, std::uint64_t most,
                      std::uint64_t* count);

// The least key above all that begin with the prefix; empty: none is, since it has only 0xFF bytes.
std::string LeastAbove(std::string prefix);

// What EntryCursor::SeekFirst seeks, for View::PrefetchSeeks.
std::string SeekKey(IndexDefinition const& index, std::string_view bound);

class EntryCursor {
 public:
  // `index` must outlive the scan.
  void Open(View const& view, IndexDefinition const& index);
  void Close() { cursor_.Close(); }

  // To the first entry that is not below `bound`.
  void SeekFirst(std::string_view bound);
  // To the last entry that is below `bound` or begins with it.
  void SeekLast(std::string_view bound);
  // To the first entry behind the one of the object, or to the last one before it.
  void SeekBehind(std::string_view encoded, ObjectId object);
  void SeekBefore(std::string_view encoded, ObjectId object);
  void Next();
  void Previous();

  // Many steps at once. The head of the key that all entries ahead in the same page do not go
  // beyond, in that direction; empty: not known.
  std::string_view PageBound(bool forward) const;
  // Steps as long as the page goes on with sound entries of the index that have no long keys, and
  // writes what they lead to into `out`. Returns their number.
  std::size_t TakeRun(bool forward, std::span<EntryObject> out);

  // Steps to the page's last entry, and returns how many steps that takes; 0, without a step, if
  // they are more than `most`. Of the entries between only their number counts: their bytes are not
  // checked. REQUIRES: PageBound is not empty.
  std::size_t SkipRun(bool forward, std::size_t most);

  // The same where entries of several places lie between each other: steps over `*skipped` entries
  // onto the one behind them. `within`: whether all entries up to a key with this head are to be
  // counted. Returns false, with nothing changed, where single steps are no slower.
  bool SkipAhead(bool forward, std::size_t most, TreeCursor::WithinRange const& within,
                 std::size_t* skipped);

  // A guess at the object of the entry `ahead` steps further, for prefetching only; kNoObject: not
  // known.
  ObjectId Guess(std::size_t ahead, bool forward) const;

  // Appends the objects of entries that lie ahead in the scan, the present one first, as far as a
  // remote store has them at hand. For prefetching only.
  void Upcoming(bool forward, std::size_t most, std::vector<std::uint64_t>* objects);
  // Announces a scan in one direction from the entry on, up to those with the other bound.
  // REQUIRES: valid().
  void Expect(std::string_view low, std::string_view high);
  // See TreeCursor::FetchWithNextPage.
  void FetchWithNextPage(RowRun const& run) { cursor_.FetchWithNextPage(run); }

  bool valid() const { return valid_; }
  // REQUIRES: valid().
  Entry const& entry() const { return in_group_ ? group_[group_at_] : entry_; }

 private:
  // Compared by hand: the prefix is a few bytes, and every step does this.
  bool InIndex(std::string_view key) const {
    std::string const& prefix = index_->entry_prefix;
    if (key.size() < prefix.size()) return false;
    std::size_t same = 0;
    while (same < prefix.size() && key[same] == prefix[same]) ++same;
    return same == prefix.size();
  }
  std::string_view HeadOf(std::string_view stored) const;
  void Arrive(bool on_entry, bool forward);
  void GatherGroup(bool forward);

  Cursor cursor_;
  IndexDefinition const* index_ = nullptr;
  bool valid_ = false;
  bool cursor_on_entry_ = false;
  Entry entry_;
  // Entries whose encodings are longer than the store's key and have the same head. The store
  // orders them by object, the group by their whole encodings.
  bool in_group_ = false;
  std::vector<Entry> group_;
  std::size_t group_at_ = 0;
  std::string scratch_;
  std::string low_;  // of the scan that was announced, keys of the store
  std::string high_;
  std::vector<KeyValue> upcoming_;  // for one call
};

}  // namespace lscore

#endif
