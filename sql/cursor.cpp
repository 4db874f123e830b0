#include "cursor.h"

#include <algorithm>

#include "attachment.h"
#include "connection.h"
#include "failure.h"
#include "table.h"
#include "text.h"

namespace sagleme::sql {
namespace {

// Rows that are read ahead: few where a scan is likely to be left for another one.
constexpr std::uint32_t kManyRows = 256;
constexpr std::uint32_t kFewRows = 8;

// Rows that are counted ahead, growing.
constexpr std::uint32_t kFirstCounted = 64;
constexpr std::uint32_t kCountGrowth = 4;
constexpr std::uint32_t kMostCounted = 65536;

using SpanLists = std::vector<std::vector<Span>>;

// The spans that one use leaves: of its value, or of each in its list.
std::vector<Span> SpansOfUse(Type type, Use const& use, sqlite3_value* value) {
  if (!use.in) return SpansOf(type, use.op, value);
  std::vector<Span> spans;
  sqlite3_value* each = nullptr;
  int code = sqlite3_vtab_in_first(value, &each);
  for (; code == SQLITE_OK && each != nullptr; code = sqlite3_vtab_in_next(value, &each)) {
    auto const more = SpansOf(type, SQLITE_INDEX_CONSTRAINT_EQ, each);
    spans.insert(spans.end(), more.begin(), more.end());
  }
  if (code != SQLITE_OK && code != SQLITE_DONE) throw Failure(code, "The list cannot be read.");
  Normalise(spans);
  return spans;
}

std::vector<Span> Both(std::vector<Span> const& a, std::vector<Span> const& b) {
  std::vector<Span> both;
  for (Span const& left : a) {
    for (Span const& right : b) {
      if (auto const common = Intersection(left, right)) both.push_back(*common);
    }
  }
  Normalise(both);
  return both;
}

// The remaining spans of each of the first parts of the index.
SpanLists Collect(ShapeIndex const& index, Plan const& plan, sqlite3_value** values) {
  SpanLists lists;
  for (std::size_t i = 0; i < plan.uses.size(); ++i) {
    Use const& use = plan.uses[i];
    std::vector<Span> spans = SpansOfUse(index.parts[use.part].type, use, values[i]);
    if (use.part < lists.size()) {
      lists[use.part] = Both(lists[use.part], spans);
    } else {
      lists.push_back(std::move(spans));
    }
  }
  return lists;
}

// All ways to take one span from each list, in the order of the index; a span that is no point ends
// its way.
void Combine(ShapeIndex const& index, SpanLists const& lists, std::vector<Span const*>& taken,
             std::vector<KeyRange>& ranges) {
  std::size_t const part = taken.size();
  bool const at_end = part == lists.size() || (!taken.empty() && !taken.back()->IsPoint());
  if (at_end) {
    ranges.push_back(RangeOf(index, taken));
    return;
  }
  auto const follow = [&](Span const& span) {
    taken.push_back(&span);
    Combine(index, lists, taken, ranges);
    taken.pop_back();
  };
  if (index.parts[part].ascending) {
    std::for_each(lists[part].begin(), lists[part].end(), follow);
  } else {
    std::for_each(lists[part].rbegin(), lists[part].rend(), follow);
  }
}

// Whether the spans leave one key of a unique index, which no two objects have: null is the only
// one that they may share.
bool IsOneKey(ShapeIndex const& index, SpanLists const& lists) {
  auto const is_key = [](std::vector<Span> const& spans) {
    return spans.size() == 1 && spans.front().IsPoint() &&
           spans.front().first.kind != Bound::Kind::kNull;
  };
  return index.unique && lists.size() == index.parts.size() &&
         std::all_of(lists.begin(), lists.end(), is_key);
}

// Whether rows of the ranges come in the order of the columns behind those that equal one value.
bool EqualsArePoints(Plan const& plan, SpanLists const& lists) {
  for (Use const& use : plan.uses) {
    bool const equal = use.op == SQLITE_INDEX_CONSTRAINT_EQ ||
                       use.op == SQLITE_INDEX_CONSTRAINT_IS ||
                       use.op == SQLITE_INDEX_CONSTRAINT_ISNULL;
    auto const& spans = lists[use.part];
    if (equal && !spans.empty() && (spans.size() > 1 || !spans.front().IsPoint())) return false;
  }
  return true;
}

}  // namespace

Cursor::Cursor(VirtualTable& table) : sqlite3_vtab_cursor{}, table_(table) {}

Cursor::~Cursor() {
  Reset();
  if (attachment_ != nullptr) attachment_->Remove(this);
}

void Cursor::CloseScan() {
  if (iterator_ != 0) lorv_iterator_free(iterator_);
  iterator_ = 0;
  page_.Start(kFewRows, nullptr);
  counting_ = false;
  counted_ = count_size_ = 0;
  counts_ = 0;
}

void Cursor::Reset() {
  CloseScan();
  row_ = {};
  ranges_.clear();
  range_ = 0;
  ids_.clear();
  id_ = 0;
  by_id_ = in_runs_ = all_one_run_ = drained_ = lost_ = check_set_ = one_row_ = false;
  ready_.clear();
  skip_.Stop();
  points_.clear();
}

RowId Cursor::RowAt(std::uint64_t oid, std::uint64_t position) const {
  return {oid, position << 16 | layout_};
}

void Cursor::PrepareIds(Plan const& plan, sqlite3_value* value) {
  by_id_ = true;
  for (Span const& span : SpansOfUse(Type::kULong, plan.uses.front(), value)) {
    if (span.first.kind == Bound::Kind::kWord && span.IsPoint()) ids_.push_back(span.first.word);
  }
}

void Cursor::PrepareIndex(Plan const& plan, int, sqlite3_value** values) {
  ShapeIndex const& index = table_.shape->indexes[plan.index];
  index_ = index.handle;
  index_number_ = plan.index;
  check_set_ = !index.own;
  SpanLists const lists = Collect(index, plan, values);
  std::vector<Span const*> taken;
  Combine(index, lists, taken, ranges_);
  one_row_ = attachment_->IsUnwritten() && IsOneKey(index, lists);
  if (reverse_) std::reverse(ranges_.begin(), ranges_.end());
  order_ = plan.order;
  all_one_run_ = plan.ordered && !order_.empty() && !EqualsArePoints(plan, lists);
  in_runs_ = plan.ordered && (all_one_run_ || RunOrder(context_, order_).needed());
  if (plan.skips && !all_one_run_) PrepareSkip(plan, lists);
}

// The parts in front of the column of the order equal one value each.
void Cursor::PrepareSkip(Plan const& plan, SpanLists const& lists) {
  ShapeIndex const& index = table_.shape->indexes[plan.index];
  std::vector<std::uint16_t> same{order_.front().ordinal};
  for (std::size_t part = 0; part < lists.size(); ++part) {
    auto const ordinal = table_.shape->ColumnAt(index.parts[part].column)->ordinal;
    if (ordinal == order_.front().ordinal) break;
    if (lists[part].empty()) return;  // there are no rows
    points_.push_back(lists[part].front());
    same.push_back(ordinal);
  }
  skip_.Start(order_.front(), index.parts[points_.size()].ascending == reverse_, std::move(same));
}

// Continues at the next value if nothing but the value was asked for. Rows read ahead come first.
void Cursor::SkipEqualRows() {
  if (drained_ || iterator_ == 0 || !ready_.empty()) return;
  auto const bound = skip_.Behind(context_, row_);
  if (!bound.has_value()) return;
  ShapeIndex const& index = table_.shape->indexes[index_number_];
  Type const type = index.parts[points_.size()].type;
  Span rest = Everything(type);
  bool const falling = index.parts[points_.size()].ascending == reverse_;
  (falling ? rest.last : rest.first) = *bound;
  std::vector<Span const*> spans;
  for (Span const& point : points_) spans.push_back(&point);
  spans.push_back(&rest);
  KeyRange next = RangeOf(index, spans);
  KeyRange& range = ranges_[range_ - 1];
  (reverse_ ? range.last : range.first) = std::move(reverse_ ? next.last : next.first);
  CloseScan();
  OpenRange(range);
}

void Cursor::Prepare(Plan const& plan, int count, sqlite3_value** values) {
  reverse_ = plan.reverse;
  switch (plan.kind) {
    case Plan::Kind::kId:
      PrepareIds(plan, values[0]);
      break;
    case Plan::Kind::kIndex:
      PrepareIndex(plan, count, values);
      break;
    case Plan::Kind::kScan:
      index_ = sagleme::detail::IndexBySetspec(context_);
      ranges_.push_back(RangeOfSet(*table_.shape->table, table_.shape->only));
      break;
  }
}

void Cursor::Filter(Plan const& plan, int count, sqlite3_value** values) {
  if (attachment_ == nullptr) {
    attachment_ = &table_.Attached();
    attachment_->Add(this);
  }
  Reset();
  table_.Begin();
  context_ = attachment_->context();
  layout_ = table_.shape->table->layout;
  Prepare(plan, count, values);
  plain_ = !by_id_ && !in_runs_ && !skip_.on();
  may_count_ = plain_ && !check_set_;
  Step();
}

void Cursor::OpenRange(KeyRange const& range) {
  detail::CheckKernel(lorv_context_create_iterator(
      context_, index_, reverse_ ? LORV_ITERATOR_REVERSE : LORV_ITERATOR_FORWARD,
      (reverse_ ? range.last : range.first).data(), (reverse_ ? range.first : range.last).data(),
      &iterator_));
  savepoint_ = attachment_->last_savepoint();
  page_.Start(one_row_ ? 1 : skip_.on() ? kFewRows : kManyRows, &attachment_->writes());
}

bool Cursor::Keep(RowId& row) {
  auto const addr = attachment_->AddressOf(row.oid);
  if (!addr.has_value()) return false;
  row.addr = (*addr & ~std::uint64_t{0xFFFF}) | layout_;
  return table_.Holds(*attachment_, row.oid);
}

bool Cursor::Scan(RowId& row) {
  while (by_id_ && id_ < ids_.size()) {
    row = RowAt(ids_[id_++], 0);
    if (row.oid != 0 && Keep(row)) return true;
  }
  while (iterator_ != 0 || range_ < ranges_.size()) {
    if (iterator_ == 0) OpenRange(ranges_[range_++]);
    LORV_REFERENCE found{};
    bool const ahead = attachment_->last_savepoint() <= savepoint_;
    if (!page_.Next(iterator_, ahead, found)) {
      CloseScan();
      continue;
    }
    if (plain_ && page_.IsNew()) NotePage();
    row = RowAt(found.oid, found.position);
    if (page_.IsOld() && !attachment_->AddressOf(row.oid).has_value()) continue;
    bool const wanted = check_set_ ? table_.Holds(*attachment_, row.oid)
                                   : attachment_->IsOfLiveTable(row.oid, found.layout);
    if (wanted) return true;
  }
  return false;
}

// Reads up to the next plain row and sorts the rows before it.
bool Cursor::FetchRun(RowId& row) {
  if (ready_.empty()) {
    RunOrder const order(context_, order_);
    std::vector<RowId> run;
    RowId next;
    bool more = Scan(next);
    for (; more && (all_one_run_ || !order.IsPlain(next)); more = Scan(next)) run.push_back(next);
    order.Sort(run);
    ready_.assign(run.begin(), run.end());
    if (more) ready_.push_back(next);
    if (ready_.empty()) return false;
  }
  row = ready_.front();
  ready_.pop_front();
  return true;
}

bool Cursor::Fetch(RowId& row) {
  if (!drained_) return in_runs_ ? FetchRun(row) : Scan(row);
  if (lost_) throw std::bad_alloc();
  attachment_->transaction();
  while (!ready_.empty()) {
    row = ready_.front();
    ready_.pop_front();
    if (Keep(row)) return true;
  }
  return false;
}

// Looks once at the layouts of a page's rows, instead of at each row's.
void Cursor::NotePage() {
  if (check_set_ || one_row_) return;
  auto const rows = page_.rows();
  std::uint64_t live = 0;
  page_.NotePlain(std::all_of(rows.begin(), rows.end(), [&](LORV_REFERENCE const& row) {
    bool const known = row.layout == live && live != 0;
    live = row.layout;
    return known || attachment_->IsOfLiveTable(row.oid, row.layout);
  }));
}

// The next rows of the range, if they need only be counted. False when there are none.
bool Cursor::CountAhead() {
  if (!counting_ && !attachment_->MayCount()) {
    may_count_ = false;
    return false;
  }
  count_size_ = std::min(std::max(kFirstCounted, count_size_ * kCountGrowth), kMostCounted);
  std::uint32_t count = 0;
  detail::CheckKernel(
      lscoredb_iterator_next_many(iterator_, LSCOREDB_COUNT_ONLY, count_size_, nullptr, &count));
  counting_ = count > 0;
  counts_ += count;
  if (counting_) counted_ = count - 1;
  return counting_;
}

// Finds the present row, which was only counted.
void Cursor::Locate() {
  std::uint64_t const position = page_.read() + counts_ - counted_ - 1;
  may_count_ = false;
  try {
    CloseScan();
    ScanTo(position);
  } catch (...) {
    CloseScan();
    drained_ = lost_ = true;
    throw;
  }
}

// To a row of the present range, by its number in it.
void Cursor::ScanTo(std::uint64_t position) {
  OpenRange(ranges_[range_ - 1]);
  while (position > 0) {
    auto const part = static_cast<std::uint32_t>(std::min<std::uint64_t>(position, kMostCounted));
    std::uint32_t count = 0;
    detail::CheckKernel(
        lscoredb_iterator_next_many(iterator_, LSCOREDB_COUNT_ONLY, part, nullptr, &count));
    if (count < part) detail::CheckKernel(LSCOREDB_DAMAGED);
    position -= part;
  }
  if (!Scan(row_)) detail::CheckKernel(LSCOREDB_DAMAGED);
}

void Cursor::Step() {
  if (plain_ && !drained_) {
    if (one_row_ && !AtEnd()) CloseScan();
    if (may_count_ && page_.IsUsedUp() && CountAhead()) return;
    if (!Scan(row_)) row_ = {};
    return;
  }
  if (skip_.on()) SkipEqualRows();
  RowId row;
  row_ = Fetch(row) ? row : RowId{};
}

void Cursor::Drain() noexcept {
  if (drained_) return;
  try {
    NoteAsked();
    std::deque<RowId> rest;
    RowId row;
    while (!AtEnd() && Fetch(row)) rest.push_back(row);
    ready_ = std::move(rest);
  } catch (std::exception const&) {
    lost_ = true;
  }
  CloseScan();
  drained_ = true;
}

// Whether the page knew the value.
bool Cursor::ColumnOfPage(sqlite3_context* result, ShapeColumn const& column) {
  if (column.type == Type::kString || column.type == Type::kBinary) return false;
  if (drained_ || page_.oid() != row_.oid) return false;
  RowPage::Word word;
  if (!page_.Read(context_, static_cast<std::uint16_t>(layout_), column.ordinal, word))
    return false;
  if (word.null) {
    sqlite3_result_null(result);
  } else {
    WordResult(result, word.bits, column.type, table_.number);
  }
  return true;
}

void Cursor::Column(sqlite3_context* result, int column) {
  if (sqlite3_vtab_nochange(result)) return;
  NoteAsked();
  Shape const& shape = *table_.shape;
  ShapeColumn const* const found = shape.ColumnAt(column);
  if (skip_.on()) found != nullptr ? skip_.NoteRead(found->ordinal) : skip_.NoteOtherRead();
  if (found != nullptr) {
    if (ColumnOfPage(result, *found)) return;
    page_.NoteOwnRead();
    Result(result, {context_, row_.oid, row_.addr, found->ordinal}, found->type, table_.number);
    return;
  }
  if (shape.IsHidden(column, Hidden::kId)) {
    IdResult(result, row_.oid, table_.number);
  } else if (shape.IsHidden(column, Hidden::kVersion)) {
    std::uint64_t addr = 0;
    detail::CheckKernel(lorv_context_lookup(context_, row_.oid, &addr));
    sqlite3_result_int64(result, static_cast<sqlite3_int64>(addr & 0xFFFF));
  } else if (TablePtr const table = attachment_->TableOf(row_.oid)) {
    std::string const name = ToSqlText(table->name);
    sqlite3_result_text64(result, name.data(), name.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
  }
}

}  // namespace sagleme::sql
