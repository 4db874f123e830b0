#ifndef LSCOREDB_SRC_PENDING_ENTRY_H
#define LSCOREDB_SRC_PENDING_ENTRY_H

// An index entry that a transaction has written, and the order of such entries.

#include <map>
#include <memory_resource>
#include <string_view>

#include "bytes.h"
#include "ids.h"

namespace lscore {

using Sequence = std::uint64_t;

struct KeyFacts {
  bool has_null = false;       // collides with nothing
  bool has_unwritten = false;  // a column of a new object has no value yet: collides with nothing
  // No other object had the key when it was written, in the snapshot or the write set. A later
  // write of the same key looked for this one in turn.
  bool known_unique = false;
};

enum class EntryState : std::uint8_t {
  kUntouched,  // as it was before the transaction
  kPresent,
  kRemoved,
};

// An encoded key and its object. The first bytes are stored beside it, so that most comparisons
// touch no other memory.
struct PendingKey {
  PendingKey() = default;
  PendingKey(std::string_view its_encoding, ObjectId its_object)
      : head(HeadOf(its_encoding)), encoded(its_encoding), object(its_object) {}

  static std::uint64_t HeadOf(std::string_view encoded) {
    std::uint64_t head = 0;
    encoded.copy(reinterpret_cast<char*>(&head), sizeof head);
    return SwapBytes(head);
  }

  std::uint64_t head = 0;  // the first eight bytes as a big-endian number, zero padded
  std::string_view encoded;
  ObjectId object{};
};

// A bound above all keys that begin with `prefix`.
struct BehindPrefix {
  std::string_view prefix;
};

struct PendingKeyLess {
  using is_transparent = void;
  bool operator()(PendingKey const& a, PendingKey const& b) const {
    if (a.head != b.head) return a.head < b.head;
    int const order = a.encoded.compare(b.encoded);
    return order != 0 ? order < 0 : a.object < b.object;
  }
  bool operator()(PendingKey const& a, BehindPrefix b) const {
    return a.encoded.substr(0, b.prefix.size()).compare(b.prefix) <= 0;
  }
  bool operator()(BehindPrefix a, PendingKey const& b) const { return !(*this)(b, a); }
};

// The newest state of an entry and, through `older`, those before it. A scan sees the newest one
// that is not younger than the scan:
//
//   written at 3: present, at 7: removed      a scan that began at   2 sees untouched
//   {kRemoved, since 7} -> {kPresent, since 3}                       5 sees present
//                                                                    9 sees removed
struct PendingEntry {
  EntryState state = EntryState::kUntouched;
  bool may_be_committed = false;  // the snapshot may have the entry too
  KeyFacts facts;
  LayoutNumber layout{};                // of the object, if the entry is present
  Sequence since = 0;                   // the write that gave it this state
  PendingEntry const* older = nullptr;  // kept while open scans may need it

  EntryState At(Sequence when) const {
    PendingEntry const* entry = this;
    while (entry != nullptr && entry->since > when) entry = entry->older;
    return entry == nullptr ? EntryState::kUntouched : entry->state;
  }
};

struct NewEntry {
  PendingKey key;
  KeyFacts facts;
  LayoutNumber layout{};
  bool may_be_committed = false;
};

using PendingEntryMap = std::pmr::map<PendingKey, PendingEntry, PendingKeyLess>;

// Whether a commit has to look whether the entry's key is taken in a unique index.
inline bool IsChecked(PendingEntry const& entry) {
  return entry.state == EntryState::kPresent && !entry.facts.has_null;
}

}  // namespace lscore

#endif
