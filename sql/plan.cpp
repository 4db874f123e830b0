#include "plan.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <optional>

namespace sagleme::sql {
namespace {

using Constraint = sqlite3_index_info::sqlite3_index_constraint;

// What a step costs in SQLite's unit, the comparison of two rows of a scan.
constexpr double kSeek = 4;
constexpr double kIndexRow = 1.5;
// The estimated selectivity of conditions when nothing is known.
constexpr double kEqualRows = 10;
// A statement may stay prepared while a table grows, so a small one is planned for as a larger one.
constexpr double kLeastRows = 256;
constexpr double kRangeShare = 0.25;
constexpr double kPrefixShare = 0.05;

bool IsEquality(int op) {
  return op == SQLITE_INDEX_CONSTRAINT_EQ || op == SQLITE_INDEX_CONSTRAINT_IS ||
         op == SQLITE_INDEX_CONSTRAINT_ISNULL;
}

bool IsLower(int op) {
  return op == SQLITE_INDEX_CONSTRAINT_GT || op == SQLITE_INDEX_CONSTRAINT_GE;
}

bool IsUpper(int op) {
  return op == SQLITE_INDEX_CONSTRAINT_LT || op == SQLITE_INDEX_CONSTRAINT_LE;
}

bool IsPattern(int op) {
  return op == SQLITE_INDEX_CONSTRAINT_LIKE || op == SQLITE_INDEX_CONSTRAINT_GLOB;
}

// SQLite sees each value as it is, and no other one like it.
bool IsExact(Type type) { return type == Type::kLong || type == Type::kBool; }

bool IsFloating(Type type) { return type == Type::kFloat || type == Type::kDouble; }

// The index of a use among SQLite's constraints.
struct Chosen {
  Use use;
  int constraint;
};

struct Candidate {
  Plan plan;
  std::vector<int> constraints;  // of the uses
  double rows = 0;
  double cost = 0;
  bool unique = false;  // there is one row at most, also as SQLite sees values
};

class Chooser {
 public:
  Chooser(Shape const& shape, double rows, sqlite3_index_info* info)
      : shape_(shape), rows_(std::max(rows, kLeastRows)), info_(info) {}

  Candidate Best() const;
  void Describe(Candidate& candidate) const;

 private:
  Constraint const& At(int i) const { return info_->aConstraint[i]; }
  bool Binary(int i) const {
    return sqlite3_stricmp(sqlite3_vtab_collation(info_, i), "BINARY") == 0;
  }

  std::optional<Candidate> ById() const;
  Candidate ByScan() const;
  std::optional<Candidate> ByIndex(std::size_t index) const;
  int FindUse(ShapeIndex::Part const& part, bool (*wanted)(int)) const;
  bool Usable(int i, ShapeIndex::Part const& part) const;
  void AddUse(Candidate& candidate, std::size_t part, int constraint) const;
  static bool IsOneKey(Candidate const& candidate, ShapeIndex const& index, std::size_t equal);
  void Estimate(Candidate& candidate, ShapeIndex const& index, std::size_t equal) const;
  void TakeOrder(Candidate& candidate, ShapeIndex const& index) const;
  bool OrderFits(ShapeIndex const& index, Candidate& candidate) const;
  bool OrderedById() const;
  double Rank(Candidate const& candidate) const;

