#ifndef LSCOREDB_SRC_ENTRIES_H
#define LSCOREDB_SRC_ENTRIES_H

// The committed entries of an index: how an encoded key becomes a key of the store, and scans over
// them in the order of the whole encoding, however long it is.
//
// A cursor belongs to one thread at a time and reads one view. The bytes of its entry stay valid
// until it moves, over a snapshot until that ends.

#include <string>
#include <string_view>
#include <vector>

#include "definitions.h"
#include "ids.h"
#include "store.h"

namespace lscore {

// An encoded key in one or two pieces: what the store's key holds of it, and the rest.
struct EncodedKey {
  std::string_view head;
  std::string_view tail;
};

// Below zero, zero or above, as memcmp would order the whole encodings.
int Compare(EncodedKey const& a, EncodedKey const& b);
// The same with only as much of `a` as `prefix` is long; zero: `a` begins with `prefix`.
int ComparePrefix(EncodedKey const& a, std::string_view prefix);

struct Entry {
  EncodedKey key;
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
// The same, in memory that `record` has.
void BuildRecord(IndexDefinition const& index, std::string_view encoded, ObjectId object,
                 LayoutNumber layout, EntryRecord& record);
// Of what an entry's record holds. Throws LSCOREDB_DAMAGED. Written in place, since a scan does
// this at each step.
void ParseEntry(IndexDefinition const& index, std::string_view key, std::string_view value,
                Entry* entry);

// Puts and deletes entries, one after another in memory that it keeps.
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
// Deletes all entries of an index.
void DeleteEntries(Batch& batch, IndexDefinition const& index);

class EntryCursor {
 public:
  // Over the committed entries of `index`, which must outlive the scan.
  void Open(View const& view, IndexDefinition const& index);
  void Close() { cursor_.Close(); }

  // To the first entry that is not below `bound`.
  void SeekFirst(std::string_view bound);
  // To the last entry that is below `bound` or begins with it.
  void SeekLast(std::string_view bound);
  void Next();
  void Previous();

  // What seems to be the object of an entry that many further on; kNoObject: not known. Only to
  // have it at hand sooner.
  ObjectId Guess(std::size_t ahead, bool forward) const;

  bool valid() const { return valid_; }
  // REQUIRES: valid().
  Entry const& entry() const { return in_group_ ? group_[group_at_] : entry_; }

 private:
  // The prefix is a few bytes, and every step asks.
  bool InIndex() const {
    std::string_view const key = cursor_.key();
    std::string const& prefix = index_->entry_prefix;
    if (key.size() < prefix.size()) return false;
    std::size_t same = 0;
    while (same < prefix.size() && key[same] == prefix[same]) ++same;
    return same == prefix.size();
  }
  void Arrive(bool on_entry, bool forward);
  void GatherGroup(bool forward);

  Cursor cursor_;
  IndexDefinition const* index_ = nullptr;
  bool valid_ = false;
  bool cursor_on_entry_ = false;
  Entry entry_;
  // Entries whose encodings are cut in the store's key and agree in what it holds: the store has
  // them by object, the group has them in the order of their encodings.
  bool in_group_ = false;
  std::vector<Entry> group_;
  std::size_t group_at_ = 0;
  std::string scratch_;
};

}  // namespace lscore

#endif
