#ifndef LSCOREDB_SRC_CHOSEN_IDS_H
#define LSCOREDB_SRC_CHOSEN_IDS_H

// Identities that callers choose, kept apart from those that the kernel allocates.
//
// The mark is the first identity that the kernel has not reserved for itself. From it on a caller
// may choose any identity that no object has or had. Below it only those in free ranges, which the
// mark was moved over without reserving them. Neither holds objects' identities apart from unused
// ones: the objects themselves do. An object that is deleted leaves a note of its identity from the
// mark on, and a hole in a free range below it.

#include <cstdint>
#include <optional>

#include "ids.h"
#include "store.h"

namespace lscore {

// Numbers from `next` up to but not including `end`.
struct IdRange {
  std::uint64_t next = 0;
  std::uint64_t end = 0;
  bool empty() const { return next == end; }
  bool Holds(std::uint64_t id) const { return id >= next && id < end; }
};

// The largest that a caller may choose.
inline constexpr std::uint64_t kLastChosenId = INT64_MAX;
// Identities from here on are only chosen by callers.
inline constexpr std::uint64_t kFirstNotGivenId = std::uint64_t{1} << 62;

// Throws LSCOREDB_DAMAGED, as all that follow.
std::uint64_t ReadIdMark(View const& view);
void WriteIdMark(Batch& batch, std::uint64_t mark);

// Whether a caller may choose an identity that no object has.
bool MayBeChosen(View const& view, ObjectId id, std::uint64_t mark);
// Makes the range free, except for identities deleted in it. REQUIRES: it begins at the mark, which
// the same batch moves to its end.
void AddFreeRange(Batch& batch, IdRange range);
// The first identity from `from` on that an object has or had; UINT64_MAX: none. REQUIRES: `from`
// is not below the mark.
std::uint64_t NextChosen(View const& view, std::uint64_t from);

// Retires the identities of a transaction's deleted objects.
class DeletedIds {
 public:
  explicit DeletedIds(Batch& batch) : batch_(batch) {}
  void Add(ObjectId id);

 private:
  Batch& batch_;
  std::optional<std::uint64_t> mark_;
  bool any_free_ = false;
};

// Whether the free ranges are in order and below the mark, and no object has a deleted identity.
// Returns the first identity that is not so, or kNoObject.
ObjectId FindMisplacedId(View const& view, std::uint64_t mark);

}  // namespace lscore

#endif