  Shape const& shape_;
  double rows_;
  sqlite3_index_info* info_;
};

bool Chooser::Usable(int i, ShapeIndex::Part const& part) const {
  Constraint const& each = At(i);
  if (each.usable == 0 || part.column < 0 || each.iColumn != part.column) return false;
  if (IsPattern(each.op)) return part.type == Type::kString;
  // What is not a number reads as NULL and is not where nulls are.
  bool const is_null = each.op == SQLITE_INDEX_CONSTRAINT_ISNULL;
  if (is_null && IsFloating(part.type)) return false;
  if (part.type == Type::kBinary) return is_null;  // keys have no bytes
  return part.type != Type::kString || Binary(i);
}

int Chooser::FindUse(ShapeIndex::Part const& part, bool (*wanted)(int)) const {
  for (int i = 0; i < info_->nConstraint; ++i) {
    if (wanted(At(i).op) && Usable(i, part)) return i;
  }
  return -1;
}

void Chooser::AddUse(Candidate& candidate, std::size_t part, int constraint) const {
  candidate.plan.uses.push_back({part, At(constraint).op, false});
  candidate.constraints.push_back(constraint);
}

std::optional<Candidate> Chooser::ById() const {
  for (int i = 0; i < info_->nConstraint; ++i) {
    Constraint const& each = At(i);
    if (each.usable == 0 || each.op != SQLITE_INDEX_CONSTRAINT_EQ || !shape_.IsId(each.iColumn)) {
      continue;
    }
    Candidate candidate;
    candidate.plan.kind = Plan::Kind::kId;
    AddUse(candidate, 0, i);
    candidate.rows = 1;
    candidate.cost = kSeek / 2;
    candidate.unique = true;
    candidate.plan.ordered = info_->nOrderBy > 0;  // one row is in any order
    return candidate;
  }
  return std::nullopt;
}

bool Chooser::OrderedById() const {
  bool const one_set = shape_.leaf || shape_.only;
  return one_set && info_->nOrderBy == 1 && shape_.IsId(info_->aOrderBy[0].iColumn);
}

Candidate Chooser::ByScan() const {
  Candidate candidate;
  candidate.rows = rows_;
  candidate.cost = kSeek + rows_;
  if (OrderedById()) {
    candidate.plan.ordered = true;
    candidate.plan.reverse = info_->aOrderBy[0].desc != 0;
  }
  return candidate;
}

// Null is in a unique index any number of times.
bool Chooser::IsOneKey(Candidate const& candidate, ShapeIndex const& index, std::size_t equal) {
  auto const& uses = candidate.plan.uses;
  return index.unique && equal == index.parts.size() &&
         std::all_of(uses.begin(), uses.end(),
                     [](Use const& use) { return use.op == SQLITE_INDEX_CONSTRAINT_EQ; });
}

void Chooser::Estimate(Candidate& candidate, ShapeIndex const& index, std::size_t equal) const {
  double rows = rows_;
  for (std::size_t i = 0; i < equal; ++i) rows = std::min(rows / 4, kEqualRows / double(i + 1));
  for (std::size_t i = equal; i < candidate.plan.uses.size(); ++i) {
    rows *= IsPattern(candidate.plan.uses[i].op) ? kPrefixShare : kRangeShare;
  }
  bool const one_key = IsOneKey(candidate, index, equal);
  candidate.unique = one_key && std::all_of(index.parts.begin(), index.parts.end(),
                                            [](auto const& part) { return IsExact(part.type); });
  candidate.rows = one_key ? 1 : std::max(rows, 1.0);
  // An index of a base table may hold many objects that are skipped.
  candidate.cost = kSeek + candidate.rows * kIndexRow * (index.own ? 1 : 4);
}

// The columns of ORDER BY are the next ones of the index, those that equal one value left out.
bool Chooser::OrderFits(ShapeIndex const& index, Candidate& candidate) const {
  std::size_t part = 0;
  std::optional<bool> reverse;
  auto const uses = [&](std::size_t which, bool equal) {
    auto const& all = candidate.plan.uses;
    return std::any_of(all.begin(), all.end(), [&](Use const& use) {
      return use.part == which && (!equal || IsEquality(use.op));
    });
  };
  for (int i = 0; i < info_->nOrderBy; ++i) {
    auto const& term = info_->aOrderBy[i];
    if (term.iColumn < 0) return false;  // the rowid, which is no part that SQL does not show
    while (part < index.parts.size() && uses(part, true) &&
           index.parts[part].column != term.iColumn) {
      ++part;
    }
    if (part == index.parts.size() || index.parts[part].column != term.iColumn) return false;
    ShapeIndex::Part const& at = index.parts[part];
    if (!uses(part, true)) {
      // Values that are not numbers come last here and first there; a range leaves them out.
      if (IsFloating(at.type) && !uses(part, false)) return false;
      bool const against = at.ascending == (term.desc != 0);
      if (reverse.value_or(against) != against) return false;
      reverse = against;
      ShapeColumn const* const column = shape_.ColumnAt(at.column);
      candidate.plan.order.push_back({column->ordinal, at.type, term.desc != 0});
    }
    ++part;
  }
  candidate.plan.reverse = reverse.value_or(false);
  return true;
}

void Chooser::TakeOrder(Candidate& candidate, ShapeIndex const& index) const {
  if (info_->nOrderBy == 0) return;
  candidate.plan.ordered = OrderFits(index, candidate);
  if (!candidate.plan.ordered) candidate.plan.order.clear();
}

std::optional<Candidate> Chooser::ByIndex(std::size_t number) const {
  ShapeIndex const& index = shape_.indexes[number];
  Candidate candidate;
  candidate.plan.kind = Plan::Kind::kIndex;
  candidate.plan.index = number;
  std::size_t part = 0;
  for (; part < index.parts.size(); ++part) {
    int const found = FindUse(index.parts[part], IsEquality);
    if (found < 0) break;
    AddUse(candidate, part, found);
  }
  std::size_t const equal = part;
  if (part < index.parts.size()) {
    for (auto const wanted : {IsLower, IsUpper, IsPattern}) {
      int const found = FindUse(index.parts[part], wanted);
      if (found >= 0) AddUse(candidate, part, found);
    }
  }
  Estimate(candidate, index, equal);
  TakeOrder(candidate, index);
  if (candidate.plan.uses.empty() && !candidate.plan.ordered) return std::nullopt;
  return candidate;
}

char const* Symbol(int op) {
  switch (op) {
    case SQLITE_INDEX_CONSTRAINT_GT:
      return ">?";
    case SQLITE_INDEX_CONSTRAINT_GE:
      return ">=?";
    case SQLITE_INDEX_CONSTRAINT_LT:
      return "<?";
    case SQLITE_INDEX_CONSTRAINT_LE:
      return "<=?";
    case SQLITE_INDEX_CONSTRAINT_LIKE:
      return " LIKE ?";
    case SQLITE_INDEX_CONSTRAINT_GLOB:
      return " GLOB ?";
    case SQLITE_INDEX_CONSTRAINT_ISNULL:
      return " IS NULL";
    case SQLITE_INDEX_CONSTRAINT_IS:
      return " IS ?";
    default:
      return "=?";
  }
}

// Encodes everything that distinguishes plans of one table.
void Chooser::Describe(Candidate& candidate) const {
  Plan& plan = candidate.plan;
  bool const by_index = plan.kind == Plan::Kind::kIndex;
  plan.text = plan.kind == Plan::Kind::kId ? "_oid"
              : by_index                   ? shape_.indexes[plan.index].name
                                           : "all objects";
  std::string conditions;
  for (Use const& use : plan.uses) {
    if (!conditions.empty()) conditions += " AND ";
    int const column = by_index ? shape_.indexes[plan.index].parts[use.part].column : -1;
    conditions += column < 0 ? "_oid" : shape_.ColumnAt(column)->name;
    conditions += use.in ? " IN (?)" : Symbol(use.op);
  }
  if (!conditions.empty()) plan.text += " (" + conditions + ")";
  if (!plan.ordered || plan.kind == Plan::Kind::kId) return;
  plan.text += " in order of";
  if (plan.order.empty()) plan.text += " _oid";
  for (OrderColumn const& each : plan.order) {
    for (ShapeColumn const& column : shape_.columns) {
      if (column.ordinal == each.ordinal) plan.text += " " + column.name;
    }
  }
  if (plan.reverse) plan.text += " backwards";
  if (plan.skips) plan.text += ", each value once";
}

// What SQLite would pay for sorting counts against a plan without the order.
double Chooser::Rank(Candidate const& candidate) const {
  if (info_->nOrderBy == 0 || candidate.plan.ordered) return candidate.cost;
  return candidate.cost + candidate.rows * std::log2(candidate.rows + 1);
}

Candidate Chooser::Best() const {
  if (auto const by_id = ById()) return *by_id;
  Candidate best = ByScan();
  for (std::size_t i = 0; i < shape_.indexes.size(); ++i) {
    auto const candidate = ByIndex(i);
    if (candidate.has_value() && Rank(*candidate) < Rank(best)) best = *candidate;
  }
  return best;
}

// Whether rows that the index leaves fulfil a condition, so that SQLite need not look at it again.
// A value for a part of another type may leave more than one value, and what stands for the parts
// behind it is then not used.
bool IsExact(Shape const& shape, Plan const& plan, Use const& use) {
  if (use.in || use.op == SQLITE_INDEX_CONSTRAINT_IS) return false;
  if (plan.kind == Plan::Kind::kId) return true;
  auto const& parts = shape.indexes[plan.index].parts;
  auto const end = parts.begin() + static_cast<std::ptrdiff_t>(use.part);
  return parts[use.part].type != Type::kString &&
         std::all_of(parts.begin(), end, [](auto const& part) { return IsExact(part.type); });
}

}  // namespace

void Choose(Shape const& shape, std::uint64_t rows, sqlite3_index_info* info, Plan& plan) {
  Chooser const chooser(shape, static_cast<double>(rows), info);
  Candidate best = chooser.Best();
  for (std::size_t i = 0; i < best.constraints.size(); ++i) {
    int const at = best.constraints[i];
    Use& use = best.plan.uses[i];
    info->aConstraintUsage[at].argvIndex = static_cast<int>(i) + 1;
    use.in = sqlite3_vtab_in(info, at, 1) != 0;
    info->aConstraintUsage[at].omit = IsExact(shape, best.plan, use) ? 1 : 0;
    if (!use.in) continue;
    best.plan.ordered = false;
    best.plan.reverse = false;
    best.plan.order.clear();
    best.unique = false;
    best.rows *= 5;
    best.cost *= 5;
  }
  // 2 and 3: of rows that are the same to the statement one is enough.
  best.plan.skips = sqlite3_vtab_distinct(info) >= 2 && best.plan.ordered &&
                    best.plan.kind == Plan::Kind::kIndex && best.plan.order.size() == 1 &&
                    best.plan.order.front().type != Type::kBinary;
  chooser.Describe(best);
  info->estimatedCost = best.cost;
  info->estimatedRows = static_cast<sqlite3_int64>(best.rows);
  info->idxFlags = best.unique ? SQLITE_INDEX_SCAN_UNIQUE : 0;
  info->orderByConsumed = best.plan.ordered ? 1 : 0;
  plan = std::move(best.plan);
}

}  // namespace sagleme::sql
