#include "query/search.h"

#include <fmt/format.h>

#include <algorithm>

#include "base/failure.h"
#include "base/interrupt.h"
#include "query/names.h"

namespace tool {
namespace {

// The two zeros are equal, but have different keys in an index.
bool IsZero(sagleme::Value const& value) {
  auto const* const wide = std::get_if<double>(&value);
  auto const* const narrow = std::get_if<float>(&value);
  return (wide != nullptr && *wide == 0) || (narrow != nullptr && *narrow == 0);
}

// The key of a search has no bytes.
bool CanBound(sagleme::Value const& value) {
  return !sagleme::IsNull(value) && !IsZero(value) &&
         !std::holds_alternative<sagleme::Bytes>(value);
}

// What conditions on one column leave of its values; where several say something, any of them, for
// all conditions are looked at again.
struct Bounds {
  std::optional<sagleme::Value> least = {};
  std::optional<sagleme::Value> most = {};
  bool prefix = false;  // `most` is the beginning of the greatest text

  void Add(Condition const& condition, bool ascending) {
    Operator const op = condition.op;
    if (prefix || !CanBound(condition.value)) return;
    if (op == Operator::kBegins && ascending) {
      least = most = condition.value;
      prefix = true;
    } else if (op == Operator::kGreater || op == Operator::kGreaterOrEqual) {
      least = condition.value;
    } else if (op == Operator::kLess || op == Operator::kLessOrEqual) {
      most = condition.value;
    } else if (op == Operator::kBetween && CanBound(condition.last)) {
      least = condition.value;
      most = condition.last;
    }
  }
};

// The sort key of an object.
struct SortKey {
  std::vector<sagleme::Value> values;
  sagleme::ObjectId id;
};

// Not a number comes last, since it has no order.
int Sign(sagleme::Value const& a, sagleme::Value const& b) {
  std::partial_ordering const order = Compare(a, b);
  if (order == 0) return 0;
  if (order != std::partial_ordering::unordered) return order < 0 ? -1 : 1;
  bool const a_is_number = Compare(a, a) == 0;
  bool const b_is_number = Compare(b, b) == 0;
  return a_is_number == b_is_number ? 0 : (a_is_number ? -1 : 1);
}

class Before {
 public:
  explicit Before(std::vector<OrderKey> const& order) : order_(order) {}
  bool operator()(SortKey const& a, SortKey const& b) const {
    for (std::size_t i = 0; i < order_.size(); ++i) {
      int const sign = Sign(a.values[i], b.values[i]);
      if (sign != 0) return (sign < 0) != order_[i].descending;
    }
    return a.id < b.id;
  }

