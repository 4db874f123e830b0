#include "bytes.h"
#include "transaction.h"

namespace lscore {
namespace {

constexpr TypeSet kVariableTypes = TypeBit(LORV_TYPE_STRING) | TypeBit(LORV_TYPE_BINARY);

}  // namespace

RowRef const* Transaction::LoadRow(ObjectId id) {
  if (id == kNoObject) return nullptr;
  if (PendingRow const* const pending = changes_.FindRow(id)) {
    return cache_.Put(RefOf(*pending));
  }
  if (CachedRow const* const kept = kept_rows_.Find(id)) {
    return cache_.Put({id, kept->layout, kept->image(), nullptr});
  }
  return ReadRow(id);
}

RowRef const* Transaction::ReadRow(ObjectId id) {
  std::uint64_t const key = Raw(id);
  std::string_view stored;
  if (!snapshot_->Get(Tree::kRows, BytesOf(key), &stored)) return nullptr;
  if (IsStub(stored)) {
    if (!StubHolds(stored)) Throw(LSCOREDB_DAMAGED);
    std::uint64_t const size = WholeSize(stored);
    stored = {AssembleImage(id, stored), static_cast<std::size_t>(size)};
  }
  if (stored.size() < format::kHeaderSize) Throw(LSCOREDB_DAMAGED);
  Layout const* const layout = FindLayout(RowImage(stored.data()).layout());
  if (layout == nullptr || !RowImage::Validate(stored, id, *layout)) Throw(LSCOREDB_DAMAGED);
  kept_rows_.Keep(id, *layout, stored);
  return cache_.Put({id, layout, stored.data(), nullptr});
}

char const* Transaction::AssembleImage(ObjectId id, std::string_view stub) {
  for (std::size_t i = 0; i < assembled_.size(); ++i) {
    if (assembled_ids_[i] == id) return assembled_[i].get();
  }
  std::uint64_t const size = WholeSize(stub);
  std::unique_ptr<char[]> image(new char[size]);
  std::uint64_t filled = 0;
  for (std::uint32_t part = 0; filled < size; ++part) {
    std::string key;
    AppendBig(key, Raw(id));
    AppendBig(key, part);
    std::string_view bytes;
    if (!snapshot_->Get(Tree::kOverflow, key, &bytes)) Throw(LSCOREDB_DAMAGED);
    if (bytes.empty() || bytes.size() > size - filled) Throw(LSCOREDB_DAMAGED);
    std::memcpy(image.get() + filled, bytes.data(), bytes.size());
    filled += bytes.size();
  }
  assembled_ids_.reserve(assembled_ids_.size() + 1);
  assembled_.push_back(std::move(image));
  assembled_ids_.push_back(id);
  return assembled_.back().get();
}

Status Transaction::FindLive(ObjectId id, RowRef const** out) {
  *out = FindRow(id);
  if (*out == nullptr) return LORV_STATUS_NO_OBJECT;
  return (*out)->deleted() ? LORV_STATUS_UNREACHABLE : LORV_STATUS_OK;
}

Status Transaction::Read(ObjectId id, LayoutNumber as, std::uint32_t column, TypeSet types,
                         Cell* out) {
  RowRef const* row = nullptr;
  Status const found = FindLive(id, &row);
  if (found != LORV_STATUS_OK) return found;
  ColumnAccessPlan const* const plan = FindAccessPlan(*row, as, column, types & kVariableTypes);
  if (plan != nullptr) {
    *out = row->Read(plan->offset);
    if (out->present) return LORV_STATUS_OK;
  }
  Status const status = ReadUnnoted(*row, as, column, types, out);
  if (status == LORV_STATUS_OK && column >= kFirstStoredColumn) NoteAccessPlan(*row, as, column);
  return status;
}

Status Transaction::ReadUnnoted(RowRef const& row, LayoutNumber as, std::uint32_t column,
                                TypeSet types, Cell* out) {
  Layout const& layout = *row.layout;
  if (as != layout.number() && as != kNoLayout) return ReadAs(row, as, column, types, out);
  if (column >= layout.column_count()) return LSCOREDB_UNKNOWN_COLUMN;
  Column const& own = layout.column(column);
  if ((types & TypeBit(own.type)) == 0) return LSCOREDB_WRONG_TYPE;
  return ReadOwn(row, column, out);
}

Status Transaction::ReadOtherFixed(ObjectId id, LayoutNumber as, std::uint32_t column,
                                   TypeSet types, std::uint64_t* out) {
  Cell cell;
  Status const status = Read(id, as, column, types, &cell);
  if (status == LORV_STATUS_OK) *out = cell.bits;
  return status;
}

// REQUIRES: the column was read.
void Transaction::NoteAccessPlan(RowRef const& row, LayoutNumber as, std::uint32_t column) {
  if (row.image == nullptr) return;
  Layout const& layout = *row.layout;
  Layout const& named = as == kNoLayout ? layout : *FindLayout(as);
  int const own = layout.Find(named.column(column).token);
  bool const committed = std::max(layout.order(), named.order()).commit != kNotCommitted;
  if (!committed || own < static_cast<int>(kFirstStoredColumn)) return;
  Column const& at = layout.column(static_cast<std::uint32_t>(own));
  if (at.bit >= 64 || column > UINT16_MAX) return;
  RowImage const image(row.image);
  ColumnAccessPlan plan{&layout,
                        0,
                        0,
                        static_cast<std::uint32_t>(KeyOf(as, column)),
                        static_cast<std::uint16_t>(own),
                        static_cast<std::uint16_t>(TypeBit(at.type))};
  plan.mask = (std::uint64_t{2} << at.bit) - 1;
  plan.pattern = image.FirstWord() & plan.mask;
  if (!image.Present(at)) return;
  if (at.fixed) {
    std::uint32_t const before = RowImage::CountBits(plan.pattern & (plan.mask >> 1));
    plan.offset = static_cast<std::uint16_t>(RowImage::FixedOffset(layout) + 8 * before);
  }
  AccessPlanOf(layout, as, column) = plan;
}

Status Transaction::ReadOwn(RowRef const& row, std::uint32_t column, Cell* out) const {
  if (column == kIdColumn) {
    out->bits = Raw(row.id);
    return LORV_STATUS_OK;
  }
  *out = column == kSetspecColumn ? row.Setspec() : row.Read(column);
  bool const null = !out->present && row.layout->column(column).nullable;
  return null ? LORV_STATUS_NULL : LORV_STATUS_OK;
}

Status Transaction::ReadAs(RowRef const& row, LayoutNumber as, std::uint32_t column, TypeSet types,
                           Cell* out) {
  Layout const* const layout = FindLayout(as);
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

Status Transaction::Setspec(ObjectId id, Cell* out) {
  RowRef const* row = nullptr;
  Status const found = FindLive(id, &row);
  return found != LORV_STATUS_OK ? found : ReadOwn(*row, kSetspecColumn, out);
}

Status Transaction::Lookup(ObjectId id, LayoutNumber* out) {
  RowRef const* const row = FindRow(id);
  if (row == nullptr || row->deleted()) return LORV_STATUS_NO_OBJECT;
  *out = row->layout->number();
  return LORV_STATUS_OK;
}

}  // namespace lscore
