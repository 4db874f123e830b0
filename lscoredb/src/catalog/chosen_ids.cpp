#include "chosen_ids.h"

#include <algorithm>
#include <string>
#include <vector>

#include "bytes.h"
#include "checksummed_record.h"
#include "format.h"
#include "status.h"

namespace lscore {
namespace {

std::string KeyOf(char letter, std::uint64_t id) {
  std::string key(1, letter);
  AppendBig(key, id);
  return key;
}

// The identity in a key of that letter; nothing in another key.
std::optional<std::uint64_t> IdIn(std::string_view key, char letter) {
  if (key.empty() || key.front() != letter) return std::nullopt;
  if (key.size() != 1 + sizeof(std::uint64_t)) Throw(LSCOREDB_DAMAGED);
  return LoadBig<std::uint64_t>(key.data() + 1);
}

// The free range at a cursor over kMeta; nothing if there is another record.
std::optional<IdRange> FreeRangeAt(Cursor const& cursor) {
  std::optional<std::uint64_t> const begin = IdIn(cursor.key(), format::kFreeIdsLetter);
  if (!begin) return std::nullopt;
  std::string_view const record = StripChecksum(cursor.key(), cursor.value());
  if (record.size() != sizeof(std::uint64_t)) Throw(LSCOREDB_DAMAGED);
  return IdRange{*begin, Load<std::uint64_t>(record.data())};
}

// The last free range that begins below `below`.
std::optional<IdRange> FreeRangeBefore(View const& view, std::uint64_t below) {
  Cursor cursor;
  cursor.Open(view, Tree::kMeta);
  bool const found =
      cursor.Seek(KeyOf(format::kFreeIdsLetter, below)) ? cursor.Previous() : cursor.Last();
  return found ? FreeRangeAt(cursor) : std::nullopt;
}

void PutFreeRange(Batch& batch, IdRange range) {
  if (range.empty()) return;
  std::string record;
  Append(record, range.end);
  PutChecked(batch, Tree::kMeta, KeyOf(format::kFreeIdsLetter, range.next), record);
}

// The first deleted identity from `from` on; UINT64_MAX: none.
std::uint64_t NextDeleted(View const& view, std::uint64_t from) {
  Cursor cursor;
  cursor.Open(view, Tree::kMeta);
  if (!cursor.Seek(KeyOf(format::kDeletedIdLetter, from))) return UINT64_MAX;
  return IdIn(cursor.key(), format::kDeletedIdLetter).value_or(UINT64_MAX);
}

bool HasObject(View const& view, std::uint64_t id) {
  std::string_view row;
  return view.Get(Tree::kRows, BytesOf(id), &row);
}

}  // namespace

std::uint64_t ReadIdMark(View const& view) {
  std::string_view value;
  if (!GetChecked(view, Tree::kMeta, format::kNextIdKey, &value)) return 1;
  if (value.size() != 8) Throw(LSCOREDB_DAMAGED);
  return Load<std::uint64_t>(value.data());
}

void WriteIdMark(Batch& batch, std::uint64_t mark) {
  std::string value;
  Append(value, mark);
  PutChecked(batch, Tree::kMeta, format::kNextIdKey, value);
}

bool MayBeChosen(View const& view, ObjectId id, std::uint64_t mark) {
  std::uint64_t const raw = Raw(id);
  if (raw >= mark) return NextDeleted(view, raw) != raw;
  std::optional<IdRange> const free = FreeRangeBefore(view, raw + 1);
  return free && free->Holds(raw);
}

void AddFreeRange(Batch& batch, IdRange range) {
  std::optional<IdRange> const before = FreeRangeBefore(batch, range.next);
  std::uint64_t from = range.next;
  if (before && before->end == from) range.next = before->next;
  for (;;) {
    std::uint64_t const deleted = NextDeleted(batch, from);
    if (deleted >= range.end) break;
    batch.Delete(Tree::kMeta, KeyOf(format::kDeletedIdLetter, deleted));
    PutFreeRange(batch, {range.next, deleted});
    range.next = from = deleted + 1;
  }
  PutFreeRange(batch, range);
}

std::uint64_t NextChosen(View const& view, std::uint64_t from) {
  Cursor cursor;
  cursor.Open(view, Tree::kRows);
  std::uint64_t const deleted = NextDeleted(view, from);
  if (!cursor.Seek(BytesOf(from))) return deleted;
  if (cursor.key().size() != sizeof(std::uint64_t)) Throw(LSCOREDB_DAMAGED);
  return std::min(deleted, Load<std::uint64_t>(cursor.key().data()));
}

void DeletedIds::Add(ObjectId id) {
  if (!mark_) {
    mark_ = ReadIdMark(batch_);
    any_free_ = FreeRangeBefore(batch_, UINT64_MAX).has_value();
  }
  std::uint64_t const raw = Raw(id);
  if (raw >= *mark_) {
    PutChecked(batch_, Tree::kMeta, KeyOf(format::kDeletedIdLetter, raw), {});
    return;
  }
  if (!any_free_) return;
  std::optional<IdRange> const free = FreeRangeBefore(batch_, raw + 1);
  if (!free || !free->Holds(raw)) return;
  batch_.Delete(Tree::kMeta, KeyOf(format::kFreeIdsLetter, free->next));
  PutFreeRange(batch_, {free->next, raw});
  PutFreeRange(batch_, {raw + 1, free->end});
}

ObjectId FindMisplacedId(View const& view, std::uint64_t mark) {
  Cursor cursor;
  cursor.Open(view, Tree::kMeta);
  std::uint64_t end = 0;
  bool on = cursor.Seek(std::string(1, format::kFreeIdsLetter));
  for (; on; on = cursor.Next()) {
    std::optional<IdRange> const free = FreeRangeAt(cursor);
    if (!free) break;
    if (free->next < end || free->end <= free->next || free->end > mark)
      return ObjectId{free->next};
    end = free->end;
  }
  on = cursor.Seek(std::string(1, format::kDeletedIdLetter));
  for (; on; on = cursor.Next()) {
    std::optional<std::uint64_t> const id = IdIn(cursor.key(), format::kDeletedIdLetter);
    if (!id) break;
    StripChecksum(cursor.key(), cursor.value());
    if (*id < mark || HasObject(view, *id)) return ObjectId{*id};
  }
  return kNoObject;
}

}  // namespace lscore