 private:
  std::vector<OrderKey> const& order_;
};

}  // namespace

OrderKey ParseOrder(sagleme::Table const& table, std::string const& text) {
  constexpr std::string_view kDescending = ":desc";
  if (table.FindColumn(Typed(text)) == nullptr && text.ends_with(kDescending)) {
    return {&ColumnNamed(table, text.substr(0, text.size() - kDescending.size())), true};
  }
  return {&ColumnNamed(table, text), false};
}

Search::Search(sagleme::Transaction& transaction, SearchRequest request)
    : transaction_(transaction), request_(std::move(request)) {
  ChoosePath();
}

std::optional<sagleme::Value> Search::EqualTo(std::u16string const& column) const {
  for (Condition const& condition : request_.where) {
    bool const equal = condition.op == Operator::kEqual && condition.column->name == column;
    if (equal && CanBound(condition.value)) return condition.value;
  }
  return std::nullopt;
}

// Bounds for the column after the equal ones. In index order the bounds of a descending column are
// swapped.
void Search::AddRange(IndexPath& path) const {
  sagleme::IndexedColumn const& column = path.index.columns[path.lower.size()];
  Bounds bounds;
  for (Condition const& condition : request_.where) {
    if (condition.column->name == column.name) bounds.Add(condition, column.ascending);
  }
  if (!column.ascending) std::swap(bounds.least, bounds.most);
  path.upper_is_prefix = bounds.prefix;
  path.bound += (bounds.least ? 1u : 0u) + (bounds.most ? 1u : 0u);
  if (bounds.least) path.lower.push_back(*bounds.least);
  if (bounds.most) path.upper.push_back(*bounds.most);
}

// `equal` columns of the index have one value each and do not count.
void Search::SetOrder(IndexPath& path, std::size_t equal) const {
  auto const& columns = path.index.columns;
  auto const& order = request_.order;
  if (order.empty() || equal + order.size() > columns.size()) return;
  bool const reverse = columns[equal].ascending == order[0].descending;
  for (std::size_t i = 0; i < order.size(); ++i) {
    sagleme::IndexedColumn const& column = columns[equal + i];
    if (column.name != order[i].column->name) return;
    if ((column.ascending == order[i].descending) != reverse) return;
  }
  path.ordered = true;
  if (reverse) path.direction = sagleme::Direction::kReverse;
}

Search::IndexPath Search::PathThrough(sagleme::Index const& index) const {
  IndexPath path{.index = index};
  while (path.lower.size() < index.columns.size()) {
    auto const value = EqualTo(index.columns[path.lower.size()].name);
    if (!value) break;
    path.lower.push_back(*value);
  }
  path.upper = path.lower;
  std::size_t const equal = path.lower.size();
  path.bound = 3 * equal;  // a value is worth more than both ends of a range
  if (equal < index.columns.size()) AddRange(path);
  SetOrder(path, equal);
  return path;
}

void Search::ChoosePath() {
  for (sagleme::TablePtr at = request_.table; at != nullptr;
       at = at->base.empty() ? nullptr : transaction_.table(at->base)) {
    for (sagleme::Index const& index : at->indexes) {
      IndexPath path = PathThrough(index);
      // An index is scanned only for its order if it holds nothing but this table.
      bool const useful = path.bound != 0 || (path.ordered && at == request_.table);
      bool const better = !path_ || path.bound > path_->bound ||
                          (path.bound == path_->bound && path.ordered && !path_->ordered);
      if (useful && better) path_ = std::move(path);
    }
  }
}

std::string Search::Path() const {
  if (path_) return "index " + sagleme::ToUtf8(path_->index.name);
  return "every object of " + sagleme::ToUtf8(request_.table->name);
}

sagleme::Range Search::Open() const {
  if (!path_) {
    return request_.only ? sagleme::Range::Only(transaction_, *request_.table)
                         : sagleme::Range::Subtree(transaction_, *request_.table);
  }
  return sagleme::Range::Between(
      transaction_, path_->index, sagleme::IndexKey(path_->index, path_->lower),
      sagleme::IndexKey(path_->index, path_->upper, path_->upper_is_prefix), path_->direction);
}

bool Search::Wanted(sagleme::Object const& object) const {
  sagleme::Table const& table = *request_.table;
  if (path_) {  // an index covers more than one table
    std::u16string const setspec = object.setspec();
    bool const inside =
        request_.only ? setspec == table.setspec : setspec.starts_with(table.setspec);
    if (!inside) return false;
  }
  return std::all_of(request_.where.begin(), request_.where.end(), [&](Condition const& each) {
    return each.Holds(object.Get(table, *each.column));
  });
}

void Search::Scan(std::function<bool(sagleme::Object const&)> const& each) const {
  sagleme::Range range = Open();
  while (auto const object = range.Next()) {
    CheckInterrupt();
    sagleme::ReadScope const scope(transaction_.context());
    if (Wanted(*object) && !each(*object)) return;
  }
}

// Keeps the objects that come first: a heap with the last of them on top.
void Search::ScanSorted(std::function<void(sagleme::Object const&)> const& each) const {
  Before const before(request_.order);
  std::vector<SortKey> kept;
  Scan([&](sagleme::Object const& object) {
    SortKey key{{}, object.id()};
    for (OrderKey const& order : request_.order) {
      key.values.push_back(object.Get(*request_.table, *order.column));
    }
    kept.push_back(std::move(key));
    std::push_heap(kept.begin(), kept.end(), before);
    if (kept.size() > request_.limit) {
      std::pop_heap(kept.begin(), kept.end(), before);
      kept.pop_back();
    }
    return true;
  });
  std::sort_heap(kept.begin(), kept.end(), before);
  for (SortKey const& key : kept) {
    sagleme::ReadScope const scope(transaction_.context());
    if (auto const object = sagleme::Object::Find(transaction_, key.id)) each(*object);
  }
}

void Search::ForEach(std::function<void(sagleme::Object const&)> const& each) const {
  if (request_.limit == 0) return;
  bool const sorted = request_.order.empty() || (path_ && path_->ordered);
  if (!sorted) return ScanSorted(each);
  std::uint64_t count = 0;
  Scan([&](sagleme::Object const& object) {
    each(object);
    return ++count < request_.limit;
  });
}

}  // namespace tool
