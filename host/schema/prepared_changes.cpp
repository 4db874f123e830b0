// Changes of columns that are prepared before their plan is applied.

#include <algorithm>
#include <map>
#include <sagleme/counts.hpp>
#include <sagleme/schema_plan.hpp>
#include <set>

#include "columns/column_job.h"
#include "jobs/retry.h"

namespace sagleme {
namespace {

ColumnSpec SpecOf(ColumnDoc const& column) {
  return {ToUtf16(column.name), column.type, column.nullable, ToUtf16(column.target)};
}

std::vector<Text> Texts(std::vector<std::string> const& names) {
  return {names.begin(), names.end()};
}

// What a change of a column needs to be prepared; nothing for the other changes.
struct PreparationOf {
  Transaction& transaction;

  columns::Preparation operator()(change::PullUpColumn const& it) const {
    return columns::PreparationOfPullUp(transaction, it.tables.at(0), it.column, it.base);
  }
  columns::Preparation operator()(change::PushDownColumn const& it) const {
    return columns::PreparationOfPushDown(transaction, it.table, it.column, Texts(it.tables));
  }
  columns::Preparation operator()(change::ChangeColumn const& it) const {
    return columns::PreparationOfRetype(transaction, it.table, SpecOf(it.after));
  }
  template <typename Other>
  columns::Preparation operator()(Other const&) const {
    return {};
  }
};

// Throws for values that the change would lose and shall not.
struct RequireValues {
  Transaction& transaction;

  void operator()(change::PushDownColumn const& it) const {
    if (it.loss == Loss::kAllow) return;
    RequireNoneLost(transaction, it.table, it.column, Texts(it.tables));
  }
  void operator()(change::ChangeColumn const& it) const {
    if (it.loss == Loss::kRefuse) RequireConvertible(transaction, it.table, SpecOf(it.after));
  }
  template <typename Other>
  void operator()(Other const&) const {}
};

// The table whose subtree has the objects of a change, and the column.
struct Place {
  std::string table;
  std::string column;
};
struct PlaceOf {
  Place operator()(change::PullUpColumn const& it) const { return {it.base, it.column}; }
  Place operator()(change::PushDownColumn const& it) const { return {it.table, it.column}; }
  Place operator()(change::ChangeColumn const& it) const { return {it.table, it.after.name}; }
  template <typename Other>
  Place operator()(Other const&) const {
    return {};
  }
};

// Whether tables and columns have the same names and bases throughout the plan.
bool IsInPlace(Plan const& plan) {
  return std::none_of(plan.begin(), plan.end(), [](Change const& change) {
    return std::holds_alternative<change::RenameTable>(change) ||
           std::holds_alternative<change::RenameColumn>(change) ||
           std::holds_alternative<change::DropTable>(change) ||
           std::holds_alternative<change::DropColumn>(change) ||
           std::holds_alternative<change::SetBase>(change);
  });
}

// The columns that tables have, with the hidden ones that changes will give them.
class Widths {
 public:
  explicit Widths(Transaction& transaction) : tables_(transaction.Tables()) {
    for (TablePtr const& table : tables_) widths_[table->name] = table->columns.size();
  }

  // False, with nothing added, if a table with the column would have too many.
  bool Add(std::vector<std::u16string> const& holders) {
    std::map<std::u16string, std::size_t> wider = widths_;
    for (TablePtr const& table : tables_) {
      for (std::u16string const& holder : holders) {
        if (!IsOrDerivesFrom(*table, holder)) continue;
        if (++wider[table->name] > metalayer::kMaxColumns) return false;
      }
    }
    widths_ = std::move(wider);
    return true;
  }

 private:
  bool IsOrDerivesFrom(Table const& table, std::u16string const& base) const {
    if (table.name == base) return true;
    auto const above = std::find_if(tables_.begin(), tables_.end(),
                                    [&](TablePtr const& each) { return each->name == table.base; });
    return above != tables_.end() && IsOrDerivesFrom(**above, base);
  }

  std::vector<TablePtr> tables_;
  std::map<std::u16string, std::size_t> widths_;
};

// The tables that get hidden columns for it; none: it is not prepared. What it needs must be there
// already: earlier changes of the plan may make it.
std::vector<std::u16string> HoldersFor(Transaction& transaction, Change const& change) {
  Place const place = std::visit(PlaceOf{}, change);
  if (place.table.empty() || transaction.Find(place.table) == nullptr) return {};
  try {
    return std::visit(PreparationOf{transaction}, change).holders;
  } catch (Error const&) {
    return {};  // ApplyPlan decides
  }
}

columns::Job JobFor(Context const& context, Change const& change,
                    ColumnChangeOptions const& options) {
  return {context, options, [&change](Transaction& transaction) {
            std::visit(RequireValues{transaction}, change);
            return std::visit(PreparationOf{transaction}, change);
          }};
}

}  // namespace

std::vector<Change> ChangesToPrepare(Transaction& transaction, Plan const& plan,
                                     std::uint64_t objects) {
  std::vector<Change> changes;
  if (!IsInPlace(plan)) return changes;
  std::set<std::string> names;  // a column may change twice; its first change is known now
  std::optional<ObjectCounts> counts;
  std::optional<Widths> widths;
  for (Change const& change : plan) {
    Place const place = std::visit(PlaceOf{}, change);
    if (!place.column.empty() && !names.insert(place.column).second) continue;
    std::vector<std::u16string> const holders = HoldersFor(transaction, change);
    if (holders.empty()) continue;
    if (!counts.has_value()) counts.emplace(transaction);
    if (counts->Subtree(*transaction.table(place.table)) < objects) continue;
    if (!widths.has_value()) widths.emplace(transaction);
    if (widths->Add(holders)) changes.push_back(change);
  }
  return changes;
}

bool PrepareChange(Context const& context, Change const& change,
                   ColumnChangeOptions const& options) {
  return JobFor(context, change, options).Fill() == columns::Filled::kYes;
}

void AbandonChange(Context const& context, Change const& change) {
  Place const place = std::visit(PlaceOf{}, change);
  if (place.table.empty()) return;
  ColumnChangeOptions const options;
  jobs::Retry(context, options.attempts, [&](Transaction& transaction) {
    AbandonColumnChange(transaction, place.table, place.column);
  });
}

}  // namespace sagleme
