#ifndef LSCOREDB_SRC_PENDING_ENTRY_H
#define LSCOREDB_SRC_PENDING_ENTRY_H

// The entry of an index as a transaction has written it, and the order of such entries.

#include <map>
#include <memory_resource>
#include <string_view>

#include "bytes.h"
#include "ids.h"

namespace lscore {

using Sequence = std::uint64_t;

struct KeyFacts {
  bool has_null = false;  // collides with nothing
  bool has_unwritten =
      false;  // of an object that the transaction inserted: collides with nothing yet
  // When the key was written no other object had it, neither in the snapshot nor in the
  // transaction. Whoever took it later has looked for this one.
  bool known_unique = false;
};

enum class EntryState : std::uint8_t {
  kUntouched,  // as it was before the transaction
  kPresent,
  kRemoved,
};

// With the first bytes of the encoding beside it: comparing two keys mostly needs no other memory.
struct PendingKey {
  PendingKey() = default;
  PendingKey(std::string_view its_encoding, ObjectId its_object)
      : head(HeadOf(its_encoding)), encoded(its_encoding), object(its_object) {}

  static std::uint64_t HeadOf(std::string_view encoded) {
    std::uint64_t head = 0;
    encoded.copy(reinterpret_cast<char*>(&head), sizeof head);
    return SwapBytes(head);
  }

  std::uint64_t head = 0;  // the first eight bytes, zeros behind a shorter encoding, as a number
  std::string_view encoded;
  ObjectId object{};
};

// Stands behind all keys that begin with `prefix`.
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

struct PendingEntry {
  EntryState state = EntryState::kUntouched;
  bool may_be_committed = false;  // it may be among the untouched ones too
  KeyFacts facts;
  LayoutNumber layout{};  // of the object, where the entry is present
  Sequence since = 0;
  PendingEntry const* older = nullptr;  // what open iterators may still have to see

  EntryState At(Sequence when) const {
    PendingEntry const* entry = this;
    while (entry != nullptr && entry->since > when) entry = entry->older;
    return entry == nullptr ? EntryState::kUntouched : entry->state;
  }
};

// An entry to add, of an object under a layout.
struct NewEntry {
  PendingKey key;
  KeyFacts facts;
  LayoutNumber layout{};
  bool may_be_committed = false;
};

using PendingEntryMap = std::pmr::map<PendingKey, PendingEntry, PendingKeyLess>;

}  // namespace lscore

#endif
