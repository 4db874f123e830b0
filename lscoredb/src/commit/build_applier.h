#ifndef LSCOREDB_SRC_BUILD_APPLIER_H
#define LSCOREDB_SRC_BUILD_APPLIER_H

// Changes of prepared indexes (index_builds.h), each of which is a commit of its own. As with all
// commits the leader of a batch checks and applies them.

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "index_builds.h"
#include "pending.h"
#include "sorted_entries.h"
#include "store.h"

namespace lscore {

struct BuildChange {
  // kAbandon: the index is one no more. kRemove: more entries of one that is abandoned.
  enum class Kind { kPrepare, kContinue, kAbandon, kRemove };

  Kind kind = Kind::kContinue;
  IndexDefinition const* index = nullptr;
  IndexBuild before;  // as it was read; not for kPrepare
  IndexBuild after;   // of kAbandon and kRemove if entries are left
  // The entries to add: those above before.position, up to after.position, or all others once the
  // index is no longer being filled. Null: none.
  SortedEntries const* entries = nullptr;
  CommitId read{0};        // the state of the objects that the entries were made of
  bool set_quiet = false;  // whether no object of the set was changed since, as of the snapshot
  std::string left;        // the key of the first entry not to remove; empty: none is left
};

void AddHints(BuildChange const& change, std::vector<TreeKey>* hints);

class BuildApplier {
 public:
  explicit BuildApplier(Batch& batch) : batch_(batch), writer_(batch) {}

  // Throws LSCOREDB_CONFLICT when somebody else changed the build.
  void Validate(BuildChange const& change);
  void Apply(BuildChange const& change);

 private:
  void RequireNoneLike(IndexDefinition const& index) const;
  void Write(BuildChange const& change);
  void Remove(BuildChange const& change);
  void AddEntries(BuildChange const& change);
  void FetchObjects(BuildChange const& change) const;
  void AddReadEntries(BuildChange const& change);
  void AddEntry(BuildChange const& change, std::string_view key, std::string_view value);
  void DeriveEntry(IndexDefinition const& index, ObjectId object, std::string_view stored);
  Layout const& LayoutOf(LayoutNumber number);

  Batch& batch_;
  EntryWriter writer_;
  std::map<LayoutNumber, std::unique_ptr<Layout const>> layouts_;
  std::string image_;
  KeyEncoder encoder_;
  KeyBytes key_;
  std::u16string text_;
};

}  // namespace lscore

#endif
