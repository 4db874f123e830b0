#include <sagleme/ucs2.h>

#include <sagleme/metalayer/errors.hpp>
#include <sagleme/metalayer/keys.hpp>
#include <sagleme/metalayer/names.hpp>
#include <sagleme/metalayer/schema.hpp>

#include "metaschema/setspec.h"

namespace metalayer {

namespace {

constexpr char16_t kSeparator = u'.';
constexpr char16_t const* kReversedRoot = u".Raw.Lorvenstack";
constexpr unsigned int kTableNotFound = SAGLEME_TABLE_NOT_FOUND;

// The index of all table-like rows also holds views and classes; a name finds stored tables alone.
bool IsStoredTable(LS_OBJ_REF const& row) {
  return LayoutOf(row) == RawView::metaclass_layout_handle() ||
         SetspecBeginsWith(row, RawView::setspec());
}

RawView StoredTableByReversedUid(char16_t const* uid) {
  Table const row = Table::ByTablePK(uid);
  return !row.is_null() && IsStoredTable(row) ? RawView(row) : RawView();
}

[[noreturn]] void ThrowTableNotFoundByUid(char16_t const* uid) {
  ucs2_stream<ErrBlt>() << "Table not found by incomplete reverse id " << uid << ".";
  throw exceptions::BadArg(kTableNotFound);
}

// The stored tables whose reversed identifier begins with a text, in index order.
class Candidates {
 public:
  explicit Candidates(char16_t const* prefix) : offset_(ucs2_len(prefix)) {
    Key(rows_.first_key).Text(prefix);
    Key(rows_.last_key).TextUpperBound(prefix);
    rows_.open(Table::index_id_TablePK(), kForward);
  }

  bool Next() {
    while (rows_.next()) {
      if (IsStoredTable(rows_.current)) return true;
    }
    return false;
  }
  RawView Row() const { return RawView(rows_.current); }
  std::u16string Uid() const { return GetText(rows_.current, RawView::kUniqueIdentifierReversed); }
  // A prefix names a table only when it stops where a segment stops.
  bool EndsSegment(std::u16string const& uid) const {
    return uid.size() > offset_ && uid[offset_] == kSeparator;
  }

 private:
  db_util::db_iter_with_keys rows_;
  std::size_t offset_;
};

// A first match at a segment's end beats a second that is none. Two matches are ambiguous also when
// neither ends at a segment.
RawView TableByUidPrefix(char16_t const* uid) {
  Candidates candidates(uid);
  if (!candidates.Next()) ThrowTableNotFoundByUid(uid);
  RawView const first = candidates.Row();
  std::u16string const first_uid = candidates.Uid();
  bool const first_ends = candidates.EndsSegment(first_uid);
  if (!candidates.Next()) {
    if (!first_ends) ThrowTableNotFoundByUid(uid);
    return first;
  }
  std::u16string const second_uid = candidates.Uid();
  if (first_ends && !candidates.EndsSegment(second_uid)) return first;
  exceptions::ThrowAmbiguousIncompleteReverseUid(uid, first_uid, second_uid, candidates.Next());
}

std::u16string FullNameByReversedUid(std::u16string const& uid) {
  return GetText(Table::ByTablePK(uid.c_str()), Table::kFullName);
}

[[noreturn]] void RestateAmbiguity(DottedName& reversed,
                                   exceptions::AmbiguousIncompleteReverseUid const& failure) {
  request_clear_errbuf();
  reversed.segments.reverse();
  exceptions::ThrowSqlAmbiguousType(reversed.ToString(), FullNameByReversedUid(failure.first),
                                    FullNameByReversedUid(failure.second), failure.more);
}

[[noreturn]] void RestateNotFound(DottedName& reversed) {
  request_clear_errbuf();
  reversed.segments.reverse();
  exceptions::ThrowNonexistentTable(reversed.ToString());
}

}  // namespace

DottedName DottedName::Split(char16_t const* text) {
  DottedName name;
  std::u16string segment;
  for (; *text != 0; ++text) {
    if (*text != kSeparator) {
      segment += *text;
      continue;
    }
    name.segments.push_back(std::move(segment));
    segment.clear();
  }
  if (!segment.empty()) name.segments.push_back(std::move(segment));
  return name;
}

std::u16string DottedName::ToString() const {
  std::u16string text;
  for (std::u16string const& segment : segments) {
    if (!text.empty()) text += kSeparator;
    text += segment;
  }
  return text;
}

void MakeTableNames(char16_t const* full_name, std::u16string* name,
                    std::u16string* unique_identifier, std::u16string* unique_identifier_reversed) {
  DottedName dotted = DottedName::Split(full_name);
  dotted.segments.push_front(u"Raw");
  dotted.segments.push_front(u"Lorvenstack");
  *name = dotted.segments.back();
  *unique_identifier = dotted.ToString();
  dotted.segments.reverse();
  *unique_identifier_reversed = dotted.ToString();
}

RawView PopulateRawView(char16_t const* full_name, unsigned short layout, LS_OBJ_REF const& base,
                        bool updatable) {
  std::u16string name;
  std::u16string uid;
  std::u16string uid_reversed;
  MakeTableNames(full_name, &name, &uid, &uid_reversed);
  return RawView(RawView::Insert(name.c_str(), base, updatable, full_name, uid_reversed.c_str(),
                                 uid.c_str(), layout));
}

RawView RawViewByIncompleteReverseUid(char16_t const* uid) {
  RawView const whole = StoredTableByReversedUid(uid);
  if (!whole.is_null()) return whole;
  std::u16string const completed = std::u16string(uid) + kReversedRoot;
  RawView const by_full_name = StoredTableByReversedUid(completed.c_str());
  if (!by_full_name.is_null()) return by_full_name;
  return TableByUidPrefix(uid);
}

RawView DottedName2RawView(DottedName name) {
  name.segments.reverse();
  try {
    return RawViewByIncompleteReverseUid(name.ToString().c_str());
  } catch (exceptions::AmbiguousIncompleteReverseUid const& failure) {
    RestateAmbiguity(name, failure);
  } catch (exceptions::BadArg const& failure) {
    if (failure.code() != kTableNotFound) throw;
    RestateNotFound(name);
  }
}

std::u16string DottedName2FullName(DottedName name) {
  return GetText(DottedName2RawView(std::move(name)), RawView::kFullName);
}

}  // namespace metalayer
