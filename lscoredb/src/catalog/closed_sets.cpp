#include "closed_sets.h"

#include "bytes.h"
#include "checksummed_record.h"
#include "definitions.h"
#include "format.h"
#include "status.h"

namespace lscore {

std::string ClosedSetKey(std::u16string_view setspec) {
  return SetKey(format::kClosedSetLetter, setspec);
}

std::u16string ParseClosedSet(std::string_view record) { return ReadDefinitionText(record); }

void WriteClosedSet(Batch& batch, std::u16string_view setspec) {
  std::string record;
  AppendDefinitionText(record, setspec);
  PutChecked(batch, Tree::kDefinitions, ClosedSetKey(setspec), record);
  std::string last;
  Append(last, Raw(batch.id()));
  PutChecked(batch, Tree::kMeta, format::kClosingsKey, last);
  RequireFormat(batch, format::kClosedSetVersion);
}

bool IsClosedSet(View const& view, std::u16string_view setspec) {
  std::string_view record;
  if (!GetChecked(view, Tree::kDefinitions, ClosedSetKey(setspec), &record)) return false;
  return ParseClosedSet(record) == setspec;
}

CommitId LastClosing(View const& view) {
  std::string_view value;
  if (!GetChecked(view, Tree::kMeta, format::kClosingsKey, &value)) return CommitId{0};
  if (value.size() != 8) Throw(LSCOREDB_DAMAGED);
  return CommitId{Load<std::uint64_t>(value.data())};
}

// Most databases have no closed set, which is read once. Otherwise the last open set is remembered:
// a transaction mostly inserts into one table after the other.
bool KnownOpenSet::IsClosed(View const& snapshot, std::u16string_view setspec) {
  if (!any_.has_value()) {
    any_ = LastClosing(snapshot) != CommitId{0};
    open_.clear();
  }
  if (!*any_ || (!open_.empty() && open_ == setspec)) return false;
  if (IsClosedSet(snapshot, setspec)) return true;
  open_ = setspec;
  return false;
}

}  // namespace lscore
