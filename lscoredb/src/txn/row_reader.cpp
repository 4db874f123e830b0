#include "row_reader.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "bytes.h"

namespace lscore {
namespace {

constexpr TypeSet kVariableTypes = TypeBit(LORV_TYPE_STRING) | TypeBit(LORV_TYPE_BINARY);

}  // namespace

void RowReader::End() {
  assembled_.Clear();
  cache_.Clear();
  shared_rows_.End();
  first_rows_.first = kNoObject;
}

// Images that were assembled inside the scope are freed, except those whose rows were written
// since: the cells of a pending row point into its image. The cache may point at freed images.
void RowReader::EndScope() {
  auto const is_written = [this](ObjectId id) { return state_.changes.FindRow(id) != nullptr; };
  if (assembled_.EndScope(is_written)) cache_.Clear();
}

// Looks where the newest version that this transaction may see can be, cheapest first: its write
// set, the shared cache, which returns only versions not younger than the snapshot, and the store.
RowRef const* RowReader::LoadRow(ObjectId id) {
  if (id == kNoObject) return nullptr;
  if (PendingRow const* const pending = state_.changes.FindRow(id)) {
    return cache_.Put(RefOf(*pending));
  }
  if (CachedRow const* const kept = shared_rows_.Find(id)) {
    return cache_.Put(RefOf(id, *kept->layout, kept->bytes()));
  }
  return ReadFromStore(id);
}

void RowReader::FindMany(std::span<std::uint64_t const> ids, CachedRow const** out) {
  ScanSource const source = scan_source();
  if (source.far) FetchRows(source, ids);
  if (state_.changes.has_rows()) {
    std::fill_n(out, ids.size(), nullptr);
  } else {
    shared_rows_.FindMany(ids, out);
  }
}

// The image is validated once, before anything in it is used as an offset; whoever reads the row
// later, from this cache or the shared one, relies on that.
RowRef const* RowReader::ReadFromStore(ObjectId id) {
  if (id == first_rows_.first) FetchFirstRows();
  std::uint64_t const key = Raw(id);
  std::string_view stored;
  if (!state_.snapshot->Get(Tree::kRows, BytesOf(key), &stored)) return nullptr;
  if (IsStub(stored)) {
    if (!StubHolds(stored)) Throw(LSCOREDB_DAMAGED);
    std::uint64_t const size = WholeSize(stored);
    stored = {AssembleImage(id, stored), static_cast<std::size_t>(size)};
  }
  if (stored.size() < format::kHeaderSize) Throw(LSCOREDB_DAMAGED);
  Layout const* const layout = schema_.FindLayout(RowImage(stored).layout());
  if (layout == nullptr || !RowImage::Validate(stored, id, *layout)) Throw(LSCOREDB_DAMAGED);
  shared_rows_.Keep(id, *layout, stored);
  return cache_.Put(RefOf(id, *layout, stored));
}

void RowReader::FetchFirstRows() {
  first_rows_.first = kNoObject;
  Fetch(first_rows_.ids);
}

// A row too large for one value is stored as a stub, which has its whole size, and numbered chunks
// under (id, number). Chunks that are missing, empty or too long are damage.
char const* RowReader::AssembleImage(ObjectId id, std::string_view stub) {
  if (char const* const there = assembled_.Find(id)) return there;
  std::uint64_t const size = WholeSize(stub);
  std::unique_ptr<char[]> image(new char[size]);
  std::uint64_t filled = 0;
  for (std::uint32_t chunk = 0; filled < size; ++chunk) {
    std::string key;
    AppendBig(key, Raw(id));
    AppendBig(key, chunk);
    std::string_view bytes;
    if (!state_.snapshot->Get(Tree::kOverflow, key, &bytes)) Throw(LSCOREDB_DAMAGED);
    if (bytes.empty() || bytes.size() > size - filled) Throw(LSCOREDB_DAMAGED);
    std::memcpy(image.get() + filled, bytes.data(), bytes.size());
    filled += bytes.size();
  }
  return assembled_.Add(id, std::move(image));
}

Status RowReader::FindLive(ObjectId id, RowRef const** out) {
  *out = FindRow(id);
  if (*out == nullptr) return LORV_STATUS_NO_OBJECT;
  return (*out)->deleted() ? LORV_STATUS_UNREACHABLE : LORV_STATUS_OK;
}

// Plans serve variable columns here; ReadFixed has its own path for fixed ones. A value that is not
// present falls through, since null or zero depends on the layout that the caller names.
Status RowReader::Read(ObjectId id, LayoutNumber as, std::uint32_t column, TypeSet types,
                       Cell* out) {
  RowRef const* row = nullptr;
  Status const found = FindLive(id, &row);
  if (found != LORV_STATUS_OK) return found;
  ColumnAccessPlan const* const plan = FindAccessPlan(*row, as, column, types & kVariableTypes);
  if (plan != nullptr) {
    *out = row->Read(plan->offset);
    if (out->present) return LORV_STATUS_OK;
  }
  Status const status = ReadUnplanned(*row, as, column, types, out);
  if (status == LORV_STATUS_OK && column >= kFirstStoredColumn) NoteAccessPlan(*row, as, column);
  return status;
}

Status RowReader::ReadUnplanned(RowRef const& row, LayoutNumber as, std::uint32_t column,
                                TypeSet types, Cell* out) {
  Layout const& layout = *row.layout;
  if (as != layout.number() && as != kNoLayout) return ReadAs(row, as, column, types, out);
  if (column >= layout.column_count()) return LSCOREDB_UNKNOWN_COLUMN;
  Column const& own = layout.column(column);
  if ((types & TypeBit(own.type)) == 0) return LSCOREDB_WRONG_TYPE;
  return ReadOwn(row, column, out);
}

Status RowReader::ReadOtherFixed(ObjectId id, LayoutNumber as, std::uint32_t column, TypeSet types,
                                 std::uint64_t* out) {
  Cell cell;
  Status const status = Read(id, as, column, types, &cell);
  if (status == LORV_STATUS_OK) *out = cell.bits;
  return status;
}

// REQUIRES: the column was read.
void RowReader::NoteAccessPlan(RowRef const& row, LayoutNumber as, std::uint32_t column) {
  if (row.image == nullptr) return;
  Layout const& named = as == kNoLayout ? *row.layout : *schema_.FindLayout(as);
  plans_.Note(row.stored(), *row.layout, named, as, column);
}

Status RowReader::ReadOwn(RowRef const& row, std::uint32_t column, Cell* out) {
  if (column == kIdColumn) {
    out->bits = Raw(row.id);
    return LORV_STATUS_OK;
  }
  *out = column == kSetspecColumn ? row.Setspec() : row.Read(column);
  bool const null = !out->present && row.layout->column(column).nullable;
  return null ? LORV_STATUS_NULL : LORV_STATUS_OK;
}

// Reads through another layout than the object's own: columns are matched by token. A column that
// the object's layout lacks (it was added later) reads as null, or as zero if it is not nullable.
Status RowReader::ReadAs(RowRef const& row, LayoutNumber as, std::uint32_t column, TypeSet types,
                         Cell* out) {
  Layout const* const layout = schema_.FindLayout(as);
  if (layout == nullptr) return LSCOREDB_UNKNOWN_LAYOUT;
  if (column >= layout->column_count()) return LSCOREDB_UNKNOWN_COLUMN;
  Column const& wanted = layout->column(column);
  if ((types & TypeBit(wanted.type)) == 0) return LSCOREDB_WRONG_TYPE;
  Status const absent = wanted.nullable ? LORV_STATUS_NULL : LORV_STATUS_OK;
  int const at = row.layout->Find(wanted.token);
  if (at < 0) return absent;
  auto const own = static_cast<std::uint32_t>(at);
  if (row.layout->column(own).type != wanted.type) return LSCOREDB_WRONG_TYPE;
  Status const status = ReadOwn(row, own, out);
  return status == LORV_STATUS_NULL ? absent : status;
}

Status RowReader::Setspec(ObjectId id, Cell* out) {
  RowRef const* row = nullptr;
  Status const found = FindLive(id, &row);
  return found != LORV_STATUS_OK ? found : ReadOwn(*row, kSetspecColumn, out);
}

Status RowReader::Lookup(ObjectId id, LayoutNumber* out) {
  RowRef const* const row = FindRow(id);
  if (row == nullptr || row->deleted()) return LORV_STATUS_NO_OBJECT;
  *out = row->layout->number();
  return LORV_STATUS_OK;
}

}  // namespace lscore
